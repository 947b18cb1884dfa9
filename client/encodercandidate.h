#pragma once

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <string>

struct AVCodec;

// What the writer knows about an encoder it may be given: the pixel format to feed it and
// the label it goes by in the log.
struct EncoderCandidate {
    const char* name;
    AVPixelFormat pixelFormat;
    const char* label;
};

// The encoders with known needs; any other gets planar YUV 4:2:0, the label "default" and the
// low-latency "preset"/"tune" options.
inline constexpr EncoderCandidate EncoderCandidates[] = {
    {"libopenh264", AV_PIX_FMT_YUV420P, "libopenh264"},
    {"h264_qsv", AV_PIX_FMT_NV12, "h264_qsv"},
    {"h264_amf", AV_PIX_FMT_NV12, "h264_amf"},
    {"h264_nvenc", AV_PIX_FMT_NV12, "h264_nvenc"},
};

// The table entry for an encoder name (lower-cased, compared exactly); a null name means the
// encoder is not in the table.
EncoderCandidate encoderCandidateFor(const std::string& encoderName);

// The encoder to open for the configured codec name, or any H.264 encoder where that name is
// not found, with its table entry in `candidate`. Null, with the reason in the log, where none
// is found or the encoder does not take the candidate's pixel format.
const AVCodec* chooseEncoder(const std::string& requested, EncoderCandidate& candidate);
