#pragma once

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <cstdint>

struct AVFrame;
struct SwsContext;

// The one pass from a picture as it was handed over to the encoder's picture: stretch (aspect
// ignored) and colour conversion with the BT.709 matrix into limited range, the colours the
// stream is tagged with. Owns its swscale context, which is built again only when the source's
// layout or size changes, so a frame resized while live changes this and nothing else.
class PictureScaler {
public:
    PictureScaler() = default;
    ~PictureScaler();
    PictureScaler(const PictureScaler&) = delete;
    PictureScaler& operator=(const PictureScaler&) = delete;

    // False when swscale cannot convert between the two; the reason is in the log.
    bool prepare(AVPixelFormat format, int sourceWidth, int sourceHeight, const AVFrame* target,
                 int filter);
    // One packed picture of the prepared layout and size into `target`.
    void scale(const uint8_t* data, int stride, AVFrame* target) const;
    void release();

private:
    SwsContext* context = nullptr;
    AVPixelFormat sourceFormat = AV_PIX_FMT_NONE;
    int sourceWidth = 0;
    int sourceHeight = 0;
};
