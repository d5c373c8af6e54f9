#pragma once

// Stuffing that MPEG-2 at a constant bit rate asks for, and libavcodec's encoder has no room for. Where the
// rate control's buffer is full, a picture is stuffed up to its share of the rate. libavcodec writes that
// behind the picture, in memory that it sizes by the macroblocks; a picture for which that is too little is
// refused, and after a few of them its rate control ends the process by an assertion.

#include <algorithm>
#include <cmath>
#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace gsve::encoding {

/// The most bits that an open MPEG-2 encoder's picture and its stuffing may have together. A picture that is
/// divided into slices for several threads gets memory for the most that its macroblocks can take; a whole
/// one gets little, which grows, but not for stuffing.
inline int64_t stuffing_room(const AVCodecContext& context) {
    constexpr int64_t kHeaders = 10000, kMargin = 51;          // bytes
    constexpr int64_t kOfWhole = 64, kOfDivided = 3000 + 100;  // bytes a macroblock
    const int64_t columns = (context.width + 15) / 16, rows = (context.height + 15) / 16;
    const bool divided = context.thread_count > 1 && rows > 1;
    return 8 * (kHeaders + columns * rows * (divided ? kOfDivided : kOfWhole) - kMargin);
}

/// The constant rate, in bits/s, up to which no picture is refused for its stuffing.
inline int64_t highest_stuffed_rate(const AVCodecContext& context) {
    const double rate = static_cast<double>(stuffing_room(context)) / av_q2d(context.time_base);
    return static_cast<int64_t>(std::min(rate, 2147483647.0));
}

/// Whether an open encoder would refuse pictures for their stuffing, and end the process before long.
inline bool lacks_room_for_stuffing(const AVCodecContext& context) {
    return context.codec_id == AV_CODEC_ID_MPEG2VIDEO && context.rc_min_rate > highest_stuffed_rate(context);
}

}  // namespace gsve::encoding
