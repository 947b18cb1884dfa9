#pragma once

#include "repeatpicture.h"

#include <cstdint>
#include <functional>
#include <string>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// What config.ini asks of the encoder; defaults where there is no configuration.
struct EncoderConfig {
    std::string codec = "libopenh264";
    int fps = 25;
    int bitrate = 1000000;
};

// The picture's encoder: H.264 at one size, opened with the configured codec and frame rate,
// its bitrate kept at a target that may change between frames, a key frame every second's worth
// of ticks, and an unchanged picture shown again by a RepeatPicture where the stream allows.
// Every packet it makes goes to the sink it was built with, in order, time stamps in its
// context's time base. Owns the codec context, the picture it encodes from and its packets.
class VideoEncoder {
public:
    using Sink = std::function<bool(AVPacket*)>;

    explicit VideoEncoder(Sink sink);
    ~VideoEncoder();
    VideoEncoder(const VideoEncoder&) = delete;
    VideoEncoder& operator=(const VideoEncoder&) = delete;

    static EncoderConfig configured();

    // How far the quantiser may move from one picture to the next, and along the rows of one
    // (libx264's qpstep, 4 by default). Under a buffer of one frame the step of 4 held the
    // quantiser high for frames after every key frame and made libx264 encode rows again where a
    // picture outgrew its plan. With 30, the same 250 frames of the moving scene at 1920x1080
    // and 5 Mbit/s under the stream's VBV (FFmpeg's libx264, from a raw file) took 7.11 s of CPU
    // instead of 7.84, used 2 % more of the target, and rose in mean PSNR from 40.4 to 48.9 dB;
    // a page of text turned every 4 s took 5.78 s instead of 6.15 at the same quality. A step
    // of 16 gave most of it (7.17 s).
    static constexpr int maxQuantiserStep = 30;

    // False, with the reason in the log, where no encoder opens. globalHeader: the container
    // wants the parameter sets apart from the packets.
    // The bitrate is linkTargetKbps where it can follow the link, else ceilingKbps.
    bool open(int width, int height, bool globalHeader, int32_t linkTargetKbps, int32_t ceilingKbps,
              int latencyMs);
    // Only libx264, through FFmpeg's wrapper, takes a new bitrate while it runs.
    bool followsLink() const { return adjustable; }
    // The bitrate to work to, with a buffer sized from the receiver's latency and the room the
    // link has beyond the sender's target (0: none); read by the encoder as the next picture is
    // sent.
    void setTarget(int32_t kbps, int latencyMs, int32_t roomKbps);
    int32_t targetKbps() const { return target; }
    int32_t roomKbps() const { return room; }
    AVCodecContext* context() const { return codec; }
    // The picture to convert into; writable until it is sent.
    AVFrame* picture() { return frame; }
    bool makePictureWritable();
    // Counts one tick; true when its picture must be a key frame: one second's worth of ticks
    // after the last, or `resumed`, when the stream starts again after an outage.
    bool keyFrameDue(bool resumed);
    bool encode(int64_t pts, bool keyFrame);
    // The picture last encoded, again: a repeat where the stream allows one, else encoded.
    bool encodeAgain(int64_t pts, bool keyFrame);
    // True when the next tick may be a repeat: the stream allows one and no key frame is due.
    bool repeatsNext() const;
    // Hands over what the encoder still holds.
    bool flush();
    void release();

private:
    bool drain();
    // One second's worth of ticks since the last key frame, counting the next.
    bool keyFrameNext() const;

    Sink sink;
    AVCodecContext* codec = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    AVPacket* repeatPacket = nullptr; // points into `repeat`'s bytes, owns no buffer
    RepeatPicture repeat;
    bool adjustable = false;
    int32_t target = 0;
    int32_t room = 0;
    int ticksSinceKeyFrame = 0;
};
