#pragma once

#include "audiotrack.h"
#include "picturescaler.h"
#include "srtconnection.h"
#include "streamparams.h"
#include "videoencoder.h"

extern "C" {
#include <libavformat/version.h>
#include <libavutil/pixfmt.h>
}

#include <atomic>
#include <cstdint>
#include <string>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct AVStream;

// The sink of the capture pipeline: packed RGB24 frames or grabbed pictures in, H.264 in
// MPEG-TS out over SRT, its colours tagged and converted as BT.709 limited range.
// All work is done synchronously on the caller's thread; the writer takes no lock, so its
// owner must not let two threads use it at once.
class OUTWriter {
public:
    OUTWriter();
    ~OUTWriter();
    OUTWriter(const OUTWriter&) = delete;
    OUTWriter& operator=(const OUTWriter&) = delete;

    // Connects to the server; encoder and muxer wait for the first frame or picture. A frame
    // gives them its own size, a picture the stream's 1920x1080. Setting `abandon` from another
    // thread cuts the connect's wait short, as a failure.
    bool start(const StreamParams& newSettings, const std::atomic<bool>* abandon = nullptr);
    // data: rows of packed R, G, B bytes, bytesPerLine apart; sizeInBytes is not needed.
    bool writeFrame(const uint8_t* data, int64_t sizeInBytes, int width, int height,
                    int bytesPerLine);
    // The live path: one plane of packed pixels in `format`, of any size, stretched to the
    // stream's 1920x1080 and converted in one pass; the encoder is opened at that size on the
    // first picture and a picture of another size changes only the scaler. dueMs is when the
    // picture's tick fell due, in milliseconds from the stream's start: the time stamp.
    bool writePicture(const uint8_t* data, AVPixelFormat format, int width, int height, int stride,
                      int64_t dueMs);
    // True while the encoder's picture is the one the last writePicture() converted.
    bool holdsPicture() const { return pictureHeld; }
    // The live path when nothing under the frame changed since that picture: it is shown again
    // with dueMs as its time stamp, by a picture of skips after each encoded one (see
    // RepeatPicture) and otherwise by the encoder, unconverted. Only while holdsPicture().
    bool repeatPicture(int64_t dueMs);
    // Flushes and closes whatever runs; harmless when nothing does.
    void stop();
    const std::string& lastError() const { return error; }
    // The link as it is now; any thread may ask.
    LinkSnapshot linkSnapshot() const { return connection.linkStats().snapshot(); }
    // What the sound takes of the link, in kbit/s: the configured audio bitrate when config.ini
    // asks for sound (also while its source is away, since it comes back), else 0. The picture's
    // share is what is left.
    int32_t audioBitrateKbps() const;

private:
    bool openStream(int newWidth, int newHeight);
    bool initEncoder(int newWidth, int newHeight);
    // The bitrate follows the link: a ceiling from the settings, a target from the link's
    // statistics, reaching the running encoder between frames.
    int32_t ceilingKbps() const;
    int latencyMs() const;
    void followLinkTarget();
    bool initOutput();
    bool prepareScaler(AVPixelFormat format, int sourceWidth, int sourceHeight, int filter);
    bool encodeFrame(const uint8_t* data, int stride, int64_t pts);
    // again: the picture the encoder was last given, shown once more.
    bool sendFrame(int64_t pts, bool again);
    bool fillSkippedTick(int64_t pts);
    // The picture the encoder was last given, at pts, after the sound due up to dueMs.
    bool showAgain(int64_t pts, int64_t dueMs);
    bool writeVideoPacket(AVPacket* videoPacket);
    void releaseAll();
#if LIBAVFORMAT_VERSION_MAJOR >= 61
    static int writePacket(void* opaque, const uint8_t* buffer, int size);
#else
    static int writePacket(void* opaque, uint8_t* buffer, int size);
#endif

    StreamParams settings;
    SrtConnection connection;
    bool active = false;
    bool initialised = false;
    std::string error;
    int32_t width = 0;
    int32_t height = 0;
    int64_t frameIndex = 0;
    int64_t lastPts = -1;
    bool pictureHeld = false;
    AVFormatContext* output = nullptr;
    AVIOContext* io = nullptr;
    uint8_t* ioBuffer = nullptr;
    AVStream* stream = nullptr;
    VideoEncoder encoder;
    PictureScaler scaler;
    // The sound config.ini asks for, as a second stream of the same output.
    AudioTrack audio;
};
