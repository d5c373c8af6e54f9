#pragma once

// What differs between FFmpeg 5.1 (libavcodec 59), 6 (60), 7 (61) and 9 (63), in one place.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avutil.h>
#include <libavutil/frame.h>
}

namespace gsve::detail {

// Three properties of a picture were fields of their own, became bits of AVFrame.flags in FFmpeg 6.1, and are
// nothing else since FFmpeg 8. In between a host may read them either way: both are set.
#define GSVE_FRAME_HAS_FLAGS (LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(58, 7, 100))
#define GSVE_FRAME_HAS_FIELDS (LIBAVUTIL_VERSION_MAJOR < 60)

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

#if GSVE_FRAME_HAS_FLAGS

inline void set_frame_flag(AVFrame& frame, int flag, bool set) {
    frame.flags = set ? frame.flags | flag : frame.flags & ~flag;
}
inline bool is_interlaced(const AVFrame& frame) { return (frame.flags & AV_FRAME_FLAG_INTERLACED) != 0; }
inline bool is_top_field_first(const AVFrame& frame) {
    return (frame.flags & AV_FRAME_FLAG_TOP_FIELD_FIRST) != 0;
}

#else

inline bool is_interlaced(const AVFrame& frame) { return frame.interlaced_frame != 0; }
inline bool is_top_field_first(const AVFrame& frame) { return frame.top_field_first != 0; }

#endif

inline void set_key_frame(AVFrame& frame, bool key) {
#if GSVE_FRAME_HAS_FLAGS
    set_frame_flag(frame, AV_FRAME_FLAG_KEY, key);
#endif
#if GSVE_FRAME_HAS_FIELDS
    frame.key_frame = key;
#endif
}

inline void set_interlacing(AVFrame& frame, bool interlaced, bool top_field_first) {
#if GSVE_FRAME_HAS_FLAGS
    set_frame_flag(frame, AV_FRAME_FLAG_INTERLACED, interlaced);
    set_frame_flag(frame, AV_FRAME_FLAG_TOP_FIELD_FIRST, top_field_first);
#endif
#if GSVE_FRAME_HAS_FIELDS
    frame.interlaced_frame = interlaced;
    frame.top_field_first = top_field_first;
#endif
}

// ticks_per_frame still counts in the encoders of 6.1 and 7, where it is deprecated without a substitute for
// them, and is gone since 8.
#if LIBAVCODEC_VERSION_MAJOR < 62
inline void set_ticks_per_frame(AVCodecContext& context, int ticks) { context.ticks_per_frame = ticks; }
inline int ticks_per_frame(const AVCodecContext& context) { return context.ticks_per_frame; }
#else
inline void set_ticks_per_frame(AVCodecContext&, int) {}
inline int ticks_per_frame(const AVCodecContext&) { return 1; }
#endif

#pragma GCC diagnostic pop

}  // namespace gsve::detail
