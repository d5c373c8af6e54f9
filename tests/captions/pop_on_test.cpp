#include "captions/pop_on.h"

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "captions/eia608_decoder.h"
#include "captions/text_file.h"

namespace gsve::captions {
namespace {

constexpr FrameRate kRates[] = {kRate23_976, kRate24, kRate25,    kRate29_97,
                                kRate30,     kRate50, kRate59_94, kRate60};

StyledLine styled(std::string_view text, bool italic = false) {
    StyledLine line;
    for (const char32_t c : decode_utf8(text, "test", 1)) line.push_back({c, italic});
    return line;
}

Cue cue_of(std::int64_t begin_ms, std::int64_t end_ms, std::vector<std::string> lines, int source_line = 1) {
    Cue cue;
    cue.begin_ms = begin_ms;
    cue.end_ms = end_ms;
    cue.source_line = source_line;
    for (const std::string& line : lines) cue.lines.push_back(styled(line));
    return cue;
}

std::vector<Word> words_of(const Schedule& schedule) {
    std::vector<Word> words;
    for (const Eia608Event& event : schedule.eia608) words.push_back(event.word);
    return words;
}

std::vector<TimedText> decode(const Schedule& schedule, std::int64_t end = 100000) {
    Eia608Decoder decoder(schedule.rate);
    decoder.feed(schedule);
    return decoder.finish(end);
}

std::string text_of(const CaptionRow& row) {
    std::string text;
    for (const CaptionWord& word : row.words) text += (text.empty() ? "" : " ") + encode_utf8(word.text);
    return text;
}

// Control pairs twice, text with odd parity: H c8, i e9, ! a1 with a null byte to fill the pair.
TEST(PopOn, SendsTheBytesOfTheStandardForAKnownCaption) {
    Report report;
    const Schedule schedule =
        encode_pop_on({cue_of(1000, 2000, {"Hi!"})}, "x.srt", {.rate = kRate25}, report);
    // Three characters centred in 32 columns begin at column 14: indent 12, tab offset 2.
    const std::vector<Word> expected{0x9420, 0x9420, 0x94AE, 0x94AE, 0x9476, 0x9476, 0x97A2,
                                     0x97A2, 0xC8E9, 0xA180, 0x942F, 0x942F, 0x942C, 0x942C};
    EXPECT_EQ(words_of(schedule), expected);
    EXPECT_TRUE(report.empty());
    // The load ends just before frame 25, the erasure is at frame 50.
    for (std::size_t i = 0; i < 12; ++i)
        EXPECT_EQ(schedule.eia608[i].frame, 15 + static_cast<std::int64_t>(i));
    EXPECT_EQ(schedule.eia608[12].frame, 50);
    EXPECT_EQ(schedule.eia608[13].frame, 51);
}

TEST(PopOn, UsesTheControlCodesOfFieldTwoForCc3) {
    Report report;
    const Schedule schedule =
        encode_pop_on({cue_of(1000, 2000, {"Hi!"})}, "x.srt", {.rate = kRate25, .field = 1}, report);
    EXPECT_EQ(words_of(schedule)[0], 0x1520);
    EXPECT_EQ(words_of(schedule)[4], 0x9476);
    EXPECT_EQ(schedule.eia608[0].field, 1);
    EXPECT_EQ(decode(schedule).at(0).channel, 3);
}

TEST(PopOn, SendsAFallbackBeforeAnExtendedCharacterAndSeparatesEqualSpecialOnes) {
    Report report;
    const Schedule schedule =
        encode_pop_on({cue_of(2000, 4000, {"♪♪ Á*"})}, "x.srt", {.rate = kRate25}, report);
    const std::vector<Word> expected{
        0x9420, 0x9420, 0x94AE, 0x94AE, 0x9476, 0x9476, 0x97A1,
        0x97A1, 0x9137, 0x9137, 0x9420, 0x9420, 0x9137, 0x9137,  // two notes, parted by a command
        0x20C1, 0x9220, 0x9220,                                  // space, A; the letter in its place
        0xAE80, 0x92A8, 0x92A8,                                  // full stop; the asterisk
        0x942F, 0x942F, 0x942C, 0x942C};
    EXPECT_EQ(words_of(schedule), expected);
    EXPECT_EQ(decode(schedule).at(0).text(), "♪♪ Á*");
}

TEST(PopOn, MarksItalicsByWord) {
    Cue cue = cue_of(2000, 4000, {});
    StyledLine line = styled("He said ");
    for (const StyledCharacter c : styled("well done", true)) line.push_back(c);
    for (const StyledCharacter c : styled(", twice.")) line.push_back(c);
    cue.lines = {line, styled("Exit", true), styled(std::string(32, 'w'), true)};
    Report report;
    const Schedule schedule = encode_pop_on({cue}, "x.srt", {.rate = kRate25, .rows = 3}, report);
    const std::vector<Word> expected{
        0x9420, 0x9420, 0x94AE, 0x94AE,
        // Row 13, column 3: 25 characters. The mid-row codes stand for the spaces around the italics.
        0x1370, 0x1370, 0x9723, 0x9723, 0xC8E5, 0x2073, 0x61E9, 0x6480, 0x91AE, 0x91AE, 0xF7E5, 0xECEC,
        0x2064, 0xEF6E, 0xE52C, 0x9120, 0x9120, 0xF4F7, 0xE9E3, 0xE5AE,
        // Row 14, column 14: the mid-row code takes column 13.
        0x94D6, 0x94D6, 0x97A1, 0x97A1, 0x91AE, 0x91AE, 0x45F8, 0xE9F4};
    const std::vector<Word> words = words_of(schedule);
    ASSERT_GE(words.size(), expected.size() + 2);
    EXPECT_EQ(std::vector<Word>(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(expected.size())),
              expected);
    EXPECT_EQ(words[expected.size()], 0x946E);  // row 15 in italics from column 0
    EXPECT_EQ(decode(schedule).at(0).text(), "He said well done, twice.\nExit\n" + std::string(32, 'w'));
}

TEST(PopOn, ShowsEachCaptionOnItsFrameAtEveryRate) {
    const std::vector<Cue> cues{cue_of(2000, 4000, {"A captioned programme,", "re-encoded."}),
                                cue_of(4000, 6500, {"The second follows at once."}),
                                cue_of(8000, 9500, {"The third after a pause."}),
                                cue_of(9600, 12000, {"And one more, soon after."})};
    for (const FrameRate rate : kRates) {
        SCOPED_TRACE(rate.per_second());
        Report report;
        const Schedule schedule = encode_pop_on(cues, "x.srt", {.rate = rate}, report);
        EXPECT_TRUE(report.empty()) << report.lines().front();
        const FieldSlots slots(rate, 0);
        std::int64_t newest = -1;
        for (const Eia608Event& event : schedule.eia608) {
            ASSERT_GT(event.frame, newest);
            ASSERT_TRUE(slots.on_picture(event.frame));
            newest = event.frame;
        }
        const auto captions = decode(schedule);
        ASSERT_EQ(captions.size(), cues.size());
        const auto on_slot = [&](std::int64_t ms) {
            return slots.picture_of(slots.first_slot_not_before(milliseconds_to_frame(ms, rate)));
        };
        for (std::size_t i = 0; i < cues.size(); ++i) {
            EXPECT_EQ(captions[i].begin, on_slot(cues[i].begin_ms));
            EXPECT_EQ(captions[i].end, on_slot(cues[i].end_ms));
            ASSERT_EQ(captions[i].rows.size(), cues[i].lines.size());
            for (std::size_t row = 0; row < captions[i].rows.size(); ++row)
                EXPECT_EQ(captions[i].rows[row], plain_text(cues[i].lines[row]));
        }
    }
}

TEST(PopOn, ReportsACueThatCannotBeLoadedInTime) {
    Report report;
    const std::vector<Cue> cues{
        cue_of(0, 4000, {"Nobody can load this"}, 2),
        cue_of(4200, 5600, {"thirty-two columns of characters", "thirty-two columns of characters"}, 6),
        cue_of(5700, 8000, {"thirty-two columns of characters", "thirty-two columns of characters"}, 10)};
    const Schedule schedule = encode_pop_on(cues, "late.srt", {.rate = kRate25}, report);
    // The first needs two commands, an address and a tab offset, each twice, and ten pairs of text: 18 slots.
    // The third needs 40 and two to erase the second, but has 35 between frames 107 and 142.
    ASSERT_EQ(report.lines().size(), 2U);
    EXPECT_EQ(
        report.lines()[0],
        "late.srt:2: the caption appears 18 frames (0.72 s) late: its 20 characters take that long to load");
    EXPECT_EQ(
        report.lines()[1],
        "late.srt:10: the caption appears 7 frames (0.28 s) late: its 64 characters take that long to load");
    EXPECT_EQ(report.count(WarningKind::kLateCue), 2U);
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 3U);
    EXPECT_EQ(captions[0].begin, 18);
    EXPECT_EQ(captions[1].begin, 105);
    EXPECT_EQ(captions[1].end, 140);
    EXPECT_EQ(captions[2].begin, 149);
}

TEST(PopOn, KeepsALateCueOnTheScreenPastItsEndWhereThereIsTime) {
    Report report;
    const std::string row(32, 'x');
    const std::vector<Cue> cues{cue_of(2000, 3000, {"First."}, 1), cue_of(3000, 3600, {row, row}, 5),
                                cue_of(6000, 7000, {"Last."}, 9)};
    const Schedule schedule = encode_pop_on(cues, "fast.srt", {.rate = kRate25}, report);
    // 40 slots from frame 52 on, two for the erasure at 75, and one idle since a pair and its repetition are
    // not parted.
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"fast.srt:5: the caption appears 20 frames (0.80 s) late: its 64 "
                                        "characters take that long to load"}));
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 3U);
    EXPECT_EQ(captions[0].end, 75);
    EXPECT_EQ(captions[1].begin, 95);
    EXPECT_EQ(captions[1].end, 103);  // half of its 15 frames, rounded up
    EXPECT_EQ(captions[2].begin, 150);
}

TEST(PopOn, DropsACueForWhichTheNextLeavesNoTimeAndSaysSo) {
    Report report;
    const std::string row(32, 'x');
    const std::vector<Cue> cues{cue_of(2000, 3000, {"First."}, 1), cue_of(3000, 3600, {row, row}, 5),
                                cue_of(4080, 5000, {"Last."}, 9)};
    const Schedule schedule = encode_pop_on(cues, "fast.srt", {.rate = kRate25}, report);
    EXPECT_EQ(report.count(WarningKind::kDroppedCue), 1U);
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "fast.srt:5: the caption \"" + row + " / " + row +
                  "\" is dropped, it would appear 20 frames (0.80 s) late: its 64 characters take that long "
                  "to load, and the next one follows"}));
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[0].text(), "First.");
    EXPECT_EQ(captions[0].end, 75);
    EXPECT_EQ(captions[1].text(), "Last.");
    EXPECT_EQ(captions[1].begin, 102);
}

TEST(PopOn, EndsAnOverlappedCueWhenTheNextBegins) {
    Report report;
    const Schedule schedule = encode_pop_on({cue_of(5000, 9000, {"two"}, 6), cue_of(2000, 5400, {"one"}, 2)},
                                            "o.srt", {.rate = kRate25}, report);
    ASSERT_EQ(report.lines().size(), 1U);
    EXPECT_EQ(report.lines()[0],
              "o.srt:2: the cue overlaps the one of line 6 and ends 10 frames early, when that begins");
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[0].end, 125);
    EXPECT_EQ(captions[1].begin, 125);
}

TEST(PopOn, ShowsCuesThatBeginTogetherTogether) {
    Report report;
    const Schedule schedule = encode_pop_on({cue_of(2000, 3000, {"one"}), cue_of(2000, 4000, {"two"})},
                                            "x.srt", {.rate = kRate25}, report);
    const auto captions = decode(schedule);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].text(), "one\ntwo");
    EXPECT_EQ(captions[0].end, 100);
}

TEST(PopOn, LosesNoWordOfADensePlay) {
    std::vector<Cue> cues;
    std::string expected;
    for (int i = 0; i < 60; ++i) {
        const std::string line = "Line " + std::to_string(i) + " of the play";
        cues.push_back(cue_of(2000 + i * 1500, 2000 + i * 1500 + 1400, {line, "and its second row"}));
        expected += line + "\nand its second row\n";
    }
    for (const FrameRate rate : kRates) {
        Report report;
        std::string shown;
        for (const TimedText& caption : decode(encode_pop_on(cues, "x.srt", {.rate = rate}, report)))
            shown += caption.text() + "\n";
        EXPECT_EQ(shown, expected);
        EXPECT_EQ(report.count(WarningKind::kDroppedCue), 0U);
    }
}

// A line of 128 characters, of 34 slots to load in each of three parts, from 5 s on.
Cue long_cue(std::int64_t end_ms) {
    return cue_of(5000, end_ms,
                  {"This is a very long line that certainly is going to exceed thirty-two columns and then "
                   "even go beyond two rows because it is long"},
                  2);
}

std::string on_one_line(const std::vector<TimedText>& captions) {
    std::string all;
    for (const TimedText& caption : captions)
        for (const std::string& row : caption.rows) all += (all.empty() ? "" : " ") + row;
    return all;
}

TEST(PopOn, ShowsThePartsOfALongCueOneAfterTheOtherAsLateAsTheyMustBe) {
    const Cue cue = long_cue(7000);
    for (const FrameRate rate : kRates) {
        SCOPED_TRACE(rate.per_second());
        Report report;
        const auto captions = decode(
            encode_pop_on({cue, cue_of(12000, 14000, {"Next"}, 6)}, "long.srt", {.rate = rate}, report));
        ASSERT_EQ(captions.size(), 4U);
        EXPECT_EQ(on_one_line(captions), plain_text(cue.lines[0]) + " Next");
        EXPECT_EQ(report.count(WarningKind::kDroppedCue), 0U);
        EXPECT_EQ(report.count(WarningKind::kSplitCue), 1U);
        const std::int64_t second = seconds_to_frame(1, rate), slot = FieldSlots(rate, 0).step();
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_GE(captions[i].end - captions[i].begin, second - slot) << i;
            EXPECT_LE(captions[i].end - captions[i].begin, 2 * second) << i;
        }
        EXPECT_EQ(captions[0].end, captions[1].begin);
        EXPECT_EQ(captions[1].end, captions[2].begin);
        EXPECT_NEAR(frame_to_seconds(captions[3].begin, rate), 12, 0.05);
    }
}

TEST(PopOn, DropsOnlyThePartsOfALongCueThatTheNextCueLeavesNoTimeFor) {
    Report report;
    const auto captions = decode(encode_pop_on({long_cue(6900), cue_of(7000, 9000, {"Next"}, 6)}, "long.srt",
                                               {.rate = kRate29_97}, report));
    ASSERT_EQ(captions.size(), 3U);
    EXPECT_EQ(captions[0].text(), "This is a very long line that\ncertainly is");
    EXPECT_EQ(captions[1].text(), "going to exceed thirty-two\ncolumns and then");
    EXPECT_EQ(captions[1].end, 210);  // stays until the next cue, though the cue itself ends at frame 207
    EXPECT_EQ(captions[2].text(), "Next");
    EXPECT_EQ(captions[2].begin, 210);
    EXPECT_EQ(report.count(WarningKind::kDroppedCue), 1U);
    const std::string dropped =
        "long.srt:2: the caption \"even go beyond two rows because / it is long\" is dropped, it would "
        "appear";
    EXPECT_EQ(report.lines().back().substr(0, dropped.size()), dropped);
}

TEST(PopOn, SharesTheTimeOfACueAmongItsPartsByTheirCharacters) {
    Report report;
    const std::string row(30, 'x'), short_row(15, 'y');
    const auto captions = decode(encode_pop_on({cue_of(4000, 13000, {row, row, short_row, short_row})},
                                               "x.srt", {.rate = kRate25}, report));
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[0].begin, 100);
    EXPECT_EQ(captions[0].end, 250);
    EXPECT_EQ(captions[1].begin, 250);
    EXPECT_EQ(captions[1].end, 325);
}

TEST(Layout, LeavesNoWordAloneInTheLastOfSeveralCaptions) {
    Report report;
    const auto words = lay_out_cue(long_cue(7000), 2, "x", report);
    ASSERT_EQ(words.size(), 3U);
    EXPECT_EQ(text_of(words[2].at(0)), "even go beyond two rows because");
    EXPECT_EQ(text_of(words[2].at(1)), "it is long");
    EXPECT_EQ(
        report.lines(),
        (std::vector<std::string>{"x:2: the cue needs 5 rows and is shown as 3 captions of at most 2 rows"}));
    const std::string row(30, 'x');
    const auto lines = lay_out_cue(cue_of(0, 1, {row, row, row, row, "End"}), 2, "x", report);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].size() + lines[1].size(), 3U);
    EXPECT_EQ(text_of(lines[2].at(0)), row);
    EXPECT_EQ(text_of(lines[2].at(1)), "End");
}

TEST(Layout, CentresTwoRowsAtTheBottom) {
    Report report;
    const auto captions = lay_out_cue(cue_of(0, 1, {"Four", "Eleven char"}), 2, "x", report);
    ASSERT_EQ(captions.size(), 1U);
    ASSERT_EQ(captions[0].size(), 2U);
    EXPECT_EQ(captions[0][0].row, 14);
    EXPECT_EQ(captions[0][0].column, 14);
    EXPECT_EQ(captions[0][1].row, 15);
    EXPECT_EQ(captions[0][1].column, 10);
}

TEST(Layout, FollowsPlacement) {
    Report report;
    Cue cue = cue_of(0, 1, {"a", "b"});
    cue.first_row = 1;
    cue.alignment = Alignment::kLeft;
    EXPECT_EQ(lay_out_cue(cue, 2, "x", report)[0][0].row, 1);
    EXPECT_EQ(lay_out_cue(cue, 2, "x", report)[0][1].row, 2);
    EXPECT_EQ(lay_out_cue(cue, 2, "x", report)[0][0].column, 0);
    cue.first_row = 15;
    cue.alignment = Alignment::kRight;
    EXPECT_EQ(lay_out_cue(cue, 2, "x", report)[0][0].row, 14);
    EXPECT_EQ(lay_out_cue(cue, 2, "x", report)[0][0].column, 31);
}

TEST(Layout, WrapsByWordsAt32Columns) {
    Report report;
    const auto captions = lay_out_cue(
        cue_of(0, 1, {"The quick brown fox jumps over", "the lazy dog, and", "runs off."}), 2, "x", report);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(text_of(captions[0][0]), "The quick brown fox jumps over");
    EXPECT_EQ(text_of(captions[0][1]), "the lazy dog, and runs off.");
    EXPECT_TRUE(report.empty());
}

TEST(Layout, SplitsWhatNeedsMoreRowsAndReportsIt) {
    Report report;
    const auto captions = lay_out_cue(
        cue_of(0, 1, {"- One", "- Two", "- Three and thirty-two columns..."}, 4), 2, "s.srt", report);
    ASSERT_EQ(captions.size(), 1U);  // rewrapped: 5 + 1 + 5 + 1 + ... fits two rows
    const std::string row = "exactly thirty-two columns here.";
    ASSERT_EQ(row.size(), 32U);
    const auto split = lay_out_cue(cue_of(0, 1, {row, row, row}, 4), 2, "s.srt", report);
    ASSERT_EQ(split.size(), 2U);
    EXPECT_EQ(split[0].size(), 2U);
    EXPECT_EQ(split[1].size(), 1U);
    EXPECT_EQ(split[1][0].row, 15);
    EXPECT_EQ(report.lines().back(),
              "s.srt:4: the cue needs 3 rows and is shown as 2 captions of at most 2 rows");
    EXPECT_EQ(lay_out_cue(cue_of(0, 1, {row, row, row}), 4, "s.srt", report)[0].size(), 3U);
    EXPECT_EQ(lay_out_cue(cue_of(0, 1, std::vector<std::string>(15, row)), 15, "s.srt", report)[0].size(),
              15U);
}

TEST(PopOn, SaysOnceHowManyCuesAreWrappedToFewerRows) {
    const std::vector<Cue> cues{
        cue_of(2000, 3000, {"- One", "- Two", "- Three"}, 3), cue_of(4000, 5000, {"Kept", "as it is"}, 8),
        cue_of(6000, 7000, {"1", "2", "3", "4"}, 12),
        // Of no help to this one: its lines are longer than a row.
        cue_of(8000, 9000, {std::string(20, 'x') + " " + std::string(20, 'y'), "z", "z"})};
    Report report;
    const auto two_rows = decode(encode_pop_on(cues, "r.srt", {.rate = kRate25}, report));
    ASSERT_EQ(two_rows.size(), 4U);
    EXPECT_EQ(two_rows[0].text(), "- One - Two - Three");
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{"r.srt:3: 2 cues (the first one here) wrapped to 2 rows: "
                                        "--caption-rows 4 keeps the lines"}));
    Report none;
    const auto four_rows = decode(encode_pop_on(cues, "r.srt", {.rate = kRate25, .rows = 4}, none));
    EXPECT_EQ(four_rows.at(0).text(), "- One\n- Two\n- Three");
    EXPECT_TRUE(none.empty());
}

TEST(PopOn, SaysOneInTheSingular) {
    Report report;
    encode_pop_on({cue_of(2000, 3040, {"1", "2", "3"}, 3), cue_of(3000, 4000, {"x"}, 8)}, "r.srt",
                  {.rate = kRate25}, report);
    EXPECT_EQ(
        report.lines(),
        (std::vector<std::string>{
            "r.srt:3: the cue overlaps the one of line 8 and ends 1 frame early, when that begins",
            "r.srt:3: 1 cue (the first one here) wrapped to 2 rows: --caption-rows 3 keeps the lines"}));
}

TEST(Layout, BreaksWordsLongerThanARow) {
    Report report;
    const auto captions = lay_out_cue(cue_of(0, 1, {std::string(40, 'o') + " end"}, 3), 2, "w.srt", report);
    EXPECT_EQ(text_of(captions[0][0]), std::string(32, 'o'));
    EXPECT_EQ(text_of(captions[0][1]), "oooooooo end");
    EXPECT_EQ(report.lines().at(0),
              "w.srt:3: \"" + std::string(40, 'o') + "\" is longer than a row of 32 columns and is broken");
}

TEST(Layout, ReplacesWhatCannotBeShownAndReportsItOncePerCue) {
    Report report;
    const auto captions = lay_out_cue(
        cue_of(0, 1, {"Žižek… e\u0301te\u0301 x\u0301", "\u200B字 → 字\u00A0!"}, 7), 2, "r.srt", report);
    EXPECT_EQ(text_of(captions[0][0]), "Zizek... été x");
    EXPECT_EQ(text_of(captions[0][1]), "? -> ? !");
    EXPECT_EQ(report.lines(),
              (std::vector<std::string>{
                  "r.srt:7: \"Ž\" (U+017D) is not in the EIA-608 character sets, \"Z\" is shown",
                  "r.srt:7: \"ž\" (U+017E) is not in the EIA-608 character sets, \"z\" is shown",
                  "r.srt:7: \"…\" (U+2026) is not in the EIA-608 character sets, \"...\" is shown",
                  "r.srt:7: \"\u0301\" (U+0301) is not in the EIA-608 character sets, nothing is shown",
                  "r.srt:7: \"字\" (U+5B57) is not in the EIA-608 character sets, \"?\" is shown",
                  "r.srt:7: \"→\" (U+2192) is not in the EIA-608 character sets, \"->\" is shown"}));
}

TEST(Layout, GivesNothingForACueWithoutVisibleText) {
    Report report;
    EXPECT_TRUE(lay_out_cue(cue_of(0, 1, {"\u200B \u00A0"}), 2, "x", report).empty());
    EXPECT_TRUE(encode_pop_on({cue_of(0, 1000, {"\u200B"})}, "x", {}, report).empty());
}

std::vector<std::int64_t> frames_of(const Schedule& schedule) {
    std::vector<std::int64_t> frames;
    for (const Eia608Event& event : schedule.eia608) frames.push_back(event.frame);
    return frames;
}

// 26 characters take 21 slots, 20 take 18: two commands, an address and a tab, all twice, and the text.
TEST(PopOn, IsInTimeWithTheLastSlotThatItNeedsAndLateWithout) {
    struct {
        FrameRate rate;
        LineRate line_rate;
        std::size_t characters;
        std::int64_t asked, shown;
        const char* late;
    } const rows[] = {
        {kRate25, LineRate::kPairOfEachField, 20, 18, 18, ""},
        {kRate25, LineRate::kPairOfEachField, 20, 17, 18, "1 frame (0.04 s) late: its 20 characters"},
        {kRate25, LineRate::kPairOfEachField, 1, 8, 9, "1 frame (0.04 s) late: its 1 character"},
        // Of the field's slots, which are on every second picture.
        {kRate50, LineRate::kPairOfEachField, 20, 35, 36, ""},
        {kRate50, LineRate::kPairOfEachField, 20, 34, 36, "2 frames (0.04 s) late: its 20 characters"},
        // Of two slots on a picture the second does as well.
        {kRate24, LineRate::kFull, 26, 16, 16, ""},
        {kRate24, LineRate::kFull, 26, 15, 16, "1 frame (0.04 s) late: its 26 characters"}};
    for (const auto& [rate, line_rate, characters, asked, shown, late] : rows) {
        SCOPED_TRACE(testing::Message() << rate.per_second() << " " << asked);
        Report report;
        const Cue cue =
            cue_of(std::lround(1000 * frame_to_seconds(asked, rate)), 5000, {std::string(characters, 'x')});
        const Schedule schedule =
            encode_pop_on({cue}, "l.srt", {.rate = rate, .line_rate = line_rate}, report);
        EXPECT_EQ(decode(schedule).at(0).begin, shown);
        const std::string text(late);
        EXPECT_EQ(report.lines(), text.empty() ? std::vector<std::string>()
                                               : std::vector<std::string>{"l.srt:1: the caption appears " +
                                                                          text + " take that long to load"});
        if (line_rate == LineRate::kFull) continue;
        for (const Eia608Event& event : schedule.eia608)
            EXPECT_EQ(event.late,
                      event.word == 0x942F && event.frame >= shown && !text.empty() ? shown - asked : 0)
                << event.frame;
    }
}

TEST(PopOn, ErasesOnItsFrameWhatIsGoneTwoFramesBeforeTheNext) {
    // An erasure takes two slots; in less, the next caption takes the place of the one before.
    for (const auto& [next_ms, end] : {std::pair{3080, 75}, {3040, 76}, {3000, 75}}) {
        Report report;
        const auto captions =
            decode(encode_pop_on({cue_of(2000, 3000, {"One"}), cue_of(next_ms, 5000, {"Two"})}, "e.srt",
                                 {.rate = kRate25}, report));
        ASSERT_EQ(captions.size(), 2U);
        EXPECT_EQ(captions[0].end, end) << next_ms;
        EXPECT_EQ(captions[1].begin, next_ms / 40) << next_ms;
        EXPECT_TRUE(report.empty());
    }
}

// "ab" takes the 9 slots before frame 50, the 20 characters 18 in front of 80: from 60 on, about the erasure.
TEST(PopOn, LoadsWithoutAGapOnBothSidesOfAnErasure) {
    Report report;
    const Schedule schedule =
        encode_pop_on({cue_of(2000, 3000, {"ab"}), cue_of(3200, 6000, {std::string(20, 'x')})}, "g.srt",
                      {.rate = kRate25}, report);
    std::vector<std::int64_t> expected;
    for (const auto& [first, last] : {std::pair{41, 51}, {60, 81}, {150, 151}})
        for (std::int64_t frame = first; frame <= last; ++frame) expected.push_back(frame);
    EXPECT_EQ(frames_of(schedule), expected);
    for (const Eia608Event& event : schedule.eia608)
        EXPECT_EQ(event.word == 0x942C,
                  event.frame == 75 || event.frame == 76 || event.frame == 150 || event.frame == 151)
            << event.frame;
    EXPECT_TRUE(report.empty());
}

TEST(PopOn, ShowsCuesThatBeginTogetherUntilTheLastEnds) {
    Report report;
    const Schedule schedule = encode_pop_on({cue_of(2000, 4000, {"one"}), cue_of(2000, 3000, {"two"})},
                                            "x.srt", {.rate = kRate25}, report);
    EXPECT_EQ(decode(schedule).at(0).end, 100);
    EXPECT_TRUE(report.empty());
}

TEST(PopOn, EndsACueWithTheNextOneWithoutAWarningWhereTheyMeet) {
    Report report;
    encode_pop_on({cue_of(2000, 3000, {"one"}), cue_of(3000, 4000, {"two"})}, "x", {.rate = kRate25}, report);
    EXPECT_TRUE(report.empty());
}

TEST(PopOn, NamesTheRowsThatKeepTheLinesUpToAllOfTheScreen) {
    const auto lines = [](std::size_t rows) {
        Report report;
        encode_pop_on({cue_of(2000, 9000, std::vector<std::string>(rows, "x"), 5)}, "r.srt",
                      {.rate = kRate25}, report);
        return report.lines();
    };
    EXPECT_EQ(lines(2), std::vector<std::string>());
    EXPECT_EQ(lines(15), (std::vector<std::string>{"r.srt:5: 1 cue (the first one here) wrapped to 2 rows: "
                                                   "--caption-rows 15 keeps the lines"}));
    EXPECT_EQ(lines(16), std::vector<std::string>());
}

TEST(Layout, FillsARowToItsLastColumn) {
    Report report;
    const auto rows_of = [&](std::size_t first, std::size_t second) {
        const std::string text =
            std::string(first, 'a') + " " + std::string(second, 'b') + " " + std::string(32, 'c');
        std::vector<std::string> rows;
        for (const auto& caption : lay_out_cue(cue_of(0, 1, {text}), 1, "x", report))
            for (const CaptionRow& row : caption) rows.push_back(text_of(row));
        return rows;
    };
    const std::string all(32, 'c');
    EXPECT_EQ(rows_of(15, 16),
              (std::vector<std::string>{std::string(15, 'a') + " " + std::string(16, 'b'), all}));
    EXPECT_EQ(rows_of(16, 16), (std::vector<std::string>{std::string(16, 'a'), std::string(16, 'b'), all}));
    // The same in two rows of one caption.
    const std::string line = std::string(15, 'a') + " " + std::string(16, 'b') + " " + std::string(16, 'd');
    const auto captions = lay_out_cue(cue_of(0, 1, {line + " " + std::string(15, 'e')}), 2, "x", report);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(text_of(captions[0][0]), std::string(15, 'a') + " " + std::string(16, 'b'));
    EXPECT_EQ(text_of(captions[0][1]), std::string(16, 'd') + " " + std::string(15, 'e'));
}

TEST(Layout, KeepsLinesOfExactly32ColumnsAndWrapsOneOf33) {
    Report report;
    const std::string kept = std::string(15, 'a') + " " + std::string(16, 'b');
    const auto whole = lay_out_cue(cue_of(0, 1, {kept, "c"}), 2, "x", report);
    EXPECT_EQ(text_of(whole.at(0).at(0)), kept);
    EXPECT_EQ(text_of(whole.at(0).at(1)), "c");
    const auto wrapped = lay_out_cue(cue_of(0, 1, {kept + "b", "c"}), 2, "x", report);
    EXPECT_EQ(text_of(wrapped.at(0).at(0)), std::string(15, 'a'));
    EXPECT_EQ(text_of(wrapped.at(0).at(1)), std::string(17, 'b') + " c");
    EXPECT_TRUE(report.empty());
}

TEST(Layout, TakesAWordForItalicWhereMoreThanHalfOfItIs) {
    const auto italic = [](std::string_view upright, std::string_view slanted) {
        Cue cue = cue_of(0, 1, {});
        StyledLine line = styled(upright);
        for (const StyledCharacter c : styled(slanted, true)) line.push_back(c);
        cue.lines = {line};
        Report report;
        return lay_out_cue(cue, 2, "x", report).at(0).at(0).words.back().italic;
    };
    EXPECT_FALSE(italic("ab", ""));
    EXPECT_FALSE(italic("ab", "c"));
    EXPECT_FALSE(italic("ab", "cd"));
    EXPECT_TRUE(italic("ab", "cde"));
    EXPECT_TRUE(italic("ab ", "c"));
    EXPECT_FALSE(italic("ab c", "d"));
}

// Five words of a row each, in captions of two rows. The squares of 40, 40 and 30 characters are less than
// those of 40, 20 and 50.
TEST(Layout, BalancesTheLengthsOfTheCaptionsThatALongCueNeeds) {
    Report report;
    std::string text;
    for (const char letter : {'a', 'b', 'c', 'd', 'e'})
        text += (text.empty() ? "" : " ") + std::string(letter == 'e' ? 30 : 20, letter);
    std::vector<std::size_t> rows;
    std::string last;
    for (const auto& caption : lay_out_cue(cue_of(0, 1, {text}), 2, "x", report)) {
        rows.push_back(caption.size());
        last = text_of(caption.back());
    }
    EXPECT_EQ(rows, (std::vector<std::size_t>{2, 2, 1}));
    EXPECT_EQ(last, std::string(30, 'e'));
    EXPECT_EQ(
        report.lines(),
        (std::vector<std::string>{"x:1: the cue needs 5 rows and is shown as 3 captions of at most 2 rows"}));
}

}  // namespace
}  // namespace gsve::captions
