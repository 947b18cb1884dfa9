#include "outwriter.h"

#include "averror.h"
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
constexpr int streamWidth = 1920;
constexpr int streamHeight = 1080;

// config.ini's `audio`: empty when the stream carries no sound.
std::string configuredSound() {
    const QString source =
        globalState && globalState->config() ? globalState->config()->audio.trimmed() : QString();
    return source == QLatin1String("none") ? std::string() : source.toUtf8().toStdString();
}

} // namespace

OUTWriter::OUTWriter()
    : encoder([this](AVPacket* videoPacket) { return writeVideoPacket(videoPacket); }) {}

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
    const int64_t frameMs =
        av_rescale_q(lastPts + 1, encoder.context()->time_base, AVRational{1, 1000});
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
    const int64_t pts = av_rescale_q(dueMs, AVRational{1, 1000}, encoder.context()->time_base);
    // A picture left out is not the one the encoder holds.
    pictureHeld = false;
    if (pts <= lastPts)
        return true;
    pictureHeld = fillSkippedTick(pts) && audio.writePackets(output, dueMs) &&
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
    const int64_t pts = av_rescale_q(dueMs, AVRational{1, 1000}, encoder.context()->time_base);
    if (pts <= lastPts)
        return true;
    if (fillSkippedTick(pts) && showAgain(pts, dueMs))
        return true;
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
    if (active && output && initialised) {
        if (encoder.flush())
            avio_flush(io);
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
    LinkStats& link = connection.linkStats();
    const bool globalHeader =
        output && output->oformat && (output->oformat->flags & AVFMT_GLOBALHEADER);
    if (!encoder.open(width, height, globalHeader, link.videoTargetKbps(), ceilingKbps(),
                      latencyMs()))
        return false;
    if (!encoder.followsLink())
        link.configure(ceilingKbps(), audioBitrateKbps(), false);
    return true;
}

int32_t OUTWriter::ceilingKbps() const {
    if (settings.videoBitrateKbps > 0)
        return settings.videoBitrateKbps;
    return std::max(1, VideoEncoder::configured().bitrate / 1000);
}

int OUTWriter::latencyMs() const {
    return connection.latencyMs() > 0 ? connection.latencyMs() : settings.latency;
}

void OUTWriter::followLinkTarget() {
    const int32_t target = connection.linkStats().videoTargetKbps();
    const int32_t room = connection.linkStats().roomKbps();
    if (!encoder.followsLink() || (target == encoder.targetKbps() && room == encoder.roomKbps()))
        return;
    // Read by libavcodec as the next frame is sent: no new key frame, no new stream.
    encoder.setTarget(target, latencyMs(), room);
}

bool OUTWriter::prepareScaler(AVPixelFormat format, int sourceWidth, int sourceHeight, int filter) {
    if (scaler.prepare(format, sourceWidth, sourceHeight, encoder.picture(), filter))
        return true;
    error = "Failed to convert the picture for the encoder";
    return false;
}

bool OUTWriter::initOutput() {
    const int allocated = avformat_alloc_output_context2(&output, nullptr, "mpegts", nullptr);
    if (allocated < 0 || !output) {
        logLine("OUTWriter failed to allocate output context: ", averrorText(allocated));
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
    stream->time_base = encoder.context()->time_base;
    const int copied = avcodec_parameters_from_context(stream->codecpar, encoder.context());
    if (copied < 0) {
        logLine("OUTWriter failed to copy encoder parameters: ", averrorText(copied));
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
        logLine("OUTWriter failed to write output header: ", averrorText(written));
        return false;
    }
    return true;
}

bool OUTWriter::encodeFrame(const uint8_t* data, int stride, int64_t pts) {
    if (!encoder.makePictureWritable())
        return false;
    scaler.scale(data, stride, encoder.picture());
    return sendFrame(pts, false);
}

bool OUTWriter::sendFrame(int64_t pts, bool again) {
    // Back after an outage, the stream starts again with a key frame, which the muxer precedes
    // with its tables: the server's viewers see a picture at once, not at the next key frame.
    const bool keyFrame = encoder.keyFrameDue(connection.resumed());
    lastPts = pts;
    ++frameIndex;
    followLinkTarget();
    if (!(again ? encoder.encodeAgain(pts, keyFrame) : encoder.encode(pts, keyFrame)))
        return false;
    // The output buffer holds more than a second of a still picture: each frame leaves at once
    // instead of waiting for the buffer to fill, which viewers would see as delay.
    avio_flush(io);
    return true;
}

bool OUTWriter::fillSkippedTick(int64_t pts) {
    // A tick the worker was too busy to take (the generator raises the next one at once when
    // it falls behind): the picture before it stands for it, at its own time stamp, where that
    // costs only a repeat's few bytes. The stream then keeps every tick of its rate.
    if (pts <= lastPts + 1 || lastPts < 0 || !encoder.repeatsNext())
        return true;
    const int64_t skipped = lastPts + 1;
    return showAgain(skipped,
                     av_rescale_q(skipped, encoder.context()->time_base, AVRational{1, 1000}));
}

bool OUTWriter::showAgain(int64_t pts, int64_t dueMs) {
    return audio.writePackets(output, dueMs) && sendFrame(pts, true);
}

bool OUTWriter::writeVideoPacket(AVPacket* videoPacket) {
    av_packet_rescale_ts(videoPacket, encoder.context()->time_base, stream->time_base);
    videoPacket->stream_index = stream->index;
    // Written at once: interleaving would hold each picture back until sound came after it.
    const int written = av_write_frame(output, videoPacket);
    if (written < 0) {
        logLine("OUTWriter failed to write packet: ", averrorText(written));
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
    encoder.release();
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
    initialised = false;
    pictureHeld = false;
    width = height = 0;
    frameIndex = 0;
    lastPts = -1;
}
