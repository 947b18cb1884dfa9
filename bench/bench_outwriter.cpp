// Pushes 1920x1080 RGB frames as fast as it can into an SRT listener on 127.0.0.1, twice:
// first through a replica of the writer's per-frame path (the same FFmpeg calls and settings
// as OUTWriter, the product's SrtConnection underneath), timing each stage of every frame in
// the order the writer runs them (RGB-to-YUV conversion, H.264 encoding, MPEG-TS muxing plus
// SRT sending); then through OUTWriter itself. Prints per stage the median and 95th-percentile
// wall time per frame and the process CPU time per frame, and the highest frame rate the
// writer sustains.
//
// Usage: bench_outwriter [frames]   (default 250, ten seconds of stream)

#include "outwriter.h"
#include "processcpu.h"
#include "srtconnection.h"
#include "support/freeport.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <srt/srt.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int width = 1920;
constexpr int height = 1080;
constexpr int fps = 25;
constexpr int bitrateKbps = 5000; // what the connection form always asks for
constexpr int distinctFrames = 50;

using Clock = std::chrono::steady_clock;

// Screen-like content: flat areas, a gradient, a moving window and fine "text" detail.
std::vector<uint8_t> makeFrame(int index) {
    std::vector<uint8_t> rgb(static_cast<std::size_t>(width) * height * 3);
    uint32_t noise = 12345u + static_cast<uint32_t>(index) * 7919u;
    const int boxX = 200 + index * 23;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            uint8_t* pixel = &rgb[(static_cast<std::size_t>(y) * width + x) * 3];
            const bool inBox = x >= boxX && x < boxX + 600 && y >= 300 && y < 700;
            if (inBox) {
                noise = noise * 1103515245u + 12345u;
                const uint8_t ink = ((noise >> 16) & 7) == 0 ? 30 : 235;
                pixel[0] = pixel[1] = pixel[2] = ink;
            } else {
                pixel[0] = static_cast<uint8_t>(x * 255 / width);
                pixel[1] = static_cast<uint8_t>(y * 255 / height);
                pixel[2] = 96;
            }
        }
    }
    return rgb;
}

// Receives and discards everything one caller sends, as a server would.
class DrainingListener {
public:
    bool start(uint16_t port) {
        listenSocket = srt_create_socket();
        const bool noTsbpd = false;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (srt_setsockflag(listenSocket, SRTO_TSBPDMODE, &noTsbpd, sizeof noTsbpd) != 0 ||
            srt_bind(listenSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            srt_listen(listenSocket, 4) != 0)
            return false;
        thread = std::thread([this] { run(); });
        return true;
    }
    void stop() {
        stopping = true;
        srt_close(listenSocket);
        thread.join();
    }
    long long bytes() const { return received; }

private:
    void run() {
        while (!stopping) {
            const SRTSOCKET peer = srt_accept(listenSocket, nullptr, nullptr);
            if (peer == SRT_INVALID_SOCK)
                return;
            const int timeoutMs = 100;
            srt_setsockflag(peer, SRTO_RCVTIMEO, &timeoutMs, sizeof timeoutMs);
            char message[1500];
            for (;;) {
                const int length = srt_recvmsg(peer, message, sizeof message);
                if (length > 0)
                    received += length;
                else if (srt_getlasterror(nullptr) != SRT_EASYNCRCV || stopping)
                    break;
            }
            srt_close(peer);
        }
    }

    SRTSOCKET listenSocket = SRT_INVALID_SOCK;
    std::atomic<bool> stopping{false};
    std::atomic<long long> received{0};
    std::thread thread;
};

struct StageResult {
    const char* name;
    std::vector<double> frameMs;
    double cpuSeconds = 0;
    double wallSeconds = 0;

    // Runs one stage for one frame, adding its wall and CPU time.
    template <typename Body> bool run(Body body) {
        const double cpuBefore = processCpuSeconds();
        const Clock::time_point before = Clock::now();
        const bool ok = body();
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - before).count();
        cpuSeconds += processCpuSeconds() - cpuBefore;
        wallSeconds += ms / 1000;
        frameMs.push_back(ms);
        if (!ok)
            std::fprintf(stderr, "%s failed at frame %zu\n", name, frameMs.size() - 1);
        return ok;
    }
};

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const std::size_t index =
        std::min(values.size() - 1, static_cast<std::size_t>(fraction * (values.size() - 1) + 0.5));
    return values[index];
}

void print(const StageResult& stage) {
    const double frames = static_cast<double>(stage.frameMs.size());
    std::printf("%-28s %9.2f %9.2f %12.2f %10.1f\n", stage.name, percentile(stage.frameMs, 0.5),
                percentile(stage.frameMs, 0.95), stage.cpuSeconds * 1000 / frames,
                frames / stage.wallSeconds);
}

// The writer's encoder set-up on this system's FFmpeg: libx264 (the fall-back for the default
// "libopenh264") with its context settings and low-latency options.
AVCodecContext* openEncoder() {
    const AVCodec* encoder = avcodec_find_encoder_by_name("libopenh264");
    if (!encoder)
        encoder = avcodec_find_encoder(AV_CODEC_ID_H264);
    AVCodecContext* codec = avcodec_alloc_context3(encoder);
    codec->width = width;
    codec->height = height;
    codec->pix_fmt = AV_PIX_FMT_YUV420P;
    codec->time_base = AVRational{1, fps};
    codec->framerate = AVRational{fps, 1};
    codec->bit_rate = static_cast<int64_t>(bitrateKbps) * 1000;
    codec->gop_size = fps;
    codec->max_b_frames = 0;
    codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
    av_opt_set(codec->priv_data, "preset", "veryfast", 0);
    av_opt_set(codec->priv_data, "tune", "zerolatency", 0);
    if (avcodec_open2(codec, encoder, nullptr) < 0)
        avcodec_free_context(&codec);
    return codec;
}

#if LIBAVFORMAT_VERSION_MAJOR >= 61
int sendChunk(void* opaque, const uint8_t* buffer, int size) {
#else
int sendChunk(void* opaque, uint8_t* buffer, int size) {
#endif
    std::string ignored;
    static_cast<SrtConnection*>(opaque)->send(buffer, static_cast<std::size_t>(size), ignored);
    return size;
}

} // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::max(10, std::atoi(argv[1])) : 250;
    av_log_set_level(AV_LOG_ERROR);

    std::vector<std::vector<uint8_t>> rgbFrames;
    for (int i = 0; i < distinctFrames; ++i)
        rgbFrames.push_back(makeFrame(i));
    const auto rgbAt = [&](int i) {
        return rgbFrames[static_cast<std::size_t>(i % distinctFrames)].data();
    };

    srt_startup();
    DrainingListener listener;
    const uint16_t port = freeLoopbackPort(true);
    if (!listener.start(port)) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u\n", port);
        return 1;
    }
    StreamParams params;
    params.hostPort = "127.0.0.1:" + std::to_string(port);

    // The writer's per-frame objects: one picture, one scaler, one encoder, one muxer on a
    // 32768-byte custom output that hands its chunks to an SRT connection.
    AVFrame* yuv = av_frame_alloc();
    yuv->format = AV_PIX_FMT_YUV420P;
    yuv->width = width;
    yuv->height = height;
    av_frame_get_buffer(yuv, 32);
    SwsContext* scaler =
        sws_getContext(width, height, AV_PIX_FMT_RGB24, width, height, AV_PIX_FMT_YUV420P,
                       SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    AVCodecContext* codec = openEncoder();
    if (!codec) {
        std::fprintf(stderr, "cannot open the H.264 encoder\n");
        return 1;
    }
    const std::string encoderName = codec->codec->name;
    SrtConnection connection;
    std::string connectError;
    if (!connection.connect(params, connectError)) {
        std::fprintf(stderr, "%s\n", connectError.c_str());
        return 1;
    }
    AVFormatContext* output = nullptr;
    avformat_alloc_output_context2(&output, nullptr, "mpegts", nullptr);
    auto* ioBuffer = static_cast<uint8_t*>(av_malloc(32768));
    AVIOContext* io =
        avio_alloc_context(ioBuffer, 32768, 1, &connection, nullptr, &sendChunk, nullptr);
    output->pb = io;
    output->flags |= AVFMT_FLAG_CUSTOM_IO;
    AVStream* stream = avformat_new_stream(output, nullptr);
    stream->time_base = codec->time_base;
    avcodec_parameters_from_context(stream->codecpar, codec);
    if (avformat_write_header(output, nullptr) < 0) {
        std::fprintf(stderr, "cannot write the MPEG-TS header\n");
        return 1;
    }

    StageResult conversion{"RGB-to-YUV conversion", {}, 0, 0};
    StageResult encoding{"H.264 encoding", {}, 0, 0};
    StageResult muxing{"MPEG-TS muxing + SRT send", {}, 0, 0};
    AVPacket* packet = av_packet_alloc();
    std::vector<AVPacket*> encoded;
    for (int i = 0; i < frames; ++i) {
        const bool ok = conversion.run([&] {
            if (av_frame_make_writable(yuv) < 0)
                return false;
            const uint8_t* const planes[1] = {rgbAt(i)};
            const int strides[1] = {width * 3};
            sws_scale(scaler, planes, strides, 0, height, yuv->data, yuv->linesize);
            return true;
        }) && encoding.run([&] {
            yuv->pts = i;
            if (avcodec_send_frame(codec, yuv) < 0)
                return false;
            while (avcodec_receive_packet(codec, packet) >= 0) {
                encoded.push_back(av_packet_clone(packet));
                av_packet_unref(packet);
            }
            return true;
        }) && muxing.run([&] {
            bool written = true;
            for (AVPacket*& ready : encoded) {
                av_packet_rescale_ts(ready, codec->time_base, stream->time_base);
                ready->stream_index = stream->index;
                written = written && av_interleaved_write_frame(output, ready) >= 0;
                av_packet_free(&ready);
            }
            encoded.clear();
            return written;
        });
        if (!ok)
            return 1;
    }
    av_write_trailer(output);
    connection.close();
    output->pb = nullptr;
    avformat_free_context(output);
    av_freep(&io->buffer);
    avio_context_free(&io);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    sws_freeContext(scaler);
    av_frame_free(&yuv);

    // The whole writer, as the capture streamer drives it.
    OUTWriter writer;
    if (!writer.start(params)) {
        std::fprintf(stderr, "%s\n", writer.lastError().c_str());
        return 1;
    }
    StageResult whole{"OUTWriter::writeFrame (all)", {}, 0, 0};
    const Clock::time_point wholeStart = Clock::now();
    for (int i = 0; i < frames; ++i)
        if (!whole.run([&] {
                return writer.writeFrame(rgbAt(i), static_cast<int64_t>(width) * height * 3, width,
                                         height, width * 3);
            }))
            return 1;
    const double wholeSeconds = std::chrono::duration<double>(Clock::now() - wholeStart).count();
    writer.stop();

    std::printf("bench_outwriter: %d frames of %dx%d RGB24, %s, %d kbit/s, %d fps time base, "
                "into an SRT listener on 127.0.0.1\n",
                frames, width, height, encoderName.c_str(), bitrateKbps, fps);
    std::printf("%-28s %9s %9s %12s %10s\n", "stage", "median ms", "p95 ms", "CPU ms/frame",
                "frames/s");
    for (const StageResult* stage : {&conversion, &encoding, &muxing, &whole})
        print(*stage);
    std::printf("highest sustained frame rate through OUTWriter: %.1f frames/s (real time needs "
                "%d)\n",
                frames / wholeSeconds, fps);
    std::printf("listener received %.1f MB\n", static_cast<double>(listener.bytes()) / 1e6);

    listener.stop();
    srt_cleanup();
    return 0;
}
