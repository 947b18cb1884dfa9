// The receiving end that bench_capture and bench_latency start for every sender they
// measure, so that every sender meets the same peer: an SRT listener on 127.0.0.1 in live
// mode with a given receiver latency, libavformat demuxing the MPEG-TS that arrives, and in
// decode mode libavcodec decoding every picture and reading back the clock that bench_latency
// draws under the frame.
//
// Usage: bench_receiver PORT LATENCY_MS count|decode
// Prints "listening" once bound, "encoder OPTIONS" once where the stream names libx264's
// settings, then one line per video frame:
//   frame ARRIVAL_US PTS_US LATENCY_MS KIND BYTES
// ARRIVAL_US on CLOCK_MONOTONIC; PTS_US the stream's time stamp; LATENCY_MS the clock read
// from the picture subtracted from now, "-" in count mode or where the clock is unreadable;
// KIND "K" for a key frame, "P" for another, "E" for a frame that arrived damaged (the
// demuxer found transport packets missing before it, the connection's libsrt gave up packets
// since the frame before, or the decoder reported an error in it);
// BYTES the size of the frame's packet(s) since the line before. Ends, printing
// "srt received=N lost=N dropped=N" (the connection's own counts) and "end", when the caller
// goes away.

#include "support/processstats.h"
#include "support/screenclock.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <srt/srt.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// The accepted connection as libavformat's input: whole SRT messages, handed out in the
// pieces the reader asks for.
struct SrtInput {
    SRTSOCKET socket = SRT_INVALID_SOCK;
    char message[1500];
    int length = 0;
    int offset = 0;
    bool ended = false;
};

int readInput(void* opaque, uint8_t* buffer, int size) {
    auto* input = static_cast<SrtInput*>(opaque);
    if (input->offset == input->length) {
        if (input->ended)
            return AVERROR_EOF;
        input->length =
            std::max(0, srt_recvmsg(input->socket, input->message, sizeof input->message));
        input->offset = 0;
        // The caller is gone: the reader may still ask again.
        input->ended = input->length == 0;
        if (input->ended)
            return AVERROR_EOF;
    }
    const int piece = std::min(size, input->length - input->offset);
    std::memcpy(buffer, input->message + input->offset, static_cast<std::size_t>(piece));
    input->offset += piece;
    return piece;
}

SRTSOCKET listenAndAccept(uint16_t port, int latencyMs) {
    const SRTSOCKET listener = srt_create_socket();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (srt_setsockflag(listener, SRTO_RCVLATENCY, &latencyMs, sizeof latencyMs) != 0 ||
        srt_bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        srt_listen(listener, 1) != 0) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1:%u: %s\n", port, srt_getlasterror_str());
        return SRT_INVALID_SOCK;
    }
    std::printf("listening\n");
    std::fflush(stdout);
    const SRTSOCKET peer = srt_accept(listener, nullptr, nullptr);
    srt_close(listener);
    return peer;
}

// Errors the demuxer and the decoder report between two frames: the next frame is damaged.
// They are counted, not printed, so that the figures stay readable.
std::atomic<int> reportedErrors{0};
// Linux keeps a priority per thread: a thread started from one at this priority keeps it.
constexpr int networkNice = -10;

void countErrors(void*, int level, const char*, va_list) {
    if (level <= AV_LOG_ERROR)
        ++reportedErrors;
}

struct FrameState {
    bool damaged = false;
    long long bytes = 0;
};

long long micros(int64_t pts, AVRational timeBase) {
    return pts == AV_NOPTS_VALUE ? -1 : av_rescale_q(pts, timeBase, AVRational{1, 1000000});
}

void report(long long ptsUs, const AVFrame* picture, bool key, FrameState& state) {
    const long long arrival = monotonicMicros();
    const bool damaged =
        state.damaged || reportedErrors.exchange(0) > 0 ||
        (picture && (picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT)));
    const char kind = damaged ? 'E' : key ? 'K' : 'P';
    uint32_t shown = 0;
    if (picture && ScreenClock::read(picture->data[0], picture->linesize[0], picture->width,
                                     picture->height, shown)) {
        const auto latency = static_cast<int32_t>(ScreenClock::nowMs() - shown);
        std::printf("frame %lld %lld %d %c %lld\n", arrival, ptsUs, latency, kind, state.bytes);
    } else {
        std::printf("frame %lld %lld - %c %lld\n", arrival, ptsUs, kind, state.bytes);
    }
    std::fflush(stdout);
    state = FrameState();
}

// libx264 writes its settings as text into the first picture: "x264 - core ... options: ...".
void reportEncoder(const AVPacket* packet, bool& reported) {
    const std::string_view bytes(reinterpret_cast<const char*>(packet->data),
                                 static_cast<std::size_t>(packet->size));
    const std::size_t core = reported ? bytes.npos : bytes.find("x264 - core ");
    const std::size_t options = bytes.find(" options: ", core);
    if (core == bytes.npos || options == bytes.npos)
        return;
    reported = true;
    const std::string_view text = bytes.substr(options + 10);
    std::printf("encoder %s\n", std::string(text.substr(0, text.find('\0'))).c_str());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: bench_receiver PORT LATENCY_MS count|decode\n");
        return 2;
    }
    const bool decode = std::string(argv[3]) == "decode";
    av_log_set_callback(&countErrors);
    // The receiver stands for another machine: in a session of its own it is scheduled apart
    // from the sender (Linux groups processes by session), not from the sender's share. libsrt's
    // threads stand for that machine's network stack: they start from a thread at a higher
    // priority and keep it, while decoding goes back to the priority the receiver was started
    // with. Without this, on a machine loaded with builds the receiver gave up packets whose
    // resends were on their way in time.
    setsid();
    const int startedNice = getpriority(PRIO_PROCESS, 0);
    setpriority(PRIO_PROCESS, 0, networkNice);
    srt_startup();
    // The late packets it drops are counted in the last line, not told one by one.
    srt_setloglevel(LOG_ERR);
    SrtInput input;
    input.socket = listenAndAccept(static_cast<uint16_t>(std::atoi(argv[1])), std::atoi(argv[2]));
    if (input.socket == SRT_INVALID_SOCK)
        return 1;
    setpriority(PRIO_PROCESS, 0, startedNice);

    constexpr int ioSize = 4096;
    auto* ioBuffer = static_cast<uint8_t*>(av_malloc(ioSize));
    AVIOContext* io = avio_alloc_context(ioBuffer, ioSize, 0, &input, &readInput, nullptr, nullptr);
    AVFormatContext* format = avformat_alloc_context();
    format->pb = io;
    format->flags |= AVFMT_FLAG_CUSTOM_IO | AVFMT_FLAG_NOBUFFER;
    // A short look at the start is enough: the program table comes first.
    format->probesize = 188 * 64;
    if (avformat_open_input(&format, nullptr, av_find_input_format("mpegts"), nullptr) < 0) {
        std::fprintf(stderr, "cannot read MPEG-TS from the caller\n");
        return 1;
    }

    const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
    AVCodecContext* codec = avcodec_alloc_context3(decoder);
    // One thread, no frame delay: each picture leaves the decoder as soon as it is complete.
    codec->thread_count = 1;
    codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
    if (decode && avcodec_open2(codec, decoder, nullptr) < 0) {
        std::fprintf(stderr, "cannot open the H.264 decoder\n");
        return 1;
    }
    AVPacket* packet = av_packet_alloc();
    AVFrame* picture = av_frame_alloc();
    bool encoderReported = false;
    FrameState state;
    SRT_TRACEBSTATS received{};
    int droppedBefore = 0;
    while (av_read_frame(format, packet) >= 0) {
        const AVStream* stream = format->streams[packet->stream_index];
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
            av_packet_unref(packet);
            continue;
        }
        srt_bstats(input.socket, &received, 0);
        // A frame lost whole can leave no trace in the demuxer: its continuity counter repeats
        // every 16 transport packets, and an SRT packet carries 7 of them.
        state.damaged = state.damaged || received.pktRcvDropTotal > droppedBefore;
        droppedBefore = received.pktRcvDropTotal;
        reportEncoder(packet, encoderReported);
        state.bytes += packet->size;
        state.damaged = state.damaged || (packet->flags & AV_PKT_FLAG_CORRUPT);
        if (!decode) {
            report(micros(packet->pts, stream->time_base), nullptr, packet->flags & AV_PKT_FLAG_KEY,
                   state);
        } else if (avcodec_send_packet(codec, packet) >= 0) {
            while (avcodec_receive_frame(codec, picture) >= 0)
                report(micros(picture->best_effort_timestamp, stream->time_base), picture,
                       picture->pict_type == AV_PICTURE_TYPE_I, state);
        } else {
            state.damaged = true;
        }
        av_packet_unref(packet);
    }
    std::printf("srt received=%lld lost=%d dropped=%d\n",
                static_cast<long long>(received.pktRecvTotal), received.pktRcvLossTotal,
                received.pktRcvDropTotal);
    std::printf("end\n");
    std::fflush(stdout);

    av_frame_free(&picture);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
    av_freep(&io->buffer);
    avio_context_free(&io);
    srt_close(input.socket);
    srt_cleanup();
    return 0;
}
