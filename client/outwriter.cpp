#include "outwriter.h"

#include "globalstate.h"
#include "logfile.h"
#include "srtaddress.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace {

constexpr int ioBufferSize = 32768;
constexpr const char* defaultCodec = "libopenh264";
constexpr int defaultFps = 25;
// Past this a live picture gains nothing, and every frame's share of the bitrate and the key
// frames' spacing (one a second's worth of frames) go wrong.
constexpr int maxFps = 120;
constexpr int defaultBitrate = 1000000;
constexpr int streamWidth = 1920;
constexpr int streamHeight = 1080;
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

std::string errorText(int code) {
    char text[64] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

struct EncoderConfig {
    std::string codec = defaultCodec;
    int fps = defaultFps;
    int bitrate = defaultBitrate;
};

EncoderConfig configuredEncoder() {
    EncoderConfig config;
    if (globalState && globalState->config()) {
        const StreamConfig* stream = globalState->config();
        config.codec = stream->codec.toLocal8Bit().toStdString();
        config.fps = stream->fps;
        config.bitrate = stream->bitrate;
    }
    return config;
}

// config.ini's `audio`: empty when the stream carries no sound.
std::string configuredSound() {
    const QString source =
        globalState && globalState->config() ? globalState->config()->audio.trimmed() : QString();
    return source == QLatin1String("none") ? std::string() : source.toUtf8().toStdString();
}

} // namespace

OUTWriter::OUTWriter() = default;

OUTWriter::~OUTWriter() {
    stop();
    error.clear();
}

bool OUTWriter::start(const StreamParams& newSettings, const std::atomic<bool>* abandon) {
    stop();
    if (&newSettings != &settings)
        settings = newSettings;
    active = true;
    initialised = false;
    width = height = 0;
    frameIndex = 0;
    lastPts = -1;
    error.clear();
    // Until the encoder is known, the link's target is assumed to reach it; the sound's share
    // of the link is kept out of the picture's target.
    connection.linkStats().configure(ceilingKbps(), audioBitrateKbps(), true);
    logLine("OUTWriter start. hostPort=", SrtAddress::masked(settings.hostPort),
            ", streamId=", logfile::secret(settings.streamId),
            ", videoBitrateKbps=", settings.videoBitrateKbps,
            ", audioBitrateKbps=", settings.audioBitrateKbps, ", latency=", settings.latency);
    std::string text;
    if (!connection.connect(settings, text, abandon)) {
        logLine("OUTWriter failed to connect SRT: ", text);
        error = text;
        active = false;
        return false;
    }
    return true;
}

int32_t OUTWriter::audioBitrateKbps() const {
    return configuredSound().empty() ? 0 : settings.audioBitrateKbps;
}

bool OUTWriter::writeFrame(const uint8_t* data, int64_t, int frameWidth, int frameHeight,
                           int bytesPerLine) {
    if (!active || !data || frameWidth < 1 || frameHeight < 1 || bytesPerLine < 1)
        return false;
    if (!openStream(frameWidth, frameHeight))
        return false;
    pictureHeld = false;
    if (frameWidth != width || frameHeight != height) {
        logLine("OUTWriter got unexpected frame size: ", frameWidth, "x", frameHeight);
        return true;
    }
    // Same size in and out: only the colour conversion and chroma subsampling happen, so the
    // fastest filter loses nothing. Time stamps count frames.
    const int64_t frameMs = av_rescale_q(lastPts + 1, codec->time_base, AVRational{1, 1000});
    if (audio.writePackets(output, frameMs) &&
        prepareScaler(AV_PIX_FMT_RGB24, width, height, SWS_FAST_BILINEAR) &&
        encodeFrame(data, bytesPerLine, lastPts + 1))
        return true;
    if (error.empty())
        error = "No connection to server";
    active = false;
    return false;
}

bool OUTWriter::writePicture(const uint8_t* data, AVPixelFormat format, int pictureWidth,
                             int pictureHeight, int stride, int64_t dueMs) {
    if (!active || !data || pictureWidth < 1 || pictureHeight < 1 || stride < 1 || dueMs < 0)
        return false;
    if (!openStream(streamWidth, streamHeight))
        return false;
    // Ticks come at their own period; a tick that falls into the period of the frame before
    // it brings nothing that stream needs, and its time stamp would not be strictly later.
    const int64_t pts = av_rescale_q(dueMs, AVRational{1, 1000}, codec->time_base);
    // A picture left out is not the one the encoder holds.
    pictureHeld = false;
    if (pts <= lastPts)
        return true;
    pictureHeld = audio.writePackets(output, dueMs) &&
                  prepareScaler(format, pictureWidth, pictureHeight, SWS_BILINEAR) &&
                  encodeFrame(data, stride, pts);
    if (pictureHeld)
        return true;
    if (error.empty())
        error = "No connection to server";
    active = false;
    return false;
}

bool OUTWriter::repeatPicture(int64_t dueMs) {
    if (!active || !pictureHeld || dueMs < 0)
        return false;
    const int64_t pts = av_rescale_q(dueMs, AVRational{1, 1000}, codec->time_base);
    if (pts <= lastPts)
        return true;
    if (audio.writePackets(output, dueMs)) {
        const bool keyFrame = keyFrameDue();
        if (keyFrame || !repeat.ready() ? sendFrame(pts, keyFrame) : writeRepeat(pts))
            return true;
    }
    if (error.empty())
        error = "No connection to server";
    active = false;
    pictureHeld = false;
    return false;
}

bool OUTWriter::openStream(int newWidth, int newHeight) {
    if (initialised)
        return true;
    if (initEncoder(newWidth, newHeight) && initOutput()) {
        initialised = true;
        return true;
    }
    error = "Failed to initialize video encoder or MPEG-TS output";
    releaseAll();
    connection.close();
    active = false;
    return false;
}

void OUTWriter::stop() {
    // Only a stream that ran is worth a line: stop() also runs when nothing does.
    if (active)
        logLine("OUTWriter stop. frames=", frameIndex);
    // The trailer goes out only over a connection that is still there.
    connection.stopReconnecting();
    if (active && codec && output && initialised) {
        drainEncoder(true);
        av_write_trailer(output);
    }
    releaseAll();
    connection.close();
    connection.linkStats().finish();
    active = false;
}

bool OUTWriter::initEncoder(int newWidth, int newHeight) {
    width = newWidth;
    height = newHeight;
    const EncoderConfig config = configuredEncoder();

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
    const bool followsLink = std::string(encoder->name ? encoder->name : "") == "libx264";
    LinkStats& link = connection.linkStats();
    if (!followsLink)
        link.configure(ceilingKbps(), audioBitrateKbps(), false);
    encodedKbps = followsLink ? link.videoTargetKbps() : 0;
    limitRate(codec, link.videoTargetKbps());
    codec->gop_size = fps;
    codec->max_b_frames = 0;
    codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
    // What the scaler's matrix and range are: players that honour the tags show true colours.
    codec->color_primaries = AVCOL_PRI_BT709;
    codec->color_trc = AVCOL_TRC_BT709;
    codec->colorspace = AVCOL_SPC_BT709;
    codec->color_range = AVCOL_RANGE_MPEG;
    if (output && output->oformat && (output->oformat->flags & AVFMT_GLOBALHEADER))
        codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    setEncoderOptions(codec, candidate);

    const int opened = avcodec_open2(codec, encoder, nullptr);
    if (opened < 0) {
        logLine("OUTWriter failed to open encoder: ", errorText(opened));
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
        logLine("OUTWriter failed to allocate frame buffer: ", errorText(buffered));
        return false;
    }
    return true;
}

int32_t OUTWriter::ceilingKbps() const {
    if (settings.videoBitrateKbps > 0)
        return settings.videoBitrateKbps;
    return std::max(1, configuredEncoder().bitrate / 1000);
}

void OUTWriter::limitRate(AVCodecContext* context, int32_t videoKbps) const {
    const int fps = context->framerate.num > 0 ? context->framerate.num : defaultFps;
    const int latencyMs = connection.latencyMs() > 0 ? connection.latencyMs() : settings.latency;
    const int bufferMs =
        std::clamp(static_cast<int>(latencyMs * vbvLatencyShare), 1000 / fps, maxVbvMs);
    const int64_t bitsPerSecond = static_cast<int64_t>(videoKbps) * 1000;
    context->bit_rate = bitsPerSecond;
    context->rc_max_rate = bitsPerSecond;
    context->rc_buffer_size = static_cast<int>(bitsPerSecond * bufferMs / 1000);
}

void OUTWriter::followLinkTarget() {
    const int32_t target = connection.linkStats().videoTargetKbps();
    if (encodedKbps == 0 || target == encodedKbps)
        return;
    // Read by libavcodec as the next frame is sent: no new key frame, no new stream.
    limitRate(codec, target);
    encodedKbps = target;
}

bool OUTWriter::prepareScaler(AVPixelFormat format, int sourceWidth, int sourceHeight, int filter) {
    if (scaler.prepare(format, sourceWidth, sourceHeight, frame, filter))
        return true;
    error = "Failed to convert the picture for the encoder";
    return false;
}

void OUTWriter::setEncoderOptions(AVCodecContext* context, const EncoderCandidate& candidate) {
    if (candidate.name)
        return;
    // Encoders without these options refuse them, which is fine: they are only a latency hint.
    av_opt_set(context->priv_data, "preset", "veryfast", 0);
    av_opt_set(context->priv_data, "tune", "zerolatency", 0);
}

bool OUTWriter::initOutput() {
    const int allocated = avformat_alloc_output_context2(&output, nullptr, "mpegts", nullptr);
    if (allocated < 0 || !output) {
        logLine("OUTWriter failed to allocate output context: ", errorText(allocated));
        return false;
    }
    ioBuffer = static_cast<uint8_t*>(av_malloc(ioBufferSize));
    if (!ioBuffer) {
        logLine("OUTWriter failed to allocate IO buffer");
        return false;
    }
    io = avio_alloc_context(ioBuffer, ioBufferSize, 1, this, nullptr, &OUTWriter::writePacket,
                            nullptr);
    if (!io) {
        logLine("OUTWriter failed to allocate AVIO context");
        return false;
    }
    output->pb = io;
    output->flags |= AVFMT_FLAG_CUSTOM_IO;
    stream = avformat_new_stream(output, nullptr);
    if (!stream) {
        logLine("OUTWriter failed to create video stream");
        return false;
    }
    stream->time_base = codec->time_base;
    const int copied = avcodec_parameters_from_context(stream->codecpar, codec);
    if (copied < 0) {
        logLine("OUTWriter failed to copy encoder parameters: ", errorText(copied));
        return false;
    }
    // With its length in the header, a video PES is complete as soon as its last byte
    // arrives; without it a receiving demuxer holds each picture until the next one starts,
    // which costs every viewer a whole frame period of delay.
    av_opt_set_int(output->priv_data, "omit_video_pes_length", 0, 0);
    if (!audio.addStream(output, configuredSound(), settings.audioBitrateKbps))
        return false;
    const int written = avformat_write_header(output, nullptr);
    if (written < 0) {
        logLine("OUTWriter failed to write output header: ", errorText(written));
        return false;
    }
    return true;
}

bool OUTWriter::encodeFrame(const uint8_t* data, int stride, int64_t pts) {
    // Only a copy when the encoder still holds the last picture, which the scaler must then
    // not overwrite; the encoders here let go of it once it is sent.
    const int writable = av_frame_make_writable(frame);
    if (writable < 0) {
        logLine("OUTWriter failed to make frame writable: ", errorText(writable));
        return false;
    }
    scaler.scale(data, stride, frame);
    return sendFrame(pts, keyFrameDue());
}

bool OUTWriter::keyFrameDue() {
    // Back after an outage, the stream starts again with a key frame, which the muxer precedes
    // with its tables: the server's viewers see a picture at once, not at the next key frame.
    // The encoder counts only the pictures it makes, and repeats are not among them, so the
    // key frame period is kept here, in ticks.
    ++ticksSinceKeyFrame;
    const bool resumed = connection.resumed();
    return resumed || ticksSinceKeyFrame >= codec->gop_size;
}

bool OUTWriter::sendFrame(int64_t pts, bool keyFrame) {
    // The encoder takes a reference of its own and copies the picture in; the frame stays ours.
    frame->pict_type = keyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    frame->pts = pts;
    lastPts = pts;
    ++frameIndex;
    followLinkTarget();
    const int sent = avcodec_send_frame(codec, frame);
    if (sent < 0) {
        logLine("OUTWriter failed to send frame: ", errorText(sent));
        return false;
    }
    return drainEncoder(false);
}

bool OUTWriter::drainEncoder(bool flush) {
    if (flush) {
        const int flushed = avcodec_send_frame(codec, nullptr);
        if (flushed < 0 && flushed != AVERROR_EOF) {
            logLine("OUTWriter failed to flush encoder: ", errorText(flushed));
            return false;
        }
    }
    for (;;) {
        const int received = avcodec_receive_packet(codec, packet);
        if (received == AVERROR(EAGAIN) || received == AVERROR_EOF)
            break;
        if (received < 0) {
            logLine("OUTWriter failed to receive packet: ", errorText(received));
            return false;
        }
        repeat.observe(packet->data, packet->size);
        if (packet->flags & AV_PKT_FLAG_KEY)
            ticksSinceKeyFrame = 0;
        const bool written = writeVideoPacket(packet);
        av_packet_unref(packet);
        if (!written)
            return false;
    }
    // The output buffer holds more than a second of a still picture: each frame leaves at once
    // instead of waiting for the buffer to fill, which viewers would see as delay.
    avio_flush(io);
    return true;
}

bool OUTWriter::writeRepeat(int64_t pts) {
    const std::vector<uint8_t>& bytes = repeat.make();
    // The muxer only reads a packet it is handed without a buffer of its own.
    repeatPacket->data = const_cast<uint8_t*>(bytes.data());
    repeatPacket->size = static_cast<int>(bytes.size());
    repeatPacket->pts = pts;
    repeatPacket->dts = pts;
    lastPts = pts;
    ++frameIndex;
    if (!writeVideoPacket(repeatPacket))
        return false;
    avio_flush(io);
    return true;
}

bool OUTWriter::writeVideoPacket(AVPacket* videoPacket) {
    av_packet_rescale_ts(videoPacket, codec->time_base, stream->time_base);
    videoPacket->stream_index = stream->index;
    // Written at once: interleaving would hold each picture back until sound came after it.
    const int written = av_write_frame(output, videoPacket);
    if (written < 0) {
        logLine("OUTWriter failed to write packet: ", errorText(written));
        return false;
    }
    return true;
}

#if LIBAVFORMAT_VERSION_MAJOR >= 61
int OUTWriter::writePacket(void* opaque, const uint8_t* buffer, int size) {
#else
int OUTWriter::writePacket(void* opaque, uint8_t* buffer, int size) {
#endif
    OUTWriter* writer = static_cast<OUTWriter*>(opaque);
    std::string text;
    if (writer->connection.send(buffer, static_cast<std::size_t>(size), text))
        return size;
    logLine("OUTWriter failed to send TS chunk over SRT: ", text);
    writer->error = text;
    return AVERROR(EIO);
}

void OUTWriter::releaseAll() {
    audio.stop();
    scaler.release();
    av_packet_free(&packet);
    av_packet_free(&repeatPacket);
    repeat.reset();
    av_frame_free(&frame);
    avcodec_free_context(&codec);
    if (output) {
        output->pb = nullptr;
        avformat_free_context(output);
        output = nullptr;
    }
    if (io) {
        // The muxer may have swapped the buffer it was given; io's current one is the live one.
        av_freep(&io->buffer);
        avio_context_free(&io);
        ioBuffer = nullptr;
    } else if (ioBuffer) {
        av_freep(&ioBuffer);
    }
    stream = nullptr;
    encodedKbps = 0;
    initialised = false;
    pictureHeld = false;
    width = height = 0;
    frameIndex = 0;
    ticksSinceKeyFrame = 0;
    lastPts = -1;
}
