#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captions/caption_file.h"
#include "captions/cc_data.h"
#include "captions/cdp.h"
#include "captions/dtvcc.h"
#include "captions/eia608_decoder.h"
#include "captions/mcc.h"
#include "captions/pop_on.h"
#include "captions/repacer.h"
#include "captions/scc.h"
#include "captions/subtitles.h"
#include "captions/text_file.h"
#include "support/scratch.h"

namespace gsve::captions {
namespace {

std::string data_file(const std::string& name) {
    return std::string(GSVE_SOURCE_DIR) + "/tests/captions/data/" + name;
}

std::string error_of(const std::function<void()>& parse) {
    try {
        parse();
    } catch (const FileError& error) {
        return error.what();
    }
    return "accepted";
}

std::vector<TimedText> decode(const Schedule& schedule) {
    Eia608Decoder decoder(schedule.rate);
    decoder.feed(schedule);
    return decoder.finish(1000000);
}

std::int64_t at(const char* timecode) {
    return timecode_to_frame(parse_timecode(timecode, kRate29_97), kRate29_97);
}

// --- SCC

TEST(Scc, PlacesOnePairPerFrameFromTheTimeCode) {
    Report report;
    const Schedule schedule =
        parse_scc("Scenarist_SCC V1.0\r\n\r\n00:01:00;02\t9420 9420 8080 94AE\r\n", "a.scc", {}, report);
    EXPECT_EQ(schedule.eia608,
              (std::vector<Eia608Event>{{1800, 0, 0x9420}, {1801, 0, 0x9420}, {1803, 0, 0x94AE}}));
    EXPECT_TRUE(report.empty());
}

TEST(Scc, CountsNonDropTimeCodesAndTakesTheFieldAsked) {
    Report report;
    const Schedule schedule =
        parse_scc("Scenarist_SCC V1.0\n01:00:00:00 1520\n", "a.scc", {.field = 1}, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{108000, 1, 0x1520}}));
}

TEST(Scc, CountsFromTheStartAndReportsWhatLiesBefore) {
    Report report;
    const SccReadOptions options{.start = Timecode{1, 0, 0, 0, false}};
    const Schedule schedule = parse_scc(
        "Scenarist_SCC V1.0\n00:59:59;28\t9420 9420 94ae\n01:00:01;00\t942f\n", "a.scc", options, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{0, 0, 0x94AE}, {30, 0, 0x942F}}));
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"a.scc: left out: 2 byte pairs before the start of the video"}));
}

TEST(Scc, DelaysALineThatBeginsBeforeTheLastOneEnds) {
    Report report;
    const Schedule schedule = parse_scc(
        "Scenarist_SCC V1.0\n00:00:01:00\t9420 9420 94ae\n00:00:01:01\t942f\n", "a.scc", {}, report);
    EXPECT_EQ(schedule.eia608.back(), (Eia608Event{33, 0, 0x942F}));
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "a.scc:3: these byte pairs are sent 2 frames late, after those of the line before"}));
}

TEST(Scc, PutsParityRightAndReportsIt) {
    Report report;
    const Schedule schedule =
        parse_scc("Scenarist_SCC V1.0\n\n00:00:01:00\t1420 1420\n", "a.scc", {}, report);
    EXPECT_EQ(schedule.eia608[0].word, 0x9420);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "a.scc:3: wrong parity of 2 byte pairs (the first one here) is put right"}));
}

struct ErrorCase {
    const char* text;
    const char* error;
};

class SccError : public testing::TestWithParam<ErrorCase> {};

TEST_P(SccError, NamesTheLineAndTheRemedy) {
    Report report;
    EXPECT_EQ(error_of([&] { parse_scc(GetParam().text, "b.scc", {}, report); }), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Scc, SccError,
    testing::Values(
        ErrorCase{"", "b.scc:1: not an SCC file: the first line must be \"Scenarist_SCC V1.0\""},
        ErrorCase{"1\n00:00:01,000 --> 00:00:02,000\nHi\n",
                  "b.scc:1: not an SCC file: the first line must be \"Scenarist_SCC V1.0\""},
        ErrorCase{
            "Scenarist_SCC V1.0\n\n00:00:01\t9420\n",
            "b.scc:3: \"00:00:01\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame; the "
            "line is left out (nothing else is in the file)"},
        ErrorCase{
            "Scenarist_SCC V1.0\n00:00:01:30\t9420\n",
            "b.scc:2: time code \"00:00:01:30\" is out of range: hours go to 23, minutes and seconds to 59, "
            "frames to 29; the line is left out (nothing else is in the file)"},
        ErrorCase{"Scenarist_SCC V1.0\n00:00:01:00\t94z0 94\n0:0:1;0\t9420\n",
                  "b.scc:2: \"94z0\" is not a byte pair: write four hexadecimal digits such as 9420; it is "
                  "left out (nothing else is in the file)"}));

TEST(Scc, LeavesOutABadLineOrBytePairAloneAndSaysSo) {
    Report report;
    const Schedule schedule = parse_scc(
        "Scenarist_SCC V1.0\n\n00:00:01;00\t9420 94zz 94ae\n00:00:02;31\t9420\n0:0:3;0\t9420\n"
        "Comment\n00:00:04;00\t942f 123\n",
        "f.scc", {}, report);
    EXPECT_EQ(schedule.eia608,
              (std::vector<Eia608Event>{{30, 0, 0x9420}, {32, 0, 0x94AE}, {120, 0, 0x942F}}));
    EXPECT_EQ(
        report.lines(),
        (std::vector<std::string>{
            "f.scc:3: \"94zz\" is not a byte pair: write four hexadecimal digits such as 9420; it is left "
            "out",
            "f.scc:4: time code \"00:00:02:31\" is out of range: hours go to 23, minutes and seconds to 59, "
            "frames to 29; the line is left out",
            "f.scc:5: \"0:0:3;0\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame; the "
            "line is left out",
            "f.scc:6: \"Comment\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame; the "
            "line is left out",
            "f.scc:7: \"123\" is not a byte pair: write four hexadecimal digits such as 9420; it is left "
            "out"}));
    EXPECT_EQ(report.count(WarningKind::kFaultyLine), 5U);
}

TEST(Scc, PutsItsLinesInOrderAndSaysSo) {
    Report report;
    const Schedule schedule = parse_scc(
        "Scenarist_SCC V1.0\n00:00:05:00\t9420\n00:00:02:00\t94ae\n00:00:08:00\t942c\n00:00:07:00\t942f\n",
        "o.scc", {}, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{
                                   {60, 0, 0x94AE}, {150, 0, 0x9420}, {210, 0, 0x942F}, {240, 0, 0x942C}}));
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"o.scc:3: 2 lines with an earlier time code than a line before (the "
                                        "first one here): the lines are put in order"}));
}

struct MidnightCase {
    const char* name;
    const char* lines;
    std::optional<Timecode> start;
    std::vector<std::int64_t> frames;
};

class SccMidnight : public testing::TestWithParam<MidnightCase> {};

TEST_P(SccMidnight, IsCountedOver) {
    Report report;
    const Schedule schedule = parse_scc(std::string("Scenarist_SCC V1.0\n") + GetParam().lines, "m.scc",
                                        {.start = GetParam().start}, report);
    std::vector<std::int64_t> frames;
    for (const Eia608Event& event : schedule.eia608) frames.push_back(event.frame);
    EXPECT_EQ(frames, GetParam().frames);
}

constexpr std::int64_t kDropFrameDay = 2589408;

INSTANTIATE_TEST_SUITE_P(
    Scc, SccMidnight,
    testing::Values(
        MidnightCase{"drop_frame",
                     "23:59:59;00\t9420\n00:00:00;00\t942c\n00:01:00;02\t942f\n",
                     Timecode{23, 59, 58, 0, true},
                     {30, 60, 1860}},
        MidnightCase{
            "non_drop", "23:59:59:00\t9420\n00:00:00:00\t942c\n", Timecode{23, 59, 58, 0, false}, {30, 60}},
        MidnightCase{"without_a_start",
                     "23:59:59;00\t9420\n00:00:00;01\t942c\n",
                     std::nullopt,
                     {kDropFrameDay - 30, kDropFrameDay + 1}},
        MidnightCase{"file_after_it_video_before",
                     "00:00:01:00\t9420\n00:00:02:00\t942c\n",
                     Timecode{23, 59, 59, 0, false},
                     {60, 90}},
        MidnightCase{"file_before_it_video_after",
                     "23:59:59:00\t9420\n00:00:02:00\t942c\n",
                     Timecode{0, 0, 1, 0, false},
                     {30}},
        MidnightCase{"lines_out_of_order_about_it",
                     "23:59:59:00\t9420\n00:00:00:00\t942c\n23:59:59:15\t94ae\n00:00:01:00\t942f\n",
                     Timecode{23, 59, 59, 0, false},
                     {0, 15, 30, 60}},
        MidnightCase{"part_of_a_whole_day",
                     "00:00:01:00\t9420\n11:00:00:00\t9420\n18:00:01:00\t942c\n23:00:00:00\t9420\n",
                     Timecode{18, 0, 0, 0, false},
                     {30, 540000}}),
    [](const auto& info) { return info.param.name; });

std::vector<std::int64_t> frames_of(const Schedule& schedule) {
    std::vector<std::int64_t> frames;
    for (const Eia608Event& event : schedule.eia608) frames.push_back(event.frame);
    return frames;
}

struct MixCase {
    const char* lines;
    std::vector<std::int64_t> frames;
    const char* warning;
};

class SccMix : public testing::TestWithParam<MixCase> {};

TEST_P(SccMix, CountsAllLinesAsMostOfThemAreWrittenAndSaysSo) {
    Report report;
    const Schedule schedule =
        parse_scc(std::string("Scenarist_SCC V1.0\n") + GetParam().lines, "m.scc", {}, report);
    EXPECT_EQ(frames_of(schedule), GetParam().frames);
    EXPECT_EQ(report.lines(), (std::vector<std::string>{GetParam().warning}));
}

INSTANTIATE_TEST_SUITE_P(
    Scc, SccMix,
    testing::Values(
        MixCase{"00:00:00:00\t9420\n00:02:00;02\t9420\n00:03:00;02\t9420\n",
                {0, 3598, 5396},
                "m.scc:2: drop-frame time codes (2 lines) and non-drop ones (1 line) are mixed, the first of "
                "the fewer here: all are taken for drop-frame"},
        MixCase{"00:02:00:02\t9420\n00:03:00;02\t9420\n00:04:00:02\t9420\n",
                {3602, 5402, 7202},
                "m.scc:3: drop-frame time codes (1 line) and non-drop ones (2 lines) are mixed, the first of "
                "the fewer here: all are taken for non-drop"},
        MixCase{"00:02:00;02\t9420\n00:03:00:02\t9420\n",
                {3598, 5396},
                "m.scc:3: drop-frame time codes (1 line) and non-drop ones (1 line) are mixed, the first of "
                "the fewer here: all are taken for drop-frame"},
        MixCase{"00:02:00:02\t9420\n00:03:00;02\t9420\n",
                {3602, 5402},
                "m.scc:3: drop-frame time codes (1 line) and non-drop ones (1 line) are mixed, the first of "
                "the fewer here: all are taken for non-drop"}));

TEST(Scc, TakesATimeCodeThatDropFrameLeavesOutForTheFirstOfItsMinute) {
    Report report;
    const Schedule schedule =
        parse_scc("Scenarist_SCC V1.0\n00:01:00;00\t9420\n00:10:00;00\t9420\n", "b.scc", {}, report);
    EXPECT_EQ(frames_of(schedule), (std::vector<std::int64_t>{1800, 17982}));
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "b.scc:2: drop-frame counting leaves out time code 00:01:00;00: it is taken for "
                  "00:01:00;02"}));
}

class SccDialect : public testing::TestWithParam<const char*> {};

TEST_P(SccDialect, IsReadLikeThePlainOne) {
    Report report;
    const Schedule schedule = parse_scc(GetParam(), "d.scc", {}, report);
    EXPECT_EQ(schedule.eia608,
              (std::vector<Eia608Event>{{3598, 0, 0x9420}, {3599, 0, 0x94AE}, {5396, 0, 0x942F}}));
    EXPECT_EQ(report.lines(), std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(
    Scc, SccDialect,
    testing::Values("Scenarist_SCC V1.0\n\n00:02:00;02\t9420 94ae\n\n00:03:00;02\t942f\n",
                    "\xEF\xBB\xBFScenarist_SCC V1.0\r\n\r\n00:02:00;02\t9420 94AE \r\n00:03:00;02 942F\r\n",
                    "scenarist_scc v1.0  \r00:02:00;02\t9420\t94Ae\t\r00:03:00;02  942f",
                    "\n \nSCENARIST_SCC V1.0\n  00:02:00.02\t9420 94ae\n\t00:03:00.02\t942f\n",
                    "Scenarist_SCC V1.0\n00:02:00,02\t9420 94ae\n00:03:00,02\t942f\n",
                    "Scenarist_SCC V1.0\n00;02;00;02\t9420 94ae\n00.03.00.02\t942f\n"));

TEST(Scc, RefusesAStartThatItsCountingDoesNotHave) {
    const SccReadOptions minute{.start = Timecode{0, 1, 0, 0, false}};
    Report report;
    EXPECT_THROW(parse_scc("Scenarist_SCC V1.0\n00:02:00;02\t9420\n", "b.scc", minute, report),
                 std::invalid_argument);
    EXPECT_EQ(parse_scc("Scenarist_SCC V1.0\n00:02:00:00\t9420\n", "b.scc", minute, report).eia608[0].frame,
              1800);
}

TEST(Scc, ReadsTheSampleAsItsWords) {
    Report report;
    const Schedule schedule = read_scc(data_file("sample.scc"), {}, report);
    EXPECT_TRUE(report.empty());
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 4U);
    EXPECT_EQ(captions[0].text(), "Every word of this clip\nreaches the viewer.");
    EXPECT_EQ(captions[1].text(), "♪ La la la ♪");
    EXPECT_EQ(captions[2].text(), "- Was that a café?\n- Yes. Überall.");
    EXPECT_EQ(captions[3].text(), "Shown around the minute.");
    EXPECT_EQ(captions[0].end, at("00:00:04;00"));
    EXPECT_EQ(captions[3].end, at("00:01:00;02"));
}

TEST(Scc, WritesTheSampleAsItWasRead) {
    Report report;
    const std::string text = read_file(data_file("sample.scc"));
    EXPECT_EQ(write_scc(parse_scc(text, "sample.scc", {}, report), 0, {}), text);
}

TEST(Scc, WritesALinePerCaptionAndBridgesShortGaps) {
    const Schedule schedule{kRate29_97,
                            {{0, 0, 0x9420},
                             {1, 0, 0x9420},
                             {4, 0, 0x942F},
                             {5, 0, 0x942F},
                             {6, 0, 0x942C},
                             {7, 0, 0x942C},
                             {8, 0, 0x9420},
                             {12, 0, 0xC180}},
                            {}};
    EXPECT_EQ(write_scc(schedule, 0, {.drop_frame = false}),
              "Scenarist_SCC V1.0\n\n00:00:00:00\t9420 9420 8080 8080 942f 942f\n\n00:00:00:06\t942c 942c\n\n"
              "00:00:00:08\t9420\n\n00:00:00:12\tc180\n");
}

TEST(Scc, ReadsBackWhatItWrote) {
    Schedule schedule{kRate29_97, {}, {}};
    std::uint32_t state = 7;
    for (std::int64_t frame = 0; frame < 40000; ++frame) {
        state = state * 1664525 + 1013904223;
        const Word word = with_parity(static_cast<Word>(state >> 12));
        if ((state >> 28) < 12 && !is_null(word)) schedule.eia608.push_back({frame, 1, word});
    }
    for (const bool drop_frame : {false, true}) {
        const Timecode start{0, 58, 0, 10, drop_frame};
        Report report;
        const std::string text = write_scc(schedule, 1, {drop_frame, start});
        const Schedule again = parse_scc(text, "x.scc", {.field = 1, .start = start}, report);
        EXPECT_EQ(again.eia608, schedule.eia608);
        EXPECT_TRUE(report.empty());
    }
}

TEST(Scc, KeepsTheWordsAndTimesOfA59_94Schedule) {
    Report report;
    const Schedule sample = read_scc(data_file("sample.scc"), {}, report);
    const Schedule fast = retime(sample, kRate59_94, report);
    EXPECT_EQ(parse_scc(write_scc(fast, 0, {}), "x.scc", {}, report).eia608, sample.eia608);
    EXPECT_EQ(write_scc(fast, 1, {}), "Scenarist_SCC V1.0\n");
}

TEST(Scc, KeepsTheWordsOfA25Schedule) {
    Report report;
    const Schedule slow = retime(read_scc(data_file("sample.scc"), {}, report), kRate25, report);
    const auto captions = decode(parse_scc(write_scc(slow, 0, {}), "x.scc", {}, report));
    ASSERT_EQ(captions.size(), 4U);
    EXPECT_EQ(captions[2].text(), "- Was that a café?\n- Yes. Überall.");
    EXPECT_NEAR(frame_to_seconds(captions[3].end, kRate29_97),
                frame_to_seconds(at("00:01:00;02"), kRate29_97), 0.08);
}

TEST(Scc, RefusesRatesWithMoreFramesThanItsTimeCodesCount) {
    for (const FrameRate rate : {FrameRate{40, 1}, kRate50, kRate59_94}) {
        Report report;
        EXPECT_THROW(parse_scc("Scenarist_SCC V1.0\n", "a.scc", {.rate = rate}, report),
                     std::invalid_argument);
    }
    Report report;
    const Schedule schedule =
        parse_scc("Scenarist_SCC V1.0\n00:00:02:00\t9420\n", "a.scc", {.rate = kRate25}, report);
    EXPECT_EQ(schedule.rate, kRate25);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{50, 0, 0x9420}}));
}

TEST(Scc, TakesFourHexadecimalDigitsForAPairAlone) {
    for (const char* pair : {"942", "94200", "942g", "9 20", "+942", "0x94", "-942"}) {
        Report report;
        const Schedule schedule = parse_scc(
            std::string("Scenarist_SCC V1.0\n00:00:00:00\t942c ") + pair + " 942f\n", "a.scc", {}, report);
        EXPECT_EQ(schedule.eia608.front(), (Eia608Event{0, 0, 0x942C})) << pair;
        EXPECT_EQ(schedule.eia608.back().word, 0x942F) << pair;
        EXPECT_EQ(schedule.eia608.size(), 2U) << pair;
        EXPECT_GE(report.count(WarningKind::kFaultyLine), 1U) << pair;
    }
}

TEST(Scc, SaysThatAPairIsLateByOneFrameAlone) {
    Report report;
    const Schedule schedule =
        parse_scc("Scenarist_SCC V1.0\n00:00:01:00\t9420 94ae\n00:00:01:01\t942c\n00:00:01:03\t942f\n",
                  "a.scc", {}, report);
    EXPECT_EQ(frames_of(schedule), (std::vector<std::int64_t>{30, 31, 32, 33}));
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "a.scc:3: these byte pairs are sent 1 frame late, after those of the line before"}));
    EXPECT_EQ(report.count(WarningKind::kDelayedPairs), 1U);
}

TEST(Scc, NamesTheFirstLineWithWrongParity) {
    Report report;
    parse_scc("Scenarist_SCC V1.0\n00:00:01:00\t9420\n00:00:02:00\t1420\n00:00:03:00\t1420 9420 142c\n",
              "a.scc", {}, report);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "a.scc:3: wrong parity of 3 byte pairs (the first one here) is put right"}));
}

TEST(Scc, BeginsALineWhereOneShowsErasesOrRollsUp) {
    // Neighbours each; the code behind the first of a pair of them is one more of the same line.
    const std::tuple<Word, Word, bool> rows[] = {
        {0x942F, 0xC1C2, true},  {0x942C, 0xC1C2, true},  {0x942F, 0x942F, false}, {0xC1C2, 0x942F, false},
        {0xC1C2, 0x942C, true},  {0xC1C2, 0x9425, true},  {0xC1C2, 0x9426, true},  {0xC1C2, 0x94A7, true},
        {0xC1C2, 0x94A8, false}, {0x94AE, 0x9420, false}, {0x94AD, 0xC1C2, false}, {0x9425, 0x9425, false}};
    for (const auto& [first, second, begins] : rows) {
        const Schedule schedule{kRate29_97, {{0, 0, first}, {1, 0, second}}, {}};
        const std::string text = write_scc(schedule, 0, {});
        EXPECT_EQ(std::count(text.begin(), text.end(), '\t'), begins ? 2 : 1) << text;
    }
}

TEST(Scc, WritesFromItsStart) {
    const Schedule schedule{kRate29_97, {{0, 0, 0x9420}, {1798, 0, 0x942F}}, {}};
    EXPECT_EQ(write_scc(schedule, 0, {.start = Timecode{0, 0, 0, 2, true}}),
              "Scenarist_SCC V1.0\n\n00:00:00;02\t9420\n\n00:01:00;02\t942f\n");
    EXPECT_EQ(write_scc({kRate29_97, {}, {}}, 0, {}), "Scenarist_SCC V1.0\n");
}

// --- MCC and caption distribution packets

TEST(Mcc, ExpandsTheAbbreviations) {
    EXPECT_EQ(expand_mcc_bytes("S4f"), (std::vector<std::uint8_t>{0x96, 0x69, 0x4F}));
    EXPECT_EQ(expand_mcc_bytes("TGH"),
              (std::vector<std::uint8_t>{0x61, 0x01, 0xFA, 0, 0, 0xFA, 0, 0, 0xFA, 0, 0}));
    EXPECT_EQ(expand_mcc_bytes("O").size(), 27U);
    EXPECT_EQ(expand_mcc_bytes("PQR"),
              (std::vector<std::uint8_t>{0xFB, 0x80, 0x80, 0xFC, 0x80, 0x80, 0xFD, 0x80, 0x80}));
    EXPECT_EQ(expand_mcc_bytes("UZ"), (std::vector<std::uint8_t>{0xE1, 0, 0, 0, 0}));
    EXPECT_THROW(expand_mcc_bytes("V"), std::invalid_argument);
    EXPECT_THROW(expand_mcc_bytes("4"), std::invalid_argument);
    EXPECT_THROW(expand_mcc_bytes("4S"), std::invalid_argument);
}

TEST(Mcc, RepeatsThePaddingAsOftenAsItsLetterSays) {
    for (std::size_t count = 1; count <= 9; ++count) {
        std::vector<std::uint8_t> padding;
        for (std::size_t n = 0; n < count; ++n) padding.insert(padding.end(), {0xFA, 0, 0});
        EXPECT_EQ(expand_mcc_bytes(std::string(1, static_cast<char>('G' + count - 1))), padding) << count;
    }
}

TEST(Mcc, ReadsHexadecimalDigitsOfBothCasesAndNothingElse) {
    EXPECT_EQ(expand_mcc_bytes("0f1E9aA909afAFFa"),
              (std::vector<std::uint8_t>{0x0F, 0x1E, 0x9A, 0xA9, 0x09, 0xAF, 0xAF, 0xFA}));
    for (const char* text : {"/", ":", "@", "V", "Y", "[", "`", "g", "0/", "0:", "0@", "0G", "0`", "0g", "0"})
        EXPECT_THROW(expand_mcc_bytes(text), std::invalid_argument) << text;
}

TEST(Mcc, ReadsTheSampleInBothCaptionForms) {
    Report report;
    const Schedule schedule = read_mcc(data_file("sample.mcc"), {}, report);
    EXPECT_TRUE(report.empty());
    EXPECT_EQ(schedule.rate, kRate29_97);
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].text(), "From MCC");
    EXPECT_EQ(captions[0].begin, 20);  // the packet of 00:00:00;20
    EXPECT_EQ(captions[0].end, 52);
    DtvccDecoder decoder;
    decoder.feed(schedule);
    decoder.finish();
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{1, 13, "HI"}}));
}

// A packet with the service information section and all paddings: 20 constructs at 29.97, sequence number 0.
constexpr const char* kIdlePacket = "T52S524F67ZZ72F4QROO7391UC13FFF74ZZAEB4";

std::string mcc_text(const std::string& body, const std::string& version = "1.0",
                     const std::string& rate = "30DF") {
    return "File Format=MacCaption_MCC V" + version + "\n\nTime Code Rate=" + rate + "\n" + body;
}

TEST(Mcc, AcceptsBothVersionsAndIgnoresFieldAndLine) {
    Report report;
    EXPECT_TRUE(parse_mcc(mcc_text(std::string("00:00:00;00\t") + kIdlePacket), "a.mcc", {}, report).empty());
    EXPECT_TRUE(
        parse_mcc(mcc_text(std::string("00:00:00;00.0,9\t") + kIdlePacket, "2.0"), "a.mcc", {}, report)
            .empty());
    EXPECT_TRUE(report.empty());
}

TEST(Mcc, LeavesOtherAncillaryDataOutAndReportsIt) {
    Report report;
    parse_mcc(mcc_text("00:00:00;00\t41050100"
                       "47\n"),
              "a.mcc", {}, report);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"a.mcc: left out: 1 line with ancillary data other than captions"}));
}

TEST(Mcc, RefusesAStartThatItsCountingDoesNotHave) {
    const std::string body = std::string("00:02:00:00\t") + kIdlePacket + "\n";
    Report report;
    const auto read = [&](const char* rate, int frames) {
        parse_mcc(mcc_text(body, "1.0", rate), "a.mcc", {.start = Timecode{0, 1, 0, frames, false}}, report);
    };
    EXPECT_THROW(read("60DF", 3), std::invalid_argument);
    EXPECT_THROW(read("30", 30), std::invalid_argument);
    EXPECT_NO_THROW(read("30", 0));
}

class MccError : public testing::TestWithParam<std::pair<std::string, const char*>> {};

TEST_P(MccError, NamesTheLineAndTheRemedy) {
    Report report;
    EXPECT_EQ(error_of([&] { parse_mcc(GetParam().first, "b.mcc", {}, report); }), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(
    Mcc, MccError,
    testing::Values(
        std::pair{
            std::string("Scenarist_SCC V1.0\n"),
            "b.mcc:1: not an MCC file: the first line must be \"File Format=MacCaption_MCC V1.0\" or \"File "
            "Format=MacCaption_MCC V2.0\""},
        std::pair{
            mcc_text("", "3.0"),
            "b.mcc:1: not an MCC file: the first line must be \"File Format=MacCaption_MCC V1.0\" or \"File "
            "Format=MacCaption_MCC V2.0\""},
        std::pair{mcc_text("", "1.0", "29"),
                  "b.mcc:3: \"29\" is not a time code rate: use 24, 25, 30, 30DF, 50, 60 or 60DF"},
        std::pair{
            std::string("File Format=MacCaption_MCC V1.0\n00:00:00;00\tT00\n"),
            "b.mcc:2: captions begin before the time code rate is known: add a line such as \"Time Code "
            "Rate=30DF\" above"},
        std::pair{
            mcc_text("00:00:00;00\n"),
            "b.mcc:4: the line has a time code but no data; the line is left out (nothing else is in the "
            "file: export it again)"},
        std::pair{mcc_text("00:00:00;00\tT52X\n"),
                  "b.mcc:4: 'X' is neither a hexadecimal digit nor an abbreviation; the line is left out "
                  "(nothing else is in the file: export it again)"}));

// Builds a packet around its sections and closes it with footer, length and checksum.
std::vector<std::uint8_t> packet(std::uint8_t rate_code, std::vector<std::uint8_t> sections) {
    std::vector<std::uint8_t> bytes{0x96, 0x69, 0,   static_cast<std::uint8_t>(rate_code << 4 | 0x0F),
                                    0x43, 0x12, 0x34};
    bytes.insert(bytes.end(), sections.begin(), sections.end());
    bytes.insert(bytes.end(), {0x74, 0x12, 0x34});
    bytes[2] = static_cast<std::uint8_t>(bytes.size() + 1);
    unsigned sum = 0;
    for (const std::uint8_t byte : bytes) sum += byte;
    bytes.push_back(static_cast<std::uint8_t>(256 - sum % 256));
    return bytes;
}

struct FaultCase {
    std::string lines;
    std::vector<std::string> warnings;
};

class MccFault : public testing::TestWithParam<FaultCase> {};

TEST_P(MccFault, CostsItsLineAlone) {
    const std::string captions = read_file(data_file("sample.mcc"));
    const std::size_t body = captions.find("\n00:00:00;") + 1;
    Report report;
    const auto shown = decode(
        parse_mcc(captions.substr(0, body) + GetParam().lines + captions.substr(body), "f.mcc", {}, report));
    ASSERT_EQ(shown.size(), 1U);
    EXPECT_EQ(shown[0].text(), "From MCC");
    EXPECT_EQ(shown[0].begin, 20);
    auto line = 1 + std::count(captions.begin(), captions.begin() + static_cast<std::ptrdiff_t>(body), '\n');
    std::vector<std::string> expected;
    for (const std::string& warning : GetParam().warnings)
        expected.push_back("f.mcc:" + std::to_string(line++) + ": " + warning + "; the line is left out");
    EXPECT_EQ(report.lines(), expected);
    EXPECT_EQ(report.count(WarningKind::kFaultyLine), expected.size());
}

INSTANTIATE_TEST_SUITE_P(
    Mcc, MccFault,
    testing::Values(
        FaultCase{"00:00:00;00\n", {"the line has a time code but no data"}},
        FaultCase{"00:00:00;00\tT52X\n", {"'X' is neither a hexadecimal digit nor an abbreviation"}},
        FaultCase{"00:00:00;00\tT52S\n", {"the ancillary packet's count byte says 82 bytes, 1 are given"}},
        FaultCase{"00:00:00;00\tT0AS0A4F431234741234\n", {"the ancillary packet's checksum is missing"}},
        FaultCase{"00:00:00;31\t" + std::string(kIdlePacket) + "\nx0:00:00;01\t" + kIdlePacket + "\n",
                  {"time code \"00:00:00;31\" is out of range: hours go to 23, minutes and seconds to 59, "
                   "frames to 29",
                   "\"x0:00:00;01\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame"}}));

TEST(Mcc, PutsItsLinesInOrderAndSaysSo) {
    std::string captions = read_file(data_file("sample.mcc"));
    Report report;
    const Schedule in_order = parse_mcc(captions, "o.mcc", {}, report);
    const std::size_t first = captions.find("\n00:00:00;") + 1, second = captions.find('\n', first) + 1;
    const std::string line = captions.substr(first, second - first);
    captions = captions.substr(0, first) + captions.substr(second) + line;
    const Schedule sorted = parse_mcc(captions, "o.mcc", {}, report);
    EXPECT_EQ(sorted.eia608, in_order.eia608);
    EXPECT_EQ(sorted.cea708, in_order.cea708);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "o.mcc:" + std::to_string(std::count(captions.begin(), captions.end(), '\n')) +
                  ": 1 line with an earlier time code than a line before (the first one here): the lines are "
                  "put in order"}));
}

std::string hex(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += "0123456789ABCDEF"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    return text;
}

// The ancillary packet around a caption distribution packet.
std::vector<std::uint8_t> ancillary(const std::vector<std::uint8_t>& cdp) {
    std::vector<std::uint8_t> bytes{0x61, 0x01, static_cast<std::uint8_t>(cdp.size())};
    bytes.insert(bytes.end(), cdp.begin(), cdp.end());
    unsigned sum = 0;
    for (const std::uint8_t byte : bytes) sum += byte;
    bytes.push_back(static_cast<std::uint8_t>(sum));
    return bytes;
}

// An MCC line with one byte pair of field 1.
std::string mcc_line(const std::string& timecode, std::uint8_t high, std::uint8_t low) {
    return timecode + "\t" + hex(ancillary(packet(4, {0x72, 0xE1, 0xFC, high, low}))) + "\n";
}

using Bytes = std::vector<std::uint8_t>;

// Without the last `count` bytes.
Bytes cut(Bytes bytes, std::size_t count) {
    bytes.resize(bytes.size() - count);
    return bytes;
}

Bytes changed(Bytes bytes, std::size_t at, int by) {
    bytes[at] = static_cast<std::uint8_t>(bytes[at] + by);
    return bytes;
}

// Two byte pairs of field 1: 7 + 8 + 4 bytes.
const Bytes kTwoPairs = packet(4, {0x72, 0xE2, 0xFC, 0xC8, 0xE9, 0xFC, 0x94, 0x2C});

struct DamagedLine {
    const char* name;
    Bytes packet;
    std::string warning;
    std::size_t pairs = 2;
};

class DamagedMccPacket : public testing::TestWithParam<DamagedLine> {};

TEST_P(DamagedMccPacket, GivesWhatIsWholeOfIt) {
    const std::string data = "\t" + hex(GetParam().packet) + "\n";
    const std::string warning = GetParam().warning + "; what is whole of the line is kept";
    const std::vector<Eia608Event> pairs{{0, 0, 0xC8E9}, {0, 0, 0x942C}};
    const auto expected = [&](std::int64_t frame) {
        std::vector<Eia608Event> events(pairs.begin(),
                                        pairs.begin() + static_cast<std::ptrdiff_t>(GetParam().pairs));
        for (Eia608Event& event : events) event.frame = frame;
        return events;
    };
    Report report;
    EXPECT_EQ(parse_mcc(mcc_text("00:00:00;07" + data), "d.mcc", {}, report).eia608, expected(7));
    EXPECT_EQ(report.lines(), (std::vector<std::string>{"d.mcc:4: " + warning}));
    EXPECT_EQ(report.count(WarningKind::kFaultyLine), 1U);

    Report twice;
    parse_mcc(mcc_text("00:00:00;07" + data + "00:00:00;08" + data), "d.mcc", {}, twice);
    EXPECT_EQ(twice.lines(), (std::vector<std::string>{"d.mcc:4: " + warning +
                                                       ", and of 1 other line with the same fault"}));
    // The first line is the one named, also where the lines are put in order.
    Report thrice;
    parse_mcc(mcc_text("00:00:00;09" + data + "00:00:00;08" + data + "00:00:00;07" + data), "d.mcc", {},
              thrice);
    ASSERT_EQ(thrice.lines().size(), 2U);
    EXPECT_EQ(thrice.lines()[1], "d.mcc:4: " + warning + ", and of 2 other lines with the same fault");
}

INSTANTIATE_TEST_SUITE_P(
    Mcc, DamagedMccPacket,
    testing::Values(DamagedLine{"AncillaryChecksum", changed(ancillary(kTwoPairs), 22, 1),
                                "the ancillary packet's checksum is 0x76, its bytes need 0x75"},
                    DamagedLine{"NoAncillaryChecksum", cut(ancillary(kTwoPairs), 1),
                                "the ancillary packet's checksum is missing"},
                    DamagedLine{"AncillaryCount", changed(ancillary(kTwoPairs), 2, 5),
                                "the ancillary packet's count byte says 24 bytes, 19 are given"},
                    DamagedLine{"SmallAncillaryCount", changed(ancillary(kTwoPairs), 2, -9),
                                "the ancillary packet's count byte says 10 bytes, 19 are given"},
                    DamagedLine{"Checksum", ancillary(changed(kTwoPairs, 18, 1)),
                                "the packet's checksum is 0xA0, its bytes need 0x9F"},
                    DamagedLine{"NoChecksum", ancillary(cut(kTwoPairs, 1)),
                                "the packet's footer is missing or cut short"},
                    DamagedLine{"NoFooter", ancillary(cut(kTwoPairs, 4)),
                                "the packet's footer is missing or cut short"},
                    DamagedLine{"CutInAConstruct", ancillary(cut(kTwoPairs, 5)),
                                "a section of the packet is longer than the packet", 1},
                    DamagedLine{"SectionBehind", ancillary(packet(4, {0x72, 0xE1, 0xFC, 0xC8, 0xE9, 0x10})),
                                "the packet has an unknown section 0x10", 1}),
    [](const auto& info) { return info.param.name; });

TEST(Mcc, NamesEveryFaultOfALine) {
    Report report;
    const Bytes damaged = ancillary(changed(changed(kTwoPairs, 17, 1), 18, 5));
    parse_mcc(mcc_text("00:00:00;07\t" + hex(cut(damaged, 1)) + "\n"), "e.mcc", {}, report);
    EXPECT_EQ(report.lines().size(), 3U);
    EXPECT_EQ(report.lines()[0].substr(0, 60),
              "e.mcc:4: the sequence counters of the packet's header and fo");
}

TEST(Mcc, LeavesOutAPacketOfWhichNothingIsWhole) {
    const std::string whole = mcc_line("00:00:00;01", 0xC8, 0xE9);
    for (const auto& [bytes, why] :
         {std::pair{cut(ancillary(packet(4, {})), 5),
                    "the ancillary packet's count byte says 11 bytes, 6 are given"},
          {ancillary(cut(packet(4, {}), 4)), "the packet's footer is missing or cut short"},
          {ancillary(changed(packet(4, {}), 10, 1)), "the packet's checksum is 0x65, its bytes need 0x64"},
          {ancillary({0x96, 0x6A, 7, 0x4F, 0x43, 0, 0}),
           "the packet does not begin with the caption distribution identifier 9669"}}) {
        Report report;
        const std::string line = "00:00:00;00\t" + hex(bytes) + "\n";
        EXPECT_EQ(parse_mcc(mcc_text(line + whole), "n.mcc", {}, report).eia608.size(), 1U);
        EXPECT_EQ(report.lines(),
                  (std::vector<std::string>{std::string("n.mcc:4: ") + why + "; the line is left out"}));
        EXPECT_THROW(parse_mcc(mcc_text(line), "n.mcc", {}, report), FileError);
    }
}

// Each rate's name; the codes of the packets of that rate, and what it makes of a rate that they tell.
TEST(Mcc, TakesTheRateFromItsNameAndWhetherItIsARoundOneFromThePackets) {
    const struct {
        const char* name;
        int nominal;
        std::uint8_t code;
        FrameRate rate;
    } rows[] = {{"24", 24, 1, kRate23_976},  {"24", 24, 2, kRate24},      {"25", 25, 3, kRate25},
                {"30", 30, 4, kRate29_97},   {"30", 30, 5, kRate30},      {"30DF", 30, 4, kRate29_97},
                {"30DF", 30, 5, kRate29_97}, {"50", 50, 6, kRate50},      {"60", 60, 7, kRate59_94},
                {"60", 60, 8, kRate60},      {"60DF", 60, 7, kRate59_94}, {"60DF", 60, 8, kRate59_94},
                {"24", 24, 0, kRate23_976},  {"24", 24, 3, kRate23_976},  {"30", 30, 8, kRate29_97},
                {"60", 60, 5, kRate59_94},   {"25", 25, 9, kRate25},      {"50", 50, 15, kRate50}};
    for (const auto& [name, nominal, code, rate] : rows) {
        SCOPED_TRACE(testing::Message() << name << " " << int{code});
        const std::string line =
            "00:00:02:01\t" + hex(ancillary(packet(code, {0x72, 0xE1, 0xFC, 0x94, 0x2C}))) + "\n";
        Report report;
        const Schedule schedule = parse_mcc(mcc_text(line, "1.0", name), "a.mcc", {}, report);
        EXPECT_EQ(schedule.rate, rate);
        EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{2 * nominal + 1, 0, 0x942C}}));
        EXPECT_EQ(report.lines(), std::vector<std::string>());
    }
}

TEST(Mcc, TakesTheRateOfItsFirstPacket) {
    const auto line = [](std::uint8_t code) {
        return "00:00:02:01\t" + hex(ancillary(packet(code, {0x72, 0xE1, 0xFC, 0x94, 0x2C}))) + "\n";
    };
    Report report;
    EXPECT_EQ(parse_mcc(mcc_text(line(4) + line(5), "1.0", "30"), "a.mcc", {}, report).rate, kRate29_97);
    EXPECT_EQ(parse_mcc(mcc_text(line(5) + line(4), "1.0", "30"), "a.mcc", {}, report).rate, kRate30);
}

TEST(Mcc, CountsDropFrameWhereItsRateSaysSo) {
    const std::string line = hex(ancillary(packet(4, {0x72, 0xE1, 0xFC, 0x94, 0x2C}))) + "\n";
    for (const auto& [rate, timecode, frame] :
         {std::tuple("30DF", "00:01:00:02", 1800), std::tuple("30DF", "00:01:00;02", 1800),
          std::tuple("30", "00:01:00:02", 1802), std::tuple("60DF", "00:01:00:04", 3600),
          std::tuple("60DF", "00:01:00;04.1,9", 3600)}) {
        Report report;
        const std::string text = std::string(timecode) + " " + line;
        EXPECT_EQ(parse_mcc(mcc_text(text, "2.0", rate), "a.mcc", {}, report).eia608,
                  (std::vector<Eia608Event>{{frame, 0, 0x942C}}))
            << rate << " " << timecode;
    }
}

TEST(Mcc, ReportsHowManyLinesLieBeforeTheStart) {
    const std::string body = mcc_line("00:00:01;28", 0xC8, 0xE9) + mcc_line("00:00:01;29", 0xC8, 0xE9) +
                             mcc_line("00:00:02;00", 0x94, 0x2C);
    Report report;
    const Schedule schedule =
        parse_mcc(mcc_text(body), "s.mcc", {.start = Timecode{0, 0, 2, 0, false}}, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{0, 0, 0x942C}}));
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"s.mcc: left out: 2 lines before the start of the video"}));
    EXPECT_EQ(report.count(WarningKind::kBeforeStart), 1U);
}

TEST(Mcc, PutsParityRightAndReportsIt) {
    Report report;
    const Schedule schedule = parse_mcc(mcc_text(mcc_line("00:00:00;01", 0x14, 0x2C)), "p.mcc", {}, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{1, 0, 0x942C}}));
    EXPECT_EQ(report.lines(), (std::vector<std::string>{"p.mcc: wrong parity of 1 byte pair is put right"}));
}

TEST(Mcc, PassesOverCommentsAndKeysOnBothSidesOfTheRate) {
    const std::string keys = "// 00:00:00;00\n\nUUID=1-2\nCreation Program=x\n \n";
    Report report;
    const Schedule schedule =
        parse_mcc("File Format=MacCaption_MCC V1.0\nCreation\n" + keys + "Time Code Rate=30DF\n" + keys +
                      mcc_line("00:00:00;01", 0x94, 0x2C) + keys,
                  "k.mcc", {}, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{1, 0, 0x942C}}));
    EXPECT_EQ(report.lines(), std::vector<std::string>());
}

TEST(Mcc, KnowsCaptionsByBothIdentifiers) {
    const Bytes captions = ancillary(packet(4, {0x72, 0xE1, 0xFC, 0x94, 0x2C}));
    const auto line = [](const Bytes& bytes) { return "00:00:00;01\t" + hex(bytes) + "\n"; };
    // The identifiers count in the checksum, which is the last byte.
    const auto other = [&](std::size_t at, int by) {
        return line(changed(changed(captions, at, by), captions.size() - 1, by));
    };
    Report report;
    const Schedule schedule =
        parse_mcc(mcc_text(other(0, 1) + other(1, 1) + other(0, -1) + other(1, -1) + line(captions)), "i.mcc",
                  {}, report);
    EXPECT_EQ(schedule.eia608.size(), 1U);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"i.mcc: left out: 4 lines with ancillary data other than captions"}));
}

TEST(Mcc, NeedsTheHeaderOfAnAncillaryPacketAndAChecksum) {
    const auto error = [](const std::string& data) {
        Report report;
        return error_of([&] { parse_mcc(mcc_text("00:00:00;00\t" + data + "\n"), "h.mcc", {}, report); });
    };
    const std::string rest = "; the line is left out (nothing else is in the file: export it again)";
    EXPECT_EQ(error("610100"), "h.mcc:4: the line ends within the ancillary packet's header" + rest);
    EXPECT_EQ(error("61"), "h.mcc:4: the line ends within the ancillary packet's header" + rest);
    EXPECT_EQ(error("61010062"),
              "h.mcc:4: the packet does not begin with the caption distribution identifier "
              "9669" +
                  rest);
    EXPECT_EQ(error("61010196"), "h.mcc:4: the ancillary packet's checksum is missing" + rest);
    EXPECT_EQ(error("610103969669"), "h.mcc:4: the ancillary packet's checksum is missing" + rest);
    EXPECT_EQ(error("6101099669"),
              "h.mcc:4: the ancillary packet's count byte says 9 bytes, 1 are given" + rest);
}

TEST(Mcc, CountsOnOverMidnight) {
    Report report;
    const std::string body = mcc_line("23:59:59;28", 0xC8, 0xE9) + mcc_line("00:00:00;01", 0x94, 0x2C);
    const Schedule schedule =
        parse_mcc(mcc_text(body), "m.mcc", {.start = Timecode{23, 59, 59, 0, false}}, report);
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{28, 0, 0xC8E9}, {31, 0, 0x942C}}));
    EXPECT_EQ(report.lines(), std::vector<std::string>());
}

TEST(Cdp, ReadsItsSections) {
    const Cdp cdp =
        parse_cdp(packet(5, {0x71, 0xC0, 0x80, 0x80, 0x80, 0x72, 0xE2, 0xFC, 0x94, 0x20, 0xFD, 0x80, 0x80,
                             0x73, 0xD1, 0xE1, 'e',  'n',  'g',  0xC1, 0x3F, 0xFF, 0x75, 0x01, 0x00}));
    EXPECT_EQ(cdp.rate, kRate30);
    EXPECT_EQ(cdp.sequence_counter, 0x1234);
    EXPECT_EQ(cdp.cc_data, (std::vector<std::uint8_t>{0xFC, 0x94, 0x20, 0xFD, 0x80, 0x80}));
    EXPECT_EQ(cdp.service_count, 1);
    EXPECT_FALSE(parse_cdp(packet(9, {})).rate);
}

TEST(Cdp, NoticesEveryDamagedByteAndTakesTheRest) {
    const Bytes whole = packet(4, {0x72, 0xE2, 0xFC, 0x94, 0x20, 0xFC, 0xC8, 0xE9});
    ASSERT_TRUE(parse_cdp(whole).damage.empty());
    constexpr std::size_t kIdentifier = 2, kSection = 7, kCount = 8, kConstructs = 9, kFooter = 15;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        SCOPED_TRACE(i);
        const Bytes damaged = changed(whole, i, i == kFooter ? -0x20 : 0x10);
        if (i < kIdentifier || i == kSection) {
            EXPECT_THROW(parse_cdp(damaged), std::invalid_argument);
            continue;
        }
        const Cdp cdp = parse_cdp(damaged);
        EXPECT_FALSE(cdp.damage.empty());
        const Bytes constructs(damaged.begin() + kConstructs, damaged.begin() + kFooter);
        // A greater count takes in what follows.
        if (i != kCount) {
            EXPECT_EQ(cdp.cc_data, constructs);
        }
    }
    for (std::size_t size = 0; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        const std::span<const std::uint8_t> beginning(whole.data(), size);
        if (size < kConstructs + 3) {
            EXPECT_THROW(parse_cdp(beginning), std::invalid_argument);
            continue;
        }
        const Cdp cdp = parse_cdp(beginning);
        EXPECT_EQ(cdp.cc_data.size(), size < kFooter ? 3U : 6U);
        ASSERT_EQ(cdp.damage.size(), 1U);
        EXPECT_EQ(cdp.damage[0].fault, size < kFooter ? CdpFault::kCutSection : CdpFault::kNoFooter);
    }
}

std::vector<CdpFault> faults_of(const Bytes& packet) {
    std::vector<CdpFault> faults;
    for (const CdpDamage& damage : parse_cdp(packet).damage) faults.push_back(damage.fault);
    return faults;
}

TEST(Cdp, TellsTheRateByItsCode) {
    const std::optional<FrameRate> rates[] = {std::nullopt, kRate23_976,  kRate24,      kRate25,
                                              kRate29_97,   kRate30,      kRate50,      kRate59_94,
                                              kRate60,      std::nullopt, std::nullopt, std::nullopt,
                                              std::nullopt, std::nullopt, std::nullopt, std::nullopt};
    for (std::uint8_t code = 0; code < 16; ++code)
        EXPECT_EQ(parse_cdp(packet(code, {})).rate, rates[code]) << int{code};
}

TEST(Cdp, HasBytesThatSumUpToZero) {
    EXPECT_EQ(zero_sum_checksum({}), 0);
    EXPECT_EQ(zero_sum_checksum(Bytes{1}), 255);
    EXPECT_EQ(zero_sum_checksum(Bytes{0x96, 0x69}), 1);
    EXPECT_EQ(zero_sum_checksum(Bytes(257, 0xFF)), 1);
}

TEST(Cdp, TakesTheLengthOfASectionFromItsCount) {
    const Bytes pair{0x72, 0xE1, 0xFC, 0x94, 0x20};
    // Sections before and behind are found only where the one between has its right length.
    const auto around = [&](Bytes section) {
        section.insert(section.begin(), pair.begin(), pair.end());
        section.insert(section.end(), pair.begin(), pair.end());
        const Cdp cdp = parse_cdp(packet(4, section));
        EXPECT_EQ(cdp.damage.size(), 0U);
        return cdp;
    };
    for (unsigned count = 0; count < 16; ++count) {
        SCOPED_TRACE(count);
        const auto low = static_cast<std::uint8_t>(count);
        Bytes triples{0x72, static_cast<std::uint8_t>(0xE0 | low)};
        triples.resize(2 + 3 * count, 0xFA);
        EXPECT_EQ(around(triples).cc_data.size(), 6 + 3 * count);
        Bytes services{0x73, static_cast<std::uint8_t>(0xD0 | low)};
        services.resize(2 + 7 * count, 0x11);
        EXPECT_EQ(around(services).service_count, static_cast<int>(count));
        Bytes future{0x75, low};
        future.resize(2 + count, 0x11);
        EXPECT_EQ(around(future).cc_data.size(), 6U);
    }
    Bytes most{0x72, 0xFF};
    most.resize(2 + 3 * 31, 0xFA);
    EXPECT_EQ(around(most).cc_data.size(), 6U + 3 * 31);
    EXPECT_EQ(around({0x71, 1, 2, 3, 4}).cc_data.size(), 6U);
    EXPECT_EQ(around({0x73, 0xD1, 1, 2, 3, 4, 5, 6, 7, 0x73, 0xD2, 1, 2, 3, 4, 5, 6, 7, 1, 2, 3, 4, 5, 6, 7})
                  .service_count,
              3);
}

TEST(Cdp, SaysWhereItIsCutOff) {
    const Bytes whole = packet(4, {0x72, 0xE2, 0xFC, 0x94, 0x20, 0xFC, 0xC8, 0xE9});
    const auto fault = [&](std::size_t size) -> std::string {
        try {
            const Cdp cdp = parse_cdp(std::span(whole).first(size));
            return cdp.damage.empty() ? "whole" : cdp.damage[0].text;
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
    };
    for (std::size_t size = 0; size <= whole.size(); ++size)
        EXPECT_EQ(fault(size), size < 7
                                   ? "the packet does not begin with the caption distribution identifier 9669"
                               : size == 7 ? "the packet's footer is missing or cut short"
                               : size < 15 ? "a section of the packet is longer than the packet"
                               : size < 19 ? "the packet's footer is missing or cut short"
                                           : "whole")
            << size;
}

TEST(Cdp, CountsServicesByTheirSectionsHeader) {
    Bytes cut = packet(4, {0x72, 0xE1, 0xFC, 0x94, 0x20, 0x73, 0xD3});
    cut.resize(7 + 5 + 2);
    EXPECT_EQ(parse_cdp(cut).service_count, 3);
    cut.pop_back();
    EXPECT_EQ(parse_cdp(cut).service_count, 0);
}

TEST(Cdp, SaysWhatItsTotalsShouldBe) {
    const Bytes whole = packet(4, {0x72, 0xE1, 0xFC, 0x94, 0x20});  // 16 bytes
    const auto text = [](const Bytes& bytes) { return parse_cdp(bytes).damage.at(0).text; };
    EXPECT_EQ(text(changed(changed(whole, 2, 1), 15, -1)),
              "the packet's length byte says 17 bytes, it has 16");
    EXPECT_EQ(text(changed(changed(whole, 6, 1), 15, -1)),
              "the sequence counters of the packet's header and footer differ");
    EXPECT_EQ(text(changed(changed(whole, 5, 1), 15, -1)),
              "the sequence counters of the packet's header and footer differ");
    EXPECT_EQ(text(changed(changed(whole, 13, 1), 15, -1)),
              "the sequence counters of the packet's header and footer differ");
    Bytes longer = whole;
    longer.insert(longer.end(), {0x00, 0x00});
    EXPECT_EQ(text(longer), "bytes follow the packet's footer");
}

TEST(Cdp, NamesItsFaults) {
    const Bytes pair{0x72, 0xE1, 0xFC, 0x94, 0x20};
    const auto with = [&](Bytes more) {
        more.insert(more.begin(), pair.begin(), pair.end());
        return packet(4, more);
    };
    using enum CdpFault;
    EXPECT_EQ(faults_of(with({})), std::vector<CdpFault>{});
    EXPECT_EQ(faults_of(with({0x75, 0x09, 0x00})), std::vector{kCutSection});
    EXPECT_EQ(faults_of(with({0x10})), std::vector{kUnknownSection});
    EXPECT_EQ(faults_of(with({0x70})), std::vector{kUnknownSection});
    EXPECT_EQ(faults_of(with({0xF0, 0x00})), std::vector{kUnknownSection});
    EXPECT_EQ(faults_of(with({0xEF, 0x00})), std::vector<CdpFault>{});
    Bytes longer = with({});
    longer.push_back(0x00);
    EXPECT_EQ(faults_of(longer), std::vector{kBytesAfterFooter});
    EXPECT_EQ(faults_of(changed(changed(with({}), 2, 1), 15, -1)), std::vector{kLength});
    EXPECT_EQ(faults_of(changed(with({}), 15, 1)), std::vector{kChecksum});
    EXPECT_EQ(faults_of(changed(changed(with({}), 14, 1), 15, -1)), std::vector{kCounters});
    EXPECT_EQ(faults_of(cut(with({}), 4)), std::vector{kNoFooter});
}

// --- SubRip and WebVTT

std::vector<std::string> texts_of(const Cue& cue) {
    std::vector<std::string> texts;
    for (const StyledLine& line : cue.lines) texts.push_back(plain_text(line));
    return texts;
}

/// "1000-2000 first row/second row" for each cue.
std::vector<std::string> summary_of(const std::vector<Cue>& cues) {
    std::vector<std::string> summary;
    for (const Cue& cue : cues) {
        std::string text = std::to_string(cue.begin_ms) + "-" + std::to_string(cue.end_ms);
        const char* between = " ";
        for (const std::string& row : texts_of(cue)) text += std::exchange(between, "/") + row;
        summary.push_back(text);
    }
    return summary;
}

TEST(SubRip, ReadsTheSampleWithItsByteOrderMarkAndLineEnds) {
    Report report;
    const std::vector<Cue> cues = read_srt(data_file("sample.srt"), report);
    EXPECT_TRUE(report.empty());
    ASSERT_EQ(cues.size(), 3U);
    EXPECT_EQ(cues[0].begin_ms, 2000);
    EXPECT_EQ(cues[0].end_ms, 4000);
    EXPECT_EQ(cues[0].source_line, 2);
    EXPECT_EQ(texts_of(cues[0]), (std::vector<std::string>{"A captioned programme,", "re-encoded."}));
    EXPECT_FALSE(cues[0].lines[0][0].italic);
    EXPECT_TRUE(cues[0].lines[1][0].italic);
    EXPECT_FALSE(cues[0].lines[1].back().italic);
    EXPECT_FALSE(cues[0].first_row);
    EXPECT_EQ(cues[2].first_row, 1);
    EXPECT_EQ(texts_of(cues[2]), (std::vector<std::string>{"Señor Peña – “olé!”"}));
}

TEST(SubRip, StripsMarkupAndKeepsOtherAngleBrackets) {
    Report report;
    const auto cues = parse_srt(
        "1\n00:00:01,000 --> 01:00:02.500 X1:10\n<b>bold</b> <font color=\"red\">red</font> "
        "{\\i1}a < b{\\i0} c > d {x}\n\n\n00:00:03,000 --> 00:00:04,000\n<i></i>\n",
        "a.srt", report);
    ASSERT_EQ(cues.size(), 1U);
    EXPECT_EQ(cues[0].end_ms, 3602500);
    EXPECT_EQ(texts_of(cues[0]), (std::vector<std::string>{"bold red a < b c > d {x}"}));
    EXPECT_TRUE(cues[0].lines[0][9].italic);
    EXPECT_FALSE(cues[0].lines[0][16].italic);
}

TEST(SubRip, PlacesByTheNumberPad) {
    const auto place = [](const std::string& key) {
        Report report;
        return parse_srt("1\n00:00:01,000 --> 00:00:02,000\n{\\an" + key + "}x\n", "a.srt", report).at(0);
    };
    EXPECT_EQ(place("1").alignment, Alignment::kLeft);
    EXPECT_FALSE(place("2").first_row);
    EXPECT_EQ(place("6").alignment, Alignment::kRight);
    EXPECT_EQ(place("6").first_row, 8);
    EXPECT_EQ(place("7").alignment, Alignment::kLeft);
    EXPECT_EQ(place("9").first_row, 1);
}

TEST(SubRip, PlacesByEveryKeyOfTheNumberPad) {
    const auto place = [](const std::string& text) {
        Report report;
        return parse_srt("1\n00:00:01,000 --> 00:00:02,000\n" + text + "x\n", "a.srt", report).at(0);
    };
    const Alignment columns[] = {Alignment::kLeft, Alignment::kCenter, Alignment::kRight};
    const std::optional<int> rows[] = {std::nullopt, 8, 1};
    for (int key = 1; key <= 9; ++key) {
        const Cue cue = place("{\\b1\\an" + std::to_string(key) + "}");
        EXPECT_EQ(cue.alignment, columns[(key - 1) % 3]) << key;
        EXPECT_EQ(cue.first_row, rows[(key - 1) / 3]) << key;
        EXPECT_EQ(texts_of(cue), std::vector<std::string>{"x"});
    }
    for (const char* text : {"{\\an0}", "{\\an:}", "{\\an}", "{\\an", "{an7}", "{}", "{ \\an7}"}) {
        EXPECT_EQ(place(text).alignment, Alignment::kCenter) << text;
        EXPECT_EQ(place(text).first_row, std::nullopt) << text;
    }
}

/// The text of the first line with its italics in slanted brackets.
std::string italics_of(const std::string& text, bool webvtt = false) {
    const std::string cue = "00:00:01.000 --> 00:00:02.000\n" + text + "\n";
    Report report;
    const auto cues = webvtt ? parse_webvtt("WEBVTT\n\n" + cue, "r", report) : parse_srt(cue, "r", report);
    std::string marked;
    bool italic = false;
    for (const StyledCharacter& c : cues.at(0).lines.at(0)) {
        if (c.italic != italic) marked += c.italic ? "/" : "\\";
        italic = c.italic;
        marked += encode_utf8(std::u32string(1, c.character));
    }
    return marked;
}

TEST(SubRip, MarksItalicsByTagsAndOverrides) {
    EXPECT_EQ(italics_of("a<i>b</i>c"), "a/b\\c");
    EXPECT_EQ(italics_of("a<I>b</I>c<em>d</em>e"), "a/b\\c/d\\e");
    EXPECT_EQ(italics_of("a<i>b<i>c</i>d</i>e"), "a/bcd\\e");
    EXPECT_EQ(italics_of("a</i>b<i>c"), "ab/c");
    EXPECT_EQ(italics_of("a<i class=x>b</i >c"), "a/b\\c");
    EXPECT_EQ(italics_of("a{\\i1}b{\\i0}c"), "a/b\\c");
    EXPECT_EQ(italics_of("a<i>b{\\i0}c"), "a/b\\c");
    EXPECT_EQ(italics_of("a{\\i1}b</i>c"), "a/b\\c");
    EXPECT_EQ(italics_of("a<i><i>b{\\i1}c</i>d"), "a/bc\\d");
    EXPECT_EQ(
        italics_of("<b>a</b><u>b</u><s>c</s><strong>d</strong><B>e</B><U>f</U><S>g</S><FONT x>h</FONT>"),
        "abcdefgh");
    EXPECT_EQ(italics_of("a<x>b<j>c< i>d<"), "a<x>b<j>c< i>d<");
    EXPECT_EQ(italics_of("a<i b"), "a<i b");
    EXPECT_EQ(italics_of("a<c.x>b</c><i.y>c</i><v A>d", true), "ab/c\\d");
    EXPECT_EQ(italics_of("{\\i1}a", true), "{\\i1}a");
    EXPECT_EQ(italics_of("a\tb"), "a b");
}

TEST(SubRip, QuotesTheBeginningOfALongCueThatIsLeftOut) {
    const auto quoted = [](std::size_t length) {
        Report report;
        const std::string whole = "00:00:01,000 --> 00:00:02,000\nx\n\n";
        parse_srt(whole + "00:00:01,000 --> 00:00:00,000\n" + std::string(length - 4, 'a') + "\nb\n", "q.srt",
                  report);
        const std::string line = report.lines().at(0);
        return line.substr(line.find('\"'), line.rfind('\"') - line.find('\"') + 1);
    };
    EXPECT_EQ(quoted(80), "\"" + std::string(76, 'a') + " / b\"");
    EXPECT_EQ(quoted(81), "\"" + std::string(77, 'a') + " / ...\"");
}

TEST(SubRip, KnowsATimeLineByItsArrowAndAClock) {
    const auto cues = [](const std::string& line) {
        Report report;
        const auto found =
            parse_srt("1\n00:00:01,000 --> 00:00:02,000\none\n\n2\n" + line + "\ntwo\n", "t.srt", report);
        return std::to_string(found.size()) + " " + std::to_string(report.lines().size());
    };
    EXPECT_EQ(cues("00:00:03,000 --> 00:00:04,000"), "2 0");
    EXPECT_EQ(cues("00:00:03,000-->00:00:04,000"), "2 0");
    EXPECT_EQ(cues("00:00:03,000 -> 00:00:04,000"), "1 1");
    EXPECT_EQ(cues("3:4 -->"), "1 1");
    EXPECT_EQ(cues("a:4 3: --> :5"), "1 1");  // no clock: a number, as it is due, and its text
    EXPECT_EQ(cues("-->"), "1 1");
}

TEST(SubRip, TellsANumberThatIsDueFromANumberInTheText) {
    const std::string one = "1\n00:00:01,000 --> 00:00:02,000\none\n\n";
    const std::string three = "\n\n3\n00:00:05,000 --> 00:00:06,000\nthree\n";
    const auto cues = [&](const std::string& text) {
        Report report;
        return summary_of(parse_srt(text, "n.srt", report));
    };
    EXPECT_EQ(cues(one + "2\ntwo" + three), (std::vector<std::string>{"1000-2000 one", "5000-6000 three"}));
    EXPECT_EQ(cues(one + "3\ntwo" + three),
              (std::vector<std::string>{"1000-2000 one/3/two", "5000-6000 three"}));
    EXPECT_EQ(cues(one + "1\ntwo" + three),
              (std::vector<std::string>{"1000-2000 one/1/two", "5000-6000 three"}));
    // In the middle of a paragraph it is text in any case.
    EXPECT_EQ(cues("1\n00:00:01,000 --> 00:00:02,000\none\n2\ntwo" + three),
              (std::vector<std::string>{"1000-2000 one/2/two", "5000-6000 three"}));
}

class SubRipError : public testing::TestWithParam<ErrorCase> {};

TEST_P(SubRipError, NamesTheLineAndTheRemedy) {
    Report report;
    EXPECT_EQ(error_of([&] { parse_srt(GetParam().text, "b.srt", report); }), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    SubRip, SubRipError,
    testing::Values(
        ErrorCase{"", "accepted"}, ErrorCase{"1\n00:00:01,000 --> 00:00:02,000\n\n", "accepted"},
        ErrorCase{"1\nHello\nthere\n",
                  "b.srt:2: expected a time line such as 00:00:01,000 --> 00:00:03,500, found \"Hello / "
                  "there\", which is left out (no cue of the file can be shown)"},
        ErrorCase{"1\n00:00:01,000 -> 00:00:02,000\none\n",
                  "b.srt:2: expected a time line such as 00:00:01,000 --> 00:00:03,500, found "
                  "\"00:00:01,000 -> 00:00:02,000\"; the cue \"one\" is left out (no cue of the file can be "
                  "shown)"},
        ErrorCase{
            "1\n00:00:01,5 --> 00:00:02,000\none\n",
            "b.srt:2: \"00:00:01,5\" is not a time: write hours, minutes, seconds and milliseconds such as "
            "00:01:02.345; the cue \"one\" is left out (no cue of the file can be shown)"},
        ErrorCase{"1\n00:00:01,000 --> 00:00:02,000\ncaf\xE9\n",
                  "b.srt:3: the text is not UTF-8 (byte 0xE9 after 3 characters): convert the file, for "
                  "example with "
                  "iconv -f WINDOWS-1252 -t UTF-8"},
        ErrorCase{"\xFF\xFE"
                  "1",
                  "b.srt:1: the file is UTF-16 text: convert it, for example with iconv -f UTF-16 -t "
                  "UTF-8"}));

struct WildCase {
    const char* text;
    std::vector<std::string> cues;
    std::vector<std::string> warnings;
};

class WildSubRip : public testing::TestWithParam<WildCase> {};

TEST_P(WildSubRip, KeepsWhatCanBeShownAndReportsTheRest) {
    Report report;
    EXPECT_EQ(summary_of(parse_srt(GetParam().text, "w.srt", report)), GetParam().cues);
    EXPECT_EQ(report.lines(), GetParam().warnings);
    EXPECT_EQ(report.count(WarningKind::kDroppedCue), GetParam().warnings.size());
}

INSTANTIATE_TEST_SUITE_P(
    SubRip, WildSubRip,
    testing::Values(
        // An empty line within a cue, and one that only looks like the end.
        WildCase{"1\n00:00:01,000 --> 00:00:02,000\none\n\ntwo\n\n \n42\n\n2\n00:00:03,000 --> "
                 "00:00:04,000\nthree\n",
                 {"1000-2000 one/two/42", "3000-4000 three"},
                 {}},
        // No empty line between cues; no number; no milliseconds.
        WildCase{"1\n00:00:01,000 --> 00:00:02,000\none\n2\n00:00:03 --> 00:00:04.500\ntwo\n00:00:05,000 --> "
                 "00:00:06,000\nthree",
                 {"1000-2000 one", "3000-4500 two", "5000-6000 three"},
                 {}},
        // A time line with a fault takes its own text along and nothing else.
        WildCase{
            "1\n00:00:01,000 --> 00:00:02,000\none\n\n2\n00:00:03,000 --> 00:61:04,000\ntwo\n\nand more\n"
            "\n3\n00:00:05,000 --> 00:00:06,000\nthree\n",
            {"1000-2000 one", "5000-6000 three"},
            {"w.srt:6: \"00:61:04,000\" is not a time: write hours, minutes, seconds and milliseconds "
             "such as 00:01:02.345; the cue \"two / and more\" is left out"}},
        WildCase{
            "1\n00:00:01,000 --> 00:00:02,000\none\n\n2\ntwo\n\n3\n00:00:05,000 --> 00:00:06,000\nthree\n",
            {"1000-2000 one", "5000-6000 three"},
            {"w.srt:6: expected a time line such as 00:00:01,000 --> 00:00:03,500, found \"two\", which "
             "is left out"}},
        // No length, and less.
        WildCase{
            "1\n00:00:01,000 --> 00:00:01,000\none\n\n2\n00:00:05,000 --> 00:00:04,000\n<i>two</i>\n\n3\n"
            "00:00:05,000 --> 00:00:06,000\nthree\n",
            {"5000-6000 three"},
            {"w.srt:2: the cue ends at 00:00:01,000, which is not after its begin at 00:00:01,000: "
             "correct one of the times; the cue \"one\" is left out",
             "w.srt:6: the cue ends at 00:00:04,000, which is not after its begin at 00:00:05,000: "
             "correct one of the times; the cue \"two\" is left out"}},
        // Arrows in text are text.
        WildCase{"1\n00:00:01,000 --> 00:00:02,000\nA --> B\n-> 9:30?\n", {"1000-2000 A --> B/-> 9:30?"}, {}},
        WildCase{
            "Translated by nobody\n\n1\n00:00:01,000 --> 00:00:02,000\none\n",
            {"1000-2000 one"},
            {"w.srt:1: expected a time line such as 00:00:01,000 --> 00:00:03,500, found \"Translated by "
             "nobody\", which is left out"}}));

class WildWebVtt : public testing::TestWithParam<WildCase> {};

TEST_P(WildWebVtt, KeepsWhatCanBeShownAndReportsTheRest) {
    Report report;
    EXPECT_EQ(summary_of(parse_webvtt(GetParam().text, "w.vtt", report)), GetParam().cues);
    EXPECT_EQ(report.lines(), GetParam().warnings);
}

INSTANTIATE_TEST_SUITE_P(
    WebVtt, WildWebVtt,
    testing::Values(
        WildCase{
            "WEBVTT\nKind: captions\n\nintro\n00:01.000 --> 00:02.000 align:left\none\n\ntwo\n\nNOTE\nno "
            "text\n\nlast words\n00:03.000 --> 00:04.000\nthree\n",
            {"1000-2000 one/two", "3000-4000 three"},
            {}},
        WildCase{
            "WEBVTT\n00:01.000 --> 00:02.000\none\n\nNOTE a\n\nb\n\n00:03.000 --> 00:03.000\ntwo\n",
            {"1000-2000 one"},
            {"w.vtt:7: expected a time line such as 00:01.000 --> 00:03.500, found \"b\", which is left "
             "out",
             "w.vtt:9: the cue ends at 00:03.000, which is not after its begin at 00:03.000: correct one "
             "of the times; the cue \"two\" is left out"}}));

TEST(WebVtt, ReadsTheSample) {
    Report report;
    const std::vector<Cue> cues = read_webvtt(data_file("sample.vtt"), report);
    EXPECT_TRUE(report.empty());
    ASSERT_EQ(cues.size(), 2U);
    EXPECT_EQ(texts_of(cues[0]), (std::vector<std::string>{"At the top & on the left"}));
    EXPECT_EQ(cues[0].first_row, 1);
    EXPECT_EQ(cues[0].alignment, Alignment::kLeft);
    EXPECT_EQ(cues[0].begin_ms, 2000);
    EXPECT_EQ(texts_of(cues[1]), (std::vector<std::string>{"Rock <and> roll"}));
    EXPECT_EQ(cues[1].first_row, 13);
    EXPECT_TRUE(cues[1].lines[0].back().italic);
    EXPECT_FALSE(cues[1].lines[0].front().italic);
}

/// The text of a one-line cue, and what is reported of it.
std::string shown_text(const std::string& text, bool webvtt, const std::vector<std::string>& unknown = {}) {
    const std::string cue = "00:00:01.000 --> 00:00:02.000\n" + text + "\n";
    Report report;
    const auto cues = webvtt ? parse_webvtt("WEBVTT\n\n" + cue, "r", report) : parse_srt(cue, "r", report);
    std::vector<std::string> expected;
    for (const std::string& reference : unknown)
        expected.push_back("r:3: \"" + reference +
                           "\" is not a known character reference and is shown as it is written: write the "
                           "character itself");
    EXPECT_EQ(report.lines(), expected);
    EXPECT_EQ(report.count(WarningKind::kUnknownReference), expected.size());
    return plain_text(cues.at(0).lines.at(0));
}

TEST(WebVtt, ReadsCharacterReferences) {
    EXPECT_EQ(shown_text("A &amp; B &#39;x&rsquo; &eacute; &lt;i&gt;&nbsp;&quot;C&quot;", true),
              "A & B 'x’ é <i>\u00A0\"C\"");
    EXPECT_EQ(shown_text("&Aacute;&Ccedil;&Iuml;&ntilde;&Oslash;&szlig;&uuml;&yuml;&iquest;&iexcl;", true),
              "ÁÇÏñØßüÿ¿¡");
    EXPECT_EQ(shown_text("&ldquo;&mdash;&ndash;&hellip;&rdquo; &laquo;&lsquo;&raquo; &sung;&euro;", true),
              "“—–…” «‘» ♪€");
    EXPECT_EQ(shown_text("&#233;&#xE9;&#Xe9;&#9834;&#x266a;&#128169;", true), "ééé♪♪💩");
    EXPECT_EQ(shown_text("&#146;&#0;&#xD800;&#99999999999;x&#10;y", true), "’\uFFFD\uFFFD\uFFFDx y");
}

TEST(WebVtt, ShowsUnknownCharacterReferencesAsTheyAreWrittenAndSaysSo) {
    EXPECT_EQ(shown_text("AT&T; R&D; R&D; a & b; &; &#; &#x; &eacute", true, {"&T;", "&D;", "&#;", "&#x;"}),
              "AT&T; R&D; R&D; a & b; &; &#; &#x; &eacute");
}

TEST(SubRip, ReadsTheCharacterReferencesOfManyWriters) {
    EXPECT_EQ(shown_text("A &amp; B &lt;i&gt;&nbsp;C", false), "A & B <i>\u00A0C");
    EXPECT_EQ(shown_text("&eacute; &#39; &foo; &amp", false), "&eacute; &#39; &foo; &amp");
}

TEST(WebVtt, KnowsTheNamesOfWhatTheCharacterSetsHave) {
    for (const std::string name :
         {"reg",    "deg",    "frac12", "iquest", "trade",  "cent",   "pound",  "sung",   "agrave", "egrave",
          "acirc",  "ecirc",  "icirc",  "ocirc",  "ucirc",  "Aacute", "Eacute", "Oacute", "Uacute", "Uuml",
          "uuml",   "lsquo",  "iexcl",  "ast",    "apos",   "mdash",  "copy",   "bull",   "ldquo",  "rdquo",
          "Agrave", "Acirc",  "Ccedil", "Egrave", "Ecirc",  "Euml",   "euml",   "Icirc",  "Iuml",   "iuml",
          "Ocirc",  "Ugrave", "ugrave", "Ucirc",  "laquo",  "raquo",  "Atilde", "atilde", "Iacute", "Igrave",
          "igrave", "Ograve", "ograve", "Otilde", "otilde", "lcub",   "rcub",   "bsol",   "Hat",    "lowbar",
          "verbar", "Auml",   "auml",   "Ouml",   "ouml",   "szlig",  "yen",    "curren", "brvbar", "Aring",
          "aring",  "Oslash", "oslash", "boxdr",  "boxdl",  "boxur",  "boxul",  "aacute", "eacute", "iacute",
          "oacute", "uacute", "ccedil", "divide", "Ntilde", "ntilde", "block",  "rsquo"}) {
        const std::u32string text = decode_utf8(shown_text("&" + name + ";", true), "r", 1);
        ASSERT_EQ(text.size(), 1U) << name;
        EXPECT_TRUE(glyph_for(text[0])) << name;
    }
}

TEST(WebVtt, PlacesByLineNumberAndPercentage) {
    const auto row = [](const std::string& setting) {
        Report report;
        return parse_webvtt("WEBVTT\n\n00:01.000 --> 00:02.000 " + setting + "\nx\n", "a.vtt", report)
            .at(0)
            .first_row;
    };
    EXPECT_EQ(row("line:0%"), 1);
    EXPECT_EQ(row("line:50%,center"), 8);
    EXPECT_EQ(row("line:84.6%"), 13);
    EXPECT_EQ(row("line:100%"), 15);
    EXPECT_EQ(row("line:4"), 5);
    EXPECT_EQ(row("line:99"), 15);
    EXPECT_EQ(row("line:-1"), 15);
    EXPECT_EQ(row("line:-99"), 1);
    EXPECT_EQ(row("line:auto position:10% size:35%"), std::nullopt);
}

TEST(WebVtt, ReadsNumbersOfCharactersUpToTheLast) {
    const std::pair<const char*, const char*> references[] = {{"&#127;", "\x7F"},
                                                              {"&#128;", "€"},
                                                              {"&#x80;", "€"},
                                                              {"&#129;", "\u0081"},
                                                              {"&#159;", "Ÿ"},
                                                              {"&#x9f;", "Ÿ"},
                                                              {"&#160;", "\u00A0"},
                                                              {"&#xD7FF;", "\uD7FF"},
                                                              {"&#xD800;", "\uFFFD"},
                                                              {"&#xDFFF;", "\uFFFD"},
                                                              {"&#xE000;", "\uE000"},
                                                              {"&#x10FFFF;", "\U0010FFFF"},
                                                              {"&#x110000;", "\uFFFD"},
                                                              {"&#1114111;", "\U0010FFFF"},
                                                              {"&#1114112;", "\uFFFD"},
                                                              {"&#xabcdef;", "\uFFFD"},
                                                              {"&#xABCDE;", "\U000ABCDE"},
                                                              {"&#99999999999999999999;", "\uFFFD"},
                                                              {"&#1;", "\x01"},
                                                              {"&#0;", "\uFFFD"}};
    for (const auto& [reference, character] : references)
        EXPECT_EQ(shown_text(std::string("a") + reference + "b", true), std::string("a") + character + "b");
    for (const std::string text : {"&#xg;", "&#xG;", "&#a;", "&#1a;", "&#x;", "&#X;", "&#xx1;", "&#;"})
        EXPECT_EQ(shown_text(text, true, {text}), text);
    // A reference ends before what is neither a letter nor a digit.
    for (const std::string text :
         {"&a#;", "&#-1;", "&##1;", "&a/;", "&a:", "&a@;", "&a[;", "&a`;", "&a{;", "&"})
        EXPECT_EQ(shown_text(text, true), text);
}

TEST(WebVtt, KnowsTheNamesOfLatin1) {
    const std::pair<const char*, char32_t> names[] = {{"nbsp", 0xA0},   {"iexcl", 0xA1},  {"frac34", 0xBE},
                                                      {"iquest", 0xBF}, {"Agrave", 0xC0}, {"times", 0xD7},
                                                      {"Oslash", 0xD8}, {"THORN", 0xDE},  {"szlig", 0xDF},
                                                      {"agrave", 0xE0}, {"divide", 0xF7}, {"yuml", 0xFF}};
    for (const auto& [name, character] : names)
        EXPECT_EQ(shown_text("a&" + std::string(name) + ";b", true),
                  encode_utf8(U"a" + std::u32string(1, character) + U"b"));
}

Cue webvtt_cue(const std::string& settings) {
    Report report;
    return parse_webvtt("WEBVTT\n\n00:01.000 --> 00:02.000" + settings + "\nx\n", "a.vtt", report).at(0);
}

TEST(WebVtt, AlignsByName) {
    EXPECT_EQ(webvtt_cue("").alignment, Alignment::kCenter);
    const std::pair<const char*, Alignment> settings[] = {
        {"align:start", Alignment::kLeft},       {"align:left", Alignment::kLeft},
        {"align:center", Alignment::kCenter},    {"align:middle", Alignment::kCenter},
        {"align:end", Alignment::kRight},        {"align:right", Alignment::kRight},
        {"align", Alignment::kCenter},           {"position:right", Alignment::kCenter},
        {"align:x align:end", Alignment::kRight}};
    for (const auto& [setting, alignment] : settings)
        EXPECT_EQ(webvtt_cue(std::string("\t") + setting).alignment, alignment) << setting;
}

TEST(WebVtt, PlacesEveryLineOfTheScreen) {
    const auto row = [](const std::string& line) { return webvtt_cue(" line:" + line).first_row; };
    for (int line = 0; line < 15; ++line) {
        EXPECT_EQ(row(std::to_string(line)), line + 1);
        EXPECT_EQ(row(std::to_string(line - 15)), line + 1);
    }
    EXPECT_EQ(row("15"), 15);
    EXPECT_EQ(row("-16"), 1);
    EXPECT_EQ(row("2147483647"), 15);
    EXPECT_EQ(row("-2147483648"), 1);
    // The first of 15 rows at 0 %, the last at 100 %: one each 7.14 %.
    const std::pair<const char*, int> percentages[] = {
        {"3%", 1},    {"4%", 2},    {"10%", 2}, {"11%", 3},   {"96%", 14},     {"97%", 15},
        {"101%", 15}, {"999%", 15}, {"-5%", 1}, {"10.9%", 2}, {"11.1%,end", 3}};
    for (const auto& [line, expected] : percentages) EXPECT_EQ(row(line), expected) << line;
    for (const char* line : {"", "%", "x", "1x", "x%", ".5%", "auto", "2147483648"})
        EXPECT_EQ(row(line), std::nullopt) << line;
}

TEST(WebVtt, KnowsItsHeaderAndPassesOverTheLinesBelowIt) {
    const std::string cue = "00:01.000 --> 00:02.000\nx\n";
    for (const char* header :
         {"WEBVTT\n\n", "WEBVTT\n", "WEBVTT a\n", "WEBVTT\ta\n", "WEBVTT\nKind: x\nA: b\n",
          "WEBVTT\n\nSTYLE\n::cue {\n}\n\n", "WEBVTT\n\nREGION\nid:a\n\n", "WEBVTT\n\nNOTE\ta\nb\n\n",
          "WEBVTT\n\nNOTE a\n\n", "WEBVTT\n\nNOTE\n\n"}) {
        Report report;
        EXPECT_EQ(parse_webvtt(header + cue, "h.vtt", report).size(), 1U) << header;
        EXPECT_EQ(report.lines(), std::vector<std::string>()) << header;
    }
    // Text that only begins like a block, and one that stands in a cue.
    for (const char* text : {"NOTES", "STYLES", "REGIONS", "NOTE\n"}) {
        Report report;
        EXPECT_EQ(texts_of(parse_webvtt("WEBVTT\n\n" + cue + text + "\n", "h.vtt", report).at(0)),
                  (std::vector<std::string>{"x", std::string(trim(split_lines(text, "")[0]))}));
    }
    Report report;
    EXPECT_TRUE(parse_webvtt("WEBVTT", "h.vtt", report).empty());
}

TEST(Clock, CountsHoursMinutesSecondsAndMilliseconds) {
    const std::pair<const char*, std::optional<std::int64_t>> clocks[] = {{"00:00.000", 0},
                                                                          {"00:00.001", 1},
                                                                          {"00:59.999", 59999},
                                                                          {"59:00.000", 3540000},
                                                                          {"01:02:03.004", 3723004},
                                                                          {"1:02:03,004", 3723004},
                                                                          {"01:02:03", 3723000},
                                                                          {"9999:59:59.999", 35999999999},
                                                                          {"0:00", 0},
                                                                          {"9999:00", 599940000},
                                                                          {"00:60.000", std::nullopt},
                                                                          {"00:60:00.000", std::nullopt},
                                                                          {"10000:00:00.000", std::nullopt},
                                                                          {"00:0.000", std::nullopt},
                                                                          {"00:000.000", std::nullopt},
                                                                          {"00", std::nullopt},
                                                                          {"00.000", std::nullopt},
                                                                          {"00:00:00:00", std::nullopt},
                                                                          {"00:00:00:00.000", std::nullopt},
                                                                          {"00:00.00", std::nullopt},
                                                                          {"00:00.0000", std::nullopt},
                                                                          {"00:00.0x0", std::nullopt},
                                                                          {"00:00.", std::nullopt},
                                                                          {"", std::nullopt},
                                                                          {":00.000", std::nullopt},
                                                                          {"00:.000", std::nullopt},
                                                                          {"-1:00.000", std::nullopt},
                                                                          {"0x:00.000", std::nullopt},
                                                                          {"00:0x.000", std::nullopt},
                                                                          {"00:00:00:00:00", std::nullopt},
                                                                          {"00:00.000.", std::nullopt}};
    for (const auto& [text, milliseconds] : clocks) EXPECT_EQ(parse_clock(text), milliseconds) << text;
}

class WebVttError : public testing::TestWithParam<ErrorCase> {};

TEST_P(WebVttError, NamesTheLineAndTheRemedy) {
    Report report;
    EXPECT_EQ(error_of([&] { parse_webvtt(GetParam().text, "b.vtt", report); }), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    WebVtt, WebVttError,
    testing::Values(
        ErrorCase{"", "b.vtt:1: not a WebVTT file: the first line must begin with \"WEBVTT\""},
        ErrorCase{"1\n00:01.000 --> 00:02.000\nx\n",
                  "b.vtt:1: not a WebVTT file: the first line must begin with \"WEBVTT\""},
        ErrorCase{"WEBVTTX\n", "b.vtt:1: not a WebVTT file: the first line must begin with \"WEBVTT\""},
        ErrorCase{"WEBVTT\n\nx\n",
                  "b.vtt:3: expected a time line such as 00:01.000 --> 00:03.500, found \"x\", which is left "
                  "out (no cue of the file can be shown)"},
        ErrorCase{"WEBVTT\n\n1.000 --> 00:02.000\nx\n",
                  "b.vtt:3: \"1.000\" is not a time: write hours, minutes, seconds and milliseconds such as "
                  "00:01:02.345; the cue \"x\" is left out (no cue of the file can be shown)"},
        ErrorCase{"\xEF\xBB\xBFWEBVTT\r\rNOTE x\r\r00:01.000 --> 00:02.000\ry\r", "accepted"}));

// --- all formats

class CaptionFileDirectory : public testing::Test {
protected:
    std::string file(const std::string& name, const std::string& text) {
        const std::string path = directory_ / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

private:
    test::ScratchDirectory directory_;
};

TEST(Options, AreThoseOfVideoAt29_97WithTwoRowsInField1) {
    const CaptionFileOptions file;
    EXPECT_EQ(file.output, kRate29_97);
    EXPECT_EQ(file.field, 0);
    EXPECT_EQ(file.rows, 2);
    EXPECT_EQ(file.start, "");
    const PopOnOptions pop_on;
    EXPECT_EQ(pop_on.rate, kRate29_97);
    EXPECT_EQ(pop_on.field, 0);
    EXPECT_EQ(pop_on.rows, 2);
    EXPECT_EQ(SccReadOptions{}.rate, kRate29_97);
    EXPECT_EQ(SccReadOptions{}.field, 0);
    EXPECT_TRUE(SccWriteOptions{}.drop_frame);
}

TEST(Results, BeginWithNothing) {
    EXPECT_EQ(CcData{}.parity_errors, 0);
    EXPECT_FALSE(CcData{}.truncated);
    EXPECT_EQ(Cdp{}.sequence_counter, 0);
    EXPECT_EQ(Cdp{}.service_count, 0);
    EXPECT_EQ(Cue{}.begin_ms, 0);
    EXPECT_EQ(Cue{}.end_ms, 0);
    EXPECT_EQ(Cue{}.source_line, 0);
    EXPECT_EQ(Cue{}.alignment, Alignment::kCenter);
}

TEST(CaptionFile, IsKnownByItsExtension) {
    EXPECT_EQ(caption_format("a.b/NEWS.SCC"), CaptionFormat::kScc);
    EXPECT_EQ(caption_format("x.mcc"), CaptionFormat::kMcc);
    EXPECT_EQ(caption_format("x.srt"), CaptionFormat::kSubRip);
    EXPECT_EQ(caption_format("x.Vtt"), CaptionFormat::kWebVtt);
    EXPECT_EQ(error_of([] { caption_format("x.txt"); }),
              "x.txt: not a caption file by its name: use one that ends in .scc, .mcc, .srt or .vtt");
}

TEST(CaptionFile, SaysWhyItCannotBeRead) {
    Report report;
    EXPECT_EQ(error_of([&] { load_captions("/nonexistent/x.scc", {}, report); }),
              "/nonexistent/x.scc: cannot be read: No such file or directory");
}

TEST(CaptionFile, RefusesOptionsOutOfRange) {
    Report report;
    EXPECT_THROW(load_captions(data_file("sample.srt"), {.field = 2}, report), std::invalid_argument);
    EXPECT_THROW(load_captions(data_file("sample.srt"), {.rows = 0}, report), std::invalid_argument);
    EXPECT_THROW(load_captions(data_file("sample.srt"), {.rows = 16}, report), std::invalid_argument);
    EXPECT_THROW(load_captions(data_file("sample.scc"), {.start = "1:00"}, report), std::invalid_argument);
}

TEST(CaptionFile, CountsFromTheStartTimeCodeAsTheFileCounts) {
    for (const char* start : {"00:00:05;00", "00:00:05:00"}) {
        Report report;
        const Schedule schedule = load_captions(data_file("sample.scc"), {.start = start}, report);
        EXPECT_EQ(schedule.eia608.front().frame, 10);  // of the line at 00:00:05;10
        EXPECT_EQ(report.lines().size(), 1U);
    }
}

using CueStart = CaptionFileDirectory;

TEST_F(CueStart, IsTheFilesTimeOfTheFirstPicture) {
    const std::string srt = file("h.srt",
                                 "1\n00:59:58,000 --> 00:59:59,000\nBefore\n\n"
                                 "2\n00:59:59,500 --> 01:00:03,000\nAbout\n\n"
                                 "3\n01:00:05,000 --> 01:00:06,000\nAfter\n");
    const std::string vtt = file("h.vtt",
                                 "WEBVTT\n\n00:59:58.000 --> 00:59:59.000\nBefore\n\n"
                                 "00:59:59.500 --> 01:00:03.000\nAbout\n\n"
                                 "01:00:05.000 --> 01:00:06.000\nAfter\n");
    struct {
        const char* start;
        std::int64_t end, begin;  // of the second and the third cue
    } const starts[] = {{"01:00:00", 75, 125},
                        {"01:00:00.480", 63, 113},
                        {"01:00:00,480", 63, 113},
                        {"01:00:00:00", 75, 125},
                        {"01:00:00:24", 63, 113}};
    for (const std::string& path : {srt, vtt})
        for (const auto& [start, end, begin] : starts) {
            SCOPED_TRACE(path + " " + start);
            Report report;
            const auto captions =
                decode(load_captions(path, {.output = kRate25, .start = start, .source = kRate50}, report));
            ASSERT_EQ(captions.size(), 2U);
            EXPECT_EQ(captions[0].text(), "About");
            EXPECT_EQ(captions[0].end, end);
            EXPECT_EQ(captions[1].text(), "After");
            EXPECT_EQ(captions[1].begin, begin);
            EXPECT_EQ(report.lines().front(), path + ": left out: 1 cue before the start of the video");
        }
}

TEST_F(CueStart, IsRefusedWhereItIsNoTime) {
    const auto error = [&](const char* start, FrameRate source) -> std::string {
        Report report;
        try {
            load_captions(data_file("sample.srt"), {.start = start, .source = source}, report);
        } catch (const std::invalid_argument& refusal) {
            return refusal.what();
        }
        return "accepted";
    };
    for (const char* start : {"1:00", "01:00:00.5", "01:61:00", "01:00:00:00:00", "x"})
        EXPECT_EQ(error(start, kRate25), std::string("\"") + start +
                                             "\" is not a time: write HH:MM:SS, HH:MM:SS.mmm or HH:MM:SS:FF");
    EXPECT_THAT(error("00:00:00:25", kRate25), testing::HasSubstr("frames to 24"));
    EXPECT_EQ(error("00:00:00:25", kRate29_97), "accepted");
    EXPECT_THAT(error("00:00:01;00", kRate25), testing::HasSubstr("write it with ':' before the frames"));
}

TEST_F(CueStart, CountsEachPartOfIt) {
    const std::string path = file("p.srt", "1\n01:02:03,000 --> 01:02:05,000\nx\n");
    const auto begin = [&](const char* start) {
        Report report;
        const auto captions =
            decode(load_captions(path, {.output = kRate25, .start = start, .source = kRate25}, report));
        return captions.at(0).begin;
    };
    EXPECT_EQ(begin("01:02:02"), 25);
    EXPECT_EQ(begin("01:01:03"), 1500);
    EXPECT_EQ(begin("01:02:01:10"), 40);
    EXPECT_EQ(begin("01:01:03:00"), 1500);
    EXPECT_EQ(begin("00:02:03:00"), 90000);
}

// Frame 24 of 25 begins at 960 ms. Of two frames that are equally near to a time, the earlier is taken.
TEST_F(CueStart, IsATimeToTheMillisecond) {
    const std::string path = file("t.srt",
                                  "1\n00:00:10,980 --> 00:00:12,000\nx\n\n2\n00:00:20,981 --> "
                                  "00:00:22,000\ny\n");
    Report report;
    const auto captions =
        decode(load_captions(path, {.output = kRate25, .start = "00:00:00:24", .source = kRate25}, report));
    EXPECT_EQ(captions.at(0).begin, 250);  // 10.020 s
    EXPECT_EQ(captions.at(1).begin, 501);  // 20.021 s
}

TEST_F(CueStart, LeavesOutWhatEndsWithIt) {
    const std::string path = file("e.srt",
                                  "1\n00:00:01,000 --> 00:00:05,000\na\n\n2\n00:00:02,000 --> "
                                  "00:00:05,001\nb\n\n3\n00:00:07,000 --> 00:00:08,000\nc\n");
    Report report;
    EXPECT_EQ(decode(load_captions(path, {.output = kRate25, .start = "00:00:05"}, report)).back().begin, 50);
    EXPECT_EQ(report.lines().front(), path + ": left out: 1 cue before the start of the video");
    EXPECT_EQ(report.count(WarningKind::kBeforeStart), 1U);
}

using CaptionFiles = CaptionFileDirectory;

TEST_F(CaptionFiles, SayThatOneControlCodeIsOfTheOtherField) {
    const std::string path = file("o.scc", "Scenarist_SCC V1.0\n00:00:01:00\t1520 c1c2\n");
    Report report;
    EXPECT_EQ(load_captions(path, {}, report).eia608.front().word, 0x9420);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{path + ": 1 control code of field 2: sent as field 1's"}));
    EXPECT_EQ(report.count(WarningKind::kOtherField), 1U);
}

TEST_F(CaptionFiles, CountAStartAsTheyCount) {
    const std::string ndf = file("n.scc", "Scenarist_SCC V1.0\n00:02:00:00\t9420\n");
    const std::string df = file("d.scc", "Scenarist_SCC V1.0\n00:02:00;02\t9420\n");
    const std::string mcc60 = file("m.mcc", mcc_text(mcc_line("00:02:00:00", 0x94, 0x2C), "1.0", "60"));
    const auto frame = [](const std::string& path, const char* start) {
        Report report;
        return load_captions(path, {.start = start}, report).eia608.front().frame;
    };
    EXPECT_EQ(frame(ndf, "00:01:59:29"), 1);
    EXPECT_EQ(frame(ndf, "00:01:59;29"), 1);
    EXPECT_EQ(frame(df, "00:01:59:29"), 1);
    EXPECT_EQ(frame(df, "00:01:59;29"), 1);
    EXPECT_EQ(frame(df, "00:01:00;02"), 1798);
    // At 60 a frame number may be beyond those of 29.97, also after a semicolon.
    EXPECT_EQ(frame(mcc60, "00:01:59:58"), 1);
    EXPECT_EQ(frame(mcc60, "00:01:59;58"), 1);
    EXPECT_EQ(frame(mcc60, "00:01:59;30"), 15);
}

class StartTimecode : public testing::TestWithParam<std::tuple<const char*, const char*, const char*>> {};

TEST_P(StartTimecode, IsRefusedWhereItDoesNotExist) {
    const auto& [file, start, error] = GetParam();
    Report report;
    try {
        load_captions(data_file(file), {.start = start}, report);
        FAIL() << "accepted";
    } catch (const std::invalid_argument& refusal) {
        EXPECT_STREQ(refusal.what(), error);
    }
}

INSTANTIATE_TEST_SUITE_P(
    CaptionFile, StartTimecode,
    testing::Values(std::tuple("sample.scc", "00:01:00;00",
                               "drop-frame counting leaves out time code \"00:01:00;00\": the minute begins "
                               "with frame 02"),
                    std::tuple("sample.scc", "00:01:00:01",
                               "drop-frame counting leaves out time code \"00:01:00;01\": the minute begins "
                               "with frame 02"),
                    std::tuple("sample.mcc", "00:01:00;00",
                               "drop-frame counting leaves out time code \"00:01:00;00\": the minute begins "
                               "with frame 02"),
                    std::tuple("sample.scc", "00:00:00;45",
                               "time code \"00:00:00;45\" is out of range: hours go to 23, minutes and "
                               "seconds to 59, frames to 29")));

class FieldFiles : public CaptionFileDirectory, public testing::WithParamInterface<int> {};

TEST_P(FieldFiles, CarryTheControlCodesOfTheirField) {
    const int field = GetParam();
    // A command of both channels, row 6 (which shares its first byte with field 2's commands), text.
    const std::string own =
        field == 0 ? "9420 9420 1c2c 1c2c 1570 c1c2 942f 942f" : "1520 1520 9d2c 9d2c 1570 c1c2 152f 152f";
    const std::string other =
        field == 0 ? "1520 1520 9d2c 9d2c 1570 c1c2 152f 152f" : "9420 9420 1c2c 1c2c 1570 c1c2 942f 942f";
    const auto words = [&](const std::string& pairs, std::vector<std::string> warnings) {
        const std::string path = file("f.scc", "Scenarist_SCC V1.0\n00:00:01:00\t" + pairs + "\n");
        Report report;
        const Schedule schedule = load_captions(path, {.field = field}, report);
        for (std::string& warning : warnings) warning = path + ": " + warning;
        EXPECT_EQ(report.lines(), warnings);
        return schedule.eia608;
    };
    const std::string warning = field == 0 ? "6 control codes of field 2: sent as field 1's"
                                           : "6 control codes of field 1: sent as field 2's";
    const auto expected = words(own, {});
    EXPECT_EQ(expected.front().word, field == 0 ? 0x9420 : 0x1520);
    EXPECT_EQ(expected[4].word, 0x1570);
    EXPECT_EQ(words(other, {warning}), expected);
}

INSTANTIATE_TEST_SUITE_P(CaptionFile, FieldFiles, testing::Values(0, 1));

using EmptyCaptionFile = CaptionFileDirectory;

TEST_F(EmptyCaptionFile, IsReported) {
    const std::pair<const char*, const char*> files[] = {
        {"a.srt", ""},
        {"b.srt", "\xEF\xBB\xBF\r\n"},
        {"a.vtt", "WEBVTT\n\nNOTE nothing\n"},
        {"a.scc", "Scenarist_SCC V1.0\n\n00:00:01:00\t8080 8080\n"},
        {"a.mcc", "File Format=MacCaption_MCC V1.0\nTime Code Rate=30\n"},
    };
    for (const auto& [name, text] : files) {
        const std::string path = file(name, text);
        Report report;
        EXPECT_TRUE(load_captions(path, {}, report).empty());
        EXPECT_EQ(report.lines(), (std::vector<std::string>{path + ": the file has no captions"}));
    }
    for (const char* name : {"empty.scc", "empty.mcc", "empty.vtt"}) {
        Report report;
        EXPECT_THAT(error_of([&] { load_captions(file(name, ""), {}, report); }),
                    testing::HasSubstr(":1: not "));
    }
}

// Every parse ends in a result or in a FileError, whatever the bytes are.
TEST(CaptionFile, SurvivesDamage) {
    std::mt19937 random(3);
    const std::function<void(const std::string&)> parsers[] = {
        [](const std::string& text) {
            Report report;
            decode(parse_scc(text, "x", {}, report));
        },
        [](const std::string& text) {
            Report report;
            decode(parse_mcc(text, "x", {}, report));
        },
        [](const std::string& text) {
            Report report;
            encode_pop_on(parse_srt(text, "x", report), "x", {}, report);
        },
        [](const std::string& text) {
            Report report;
            encode_pop_on(parse_webvtt(text, "x", report), "x", {}, report);
        }};
    const char* const samples[] = {"sample.scc", "sample.mcc", "sample.srt", "sample.vtt"};
    int refused = 0, accepted = 0;
    for (std::size_t kind = 0; kind < std::size(samples); ++kind) {
        const std::string whole = read_file(data_file(samples[kind]));
        for (int round = 0; round < 400; ++round) {
            std::string text = whole;
            for (unsigned i = 0; i < 1 + random() % 3; ++i)
                text[random() % text.size()] = static_cast<char>(random());
            if (round % 4 == 0) text.resize(random() % text.size());
            try {
                parsers[kind](text);
                ++accepted;
            } catch (const FileError&) {
                ++refused;
            }
        }
    }
    EXPECT_GT(refused, 100);
    EXPECT_GT(accepted, 100);
}

struct SampleCase {
    const char* file;
    std::vector<std::string> texts;
    std::vector<double> begins;  // seconds
};

class Sample : public testing::TestWithParam<SampleCase> {};

// From the file through the pacer at every rate, picture by picture, to a receiver.
TEST_P(Sample, ShowsTheSameWordsAtTheSameTimesAtEveryRate) {
    for (const FrameRate rate :
         {kRate23_976, kRate24, kRate25, kRate29_97, kRate30, kRate50, kRate59_94, kRate60}) {
        SCOPED_TRACE(rate.per_second());
        Report report;
        const Schedule schedule = load_captions(data_file(GetParam().file), {.output = rate}, report);
        EXPECT_EQ(report.count(WarningKind::kLateCue) + report.count(WarningKind::kDelayedPairs), 0U);
        Repacer repacer(rate, rate);
        repacer.push(schedule);
        Eia608Decoder decoder(rate);
        for (std::int64_t picture = 0; repacer.pending() > 0; ++picture) {
            const PictureWrites writes = repacer.pull(picture);
            for (int field = 0; field < 2; ++field)
                if (FieldSlots(rate, field).on_picture(picture))
                    decoder.feed(picture, field, writes.words[field]);
        }
        EXPECT_EQ(repacer.largest_delay(), 0);
        const auto captions = decoder.finish(1000000);
        ASSERT_EQ(captions.size(), GetParam().texts.size());
        for (std::size_t i = 0; i < captions.size(); ++i) {
            EXPECT_EQ(captions[i].text(), GetParam().texts[i]);
            const double slot = FieldSlots(rate, 0).step() / rate.per_second();
            EXPECT_NEAR(frame_to_seconds(captions[i].begin, rate), GetParam().begins[i], slot);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    CaptionFile, Sample,
    testing::Values(SampleCase{"sample.scc",
                               {"Every word of this clip\nreaches the viewer.", "♪ La la la ♪",
                                "- Was that a café?\n- Yes. Überall.", "Shown around the minute."},
                               {52 / 29.97, 175 / 29.97, 272 / 29.97, 1778 / 29.97}},
                    SampleCase{"sample.mcc", {"From MCC"}, {20 / 29.97}},
                    SampleCase{"sample.srt",
                               {"A captioned programme,\nre-encoded.", "The second follows at once.",
                                "Señor Peña - “olé!”"},
                               {2.0, 4.0, 8.0}},
                    SampleCase{"sample.vtt", {"At the top & on the left", "Rock <and> roll"}, {2.0, 5.0}}));

}  // namespace
}  // namespace gsve::captions
