#include <algorithm>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "captions/dtvcc.h"
#include "captions/eia608_decoder.h"
#include "captions/text_file.h"

namespace gsve::captions {
namespace {

// Feeds words to one field at consecutive frames (or every second one above 39 pictures per second).
class Feeder {
public:
    explicit Feeder(FrameRate rate = kRate29_97, int field = 0)
        : decoder(rate), field_(field), slots_(rate, field) {}

    Feeder& words(std::initializer_list<Word> words) {
        for (const Word word : words) decoder.feed(slots_.picture_of(slot_++), field_, with_parity(word));
        return *this;
    }

    Feeder& twice(Word word) { return words({word, word}); }

    Feeder& text(std::string_view text) {
        for (std::size_t i = 0; i < text.size(); i += 2)
            words({make_word(static_cast<unsigned char>(text[i]),
                             i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0U)});
        return *this;
    }

    Feeder& at(std::int64_t slot) {
        slot_ = slot;
        return *this;
    }

    Eia608Decoder decoder;

private:
    int field_;
    FieldSlots slots_;
    std::int64_t slot_ = 0;
};

TEST(Eia608Decoder, ShowsAPopOnCaptionFromEndOfCaptionToErasure) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x142E).twice(0x1450).text("Two").twice(0x1470).text("rows").at(50).twice(
        0x142F);
    feeder.at(90).twice(0x142C);
    const auto captions = feeder.decoder.finish(200);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0], (TimedText{1, CaptionMode::kPopOn, 50, 90, 14, {"Two", "rows"}}));
    EXPECT_EQ(captions[0].text(), "Two\nrows");
}

TEST(Eia608Decoder, ReplacesAPopOnCaptionByTheNext) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1470).text("One").twice(0x142F);
    feeder.twice(0x1420).twice(0x142E).twice(0x1470).text("Two").at(40).twice(0x142F);
    const auto captions = feeder.decoder.finish(60);
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[0], (TimedText{1, CaptionMode::kPopOn, 6, 40, 15, {"One"}}));
    EXPECT_EQ(captions[1], (TimedText{1, CaptionMode::kPopOn, 40, 60, 15, {"Two"}}));
}

TEST(Eia608Decoder, ActsOnceOnARepeatedPairAndTwiceAfterSlack) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1470).text("abcd").twice(0x1421).words({0, 0x1421}).text("Z").twice(0x142F);
    EXPECT_EQ(feeder.decoder.finish(90).at(0).text(), "abZ");

    Feeder single;
    single.twice(0x1420).twice(0x1470).text("abcd").words({0x1421, 0x1421, 0x1421}).text("Z").twice(0x142F);
    EXPECT_EQ(single.decoder.finish(90).at(0).text(), "abZ");
}

TEST(Eia608Decoder, TakesEverySecondPictureForNeighboursAbove39PicturesPerSecond) {
    for (const int field : {0, 1}) {
        Feeder feeder(kRate59_94, field);
        feeder.twice(0x1420).twice(0x1470).text("ab").twice(0x1421).text("c").twice(0x142F);
        const auto captions = feeder.decoder.finish(100);
        ASSERT_EQ(captions.size(), 1U);
        EXPECT_EQ(captions[0].text(), "ac");
        EXPECT_EQ(captions[0].begin, 16 + field);
        EXPECT_EQ(captions[0].channel, 1 + 2 * field);
    }
}

TEST(Eia608Decoder, TakesNullPairsOnTheOtherFieldsPicturesForNoSlack) {
    Eia608Decoder decoder(kRate59_94);
    std::int64_t picture = 0;
    for (const Word word : {0x1420, 0x1420, 0x1470, 0x1470, 0x6162, 0x142F, 0x142F}) {
        decoder.feed(picture++, 0, with_parity(static_cast<Word>(word)));
        decoder.feed(picture++, 0, kNullPair);
    }
    const auto captions = decoder.finish(50);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].end, 50);
}

TEST(Eia608Decoder, DecodesSpecialAndExtendedCharacters) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1470).twice(0x1137).text(" U").twice(0x1224).text("ber \x5C").twice(0x112E);
    feeder.text("it").twice(0x1120).text("up").twice(0x142F);
    EXPECT_EQ(feeder.decoder.finish(90).at(0).text(), "♪ Über é it up");
}

TEST(Eia608Decoder, GivesEachRollUpRowOnce) {
    Feeder feeder;
    feeder.twice(0x1425).twice(0x142D).twice(0x1470).text("first");  // rows 15; text from slot 6
    feeder.at(30).twice(0x142D).text("second");                      // text from slot 32
    feeder.at(60).twice(0x142D).text("third");                       // the first row leaves at 60
    feeder.at(90).twice(0x142C);
    const auto captions = feeder.decoder.finish(100);
    ASSERT_EQ(captions.size(), 3U);
    EXPECT_EQ(captions[0], (TimedText{1, CaptionMode::kRollUp, 6, 60, 14, {"first"}}));
    EXPECT_EQ(captions[1], (TimedText{1, CaptionMode::kRollUp, 32, 90, 14, {"second"}}));
    EXPECT_EQ(captions[2], (TimedText{1, CaptionMode::kRollUp, 62, 90, 15, {"third"}}));
}

class RollUpDepth : public testing::TestWithParam<int> {};

TEST_P(RollUpDepth, KeepsThatManyRows) {
    const int rows = GetParam();
    Feeder feeder;
    feeder.twice(static_cast<Word>(0x1425 + rows - 2));
    for (int line = 0; line < 6; ++line)
        feeder.at(10 * (line + 1)).twice(0x142D).text(std::string(1, static_cast<char>('a' + line)));
    const auto captions = feeder.decoder.finish(1000);
    ASSERT_EQ(captions.size(), 6U);
    for (int line = 0; line < 6; ++line)
        EXPECT_EQ(captions[static_cast<std::size_t>(line)].end,
                  line + rows < 6 ? 10 * (line + rows + 1) : 1000);
}

INSTANTIATE_TEST_SUITE_P(Eia608Decoder, RollUpDepth, testing::Values(2, 3, 4));

TEST(Eia608Decoder, MovesARollUpWindowToItsNewBase) {
    Feeder feeder;
    feeder.twice(0x1425).text("up").twice(0x142D).twice(0x1152).text("base");  // row 1 becomes row 2
    const auto captions = feeder.decoder.finish(50);
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[0].first_row, 1);
    EXPECT_EQ(captions[1].first_row, 2);
}

TEST(Eia608Decoder, ShowsPaintOnTextFromItsFirstCharacter) {
    Feeder feeder;
    feeder.twice(0x1429).twice(0x1470).text("painted").at(60).twice(0x142C);
    const auto captions = feeder.decoder.finish(90);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0], (TimedText{1, CaptionMode::kPaintOn, 4, 60, 15, {"painted"}}));
}

TEST(Eia608Decoder, KeepsChannelsApart) {
    Eia608Decoder decoder(kRate29_97);
    std::int64_t frame = 0;
    const auto feed = [&](int field, std::initializer_list<Word> words) {
        for (const Word word : words) decoder.feed(frame++, field, with_parity(word));
    };
    feed(0, {0x1420, 0x1470, 0x4343, 0x3100, 0x1C20, 0x1C70, 0x4343, 0x3200});
    feed(1, {0x1520, 0x1470, 0x4343, 0x3300, 0x1D20, 0x1C70, 0x4343, 0x3400});
    feed(0, {0x142F, 0x1C2F});
    feed(1, {0x152F, 0x1D2F});
    const auto captions = decoder.finish(100);
    ASSERT_EQ(captions.size(), 4U);
    for (int channel = 1; channel <= 4; ++channel) {
        const TimedText& caption = captions[static_cast<std::size_t>(channel - 1)];
        EXPECT_EQ(caption.channel, channel);
        EXPECT_EQ(caption.text(), "CC" + std::to_string(channel));
        EXPECT_TRUE(decoder.services().captions[static_cast<std::size_t>(channel - 1)]);
    }
}

TEST(Eia608Decoder, NoticesTextServicesAndExtendedDataWithoutShowingThem) {
    Feeder field1;
    field1.twice(0x142A).text("hidden").twice(0x142F);
    EXPECT_TRUE(field1.decoder.finish(90).empty());
    EXPECT_TRUE(field1.decoder.services().text[0]);

    Feeder field2(kRate29_97, 1);
    field2.twice(0x1529).twice(0x1470).words({0x0103}).text("name").words({0x0F11}).twice(0x1529).text(
        "seen");
    const auto captions = field2.decoder.finish(90);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].text(), "seen");
    EXPECT_TRUE(field2.decoder.services().extended_data);
    EXPECT_FALSE(field2.decoder.services().text[2]);
}

TEST(Eia608Decoder, CollectsTheRowsOfTextServicesApartFromCaptions) {
    Feeder feeder;
    feeder.twice(0x142A).text("first").twice(0x142D).text("seco").twice(0x1421).text("xd");
    // Captions in between do not end a row, a restart does.
    feeder.twice(0x1420).twice(0x1470).text("seen").twice(0x142F).twice(0x142B).twice(0x1721).text("row");
    feeder.twice(0x142A).text("third").twice(0x1C2B).text("of T2");
    const auto captions = feeder.decoder.finish(90);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].text(), "seen");
    EXPECT_EQ(
        feeder.decoder.text_rows(),
        (std::vector<TextRow>{{1, 2, "first"}, {1, 7, "secxd row"}, {1, 28, "third"}, {2, 33, "of T2"}}));
    EXPECT_EQ(feeder.decoder.services().text, (std::array<bool, 4>{true, true, false, false}));
}

TEST(Eia608Decoder, ShowsABlockForADamagedByteAndIgnoresDamagedControlPairs) {
    Eia608Decoder decoder(kRate29_97);
    std::int64_t frame = 0;
    for (const Word word : {0x9420, 0x9470, 0xC1C2, 0x41C2, 0x9421, 0x142F, 0x942F})
        decoder.feed(frame++, 0, static_cast<Word>(word));
    const auto captions = decoder.finish(20);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].text(), "AB█B");
    EXPECT_EQ(decoder.parity_errors(), 3);
    EXPECT_EQ(captions[0].begin, 6);
}

TEST(Eia608Decoder, OverwritesTheLastColumnOfAFullRow) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1470).text(std::string(32, 'a') + "bc").twice(0x142F);
    EXPECT_EQ(feeder.decoder.finish(90).at(0).text(), std::string(31, 'a') + "c");
}

TEST(CaptionMode, HasAName) {
    EXPECT_EQ(name_of(CaptionMode::kPopOn), "pop-on");
    EXPECT_EQ(name_of(CaptionMode::kPaintOn), "paint-on");
    EXPECT_EQ(name_of(CaptionMode::kRollUp), "roll-up");
}

// What a paint-on row 15 of a field and a channel shows of the pairs.
std::string painted(const std::vector<Word>& words, int field = 0, unsigned channel_bit = 0) {
    Feeder feeder(kRate29_97, field);
    const auto send = [&](Word word) {
        feeder.words({is_control(word) ? static_cast<Word>(word | channel_bit) : word});
    };
    send(command_word(kResumeDirectCaptioning, field));
    send(0x1470);
    for (const Word word : words) send(word);
    const std::vector<TimedText> captions = feeder.decoder.finish(1000);
    EXPECT_LE(captions.size(), 1U);
    if (captions.empty()) return "";
    EXPECT_EQ(captions[0].channel, field * 2 + (channel_bit != 0 ? 2 : 1));
    EXPECT_EQ(captions[0].first_row, 15);
    return captions[0].text();
}

constexpr Word kA = 0x6100, kB = 0x6200, kC = 0x6300, kAB = 0x6162;

TEST(Eia608Decoder, MovesByTabsAndShowsASpaceForAMidRowCode) {
    for (unsigned second = 0x20; second <= 0x3F; ++second)
        for (const int field : {0, 1})
            for (const unsigned channel_bit : {0x0000U, 0x0800U}) {
                SCOPED_TRACE(testing::Message() << second << " " << field << " " << channel_bit);
                const bool tab = second >= 0x21 && second <= 0x23;
                EXPECT_EQ(painted({kA, make_word(0x17, second), kB}, field, channel_bit),
                          "a" + std::string(tab ? second - 0x20 : 0, ' ') + "b");
                if (second < 0x30)
                    EXPECT_EQ(painted({kA, make_word(0x11, second), kB}, field, channel_bit), "a b");
                else if (second == 0x39)  // the transparent space
                    EXPECT_EQ(painted({kA, make_word(0x11, second), kB}, field, channel_bit), "a b");
                else
                    EXPECT_EQ(painted({kA, make_word(0x11, second), kB}, field, channel_bit),
                              "a" +
                                  encode_utf8(std::u32string(1, special_character(make_word(0x11, second)))) +
                                  "b");
            }
}

TEST(Eia608Decoder, PutsAnExtendedCharacterInPlaceOfTheOneBefore) {
    EXPECT_EQ(painted({kAB, 0x1220, kC}), "aÁc");
    EXPECT_EQ(painted({kAB, 0x133F, kC}, 1, 0x0800), "a┘c");
    EXPECT_EQ(painted({0x1220, kC}), "Ác");  // with nothing before it
}

TEST(Eia608Decoder, StaysWithinTheColumns) {
    // Column 28, two characters, a tab that ends at the last column, which the second letter overwrites.
    EXPECT_EQ(painted({0x147E, kAB, 0x1723, kC}), "ab c");
    EXPECT_EQ(painted({0x147E, kAB, 0x1723, kC, kA}), "ab a");
    EXPECT_EQ(painted({0x1421, kAB}), "ab");
    EXPECT_EQ(painted({kAB, 0x1421, kC}), "ac");
    const std::vector<Word> full(16, 0x6161);
    const auto with = [&](std::initializer_list<Word> more) {
        std::vector<Word> words = full;
        words.insert(words.end(), more);
        return painted(words);
    };
    EXPECT_EQ(with({0x1421}), std::string(31, 'a'));
    EXPECT_EQ(with({0x1421, kB}), std::string(31, 'a') + "b");
    EXPECT_EQ(with({0x1424}), std::string(32, 'a'));
}

TEST(Eia608Decoder, DeletesToTheEndOfTheRowFromItsColumnOn) {
    EXPECT_EQ(painted({kAB, 0x6364, 0x1470, 0x1722, 0x1424}), "ab");
    EXPECT_EQ(painted({kAB, 0x6364, 0x1470, 0x1424, 0x1722, kC}), "c");
    // In the memory that is loaded, not in the one that is displayed.
    Feeder feeder;
    feeder.twice(0x1429).twice(0x1470).text("seen").twice(0x1420).twice(0x1470).text("load").twice(0x1470);
    feeder.twice(0x1722).twice(0x1424).at(50).twice(0x142F);
    const auto captions = feeder.decoder.finish(90);
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[0].text(), "seen");
    EXPECT_EQ(captions[1].text(), "lo");
}

TEST(Eia608Decoder, IgnoresWhatComesBeforeAMode) {
    Feeder feeder;
    feeder.text("lost").twice(0x1421).twice(0x1424).twice(0x1428).twice(0x142D).twice(0x142C);
    EXPECT_EQ(feeder.decoder.services().captions, (std::array<bool, 4>{}));
    feeder.twice(0x1429).text("kept");
    const auto captions = feeder.decoder.finish(90);
    ASSERT_EQ(captions.size(), 1U);
    EXPECT_EQ(captions[0].text(), "kept");
    EXPECT_EQ(captions[0].first_row, 15);
    EXPECT_EQ(feeder.decoder.services().captions, (std::array<bool, 4>{true, false, false, false}));
    EXPECT_EQ(feeder.decoder.services().text, (std::array<bool, 4>{}));
    EXPECT_FALSE(feeder.decoder.services().extended_data);
}

TEST(Eia608Decoder, GivesTheRowsOfACaptionFromTheFirstWithText) {
    for (int row = 1; row <= kRows; ++row) {
        Feeder feeder;
        feeder.twice(0x1420).words({indent_pac(row, 0), kA}).words({indent_pac(16 - row, 0), kB, 0x142F});
        const auto captions = feeder.decoder.finish(90);
        ASSERT_EQ(captions.size(), 1U) << row;
        EXPECT_EQ(captions[0].first_row, std::min(row, 16 - row));
        EXPECT_EQ(captions[0].text(), row < 8 ? "a\nb" : row > 8 ? "b\na" : "b");
    }
}

TEST(Eia608Decoder, ShowsNoCaptionOfSpacesAlone) {
    EXPECT_EQ(painted({0x2020, 0x1120}), "");
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1470).text("  ").twice(0x142F).at(20).twice(0x142C);
    EXPECT_TRUE(feeder.decoder.finish(90).empty());
}

TEST(Eia608Decoder, BeginsAtTheFirstCharacterAfterAnEmptyCaption) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x142F).at(20).twice(0x1429).twice(0x1470).text("ab");
    EXPECT_EQ(feeder.decoder.finish(90),
              (std::vector<TimedText>{{1, CaptionMode::kPaintOn, 24, 90, 15, {"ab"}}}));
}

TEST(Eia608Decoder, ErasesEachMemoryByItsOwnCommand) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1470).text("old").twice(0x142E).twice(0x1450).text("new").at(20).twice(
        0x142F);
    // What was displayed is loaded again by the next end of caption, unless it has been erased.
    feeder.twice(0x1470).text("kept").at(40).twice(0x142C).at(50).twice(0x142F).at(60).twice(0x142F);
    const auto captions = feeder.decoder.finish(90);
    EXPECT_EQ(captions, (std::vector<TimedText>{{1, CaptionMode::kPopOn, 20, 40, 14, {"new"}},
                                                {1, CaptionMode::kPopOn, 50, 60, 15, {"kept"}}}));
}

TEST(Eia608Decoder, ClosesWhatIsDisplayedWhereTheModeChanges) {
    Feeder feeder;
    feeder.twice(0x1429).twice(0x1470).text("painted").at(20).twice(0x1425).text("rolled").at(40).twice(
        0x1429);
    feeder.twice(0x1450).text("again");
    EXPECT_EQ(feeder.decoder.finish(90),
              (std::vector<TimedText>{{1, CaptionMode::kPaintOn, 4, 20, 15, {"painted"}},
                                      {1, CaptionMode::kRollUp, 22, 40, 15, {"rolled"}},
                                      {1, CaptionMode::kPaintOn, 44, 90, 14, {"again", "rolled"}}}));
}

TEST(Eia608Decoder, ErasesBothMemoriesWhereRollUpBegins) {
    Feeder feeder;
    feeder.twice(0x1420).twice(0x1450).text("loaded").twice(0x1425).twice(0x1470).text("rolled");
    feeder.at(20).twice(0x142F).at(30).twice(0x142F);
    const auto captions = feeder.decoder.finish(90);
    EXPECT_EQ(captions, (std::vector<TimedText>{{1, CaptionMode::kRollUp, 11, 20, 15, {"rolled"}},
                                                {1, CaptionMode::kPopOn, 30, 90, 15, {"rolled"}}}));
}

TEST(Eia608Decoder, TakesRowsAwayThatASmallerWindowHasNoPlaceFor) {
    Feeder feeder;
    feeder.twice(0x1427).text("a").at(10).twice(0x142D).text("b").at(20).twice(0x142D).text("c");
    feeder.at(30).twice(0x142D).text("d").at(40).twice(0x1426).at(50).twice(0x1425).at(60).twice(0x142D);
    EXPECT_EQ(feeder.decoder.finish(90),
              (std::vector<TimedText>{{1, CaptionMode::kRollUp, 2, 40, 12, {"a"}},
                                      {1, CaptionMode::kRollUp, 12, 50, 13, {"b"}},
                                      {1, CaptionMode::kRollUp, 22, 60, 14, {"c"}},
                                      {1, CaptionMode::kRollUp, 32, 90, 14, {"d"}}}));
}

// The whole window moves, and the rows go on as if it had always been there.
TEST(Eia608Decoder, MovesEveryRowOfARollUpWindow) {
    for (int depth = 2; depth <= 4; ++depth)
        for (int base = 1; base <= kRows; ++base) {
            SCOPED_TRACE(testing::Message() << depth << " " << base);
            Feeder feeder;
            feeder.twice(static_cast<Word>(0x1425 + depth - 2));
            std::vector<TimedText> expected;
            const int reached = std::max(base, depth);
            for (int row = 0; row < depth; ++row) {
                const std::string text(1, static_cast<char>('a' + row));
                feeder.at(10 * row).twice(0x142D).text(text);
                expected.push_back(
                    {1, CaptionMode::kRollUp, 10 * row + 2, 90, reached - depth + 1 + row, {text}});
            }
            feeder.at(50).words({indent_pac(base, 4)}).text("x");
            expected.back().rows[0] = expected.back().rows[0] + "   x";
            EXPECT_EQ(feeder.decoder.finish(90), expected);
        }
}

TEST(Eia608Decoder, BeginsARollUpRowAtTheFirstColumn) {
    Feeder feeder;
    feeder.twice(0x1425).twice(0x147E).text("ab").at(20).twice(0x142D).text("cd");
    const auto captions = feeder.decoder.finish(90);
    ASSERT_EQ(captions.size(), 2U);
    EXPECT_EQ(captions[1], (TimedText{1, CaptionMode::kRollUp, 22, 90, 15, {"cd"}}));
}

TEST(Eia608Decoder, TakesEveryClassOfExtendedDataForNoText) {
    for (unsigned code = 0x01; code <= 0x0E; ++code) {
        Feeder feeder(kRate29_97, 1);
        feeder.twice(0x1529).twice(0x1470).text("a").words({make_word(code, 0x03)}).text("name");
        // Its checksum ends a packet, a control pair interrupts it.
        if (code % 2 == 0)
            feeder.words({0x0F4D});
        else
            feeder.words({0x152B, 0x1529});
        EXPECT_EQ(feeder.text("b").decoder.finish(90).at(0).text(), "ab") << code;
        EXPECT_TRUE(feeder.decoder.services().extended_data);
    }
}

TEST(Eia608Decoder, KnowsNoExtendedDataInField1OrWithoutACode) {
    EXPECT_EQ(painted({kA, 0x0103, kB}, 0), "ab");
    EXPECT_EQ(painted({kA, 0x0062}, 1), "ab");
    Feeder feeder;
    feeder.words({0x0103});
    EXPECT_FALSE(feeder.decoder.services().extended_data);
}

TEST(Eia608Decoder, IgnoresPlacementInATextService) {
    Feeder feeder;
    feeder.twice(0x142B).twice(0x1421).text("ab").twice(0x1450).twice(0x1424).text("cd").twice(0x142D);
    feeder.at(30).twice(0x1429).text("ef");
    const auto captions = feeder.decoder.finish(90);
    EXPECT_EQ(captions, (std::vector<TimedText>{{1, CaptionMode::kPaintOn, 32, 90, 15, {"ef"}}}));
    EXPECT_EQ(feeder.decoder.text_rows(), (std::vector<TextRow>{{1, 4, "abcd"}}));
}

TEST(Eia608Decoder, NoticesTheTextServiceOfEveryChannel) {
    for (int service = 1; service <= 4; ++service) {
        const int field = (service - 1) / 2;
        const Word channel_bit = service % 2 == 0 ? 0x0800 : 0;
        Feeder feeder(kRate29_97, field);
        feeder.words({static_cast<Word>(command_word(kTextRestart, field) | channel_bit)}).text("ab");
        feeder.decoder.finish(90);
        std::array<bool, 4> expected{};
        expected[static_cast<std::size_t>(service - 1)] = true;
        EXPECT_EQ(feeder.decoder.services().text, expected);
        EXPECT_EQ(feeder.decoder.text_rows(), (std::vector<TextRow>{{service, 1, "ab"}}));
    }
}

// Two backspaces, of which the second counts unless it is the repetition of the first.
TEST(Eia608Decoder, TakesARepetitionForOneOnTheNextPictureOfItsFieldAlone) {
    const auto left = [](FrameRate rate, std::int64_t distance) {
        Eia608Decoder decoder(rate);
        std::int64_t frame = 0;
        for (const Word word : {0x1429, 0x1470, 0x6162, 0x6364, 0x1421})
            decoder.feed(frame += 2, 0, with_parity(static_cast<Word>(word)));
        decoder.feed(frame + distance, 0, with_parity(0x1421));
        return decoder.finish(90).at(0).text();
    };
    EXPECT_EQ(left(kRate29_97, 1), "abc");
    EXPECT_EQ(left(kRate29_97, 2), "ab");
    EXPECT_EQ(left(kRate59_94, 2), "abc");
    EXPECT_EQ(left(kRate59_94, 3), "ab");
}

TEST(Eia608Decoder, GivesCaptionsInTheOrderOfTheirBegin) {
    Eia608Decoder decoder(kRate29_97);
    for (const auto& [frame, word] :
         {std::pair<std::int64_t, Word>{0, 0x1C29}, {1, 0x6200}, {5, 0x1429}, {6, 0x6100}})
        decoder.feed(frame, 0, with_parity(word));
    EXPECT_EQ(decoder.finish(90), (std::vector<TimedText>{{2, CaptionMode::kPaintOn, 1, 90, 15, {"b"}},
                                                          {1, CaptionMode::kPaintOn, 6, 90, 15, {"a"}}}));
}

TEST(Eia608Decoder, SurvivesAnyPairs) {
    Eia608Decoder decoder(kRate29_97);
    std::uint32_t state = 1;
    for (int frame = 0; frame < 200000; ++frame) {
        state = state * 1664525 + 1013904223;
        const Word control = make_word(0x10 | (state >> 8 & 0x0F), 0x20 | (state >> 16 & 0x5F));
        decoder.feed(frame, static_cast<int>(state >> 31),
                     state >> 24 & 1 ? with_parity(control) : static_cast<Word>(state >> 4));
    }
    for (const TimedText& caption : decoder.finish(200000)) {
        EXPECT_LE(caption.begin, caption.end);
        EXPECT_LE(static_cast<std::size_t>(caption.first_row) + caption.rows.size(), 16U);
    }
}

std::vector<Cea708Construct> packet(int sequence, std::vector<std::uint8_t> blocks) {
    blocks.insert(blocks.begin(), 0);
    if (blocks.size() % 2 != 0) blocks.push_back(0);
    blocks[0] = static_cast<std::uint8_t>(sequence << 6 | static_cast<int>(blocks.size() / 2 & 0x3F));
    std::vector<Cea708Construct> constructs;
    for (std::size_t i = 0; i < blocks.size(); i += 2)
        constructs.push_back({static_cast<std::uint8_t>(i == 0 ? 0xFF : 0xFE), blocks[i], blocks[i + 1]});
    return constructs;
}

TEST(DtvccDecoder, CollectsTextByService) {
    DtvccDecoder decoder;
    // Service 1: define window 0 (six parameters), "HI", end of text. Service 2: "é" of Latin-1.
    decoder.feed(10, packet(0, {0x2A, 0x98, 0x38, 0x4A, 0xD1, 0x8B, 0x0F, 0x11, 'H', 'I', 0x03, 0x41, 0xE9}));
    decoder.feed(20, packet(1, {0x41, '!', 0x00}));
    decoder.finish();
    EXPECT_EQ(decoder.services(), (std::set<int>{1, 2}));
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{1, 10, "HI"}, {2, 10, "é!"}}));
    EXPECT_EQ(decoder.damaged_packets(), 0);
}

TEST(DtvccDecoder, ReadsExtendedServiceNumbersAndCodesThatCrossBlocks) {
    DtvccDecoder decoder;
    decoder.feed(0, packet(0, {0xE2, 0x09, 'A', 0x92}));              // service 9: "A", set pen location ...
    decoder.feed(1, packet(1, {0xE4, 0x09, 0x41, 0x42, 'B', 0x7F}));  // ... with its parameters, "B", a note
    decoder.finish();
    EXPECT_EQ(decoder.services(), (std::set<int>{9}));
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{9, 0, "AB♪"}}));
}

TEST(DtvccDecoder, SplitsTextWhereWindowsAreCleared) {
    DtvccDecoder decoder;
    decoder.feed(5, packet(0, {0x29, 'a', 'b', 0x08, 'c', 0x88, 0xFF, 'd', 0x0D, 'e'}));
    decoder.feed(6,
                 packet(1, {0x24, 0x10, 0x25, 0x10, 0x18}));  // an ellipsis of G2; a C2 code without its rest
    decoder.finish();
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{1, 5, "ac"}, {1, 5, "d"}, {1, 5, "e_"}}));
}

TEST(DtvccDecoder, CountsDamagedPackets) {
    DtvccDecoder decoder;
    std::vector<Cea708Construct> cut = packet(0, {0x24, 'a', 'b', 'c', 'd'});
    cut.pop_back();
    decoder.feed(0, cut);
    decoder.feed(1, packet(1, {0x3F, 'a'}));  // a block longer than its packet
    decoder.feed(2, std::vector<Cea708Construct>{{0xFE, 1, 2}, {0xFA, 0, 0}});
    decoder.finish();
    EXPECT_EQ(decoder.damaged_packets(), 2);
    EXPECT_TRUE(decoder.texts().empty());
}

// The texts of service 1 in codes that come in blocks of `size` bytes, a packet each.
std::vector<std::string> texts_of(const std::vector<std::uint8_t>& codes, std::size_t size) {
    DtvccDecoder decoder;
    for (std::size_t begin = 0; begin < codes.size(); begin += size) {
        const std::size_t end = std::min(begin + size, codes.size());
        std::vector<std::uint8_t> block{static_cast<std::uint8_t>(0x20 | (end - begin))};
        block.insert(block.end(), codes.begin() + static_cast<std::ptrdiff_t>(begin),
                     codes.begin() + static_cast<std::ptrdiff_t>(end));
        decoder.feed(0, packet(0, block));
    }
    decoder.finish();
    EXPECT_EQ(decoder.damaged_packets(), 0);
    std::vector<std::string> texts;
    for (const ServiceText& text : decoder.texts()) texts.push_back(text.text);
    return texts;
}

// Letters stand for the parameters, so that one too few of them would be seen, and one too many would take
// the letter behind.
void expect_length(std::vector<std::uint8_t> code, std::size_t length,
                   const std::vector<std::string>& texts) {
    SCOPED_TRACE(testing::PrintToString(code));
    code.insert(code.begin(), 'A');
    code.resize(1 + length, 'x');
    code.push_back('B');
    EXPECT_EQ(texts_of(code, 30), texts);
    EXPECT_EQ(texts_of(code, 1), texts);
}

TEST(DtvccDecoder, PassesOverTheParametersOfEveryControlCode) {
    // 0x80 to 0x9F: eight windows to choose; six bitmaps of windows, or a delay; two without a parameter;
    // pens; four that are reserved; the window's attributes; eight windows to define.
    constexpr std::size_t kC1[] = {1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 1, 1,
                                   3, 4, 3, 1, 1, 1, 1, 5, 7, 7, 7, 7, 7, 7, 7, 7};
    const std::set<unsigned> ends{0x03, 0x0C, 0x0D, 0x0E, 0x88, 0x89, 0x8A, 0x8B, 0x8C};
    for (unsigned code = 0; code < 0xA0; ++code) {
        constexpr unsigned kBackspace708 = 0x08, kExtension = 0x10;
        if (code == kExtension || (code >= 0x20 && code < 0x80)) continue;
        const std::size_t length = code < 0x10 ? 1 : code < 0x18 ? 2 : code < 0x20 ? 3 : kC1[code - 0x80];
        expect_length({static_cast<std::uint8_t>(code)}, length,
                      code == kBackspace708 ? std::vector<std::string>{"B"}
                      : ends.contains(code) ? std::vector<std::string>{"A", "B"}
                                            : std::vector<std::string>{"AB"});
    }
}

TEST(DtvccDecoder, PassesOverExtendedCodesAndShowsALineForExtendedCharacters) {
    for (unsigned code = 0; code < 0x100; ++code) {
        const bool character = (code >= 0x20 && code < 0x80) || code >= 0xA0;
        const std::size_t length = code < 0x08   ? 2
                                   : code < 0x10 ? 3
                                   : code < 0x18 ? 4
                                   : code < 0x20 ? 5
                                   : character   ? 2
                                   : code < 0x88 ? 6
                                                 : 7;
        if (code >= 0x90 && code < 0xA0) {
            // The third byte says how many follow it, in six bits.
            expect_length({0x10, static_cast<std::uint8_t>(code), 0x00}, 3, {"AB"});
            expect_length({0x10, static_cast<std::uint8_t>(code), 0x45}, 8, {"AB"});
            expect_length({0x10, static_cast<std::uint8_t>(code), 0xBF}, 66, {"AB"});
        } else {
            expect_length({0x10, static_cast<std::uint8_t>(code)}, length, {character ? "A_B" : "AB"});
        }
    }
}

TEST(DtvccDecoder, ShowsEveryCharacterOfItsSets) {
    for (unsigned code = 0x20; code < 0x100; ++code) {
        if (code >= 0x80 && code < 0xA0) continue;
        const char32_t character = code == 0x7F ? U'♪' : static_cast<char32_t>(code);
        EXPECT_EQ(texts_of({static_cast<std::uint8_t>(code)}, 1),
                  std::vector{encode_utf8(std::u32string(1, character))})
            << code;
    }
}

TEST(DtvccDecoder, TakesBackWholeCharactersAndNoneBeforeTheFirst) {
    EXPECT_EQ(texts_of({0x08, 'a', 0xE9, 0x08, 'b', 0x7F, 0x08, 'c'}, 8), std::vector<std::string>{"abc"});
}

TEST(DtvccDecoder, ReadsEveryServiceNumber) {
    for (int number = 1; number <= 63; ++number) {
        DtvccDecoder decoder;
        const auto in_block = static_cast<std::uint8_t>(number);
        decoder.feed(
            3,
            packet(0, number < 7 ? std::vector<std::uint8_t>{static_cast<std::uint8_t>(number << 5 | 1), 'a'}
                                 : std::vector<std::uint8_t>{0xE1, in_block, 'a'}));
        decoder.finish();
        EXPECT_EQ(decoder.services(), std::set<int>{number});
        EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{number, 3, "a"}}));
        EXPECT_EQ(decoder.damaged_packets(), 0);
    }
}

TEST(DtvccDecoder, LeavesOutTheRestOfAPacketWithAWrongExtendedNumber) {
    // Number 6, which needs no extension, and none at the packet's end.
    const std::vector<std::uint8_t> wrong[] = {{0x21, 'a', 0xE1, 0x06, 'b', 0x21, 'c'}, {0x21, 'a', 0xE1}};
    for (const std::vector<std::uint8_t>& blocks : wrong) {
        DtvccDecoder decoder;
        decoder.feed(0, packet(0, blocks));
        decoder.finish();
        EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{1, 0, "a"}}));
        EXPECT_EQ(decoder.services(), std::set<int>{1});
        EXPECT_EQ(decoder.damaged_packets(), 1);
    }
}

TEST(DtvccDecoder, EndsAPacketAtANullBlockAndAtItsLength) {
    DtvccDecoder decoder;
    decoder.feed(0, packet(0, {0x21, 'a', 0x00, 0x21, 'b'}));
    decoder.feed(1, packet(1, {0x41, 'c', 0x00}));
    decoder.feed(2, std::vector<Cea708Construct>{{0xFE, 0x21, 'd'}});  // belongs to no packet
    decoder.finish();
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{1, 0, "a"}, {2, 1, "c"}}));
    EXPECT_EQ(decoder.damaged_packets(), 0);
}

// A size code of 0 stands for 128 bytes, which are 64 constructs.
TEST(DtvccDecoder, TakesAPacketOfTheGreatestLength) {
    std::vector<Cea708Construct> constructs{{0xFF, 0x00, 0x21}, {0xFC, 'x', 'x'}, {0xFE, 'a', 0x00}};
    constructs.resize(1 + 64, Cea708Construct{0xFE, 0, 0});
    DtvccDecoder decoder;
    decoder.feed(0, std::span(constructs).first(64));
    EXPECT_TRUE(decoder.services().empty());
    decoder.feed(7, std::span(constructs).last(1));
    decoder.finish();
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{1, 7, "a"}}));
    EXPECT_EQ(decoder.damaged_packets(), 0);
}

TEST(DtvccDecoder, CountsAPacketThatTheNextOneOrTheEndCutsShort) {
    std::vector<Cea708Construct> cut = packet(0, {0x23, 'a', 'b', 'c'});
    cut.pop_back();
    DtvccDecoder decoder;
    decoder.feed(0, cut);
    EXPECT_EQ(decoder.damaged_packets(), 0);
    decoder.feed(1, cut);
    EXPECT_EQ(decoder.damaged_packets(), 1);
    decoder.finish();
    decoder.finish();
    EXPECT_EQ(decoder.damaged_packets(), 2);
}

TEST(DtvccDecoder, GivesTheTextsOfAllServicesInTheOrderOfTheirFrames) {
    DtvccDecoder decoder;
    decoder.feed(Schedule{kRate29_97, {}, {{5, packet(0, {0x41, 'b'})}, {9, packet(1, {0x22, 'c', 0x03})}}});
    decoder.feed(10, packet(2, {0x42, 0x03, 'd'}));
    decoder.finish();
    EXPECT_EQ(decoder.texts(), (std::vector<ServiceText>{{2, 5, "b"}, {1, 9, "c"}, {2, 10, "d"}}));
}

}  // namespace
}  // namespace gsve::captions
