#pragma once

// Which chroma format a source has, which one is asked for, and which one the codec and profile can take.

#include <cstdint>
#include <string_view>

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace gsve::detail {

/// A planar 8-bit format; shifts are log2 of the chroma subsampling.
struct ChromaFormat {
    AVPixelFormat pixel_format;
    uint32_t shift_x, shift_y;
    const char* label;

    bool same_shifts(const ChromaFormat& other) const {
        return shift_x == other.shift_x && shift_y == other.shift_y;
    }
};

inline constexpr ChromaFormat kYuv444 = {AV_PIX_FMT_YUV444P, 0, 0, "4:4:4"};
inline constexpr ChromaFormat kYuv422 = {AV_PIX_FMT_YUV422P, 1, 0, "4:2:2"};
inline constexpr ChromaFormat kYuv420 = {AV_PIX_FMT_YUV420P, 1, 1, "4:2:0"};

/// What a source may deliver. Hosts describe their 4:1:0 sources with a vertical shift of 1.
inline constexpr ChromaFormat kSourceFormats[] = {
    kYuv444, kYuv422, kYuv420, {AV_PIX_FMT_YUV411P, 2, 0, "?"}, {AV_PIX_FMT_YUV410P, 2, 1, "?"},
};

/// The source format with these shifts, or null.
inline const ChromaFormat* find_source_format(uint32_t shift_x, uint32_t shift_y) {
    for (const ChromaFormat& format : kSourceFormats)
        if (format.shift_x == shift_x && format.shift_y == shift_y) return &format;
    return nullptr;
}

/// The format that the setting "chroma format" asks for; the source's own for any other text.
inline ChromaFormat wanted_format(std::string_view setting, const ChromaFormat& source) {
    for (const ChromaFormat& format : {kYuv444, kYuv422, kYuv420})
        if (setting == format.label) return format;
    return source;
}

/// A step down to what the codec or profile can take.
struct FormatLimit {
    bool mpeg2;  ///< holds for MPEG-2; otherwise for H.264 and H.265
    AVPixelFormat from;
    ChromaFormat to;
    std::string_view lifting_profiles[2];  ///< profiles to which it does not apply
    const char* diagnostic;
    const char* note;

    bool applies(bool codec_is_mpeg2, std::string_view profile, AVPixelFormat format) const {
        if (mpeg2 != codec_is_mpeg2 || from != format) return false;
        if (mpeg2) return true;
        return profile != lifting_profiles[0] && profile != lifting_profiles[1];
    }
};

/// Applied in this order, so that 4:4:4 may fall through to 4:2:0. The texts stay as they are:
/// docs/contract.md, "Texts".
inline constexpr FormatLimit kFormatLimits[] = {
    {true,
     AV_PIX_FMT_YUV444P,
     kYuv422,
     {},
     "MPEG-2 cannot do 4:4:4, switching to 4:2:2\n",
     "MPEG-2 cannot do 4:4:4, switching to 4:2:2\n"},
    {false,
     AV_PIX_FMT_YUV444P,
     kYuv422,
     {"high444", "high444"},
     "H.264 High444 not selected, dropping 4:4:4 to 4:2:2\n",
     "Insufficient profile to support 4:4:4 (needs high444)\n"},
    {false,
     AV_PIX_FMT_YUV422P,
     kYuv420,
     {"high444", "high422"},
     "H.264 High222 not selected, dropping 4:2:2 to 4:2:0\n",
     "Insufficient profile to support 4:2:2 (needs high222)\n"},
};

}  // namespace gsve::detail
