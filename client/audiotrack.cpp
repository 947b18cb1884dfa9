#include "audiotrack.h"

#include "logfile.h"
#include "platform/crashstack.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace {

// A second of sound: the streaming thread takes packets with every picture, so the queue
// only fills while pictures stop coming, and then the oldest sound is worth least.
constexpr std::size_t queueLength = 48;
constexpr int channelsOut = 2;
// Further than this from the steady clock, the sound's own count of samples is put right:
// recorded samples are skipped, or a gap is left.
constexpr int64_t toleranceSamples = AudioTrack::sampleRate / 100;
constexpr std::chrono::milliseconds firstBackOff{500};
constexpr std::chrono::milliseconds lastBackOff{8000};

int64_t steadySamples() {
    return std::chrono::duration_cast<std::chrono::duration<int64_t, std::ratio<1, 48000>>>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

AudioTrack::AudioTrack() = default;

AudioTrack::~AudioTrack() {
    stop();
}

bool AudioTrack::start(const std::string& newSource, int bitrateKbps) {
    stop();
    if (!openEncoder(bitrateKbps)) {
        release();
        return false;
    }
    source = newSource;
    capture = std::make_unique<platform::AudioCapture>();
    stopping = false;
    filled = 0;
    timed = false;
    thread = std::thread(&AudioTrack::run, this);
    return true;
}

bool AudioTrack::openEncoder(int bitrateKbps) {
    queue.assign(queueLength, nullptr);
    bool allocated = true;
    for (AVPacket*& slot : queue)
        allocated = (slot = av_packet_alloc()) && allocated;
    const AVCodec* aac = avcodec_find_encoder_by_name("aac");
    codec = aac ? avcodec_alloc_context3(aac) : nullptr;
    frame = av_frame_alloc();
    encoded = av_packet_alloc();
    if (!codec || !frame || !encoded || !allocated) {
        logLine("AudioTrack cannot have the AAC encoder");
        return false;
    }
    codec->sample_fmt = AV_SAMPLE_FMT_FLTP;
    codec->sample_rate = sampleRate;
    av_channel_layout_default(&codec->ch_layout, channelsOut);
    codec->bit_rate = static_cast<int64_t>(bitrateKbps > 0 ? bitrateKbps : 128) * 1000;
    codec->time_base = AVRational{1, sampleRate};
    // The muxer writes each packet's header from the encoder's configuration.
    codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const int opened = avcodec_open2(codec, aac, nullptr);
    if (opened < 0) {
        logLine("AudioTrack cannot open the AAC encoder: ", opened);
        return false;
    }
    frame->format = codec->sample_fmt;
    frame->sample_rate = sampleRate;
    frame->nb_samples = codec->frame_size;
    av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout);
    if (av_frame_get_buffer(frame, 0) < 0) {
        logLine("AudioTrack cannot allocate a sound frame");
        return false;
    }
    return true;
}

void AudioTrack::stop() {
    if (thread.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        wake.notify_all();
        capture->interrupt();
        thread.join();
    }
    release();
}

void AudioTrack::release() {
    capture.reset();
    stream = nullptr;
    av_packet_free(&outgoing);
    for (AVPacket*& slot : queue)
        av_packet_free(&slot);
    queue.clear();
    head = waiting = 0;
    av_packet_free(&encoded);
    av_frame_free(&frame);
    avcodec_free_context(&codec);
}

bool AudioTrack::takePacket(AVPacket* packet) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (waiting == 0)
        return false;
    av_packet_move_ref(packet, queue[head]);
    head = (head + 1) % queue.size();
    --waiting;
    return true;
}

void AudioTrack::run() {
    platform::prepareThreadForCrashes();
    auto backOff = firstBackOff;
    bool told = false;
    for (;;) {
        if (capture->open(source)) {
            logLine("AudioTrack recording from ", capture->sourceName());
            told = false;
            backOff = firstBackOff;
            timed = false;
            platform::SoundBlock block;
            while (capture->read(block))
                encodeBlock(block, capture->channels());
        }
        // A failure is told once; the attempts after it stay quiet until one succeeds.
        const std::string failure = capture->lastError();
        capture->close();
        if (!told && !failure.empty())
            logLine("AudioTrack ", failure);
        told = told || !failure.empty();
        std::unique_lock<std::mutex> lock(mutex);
        if (wake.wait_for(lock, backOff, [this] { return stopping; }))
            return;
        backOff = std::min(backOff * 2, lastBackOff);
    }
}

void AudioTrack::encodeBlock(const platform::SoundBlock& block, int channels) {
    const int64_t clockPts = block.recordedUs * sampleRate / 1000000;
    int skip = 0;
    if (!timed || clockPts > nextPts + toleranceSamples) {
        // The first block, or sound missing: the track starts again where the clock says.
        filled = 0;
        nextPts = clockPts;
        timed = true;
    } else if (clockPts < nextPts - toleranceSamples) {
        // The sound runs ahead of the clock: what the stream already has is not sent twice.
        skip = static_cast<int>(std::min<int64_t>(nextPts - clockPts, block.frames));
    }
    for (int at = skip; at < block.frames;) {
        if (filled == 0 && av_frame_make_writable(frame) < 0)
            return;
        const int count = std::min(codec->frame_size - filled, block.frames - at);
        for (int channel = 0; channel < channelsOut; ++channel) {
            // A mono source sounds from both sides.
            const float* from = block.samples + at * channels + std::min(channel, channels - 1);
            float* to = reinterpret_cast<float*>(frame->data[channel]) + filled;
            for (int i = 0; i < count; ++i)
                to[i] = from[i * channels];
        }
        filled += count;
        at += count;
        nextPts += count;
        if (filled == codec->frame_size)
            encodeFrame();
    }
}

void AudioTrack::encodeFrame() {
    frame->pts = nextPts - filled;
    filled = 0;
    if (avcodec_send_frame(codec, frame) < 0)
        return;
    while (avcodec_receive_packet(codec, encoded) == 0) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (waiting == queue.size()) {
            av_packet_unref(queue[head]);
            head = (head + 1) % queue.size();
            --waiting;
        }
        av_packet_move_ref(queue[(head + waiting) % queue.size()], encoded);
        ++waiting;
    }
}

bool AudioTrack::addStream(AVFormatContext* output, const std::string& newSource, int bitrateKbps) {
    stop();
    if (newSource.empty() || !start(newSource, bitrateKbps))
        return true;
    outgoing = av_packet_alloc();
    stream = avformat_new_stream(output, nullptr);
    if (!outgoing || !stream || avcodec_parameters_from_context(stream->codecpar, codec) < 0) {
        logLine("AudioTrack cannot add the sound to the stream");
        stop();
        return false;
    }
    stream->time_base = codec->time_base;
    // Each sound packet leaves in a PES of its own, at once, rather than gathered into PES of
    // several packets, which would make a viewer wait that much longer for the sound.
    av_opt_set_int(output->priv_data, "pes_payload_size", 0, 0);
    epoch = INT64_MAX;
    lastDts = -1;
    return true;
}

bool AudioTrack::writePackets(AVFormatContext* output, int64_t frameMs) {
    if (!stream)
        return true;
    // The picture's time 0 is when the ticks began; the picture is written a little after its
    // tick fell due, so the earliest reading comes closest.
    epoch = std::min(epoch, steadySamples() - frameMs * (sampleRate / 1000));
    while (takePacket(outgoing)) {
        outgoing->pts -= epoch;
        outgoing->dts -= epoch;
        // Sound from before the stream's start, or from a time it has already passed.
        if (outgoing->dts <= lastDts) {
            av_packet_unref(outgoing);
            continue;
        }
        lastDts = outgoing->dts;
        av_packet_rescale_ts(outgoing, codec->time_base, stream->time_base);
        outgoing->stream_index = stream->index;
        const int written = av_write_frame(output, outgoing);
        av_packet_unref(outgoing);
        if (written < 0) {
            logLine("AudioTrack failed to write a sound packet: ", written);
            return false;
        }
    }
    return true;
}
