#include <gtest/gtest.h>

#include "captions/dtvcc.h"
#include "captions/eia608_decoder.h"

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

}  // namespace
}  // namespace gsve::captions
