#pragma once

// When something is shown, as reports tell it.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "programme/stream_inspection.h"

namespace gsve::report {

/// "00:01:02.345".
inline std::string clock_text(double seconds) {
    const auto ms = std::llround(seconds * 1000);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", ms / 3'600'000, ms / 60'000 % 60, ms / 1000 % 60,
                       ms % 1000);
}

/// "00:01:02.34".
inline std::string coarse_clock_text(double seconds) {
    const auto hundredths = std::llround(seconds * 100);
    return fmt::format("{:02}:{:02}:{:02}.{:02}", hundredths / 360000, hundredths / 6000 % 60,
                       hundredths / 100 % 60, hundredths % 100);
}

/// When picture `number` is shown; of a number past the end, when the last picture ends.
inline double time_of(const programme::InspectedStream& stream, int64_t number) {
    const auto count = static_cast<int64_t>(stream.pictures.size());
    if (number < count) return stream.pictures[static_cast<size_t>(std::max<int64_t>(number, 0))].time;
    return stream.pictures.back().time + 1 / stream.rate.per_second();
}

}  // namespace gsve::report
