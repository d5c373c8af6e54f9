#pragma once

// Key frame, interlaced, top field first: fields of a picture up to FFmpeg 7, flags from FFmpeg 6.1 on.

#include <optional>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/frame.h>
}

namespace gsve::test {

struct FrameMarks {
    bool key_frame, interlaced, top_field_first;

    bool operator==(const FrameMarks&) const = default;
};

/// Nothing where this FFmpeg has no such fields.
inline std::optional<FrameMarks> marks_by_fields([[maybe_unused]] const AVFrame& frame) {
#if LIBAVUTIL_VERSION_MAJOR < 60
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return FrameMarks{frame.key_frame != 0, frame.interlaced_frame != 0, frame.top_field_first != 0};
#pragma GCC diagnostic pop
#else
    return std::nullopt;
#endif
}

/// Nothing where this FFmpeg has no such flags.
inline std::optional<FrameMarks> marks_by_flags([[maybe_unused]] const AVFrame& frame) {
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(58, 7, 100)
    const auto has = [&](int flag) { return (frame.flags & flag) != 0; };
    return FrameMarks{has(AV_FRAME_FLAG_KEY), has(AV_FRAME_FLAG_INTERLACED),
                      has(AV_FRAME_FLAG_TOP_FIELD_FIRST)};
#else
    return std::nullopt;
#endif
}

inline FrameMarks marks_of(const AVFrame& frame) {
    const std::optional<FrameMarks> flags = marks_by_flags(frame);
    return flags ? *flags : *marks_by_fields(frame);
}

}  // namespace gsve::test
