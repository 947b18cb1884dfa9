// What libx264 spends on a picture that does not change, with the stream's settings (1920x1080
// yuv420p, veryfast/zerolatency, 5 Mbit/s, GOP 25, no B-frames), and what the ways of telling
// it so that libavcodec offers between frames give back. The same converted picture (black, or
// a page of text) goes to the encoder again and again, as a still screen's ticks hand it over;
// every variant makes a frame per tick with its own time stamp. The last two have the live
// stream's VBV (maximum rate the target, one frame's buffer, its quantiser step), the last with
// the writer's repeats (RepeatPicture) on the ticks after each encoded picture. Prints per
// variant the process CPU time per frame and the mean size of a frame that is not a key frame.
//
// Usage: bench_stillencoder [frames]   (default 500)

#include "processcpu.h"
#include "repeatpicture.h"
#include "videoencoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
}

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int width = 1920;
constexpr int height = 1080;
constexpr int fps = 25;

enum class Variant { Plain, ForcedP, RegionOffset, LowerRate, StreamVbv, StreamRepeats };

const char* nameOf(Variant variant) {
    switch (variant) {
    case Variant::Plain:
        return "the picture again";
    case Variant::ForcedP:
        return "marked as a P-frame";
    case Variant::RegionOffset:
        return "region of interest, QP +25";
    case Variant::LowerRate:
        return "bit rate lowered to 1/10";
    case Variant::StreamVbv:
        return "the stream's VBV";
    case Variant::StreamRepeats:
        return "the stream's VBV, repeats";
    }
    return "";
}

// A page of program text: dark lines of glyph-sized marks on white.
void paintPage(AVFrame* frame, bool text) {
    for (int y = 0; y < height; ++y) {
        uint8_t* row = frame->data[0] + static_cast<std::ptrdiff_t>(y) * frame->linesize[0];
        for (int x = 0; x < width; ++x) {
            const bool ink = text && y % 24 < 14 && x % 11 < 7 && ((x / 11) * 7 + y / 24 * 13) % 9;
            row[x] = !text ? 16 : ink ? 40 : 235;
        }
    }
    for (int plane = 1; plane < 3; ++plane)
        for (int y = 0; y < height / 2; ++y)
            std::memset(frame->data[plane] +
                            static_cast<std::ptrdiff_t>(y) * frame->linesize[plane],
                        128, width / 2);
}

void measure(Variant variant, bool text, int frames) {
    const AVCodec* encoder = avcodec_find_encoder_by_name("libx264");
    AVCodecContext* codec = encoder ? avcodec_alloc_context3(encoder) : nullptr;
    if (!codec) {
        std::printf("libx264 is missing\n");
        return;
    }
    codec->width = width;
    codec->height = height;
    codec->pix_fmt = AV_PIX_FMT_YUV420P;
    codec->time_base = AVRational{1, fps};
    codec->framerate = AVRational{fps, 1};
    codec->bit_rate = 5000000;
    // As the live stream has it at a latency of 120 ms: maximum rate the target, a buffer of one
    // frame's worth, the quantiser free to move.
    if (variant == Variant::StreamVbv || variant == Variant::StreamRepeats) {
        codec->rc_max_rate = codec->bit_rate;
        codec->rc_buffer_size = static_cast<int>(codec->bit_rate / fps);
        codec->max_qdiff = VideoEncoder::maxQuantiserStep;
    }
    codec->gop_size = fps;
    codec->max_b_frames = 0;
    codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
    av_opt_set(codec->priv_data, "preset", "veryfast", 0);
    av_opt_set(codec->priv_data, "tune", "zerolatency", 0);
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    if (avcodec_open2(codec, encoder, nullptr) < 0 || !frame || !packet) {
        std::printf("libx264 does not open\n");
        return;
    }
    frame->format = codec->pix_fmt;
    frame->width = width;
    frame->height = height;
    av_frame_get_buffer(frame, 32);
    paintPage(frame, text);

    // The first second is the picture arriving; what follows is the still screen.
    const int settle = fps;
    double startCpu = 0;
    long long bytes = 0;
    int predicted = 0;
    RepeatPicture repeat;
    for (int index = 0; index < settle + frames; ++index) {
        if (index == settle) {
            startCpu = processCpuSeconds();
            if (variant == Variant::RegionOffset) {
                AVFrameSideData* data = av_frame_new_side_data(
                    frame, AV_FRAME_DATA_REGIONS_OF_INTEREST, sizeof(AVRegionOfInterest));
                auto* region = reinterpret_cast<AVRegionOfInterest*>(data->data);
                *region =
                    AVRegionOfInterest{sizeof(AVRegionOfInterest), 0, height, 0, width, {1, 1}};
            }
            if (variant == Variant::LowerRate)
                codec->bit_rate /= 10;
        }
        frame->pts = index;
        frame->pict_type = variant == Variant::ForcedP && index >= settle ? AV_PICTURE_TYPE_P
                                                                          : AV_PICTURE_TYPE_NONE;
        if (variant == Variant::StreamRepeats && index >= settle && index % fps && repeat.ready()) {
            bytes += static_cast<long long>(repeat.make().size());
            ++predicted;
            continue;
        }
        // The encoder no longer sees every tick; the key frames stay one a second of ticks.
        if (variant == Variant::StreamRepeats && index % fps == 0)
            frame->pict_type = AV_PICTURE_TYPE_I;
        avcodec_send_frame(codec, frame);
        while (avcodec_receive_packet(codec, packet) == 0) {
            repeat.observe(packet->data, packet->size);
            if (index >= settle && !(packet->flags & AV_PKT_FLAG_KEY)) {
                bytes += packet->size;
                ++predicted;
            }
            av_packet_unref(packet);
        }
    }
    const double cpuMs = (processCpuSeconds() - startCpu) * 1000 / frames;
    std::printf("%-6s %-28s %8.2f %10.0f\n", text ? "text" : "black", nameOf(variant), cpuMs,
                predicted ? static_cast<double>(bytes) / predicted : 0.0);
    std::fflush(stdout);
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&codec);
}

} // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::max(50, std::atoi(argv[1])) : 500;
    av_log_set_level(AV_LOG_ERROR);
    std::printf("bench_stillencoder: %d frames of one unchanged 1920x1080 picture per row, after "
                "one second of it; libx264 veryfast/zerolatency 5 Mbit/s GOP 25\n%-6s %-28s %8s "
                "%10s\n",
                frames, "scene", "variant", "CPU ms", "P bytes");
    for (const bool text : {false, true})
        for (const Variant variant :
             {Variant::Plain, Variant::ForcedP, Variant::RegionOffset, Variant::LowerRate,
              Variant::StreamVbv, Variant::StreamRepeats})
            measure(variant, text, frames);
}
