// The one pass from a grabbed picture to the encoder's: BGRA (what the X server hands over
// at 24-bit depth) of a few frame sizes, stretched to 1920x1080 planar YUV 4:2:0, timed for
// each way of doing it with swscale and with libyuv. Each way also converts a pure red
// picture, whose Y, U and V show the matrix and range it applies: BT.709 limited range gives
// 63, 102, 240; BT.601 limited range gives 82, 90, 240.
//
// Usage: bench_scaler [frames]   (default 100 per way and size)

#include "processcpu.h"

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <libyuv/convert_from_argb.h>
#include <libyuv/scale.h>
#include <libyuv/scale_argb.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

namespace {

constexpr int outWidth = 1920;
constexpr int outHeight = 1080;
constexpr int distinctFrames = 8;

struct Picture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> bgra;
    int stride() const { return width * 4; }
};

// Screen-like content: flat areas, a gradient and fine "text" detail, different per frame.
Picture makePicture(int width, int height, int index) {
    Picture picture{width, height,
                    std::vector<uint8_t>(static_cast<std::size_t>(width) * height * 4)};
    uint32_t noise = 12345u + static_cast<uint32_t>(index) * 7919u;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            uint8_t* pixel = &picture.bgra[(static_cast<std::size_t>(y) * width + x) * 4];
            noise = noise * 1103515245u + 12345u;
            const bool text = x > width / 3 && y > height / 3 && ((noise >> 16) & 7) == 0;
            pixel[0] = text ? 20 : static_cast<uint8_t>(96 + index);
            pixel[1] = text ? 20 : static_cast<uint8_t>(y * 255 / height);
            pixel[2] = text ? 20 : static_cast<uint8_t>(x * 255 / width);
            pixel[3] = 255;
        }
    }
    return picture;
}

Picture redPicture(int width, int height) {
    Picture picture{width, height,
                    std::vector<uint8_t>(static_cast<std::size_t>(width) * height * 4)};
    for (std::size_t i = 0; i < picture.bgra.size(); i += 4) {
        picture.bgra[i + 2] = 255;
        picture.bgra[i + 3] = 255;
    }
    return picture;
}

// The encoder's picture, allocated once.
struct Yuv {
    std::vector<uint8_t> y = std::vector<uint8_t>(outWidth * outHeight);
    std::vector<uint8_t> u = std::vector<uint8_t>(outWidth * outHeight / 4);
    std::vector<uint8_t> v = std::vector<uint8_t>(outWidth * outHeight / 4);
    uint8_t* planes[3] = {y.data(), u.data(), v.data()};
    int strides[3] = {outWidth, outWidth / 2, outWidth / 2};
};

using Pass = std::function<void(const Picture&, Yuv&)>;

struct CachedScaler {
    SwsContext* context = nullptr;
    int width = 0;
    int height = 0;
    ~CachedScaler() { sws_freeContext(context); }
};

// swscale as the live path would keep it: one cached context, BT.709 limited range out. The
// matrix goes with every new source size: a context made again for a new size may come back
// at the old address, so the pointer alone does not tell that it is new.
Pass swscalePass(int flags) {
    auto scaler = std::make_shared<CachedScaler>();
    return [scaler, flags](const Picture& in, Yuv& out) {
        scaler->context =
            sws_getCachedContext(scaler->context, in.width, in.height, AV_PIX_FMT_BGRA, outWidth,
                                 outHeight, AV_PIX_FMT_YUV420P, flags, nullptr, nullptr, nullptr);
        if (in.width != scaler->width || in.height != scaler->height) {
            const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
            sws_setColorspaceDetails(scaler->context, bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
            scaler->width = in.width;
            scaler->height = in.height;
        }
        const uint8_t* const planes[1] = {in.bgra.data()};
        const int strides[1] = {in.stride()};
        sws_scale(scaler->context, planes, strides, 0, in.height, out.planes, out.strides);
    };
}

// libyuv stretching the BGRA picture first, then converting the large one.
Pass libyuvScaleThenConvert() {
    auto stretched = std::make_shared<std::vector<uint8_t>>(outWidth * outHeight * 4);
    return [stretched](const Picture& in, Yuv& out) {
        libyuv::ARGBScale(in.bgra.data(), in.stride(), in.width, in.height, stretched->data(),
                          outWidth * 4, outWidth, outHeight, libyuv::kFilterBilinear);
        libyuv::ARGBToI420(stretched->data(), outWidth * 4, out.planes[0], out.strides[0],
                           out.planes[1], out.strides[1], out.planes[2], out.strides[2], outWidth,
                           outHeight);
    };
}

// libyuv converting at the grabbed size, then stretching the three planes.
Pass libyuvConvertThenScale() {
    auto small = std::make_shared<Yuv>();
    return [small](const Picture& in, Yuv& out) {
        const int chromaWidth = (in.width + 1) / 2;
        libyuv::ARGBToI420(in.bgra.data(), in.stride(), small->planes[0], in.width,
                           small->planes[1], chromaWidth, small->planes[2], chromaWidth, in.width,
                           in.height);
        libyuv::I420Scale(small->planes[0], in.width, small->planes[1], chromaWidth,
                          small->planes[2], chromaWidth, in.width, in.height, out.planes[0],
                          out.strides[0], out.planes[1], out.strides[1], out.planes[2],
                          out.strides[2], outWidth, outHeight, libyuv::kFilterBilinear);
    };
}

struct Way {
    const char* name;
    Pass pass;
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::max(10, std::atoi(argv[1])) : 100;
    const Way ways[] = {
        {"swscale SWS_BILINEAR", swscalePass(SWS_BILINEAR)},
        {"swscale SWS_FAST_BILINEAR", swscalePass(SWS_FAST_BILINEAR)},
        {"libyuv ARGBScale+ARGBToI420", libyuvScaleThenConvert()},
        {"libyuv ARGBToI420+I420Scale", libyuvConvertThenScale()},
    };
    const int sizes[][2] = {{1270, 710}, {640, 360}, {1910, 1070}};

    std::printf("bench_scaler: %d frames per way and size, BGRA -> 1920x1080 yuv420p, bilinear, "
                "one thread; red -> Y U V (BT.709 limited: 63 102 240, BT.601: 82 90 240)\n",
                frames);
    std::printf("%-10s %-28s %9s %12s %13s %8s\n", "from", "way", "median ms", "CPU ms/frame",
                "red -> Y U V", "BT.709");
    Yuv out;
    for (const auto& size : sizes) {
        std::vector<Picture> pictures;
        for (int i = 0; i < distinctFrames; ++i)
            pictures.push_back(makePicture(size[0], size[1], i));
        const Picture red = redPicture(size[0], size[1]);
        for (const Way& way : ways) {
            way.pass(red, out);
            const int y = out.y[outWidth * outHeight / 2 + outWidth / 2];
            const int u = out.u[outWidth * outHeight / 8 + outWidth / 4];
            const int v = out.v[outWidth * outHeight / 8 + outWidth / 4];
            const bool bt709 =
                std::abs(y - 63) <= 2 && std::abs(u - 102) <= 2 && std::abs(v - 240) <= 2;

            std::vector<double> frameMs;
            const double cpuBefore = processCpuSeconds();
            for (int i = 0; i < frames; ++i) {
                const auto before = std::chrono::steady_clock::now();
                way.pass(pictures[static_cast<std::size_t>(i % distinctFrames)], out);
                frameMs.push_back(std::chrono::duration<double, std::milli>(
                                      std::chrono::steady_clock::now() - before)
                                      .count());
            }
            const double cpuMs = (processCpuSeconds() - cpuBefore) * 1000 / frames;
            std::printf("%4dx%-5d %-28s %9.2f %12.2f %5d %3d %3d %8s\n", size[0], size[1], way.name,
                        median(frameMs), cpuMs, y, u, v, bt709 ? "yes" : "no");
        }
    }
    std::printf("Debian's libyuv converts RGB only to BT.601 (ARGBToI420, limited range) or to "
                "full-range JPEG YUV (ARGBToJ420); it has no RGB to BT.709 conversion.\n");
    return 0;
}
