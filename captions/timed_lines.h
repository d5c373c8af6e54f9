#pragma once

/// What the formats with a time code on each line (SCC, MCC) share: the order of the lines in time.
///
/// Example:
///     for (const TimedLine& line : in_order(lines, day, start, name, report)) read_pairs(line);

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report.h"

namespace gsve::captions {

struct TimedLine {
    std::int64_t frame;     ///< of its time code; in_order() gives that of the video
    std::string_view data;  ///< what follows the time code
    int number;             ///< in the file
};

/// The lines by their time codes, counted from that of the video's first picture, `start` (zero when it is
/// not given). A day has `day` frames: a step back of more than half of one leads over midnight, and so does
/// a greater distance between `start` and the file. Reported: lines that are not in order.
std::vector<TimedLine> in_order(std::vector<TimedLine> lines, std::int64_t day,
                                std::optional<std::int64_t> start, const std::string& name, Report& report);

}  // namespace gsve::captions
