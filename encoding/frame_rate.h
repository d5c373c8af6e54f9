#pragma once

// Frame rates, and the eight of them that broadcast has.

#include <array>

extern "C" {
#include <libavutil/rational.h>
}

#include "captions/timecode.h"

namespace gsve::encoding {

inline captions::FrameRate caption_rate(AVRational rate) { return {rate.num, rate.den}; }

/// The lowest rate of 24000/1001, 24, 25, ... 60 that loses no pictures of `rate`, or the highest there is.
inline AVRational broadcast_rate(AVRational rate) {
    // Rates that every codec here can signal (MPEG-2 frame_rate_code has no others), in ascending order.
    constexpr std::array<AVRational, 8> kRates = {
        {{24000, 1001}, {24, 1}, {25, 1}, {30000, 1001}, {30, 1}, {50, 1}, {60000, 1001}, {60, 1}}};
    for (const AVRational candidate : kRates)
        if (av_q2d(candidate) > 0.9995 * av_q2d(rate)) return candidate;
    return kRates.back();
}

}  // namespace gsve::encoding
