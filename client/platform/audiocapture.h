#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace platform {

// Recorded sound as the capture hands it over: interleaved 32-bit float samples at
// AudioCapture::sampleRate. The memory belongs to the capture and stays valid until its next
// read or close.
struct SoundBlock {
    const float* samples = nullptr;
    int frames = 0;
    // When the first sample was recorded, in microseconds of std::chrono::steady_clock: the
    // clock the stream's ticks fall due by.
    int64_t recordedUs = 0;
};

// Records one source of the machine's sound service. One thread at a time, except
// interrupt(), which any thread may call.
class AudioCapture {
public:
    static constexpr int sampleRate = 48000;

    AudioCapture();
    ~AudioCapture();
    AudioCapture(const AudioCapture&) = delete;
    AudioCapture& operator=(const AudioCapture&) = delete;

    // source: "default" (the default input), "output" (what the machine plays) or a source's
    // own name. False, with the reason in lastError(), when there is no sound service or no
    // such source. The capture never follows another source by itself: when this one goes,
    // read() says so.
    bool open(const std::string& source);
    // Waits for the next block, at most about two seconds. False when the source failed or
    // went away (the reason in lastError()), or after interrupt() (lastError() empty).
    bool read(SoundBlock& block);
    // Makes a wait in open() or read(), under way or to come, end at once. It stays in force.
    void interrupt();
    // Harmless when nothing is open.
    void close();

    // Of the open source: 1 or 2 (a source with more is mixed down to 2), and its own name.
    int channels() const { return channelCount; }
    const std::string& sourceName() const { return name; }
    const std::string& lastError() const { return error; }

private:
    struct Session;
    std::unique_ptr<Session> session;
    std::atomic<bool> interrupted{false};
    int channelCount = 0;
    std::string name;
    std::string error;
};

} // namespace platform
