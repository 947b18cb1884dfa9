#pragma once

#include "platform/audiocapture.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

// The stream's sound: one source recorded and encoded as AAC-LC on a thread of its own, so that
// no picture ever waits for it; the streaming thread takes the encoded packets as they come. A
// source that is missing, fails or goes away costs one log line, and the track tries again,
// backing off, until it is back.
class AudioTrack {
public:
    static constexpr int sampleRate = platform::AudioCapture::sampleRate;

    AudioTrack();
    ~AudioTrack();
    AudioTrack(const AudioTrack&) = delete;
    AudioTrack& operator=(const AudioTrack&) = delete;

    // The muxer's side, on the streaming thread, for an output whose header is not yet written:
    // with a source, starts the track and adds its stream (a track that cannot start leaves the
    // stream without sound, with its log line). False only when the stream cannot be added.
    bool addStream(AVFormatContext* output, const std::string& source, int bitrateKbps);
    // Writes the packets encoded so far, as the picture of frameMs (milliseconds from the
    // stream's start) is written: they never wait for each other. False when the muxer fails.
    bool writePackets(AVFormatContext* output, int64_t frameMs);

    // Ends the recording and drops the packets not taken; harmless when nothing runs.
    void stop();

private:
    // Opens the encoder and starts recording `source` in the background (see
    // platform::AudioCapture::open). False, with a log line, when the encoder cannot be had.
    bool start(const std::string& source, int bitrateKbps);
    // Moves the oldest waiting packet into `packet`; its time stamps count samples of
    // std::chrono::steady_clock, the clock the picture's ticks fall due by.
    bool takePacket(AVPacket* packet);
    bool openEncoder(int bitrateKbps);
    void run();
    void encodeBlock(const platform::SoundBlock& block, int channels);
    void encodeFrame();
    void release();

    std::string source;
    std::unique_ptr<platform::AudioCapture> capture;
    std::thread thread;
    AVCodecContext* codec = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* encoded = nullptr;
    // Samples already in `frame`, and the time stamp the next recorded sample gets.
    int filled = 0;
    int64_t nextPts = 0;
    bool timed = false;

    // Guards stopping and the queue between the recording thread and the others.
    std::mutex mutex;
    std::condition_variable wake;
    bool stopping = false;
    // Encoded packets waiting, oldest at `head`; when full the oldest goes.
    std::vector<AVPacket*> queue;
    std::size_t head = 0;
    std::size_t waiting = 0;

    // The streaming thread's: the stream in the muxer, and where its time 0 lies on the steady
    // clock, in samples.
    AVStream* stream = nullptr;
    AVPacket* outgoing = nullptr;
    int64_t epoch = 0;
    int64_t lastDts = 0;
};
