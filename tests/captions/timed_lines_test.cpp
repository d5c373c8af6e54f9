#include "captions/timed_lines.h"

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace gsve::captions {
namespace {

// Lines 1, 2, ... of a file with these time codes, of days of 100 frames.
std::vector<std::int64_t> in_order(const std::vector<std::int64_t>& frames, std::optional<std::int64_t> start,
                                   Report& report) {
    std::vector<TimedLine> lines;
    for (const std::int64_t frame : frames) lines.push_back({frame, "", static_cast<int>(lines.size()) + 1});
    std::vector<std::int64_t> ordered;
    for (const TimedLine& line : in_order(std::move(lines), 100, start, "a", report))
        ordered.push_back(line.frame);
    return ordered;
}

struct OrderCase {
    std::vector<std::int64_t> frames;
    std::vector<std::int64_t> ordered;
    std::string disorder;  // lines, and the first of them
};

class TimedLines : public testing::TestWithParam<OrderCase> {};

TEST_P(TimedLines, GoOnOverMidnightWhereTheyStepBackByMoreThanHalfADay) {
    Report report;
    EXPECT_EQ(in_order(GetParam().frames, std::nullopt, report), GetParam().ordered);
    std::vector<std::string> warnings;
    if (const std::string& disorder = GetParam().disorder; !disorder.empty())
        warnings.push_back(
            "a:" + disorder +
            " with an earlier time code than a line before (the first one here): the lines are "
            "put in order");
    EXPECT_EQ(report.lines(), warnings);
}

INSTANTIATE_TEST_SUITE_P(
    Captions, TimedLines,
    testing::Values(OrderCase{{}, {}, ""}, OrderCase{{7}, {7}, ""}, OrderCase{{10, 10, 90}, {10, 10, 90}, ""},
                    OrderCase{{60, 10}, {10, 60}, "2: 1 line"}, OrderCase{{61, 10}, {61, 110}, ""},
                    OrderCase{{90, 10, 60}, {90, 110, 160}, ""},
                    OrderCase{{90, 10, 61}, {61, 90, 110}, "3: 1 line"},
                    OrderCase{{90, 10, 60, 10}, {90, 110, 110, 160}, "4: 1 line"},
                    OrderCase{{90, 10, 60, 9}, {90, 110, 160, 209}, ""},
                    OrderCase{{30, 20, 40, 25, 39, 40}, {20, 25, 30, 39, 40, 40}, "2: 3 lines"}));

struct StartCase {
    std::vector<std::int64_t> frames;
    std::int64_t start;
    std::vector<std::int64_t> ordered;
};

class TimedLinesStart : public testing::TestWithParam<StartCase> {};

TEST_P(TimedLinesStart, IsOnTheDayThatIsNearest) {
    Report report;
    EXPECT_EQ(in_order(GetParam().frames, GetParam().start, report), GetParam().ordered);
}

INSTANTIATE_TEST_SUITE_P(Captions, TimedLinesStart,
                         testing::Values(StartCase{{10, 20}, 5, {5, 15}}, StartCase{{10, 20}, 70, {-60, -50}},
                                         StartCase{{10, 20}, 71, {39, 49}}, StartCase{{80, 90}, 30, {50, 60}},
                                         StartCase{{80, 90}, 29, {-49, -39}}));

TEST(TimedLines, KeepTheirDataAndTheirOrderOnAFrame) {
    Report report;
    const std::vector<TimedLine> lines =
        in_order({{5, "b", 1}, {3, "a", 2}, {5, "c", 3}}, 100, std::nullopt, "a", report);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].data, "a");
    EXPECT_EQ(lines[0].number, 2);
    EXPECT_EQ(lines[1].data, "b");
    EXPECT_EQ(lines[2].data, "c");
}

}  // namespace
}  // namespace gsve::captions
