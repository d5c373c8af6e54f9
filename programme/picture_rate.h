#pragma once

// The rate of the pictures in a stream.

#include "programme/av.h"

namespace gsve::programme {

inline bool is_rate(AVRational rate) { return rate.num > 0 && rate.den > 0; }

/// The rate of whole pictures, of the container's two estimates: the rate that all times fit and the average.
/// 25 where it has neither.
AVRational picture_rate(AVFormatContext* input, AVStream* stream);

/// Whether the container's two estimates agree. An interlaced stream may have the former counted in fields.
bool has_constant_rate(const AVStream& stream);

}  // namespace gsve::programme
