#pragma once

extern "C" {
#include <libavutil/error.h>
}

#include <string>

// FFmpeg's words for one of its error codes, for the log.
inline std::string averrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}
