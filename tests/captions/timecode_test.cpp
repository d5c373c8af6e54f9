#include "captions/timecode.h"

#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace gsve::captions {
namespace {

std::string error_of(const std::string& text, FrameRate rate) {
    try {
        parse_timecode(text, rate);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "accepted";
}

struct CountingCase {
    FrameRate rate;
    const char* timecode;
    std::int64_t frame;
};

class Counting : public testing::TestWithParam<CountingCase> {};

TEST_P(Counting, AgreesInBothDirections) {
    const CountingCase& c = GetParam();
    const Timecode timecode = parse_timecode(c.timecode, c.rate);
    EXPECT_EQ(timecode_to_frame(timecode, c.rate), c.frame);
    EXPECT_EQ(format_timecode(frame_to_timecode(c.frame, c.rate, timecode.drop_frame)), c.timecode);
}

INSTANTIATE_TEST_SUITE_P(
    Timecode, Counting,
    testing::Values(
        CountingCase{kRate23_976, "00:00:01:00", 24}, CountingCase{kRate24, "01:00:00:23", 86423},
        CountingCase{kRate25, "10:00:00:00", 900000}, CountingCase{kRate30, "00:01:00:00", 1800},
        CountingCase{kRate50, "00:00:59:49", 2999}, CountingCase{kRate60, "00:00:00:59", 59},
        CountingCase{kRate29_97, "00:01:00:00", 1800}, CountingCase{kRate29_97, "00:00:59;29", 1799},
        CountingCase{kRate29_97, "00:01:00;02", 1800}, CountingCase{kRate29_97, "00:01:59;29", 3597},
        CountingCase{kRate29_97, "00:02:00;02", 3598}, CountingCase{kRate29_97, "00:09:59;29", 17981},
        CountingCase{kRate29_97, "00:10:00;00", 17982}, CountingCase{kRate29_97, "00:10:00;01", 17983},
        CountingCase{kRate29_97, "00:11:00;02", 19782}, CountingCase{kRate29_97, "01:00:00;00", 107892},
        CountingCase{kRate29_97, "23:59:59;29", 2589407}, CountingCase{kRate59_94, "00:00:59;59", 3599},
        CountingCase{kRate59_94, "00:01:00;04", 3600}, CountingCase{kRate59_94, "00:10:00;00", 35964},
        CountingCase{kRate59_94, "01:00:00;00", 215784}, CountingCase{kRate59_94, "23:59:59;59", 5178815}));

TEST(Timecode, CountsEveryDropFrameCodeOfADayOnce) {
    Timecode expected{0, 0, 0, 0, true};
    for (std::int64_t frame = 0; frame < 2589408; ++frame) {
        ASSERT_EQ(frame_to_timecode(frame, kRate29_97, true), expected) << frame;
        if (++expected.frames < 30) continue;
        expected.frames = 0;
        if (++expected.seconds < 60) continue;
        expected.seconds = 0;
        expected.hours += (expected.minutes + 1) / 60;
        expected.minutes = (expected.minutes + 1) % 60;
        expected.frames = expected.minutes % 10 == 0 ? 0 : 2;
    }
}

TEST(Timecode, WrapsAtMidnightInBothDirections) {
    EXPECT_EQ(format_timecode(frame_to_timecode(2589408, kRate29_97, true)), "00:00:00;00");
    EXPECT_EQ(format_timecode(frame_to_timecode(-1, kRate29_97, true)), "23:59:59;29");
    EXPECT_EQ(format_timecode(frame_to_timecode(-1, kRate25, false)), "23:59:59:24");
}

TEST(Timecode, AcceptsSemicolonsThroughout) {
    EXPECT_EQ(parse_timecode("01;02;03;04", kRate29_97), (Timecode{1, 2, 3, 4, true}));
}

TEST(Timecode, SaysWhatToChange) {
    EXPECT_EQ(error_of("1:00:00:00", kRate25),
              "\"1:00:00:00\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame");
    EXPECT_EQ(error_of("00;00:00:00", kRate25),
              "\"00;00:00:00\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame");
    EXPECT_EQ(
        error_of("00:00:00:25", kRate25),
        "time code \"00:00:00:25\" is out of range: hours go to 23, minutes and seconds to 59, frames to 24");
    EXPECT_EQ(
        error_of("24:00:00:00", kRate60),
        "time code \"24:00:00:00\" is out of range: hours go to 23, minutes and seconds to 59, frames to 59");
    EXPECT_EQ(
        error_of("00:00:00;00", kRate25),
        "drop-frame time code \"00:00:00;00\" needs 29.97 or 59.94 frames per second, not 25: write it with "
        "':' before the frames");
    EXPECT_EQ(error_of("00:01:00;01", kRate29_97),
              "drop-frame counting leaves out time code \"00:01:00;01\": the minute begins with frame 02");
    EXPECT_EQ(error_of("00:01:00;03", kRate59_94),
              "drop-frame counting leaves out time code \"00:01:00;03\": the minute begins with frame 04");
    EXPECT_EQ(error_of("00:10:00;01", kRate29_97), "accepted");
}

TEST(Timecode, CountsItsPartsAsAsked) {
    const Timecode parts{0, 2, 0, 2, false};
    EXPECT_EQ(frame_counted(parts, kRate29_97, false), 3602);
    EXPECT_EQ(frame_counted(parts, kRate29_97, true), 3598);
    EXPECT_THROW(frame_counted(parts, kRate59_94, true), std::invalid_argument);
    EXPECT_THROW(frame_counted({0, 0, 0, 25, false}, kRate25, false), std::invalid_argument);
    EXPECT_FALSE(is_counted({0, 1, 0, 1, true}, kRate29_97));
    EXPECT_TRUE(is_counted({0, 10, 0, 1, true}, kRate29_97));
    EXPECT_TRUE(is_counted({0, 1, 0, 1, false}, kRate29_97));
}

TEST(Timecode, KnowsWhichRatesHaveDropFrame) {
    EXPECT_TRUE(has_drop_frame(kRate29_97));
    EXPECT_TRUE(has_drop_frame(kRate59_94));
    EXPECT_TRUE(has_drop_frame({2997, 100}));
    for (const FrameRate rate : {kRate23_976, kRate24, kRate25, kRate30, kRate50, kRate60})
        EXPECT_FALSE(has_drop_frame(rate)) << rate.per_second();
}

TEST(TimecodeCounter, CountsOnAcrossADroppedMinute) {
    const TimecodeCounter counter(parse_timecode("09:59:59;58", kRate59_94), kRate59_94);
    EXPECT_EQ(format_timecode(counter.at(0)), "09:59:59;58");
    EXPECT_EQ(format_timecode(counter.at(2)), "10:00:00;00");
    EXPECT_EQ(format_timecode(counter.at(2 + 3600)), "10:01:00;04");
}

TEST(GopTimecode, KeepsPictureNumbersUpTo59) {
    const GopTimecode header = gop_timecode(parse_timecode("23:58:57;59", kRate59_94));
    EXPECT_EQ(header, (GopTimecode{1, 23, 58, 57, 59}));
    EXPECT_EQ(gop_timecode(parse_timecode("01:02:03:49", kRate50)), (GopTimecode{0, 1, 2, 3, 49}));
}

TEST(FrameTime, ConvertsBetweenFramesAndSeconds) {
    EXPECT_DOUBLE_EQ(frame_to_seconds(30000, kRate29_97), 1001.0);
    EXPECT_EQ(seconds_to_frame(1001.0, kRate29_97), 30000);
    EXPECT_EQ(milliseconds_to_frame(1000, kRate29_97), 30);  // 29.97
    EXPECT_EQ(milliseconds_to_frame(1017, kRate29_97), 30);  // 30.48
    EXPECT_EQ(milliseconds_to_frame(1019, kRate29_97), 31);  // 30.54
    EXPECT_EQ(milliseconds_to_frame(0, kRate25), 0);
    EXPECT_EQ(milliseconds_to_frame(86399999, kRate60), 5184000);
}

TEST(FrameTime, ComparesBeginningsExactly) {
    EXPECT_TRUE(begins_by(30000, kRate29_97, 60000, kRate59_94));
    EXPECT_FALSE(begins_by(30001, kRate29_97, 60001, kRate59_94));
    EXPECT_EQ(first_frame_not_before(1, kRate59_94, kRate29_97), 1);
    EXPECT_EQ(first_frame_not_before(2, kRate59_94, kRate29_97), 1);
    EXPECT_EQ(first_frame_not_before(4, kRate24, kRate30), 5);
    EXPECT_EQ(first_frame_not_before(5, kRate24, kRate30), 7);
    EXPECT_EQ(first_frame_not_before(0, kRate24, kRate30), 0);
}

TEST(Timecode, BeginsAtMidnight) {
    EXPECT_EQ(Timecode{}, (Timecode{0, 0, 0, 0, false}));
    EXPECT_EQ(format_timecode({}), "00:00:00:00");
}

TEST(Timecode, HasTwoDigitsInEachPartAndOneSeparatorThroughout) {
    const std::string whole = "12:34:56:07";
    EXPECT_TRUE(is_timecode(whole));
    for (std::size_t at = 0; at < whole.size(); ++at)
        for (const char c : {'/', ':', ';', '.', 'a', ' '}) {
            std::string text = whole;
            if (text[at] == c) continue;
            text[at] = c;
            EXPECT_EQ(is_timecode(text), at == 8 && c == ';') << text;
        }
    for (const char* text : {"12;34;56;07", "00:00:00:00", "99:99:99:99"})
        EXPECT_TRUE(is_timecode(text)) << text;
    for (const char* text : {"", "12:34:56:0", "12:34:56:077", "12;34;56:07", "12:34;56;07", "12;34:56;07"})
        EXPECT_FALSE(is_timecode(text)) << text;
}

TEST(Timecode, GoesToTheLastOfEachPart) {
    EXPECT_EQ(parse_timecode("23:59:59:29", kRate29_97), (Timecode{23, 59, 59, 29, false}));
    for (const char* text : {"24:00:00:00", "00:60:00:00", "00:00:60:00", "00:00:00:30"})
        EXPECT_THROW(parse_timecode(text, kRate29_97), std::invalid_argument) << text;
    EXPECT_EQ(parse_timecode("12:34:56:07", kRate29_97), (Timecode{12, 34, 56, 7, false}));
}

// The first and the last codes of every minute, where the count leaps.
TEST(Timecode, CountsEveryMinuteOfADayOfDoubleRateDropFrame) {
    std::int64_t frame = 0;
    for (int minute = 0; minute < 24 * 60; ++minute) {
        const int first = minute % 10 == 0 ? 0 : 4;
        for (const auto& [seconds, frames] : {std::pair{0, first}, {0, 59}, {1, 0}, {59, 59}}) {
            const Timecode timecode{minute / 60, minute % 60, seconds, frames, true};
            const std::int64_t expected = frame + seconds * 60 + frames - first;
            ASSERT_TRUE(is_counted(timecode, kRate59_94));
            ASSERT_EQ(timecode_to_frame(timecode, kRate59_94), expected);
            ASSERT_EQ(frame_to_timecode(expected, kRate59_94, true), timecode);
        }
        for (int left_out = 0; left_out < first; ++left_out)
            ASSERT_FALSE(is_counted({minute / 60, minute % 60, 0, left_out, true}, kRate59_94));
        frame += 3600 - first;
    }
    EXPECT_EQ(frames_per_day(kRate59_94, true), frame);
}

TEST(Timecode, HasADayOfFrames) {
    EXPECT_EQ(frames_per_day(kRate23_976, false), 2073600);
    EXPECT_EQ(frames_per_day(kRate25, false), 2160000);
    EXPECT_EQ(frames_per_day(kRate29_97, false), 2592000);
    EXPECT_EQ(frames_per_day(kRate29_97, true), 2589408);
}

TEST(FrameRate, IsEqualByItsValue) {
    EXPECT_TRUE((FrameRate{60000, 2002} == kRate29_97));
    EXPECT_FALSE((FrameRate{30001, 1001} == kRate29_97));
    EXPECT_FALSE((FrameRate{30000, 1000} == kRate29_97));
    EXPECT_DOUBLE_EQ(kRate29_97.per_second(), 30000 / 1001.0);
}

TEST(FrameRate, HasTheValuesOfTheStandards) {
    const std::pair<FrameRate, double> rates[] = {{kRate23_976, 24 / 1.001}, {kRate24, 24}, {kRate25, 25},
                                                  {kRate29_97, 30 / 1.001},  {kRate30, 30}, {kRate50, 50},
                                                  {kRate59_94, 60 / 1.001},  {kRate60, 60}};
    for (const auto& [rate, per_second] : rates) EXPECT_DOUBLE_EQ(rate.per_second(), per_second);
    const int nominal[] = {24, 24, 25, 30, 30, 50, 60, 60};
    for (std::size_t n = 0; n < std::size(nominal); ++n) EXPECT_EQ(nominal_rate(rates[n].first), nominal[n]);
}

TEST(Timecode, HasDropFrameNearAThousandthBelowARoundRate) {
    for (const FrameRate rate : {FrameRate{2996, 100}, FrameRate{2998, 100}, FrameRate{5992, 100}})
        EXPECT_TRUE(has_drop_frame(rate)) << rate.per_second();
    for (const FrameRate rate :
         {FrameRate{2995, 100}, FrameRate{2999, 100}, FrameRate{3003, 100}, FrameRate{2498, 100}})
        EXPECT_FALSE(has_drop_frame(rate)) << rate.per_second();
}

TEST(FrameTime, TakesTheEarlierOfTwoEquallyNearFrames) {
    EXPECT_EQ(milliseconds_to_frame(20, kRate25), 0);
    EXPECT_EQ(milliseconds_to_frame(21, kRate25), 1);
    EXPECT_EQ(milliseconds_to_frame(60, kRate25), 1);
    EXPECT_EQ(milliseconds_to_frame(61, kRate25), 2);
    EXPECT_EQ(seconds_to_frame(0.039, kRate25), 1);
    EXPECT_EQ(seconds_to_frame(2.5, kRate25), 63);
}

TEST(FrameTime, BeginsByItsOwnTime) {
    EXPECT_TRUE(begins_by(4, kRate24, 5, kRate30));
    EXPECT_TRUE(begins_by(3, kRate24, 5, kRate30));
    EXPECT_FALSE(begins_by(5, kRate24, 5, kRate30));
    EXPECT_TRUE(begins_by(1000, kRate29_97, 1001, kRate30));
    EXPECT_FALSE(begins_by(1001, kRate29_97, 1001, kRate30));
    EXPECT_EQ(first_frame_not_before(-1, kRate24, kRate30), -1);
    EXPECT_EQ(first_frame_not_before(1000, kRate29_97, kRate30), 1001);
    EXPECT_EQ(first_frame_not_before(1, kRate29_97, kRate59_94), 2);
}

}  // namespace
}  // namespace gsve::captions
