#pragma once

// What FFmpeg's objects have to say to a DamageFinder.

#include <optional>

#include "programme/av.h"
#include "programme/damage_finder.h"
#include "programme/packet_source.h"

namespace gsve::programme {

/// The longest time without a picture that is a gap, in seconds. Beyond, a recording has been spliced, or its
/// clock restarted.
inline constexpr double kLargestGap = 10;

/// What the decoder says of a picture with the picture, as DamageFinder's complaints.
unsigned complaints_of(const AVFrame& frame);

/// After both have come to their end, which is `end` seconds after the first picture.
std::optional<Damage::EarlyEnd> early_end(const PacketSource& source, const DamageFinder& finder, double end);

}  // namespace gsve::programme
