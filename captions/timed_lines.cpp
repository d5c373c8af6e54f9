#include "timed_lines.h"

#include <algorithm>

#include <fmt/format.h>

#include "text_file.h"

namespace gsve::captions {

namespace {

// Time codes that go on after midnight instead of beginning again.
void count_past_midnight(std::vector<TimedLine>& lines, std::int64_t day) {
    std::int64_t midnights = 0, before = lines.front().frame;
    for (TimedLine& line : lines) {
        const std::int64_t step = line.frame + midnights - before;
        if (step < -day / 2)
            midnights += day;
        else if (step > day / 2 && midnights > 0)
            midnights -= day;  // a line out of order, from before midnight
        before = line.frame += midnights;
    }
}

// What brings the file to the day of `start`.
std::int64_t days_between(const std::vector<TimedLine>& lines, std::int64_t day, std::int64_t start) {
    const auto [first, last] = std::minmax_element(
        lines.begin(), lines.end(), [](const TimedLine& a, const TimedLine& b) { return a.frame < b.frame; });
    if (start - last->frame > day / 2) return day;
    return first->frame - start > day / 2 ? -day : 0;
}

void report_disorder(const std::vector<TimedLine>& lines, const std::string& name, Report& report) {
    std::size_t count = 0;
    int first{};
    std::int64_t newest = lines.front().frame;
    for (const TimedLine& line : lines) {
        if (line.frame < newest && count++ == 0) first = line.number;
        newest = std::max(newest, line.frame);
    }
    if (count > 0)
        report.add(WarningKind::kTimeCodes, name, first,
                   fmt::format("{} with an earlier time code than a line before (the first one here): the "
                               "lines are put in order",
                               counted(count, "line")));
}

}  // namespace

std::vector<TimedLine> in_order(std::vector<TimedLine> lines, std::int64_t day,
                                std::optional<std::int64_t> start, const std::string& name, Report& report) {
    if (lines.empty()) return lines;
    count_past_midnight(lines, day);
    report_disorder(lines, name, report);
    const std::int64_t origin = start ? *start - days_between(lines, day, *start) : 0;
    for (TimedLine& line : lines) line.frame -= origin;
    std::stable_sort(lines.begin(), lines.end(),
                     [](const TimedLine& a, const TimedLine& b) { return a.frame < b.frame; });
    return lines;
}

}  // namespace gsve::captions
