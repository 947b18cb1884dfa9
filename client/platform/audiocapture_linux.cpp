#include "audiocapture.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <chrono>

// PulseAudio's own client library, on a main loop that the recording thread turns itself:
// PipeWire desktops serve the same protocol, the loop's wake-up lets a stop end any wait, and
// the stream is pinned to its source so that a source that goes away is reported instead of
// being silently replaced by another.
namespace platform {

namespace {

// Small blocks keep the sound's delay down; the server hands them over this often.
constexpr int blockMs = 10;
constexpr int64_t waitLimitUs = 2000000;

int64_t steadyUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Turns the loop until done() holds; false on interrupt, on the deadline or when the loop fails.
template <class Done>
bool runUntil(pa_mainloop* loop, const std::atomic<bool>& interrupted, int64_t deadline,
              Done done) {
    while (!done()) {
        const int64_t left = deadline - steadyUs();
        if (interrupted || left <= 0)
            return false;
        if (pa_mainloop_prepare(loop, static_cast<int>(left)) < 0 || pa_mainloop_poll(loop) < 0 ||
            pa_mainloop_dispatch(loop) < 0)
            return false;
    }
    return true;
}

} // namespace

struct AudioCapture::Session {
    // Lives as long as the capture, so that interrupt() always has a loop to wake.
    pa_mainloop* loop = pa_mainloop_new();
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    // A block handed out by read() and not yet given back to the server.
    bool peeked = false;
    bool looked = false;
    std::string foundName;
    int foundChannels = 0;

    ~Session() { pa_mainloop_free(loop); }

    bool contextGood() const { return PA_CONTEXT_IS_GOOD(pa_context_get_state(context)); }
    bool streamGood() const {
        return contextGood() && PA_STREAM_IS_GOOD(pa_stream_get_state(stream));
    }
    std::string reason() const { return pa_strerror(pa_context_errno(context)); }

    static void onSource(pa_context*, const pa_source_info* info, int last, void* self) {
        auto* session = static_cast<Session*>(self);
        if (info) {
            session->foundName = info->name;
            session->foundChannels = info->sample_spec.channels;
        }
        session->looked = session->looked || last != 0;
    }
};

AudioCapture::AudioCapture() : session(std::make_unique<Session>()) {}

AudioCapture::~AudioCapture() {
    close();
}

bool AudioCapture::open(const std::string& source) {
    close();
    error.clear();
    Session& s = *session;
    const int64_t deadline = steadyUs() + waitLimitUs;
    // A sound server is the desktop's to start, never a side effect of streaming.
    s.context = pa_context_new(pa_mainloop_get_api(s.loop), "Brindlewave");
    if (!s.context || pa_context_connect(s.context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
        !runUntil(s.loop, interrupted, deadline,
                  [&s] {
                      return pa_context_get_state(s.context) == PA_CONTEXT_READY ||
                             !s.contextGood();
                  }) ||
        !s.contextGood()) {
        if (!interrupted)
            error = "No sound server: " + (s.context ? s.reason() : std::string("out of memory"));
        close();
        return false;
    }

    const std::string wanted = source == "default"  ? "@DEFAULT_SOURCE@"
                               : source == "output" ? "@DEFAULT_MONITOR@"
                                                    : source;
    s.looked = false;
    s.foundName.clear();
    pa_operation* lookup =
        pa_context_get_source_info_by_name(s.context, wanted.c_str(), &Session::onSource, &s);
    const bool answered =
        lookup && runUntil(s.loop, interrupted, deadline, [&s] { return s.looked; });
    if (lookup)
        pa_operation_unref(lookup);
    if (!answered || s.foundName.empty()) {
        if (!interrupted)
            error = "No sound source " + source + ": " + s.reason();
        close();
        return false;
    }

    name = s.foundName;
    channelCount = std::clamp(s.foundChannels, 1, 2);
    const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, sampleRate, static_cast<uint8_t>(channelCount)};
    const uint32_t blockBytes = static_cast<uint32_t>(pa_usec_to_bytes(blockMs * 1000, &spec));
    const pa_buffer_attr attributes{static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
                                    static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
                                    blockBytes};
    const auto flags =
        static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                                       PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_DONT_MOVE);
    s.stream = pa_stream_new(s.context, "Brindlewave", &spec, nullptr);
    if (!s.stream || pa_stream_connect_record(s.stream, name.c_str(), &attributes, flags) < 0 ||
        !runUntil(
            s.loop, interrupted, deadline,
            [&s] { return pa_stream_get_state(s.stream) == PA_STREAM_READY || !s.streamGood(); }) ||
        !s.streamGood()) {
        if (!interrupted)
            error = "Cannot record " + name + ": " + s.reason();
        close();
        return false;
    }
    return true;
}

bool AudioCapture::read(SoundBlock& block) {
    Session& s = *session;
    if (!s.stream) {
        error = "No sound source is open";
        return false;
    }
    if (s.peeked)
        pa_stream_drop(s.stream);
    s.peeked = false;
    const void* data = nullptr;
    std::size_t bytes = 0;
    // A hole (no data, a length) is a stretch the source did not record: it is skipped.
    while (!data) {
        const int64_t deadline = steadyUs() + waitLimitUs;
        const bool ready = runUntil(s.loop, interrupted, deadline, [&s] {
            const std::size_t readable = pa_stream_readable_size(s.stream);
            return !s.streamGood() || (readable > 0 && readable != static_cast<std::size_t>(-1));
        });
        if (interrupted)
            return false;
        if (!ready || !s.streamGood() || pa_stream_peek(s.stream, &data, &bytes) < 0) {
            error = ready ? name + " went away: " + s.reason() : "No sound from " + name;
            return false;
        }
        if (!data && bytes > 0)
            pa_stream_drop(s.stream);
    }
    s.peeked = true;
    const int frames = static_cast<int>(bytes / (sizeof(float) * channelCount));
    // The latency is the age of the oldest sample not yet read, which opens this block; without
    // a timing report yet, the block is taken as just recorded.
    pa_usec_t latency = 0;
    int negative = 0;
    int64_t age = int64_t(frames) * 1000000 / sampleRate;
    if (pa_stream_get_latency(s.stream, &latency, &negative) == 0)
        age = negative ? -static_cast<int64_t>(latency) : static_cast<int64_t>(latency);
    block.samples = static_cast<const float*>(data);
    block.frames = frames;
    block.recordedUs = steadyUs() - age;
    return true;
}

void AudioCapture::interrupt() {
    interrupted = true;
    pa_mainloop_wakeup(session->loop);
}

void AudioCapture::close() {
    Session& s = *session;
    if (s.stream) {
        if (s.peeked)
            pa_stream_drop(s.stream);
        pa_stream_disconnect(s.stream);
        pa_stream_unref(s.stream);
    }
    if (s.context) {
        pa_context_disconnect(s.context);
        pa_context_unref(s.context);
    }
    s.stream = nullptr;
    s.context = nullptr;
    s.peeked = false;
    channelCount = 0;
}

} // namespace platform
