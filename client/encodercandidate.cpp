#include "encodercandidate.h"

#include "logfile.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cctype>

namespace {

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

const char* pixelFormatName(AVPixelFormat format) {
    const char* name = av_get_pix_fmt_name(format);
    return name ? name : "unknown";
}

// The pixel formats an encoder publishes, or null when it publishes none.
const AVPixelFormat* publishedPixelFormats(const AVCodec* encoder) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
    const void* formats = nullptr;
    int count = 0;
    if (avcodec_get_supported_config(nullptr, encoder, AV_CODEC_CONFIG_PIX_FORMAT, 0, &formats,
                                     &count) < 0)
        return nullptr;
    return static_cast<const AVPixelFormat*>(formats);
#else
    return encoder->pix_fmts;
#endif
}

} // namespace

EncoderCandidate encoderCandidateFor(const std::string& encoderName) {
    const std::string name = lowerCase(encoderName);
    for (const EncoderCandidate& candidate : EncoderCandidates)
        if (name == candidate.name)
            return candidate;
    return {nullptr, AV_PIX_FMT_YUV420P, "default"};
}

const AVCodec* chooseEncoder(const std::string& requested, EncoderCandidate& candidate) {
    const AVCodec* encoder = avcodec_find_encoder_by_name(requested.c_str());
    if (!encoder) {
        logLine("OUTWriter requested encoder not found: ", requested,
                ". Falling back to AV_CODEC_ID_H264");
        encoder = avcodec_find_encoder(AV_CODEC_ID_H264);
        if (!encoder) {
            logLine("OUTWriter failed to find H.264 encoder");
            return nullptr;
        }
    }
    const std::string name = encoder->name ? encoder->name : "";
    candidate = encoderCandidateFor(name);
    logLine("OUTWriter requested encoder: ", requested, ", selected encoder: ", name, " (",
            encoder->long_name ? encoder->long_name : "", ")", ", profile: ", candidate.label);

    if (const AVPixelFormat* formats = publishedPixelFormats(encoder)) {
        bool supported = false;
        for (; *formats != AV_PIX_FMT_NONE && !supported; ++formats)
            supported = *formats == candidate.pixelFormat;
        if (!supported) {
            logLine("OUTWriter selected encoder does not report pixel format support: ", name,
                    " pix_fmt=", pixelFormatName(candidate.pixelFormat));
            return nullptr;
        }
    }
    logLine("OUTWriter selected pixel format: ", pixelFormatName(candidate.pixelFormat));
    return encoder;
}
