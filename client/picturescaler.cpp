#include "picturescaler.h"

#include "logfile.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace {

const char* formatName(int format) {
    const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(format));
    return name ? name : "unknown";
}

} // namespace

PictureScaler::~PictureScaler() {
    release();
}

bool PictureScaler::prepare(AVPixelFormat format, int width, int height, const AVFrame* target,
                            int filter) {
    if (context && format == sourceFormat && width == sourceWidth && height == sourceHeight)
        return true;
    context = sws_getCachedContext(context, width, height, format, target->width, target->height,
                                   static_cast<AVPixelFormat>(target->format), filter, nullptr,
                                   nullptr, nullptr);
    sourceFormat = AV_PIX_FMT_NONE;
    if (!context) {
        logLine("OUTWriter failed to create swscale context for ", width, "x", height, " ",
                formatName(format));
        return false;
    }
    // Set again on every change: the cached context may come back new at the same address.
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(context, bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
    sourceFormat = format;
    sourceWidth = width;
    sourceHeight = height;
    logLine("OUTWriter scales ", width, "x", height, " ", formatName(format), " to ", target->width,
            "x", target->height, " ", formatName(target->format));
    return true;
}

void PictureScaler::scale(const uint8_t* data, int stride, AVFrame* target) const {
    // swscale reads four planes and four strides, whatever the format uses.
    const uint8_t* const planes[4] = {data, nullptr, nullptr, nullptr};
    const int strides[4] = {stride, 0, 0, 0};
    sws_scale(context, planes, strides, 0, sourceHeight, target->data, target->linesize);
}

void PictureScaler::release() {
    sws_freeContext(context);
    context = nullptr;
    sourceFormat = AV_PIX_FMT_NONE;
}
