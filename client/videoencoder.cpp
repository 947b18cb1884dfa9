#include "videoencoder.h"

#include "averror.h"
#include "encodercandidate.h"
#include "globalstate.h"
#include "logfile.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
}

namespace {

constexpr int defaultFps = 25;
// Past this a live picture gains nothing, and every frame's share of the bitrate and the key
// frames' spacing (one a second's worth of frames) go wrong.
constexpr int maxFps = 120;
// The encoder's buffer (VBV) holds this share of the receiver's latency at the target rate:
// the largest burst a picture change may put on the link then drains at the target rate in
// that share, and what the link loses of it can still be sent again in the rest. A packet
// lost at the tail of a burst is resent after the burst has drained, a round trip and the
// rest of the queue later; with the latency four round trips (160 ms at 20 ms each way) a
// quarter leaves a round trip to spare for a resend that is lost too. A third, with the
// target a little above a 4 Mbit/s link, queued page flips for up to 66 ms, and the
// receiver gave up one packet in every few thousand exactly at its play time (bench_link,
// README); a whole latency's worth broke every flip.
constexpr double vbvLatencyShare = 1.0 / 4;
// Never less than one frame's share, nor more than a second.
constexpr int maxVbvMs = 1000;
// Where the link has room to burst into beyond the target (RateController::burstKbps), the
// buffer is what that room drains within the latency, up to fifteen frames' worth. libx264 fills
// a buffer of up to 1.1 frames from every frame and spends about 0.84 of its target on a
// picture that moves everywhere; under 1.1 to 1.5 frames it spends half, under 3 frames 0.80,
// 5 frames 0.90, 10 frames 0.95 and 15 frames 0.97 (FFmpeg's libx264 on 250 frames of the moving
// scene, 1920x1080 at 5 Mbit/s, README). Room for less than five frames is not used.
constexpr int minRoomyVbvFrames = 5;
constexpr int maxRoomyVbvFrames = 15;

void setEncoderOptions(AVCodecContext* context, const EncoderCandidate& candidate) {
    if (candidate.name)
        return;
    // Encoders without these options refuse them, which is fine: they are only a latency hint.
    av_opt_set(context->priv_data, "preset", "veryfast", 0);
    av_opt_set(context->priv_data, "tune", "zerolatency", 0);
}

} // namespace

VideoEncoder::VideoEncoder(Sink sink) : sink(std::move(sink)) {}

VideoEncoder::~VideoEncoder() {
    release();
}

EncoderConfig VideoEncoder::configured() {
    EncoderConfig config;
    if (globalState && globalState->config()) {
        const StreamConfig* stream = globalState->config();
        config.codec = stream->codec.toLocal8Bit().toStdString();
        config.fps = stream->fps;
        config.bitrate = stream->bitrate;
    }
    return config;
}

bool VideoEncoder::open(int width, int height, bool globalHeader, int32_t linkTargetKbps,
                        int32_t ceilingKbps, int latencyMs) {
    const EncoderConfig config = configured();
    EncoderCandidate candidate{};
    const AVCodec* encoder = chooseEncoder(config.codec, candidate);
    if (!encoder)
        return false;
    codec = avcodec_alloc_context3(encoder);
    if (!codec) {
        logLine("OUTWriter failed to allocate codec context");
        return false;
    }
    const bool fpsUsable = config.fps >= 1 && config.fps <= maxFps;
    if (!fpsUsable)
        logLine("OUTWriter fps ", config.fps, " is not used: outside 1 to ", maxFps,
                ", encoding at ", defaultFps);
    const int fps = fpsUsable ? config.fps : defaultFps;
    codec->codec_id = AV_CODEC_ID_H264;
    codec->codec_type = AVMEDIA_TYPE_VIDEO;
    codec->width = width;
    codec->height = height;
    codec->pix_fmt = candidate.pixelFormat;
    codec->time_base = AVRational{1, fps};
    codec->framerate = AVRational{fps, 1};
    // FFmpeg's libx264 wrapper reconfigures the running encoder when the codec context's
    // bitrate, maximum rate or buffer size change; the other encoders keep what they open with.
    adjustable = std::string(encoder->name ? encoder->name : "") == "libx264";
    setTarget(adjustable ? linkTargetKbps : ceilingKbps, latencyMs, 0);
    codec->gop_size = fps;
    codec->max_b_frames = 0;
    codec->max_qdiff = maxQuantiserStep;
    codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
    // What the scaler's matrix and range are: players that honour the tags show true colours.
    codec->color_primaries = AVCOL_PRI_BT709;
    codec->color_trc = AVCOL_TRC_BT709;
    codec->colorspace = AVCOL_SPC_BT709;
    codec->color_range = AVCOL_RANGE_MPEG;
    if (globalHeader)
        codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    setEncoderOptions(codec, candidate);

    const int opened = avcodec_open2(codec, encoder, nullptr);
    if (opened < 0) {
        logLine("OUTWriter failed to open encoder: ", averrorText(opened));
        return false;
    }
    frame = av_frame_alloc();
    packet = av_packet_alloc();
    repeatPacket = av_packet_alloc();
    if (!frame || !packet || !repeatPacket) {
        logLine(frame ? "OUTWriter failed to allocate packet"
                      : "OUTWriter failed to allocate frame");
        return false;
    }
    frame->format = codec->pix_fmt;
    frame->width = width;
    frame->height = height;
    frame->color_primaries = codec->color_primaries;
    frame->color_trc = codec->color_trc;
    frame->colorspace = codec->colorspace;
    frame->color_range = codec->color_range;
    const int buffered = av_frame_get_buffer(frame, 32);
    if (buffered < 0) {
        logLine("OUTWriter failed to allocate frame buffer: ", averrorText(buffered));
        return false;
    }
    return true;
}

void VideoEncoder::setTarget(int32_t kbps, int latencyMs, int32_t roomKbps) {
    target = kbps;
    room = roomKbps;
    const int fps = codec->framerate.num > 0 ? codec->framerate.num : defaultFps;
    const int frameMs = 1000 / fps;
    int bufferMs = static_cast<int>(latencyMs * vbvLatencyShare);
    if (roomKbps > 0) {
        const int64_t drainedMs = static_cast<int64_t>(latencyMs) * roomKbps / std::max(1, kbps);
        if (drainedMs >= minRoomyVbvFrames * frameMs)
            bufferMs = static_cast<int>(std::min<int64_t>(drainedMs, maxRoomyVbvFrames * frameMs));
    }
    bufferMs = std::clamp(bufferMs, frameMs, maxVbvMs);
    const int64_t bitsPerSecond = static_cast<int64_t>(kbps) * 1000;
    codec->bit_rate = bitsPerSecond;
    codec->rc_max_rate = bitsPerSecond;
    codec->rc_buffer_size = static_cast<int>(bitsPerSecond * bufferMs / 1000);
}

bool VideoEncoder::makePictureWritable() {
    // Only a copy when the encoder still holds the last picture, which the scaler must then
    // not overwrite; the encoders here let go of it once it is sent.
    const int writable = av_frame_make_writable(frame);
    if (writable < 0)
        logLine("OUTWriter failed to make frame writable: ", averrorText(writable));
    return writable >= 0;
}

bool VideoEncoder::keyFrameDue(bool resumed) {
    // The encoder counts only the pictures it makes, and repeats are not among them, so the key
    // frame period is kept here, in ticks.
    const bool due = resumed || keyFrameNext();
    ++ticksSinceKeyFrame;
    return due;
}

bool VideoEncoder::encode(int64_t pts, bool keyFrame) {
    // The encoder takes a reference of its own and copies the picture in; the frame stays ours.
    frame->pict_type = keyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    frame->pts = pts;
    const int sent = avcodec_send_frame(codec, frame);
    if (sent < 0) {
        logLine("OUTWriter failed to send frame: ", averrorText(sent));
        return false;
    }
    return drain();
}

bool VideoEncoder::encodeAgain(int64_t pts, bool keyFrame) {
    if (keyFrame || !repeat.ready())
        return encode(pts, keyFrame);
    const std::vector<uint8_t>& bytes = repeat.make();
    // The muxer only reads a packet it is handed without a buffer of its own.
    repeatPacket->data = const_cast<uint8_t*>(bytes.data());
    repeatPacket->size = static_cast<int>(bytes.size());
    repeatPacket->pts = pts;
    repeatPacket->dts = pts;
    return sink(repeatPacket);
}

bool VideoEncoder::repeatsNext() const {
    return repeat.ready() && !keyFrameNext();
}

bool VideoEncoder::keyFrameNext() const {
    return ticksSinceKeyFrame + 1 >= codec->gop_size;
}

bool VideoEncoder::flush() {
    const int flushed = avcodec_send_frame(codec, nullptr);
    if (flushed < 0 && flushed != AVERROR_EOF) {
        logLine("OUTWriter failed to flush encoder: ", averrorText(flushed));
        return false;
    }
    return drain();
}

bool VideoEncoder::drain() {
    for (;;) {
        const int received = avcodec_receive_packet(codec, packet);
        if (received == AVERROR(EAGAIN) || received == AVERROR_EOF)
            return true;
        if (received < 0) {
            logLine("OUTWriter failed to receive packet: ", averrorText(received));
            return false;
        }
        repeat.observe(packet->data, packet->size);
        if (packet->flags & AV_PKT_FLAG_KEY)
            ticksSinceKeyFrame = 0;
        const bool taken = sink(packet);
        av_packet_unref(packet);
        if (!taken)
            return false;
    }
}

void VideoEncoder::release() {
    av_packet_free(&packet);
    av_packet_free(&repeatPacket);
    av_frame_free(&frame);
    avcodec_free_context(&codec);
    repeat.reset();
    adjustable = false;
    target = 0;
    ticksSinceKeyFrame = 0;
}
