#include "captions/line21.h"

#include <set>

#include <gtest/gtest.h>

namespace gsve::captions {
namespace {

TEST(Parity, MakesTheNumberOfOnesOdd) {
    EXPECT_EQ(with_parity(0x1420), 0x9420);
    EXPECT_EQ(with_parity(0x142F), 0x942F);
    EXPECT_EQ(with_parity(0x0000), kNullPair);
    EXPECT_EQ(with_parity(0x4142), 0xC1C2);
    EXPECT_EQ(with_parity(0xC1C2), 0xC1C2);
    EXPECT_TRUE(has_parity(0x9420));
    EXPECT_FALSE(has_parity(0x1420));
    EXPECT_TRUE(is_null(0x8080));
    EXPECT_TRUE(is_null(0x0000));
    EXPECT_FALSE(is_null(0x8081));
}

TEST(Preamble, HasTheCodesOfTheStandardTable) {
    EXPECT_EQ(indent_pac(1, 0), 0x1150);
    EXPECT_EQ(indent_pac(2, 4), 0x1172);
    EXPECT_EQ(indent_pac(11, 0), 0x1050);
    EXPECT_EQ(indent_pac(14, 28), 0x145E);
    EXPECT_EQ(indent_pac(15, 0), 0x1470);
    EXPECT_EQ(italics_pac(15), 0x146E);
    EXPECT_EQ(italics_pac(3), 0x124E);
}

TEST(Preamble, ReadsBackEveryRowAndIndent) {
    for (int row = 1; row <= kRows; ++row)
        for (int indent = 0; indent < kColumns; indent += 4) {
            const auto preamble = preamble_of(with_parity(indent_pac(row, indent)));
            ASSERT_TRUE(preamble);
            EXPECT_EQ(preamble->row, row);
            EXPECT_EQ(preamble->column, indent);
            EXPECT_FALSE(preamble->italics);
            EXPECT_TRUE(preamble_of(italics_pac(row))->italics);
            EXPECT_EQ(preamble_of(italics_pac(row))->column, 0);
        }
}

TEST(Preamble, LeavesOtherPairsAlone) {
    EXPECT_FALSE(preamble_of(0x1420));
    EXPECT_FALSE(preamble_of(0x1721));
    EXPECT_FALSE(preamble_of(0x4150));
    EXPECT_FALSE(preamble_of(0x1070));  // row 11 has no second range
}

TEST(Command, IsFoundInBothFieldsAndChannels) {
    EXPECT_EQ(command_of(0x942F), kEndOfCaption);
    EXPECT_EQ(command_of(0x152F), kEndOfCaption);
    EXPECT_EQ(command_of(0x1C2C), kEraseDisplayedMemory);
    EXPECT_EQ(command_of(0x1D2C), kEraseDisplayedMemory);
    EXPECT_FALSE(command_of(0x1120));
    EXPECT_EQ(command_word(kEndOfCaption, 0), 0x142F);
    EXPECT_EQ(command_word(kEndOfCaption, 1), 0x152F);
}

TEST(Command, HasAnotherFirstByteInEachField) {
    EXPECT_EQ(in_field(0x9420, 1), 0x1520);
    EXPECT_EQ(in_field(0x1C2F, 1), 0x9D2F);
    EXPECT_EQ(in_field(0x1520, 0), 0x9420);
    EXPECT_EQ(in_field(0x9D2F, 0), 0x1C2F);
    for (const Word word : {0x1520, 0x9D2F, 0x9454, 0x1570, 0x91AE, 0x97A1, 0x9420 | 0x0040, 0xC1C2, 0x8080})
        EXPECT_EQ(in_field(static_cast<Word>(word), 1), word) << std::hex << word;
    for (const Word word : {0x9420, 0x1C2F, 0x1570, 0x1F20, 0xC1C2})
        EXPECT_EQ(in_field(static_cast<Word>(word), 0), word) << std::hex << word;
}

struct GlyphCase {
    char32_t character;
    std::uint8_t basic;
    Word pair;
};

class GlyphTable : public testing::TestWithParam<GlyphCase> {};

TEST_P(GlyphTable, HasTheCodeOfTheStandard) {
    const GlyphCase& c = GetParam();
    const auto glyph = glyph_for(c.character);
    ASSERT_TRUE(glyph);
    EXPECT_EQ(glyph->basic, c.basic);
    EXPECT_EQ(glyph->pair, c.pair);
}

INSTANTIATE_TEST_SUITE_P(
    Line21, GlyphTable,
    testing::Values(GlyphCase{U'A', 0x41, 0}, GlyphCase{U'\'', 0x27, 0}, GlyphCase{U'\u2019', 0x27, 0},
                    GlyphCase{U'á', 0x2A, 0}, GlyphCase{U'é', 0x5C, 0}, GlyphCase{U'í', 0x5E, 0},
                    GlyphCase{U'ó', 0x5F, 0}, GlyphCase{U'ú', 0x60, 0}, GlyphCase{U'ç', 0x7B, 0},
                    GlyphCase{U'÷', 0x7C, 0}, GlyphCase{U'Ñ', 0x7D, 0}, GlyphCase{U'ñ', 0x7E, 0},
                    GlyphCase{U'█', 0x7F, 0}, GlyphCase{U'®', 0, 0x1130}, GlyphCase{U'♪', 0, 0x1137},
                    GlyphCase{U'à', 0, 0x1138}, GlyphCase{U'û', 0, 0x113F}, GlyphCase{U'Á', 'A', 0x1220},
                    GlyphCase{U'*', '.', 0x1228}, GlyphCase{U'—', '-', 0x122A}, GlyphCase{U'“', '"', 0x122E},
                    GlyphCase{U'»', '"', 0x123F}, GlyphCase{U'Ã', 'A', 0x1320}, GlyphCase{U'{', '(', 0x1329},
                    GlyphCase{U'\\', '/', 0x132B}, GlyphCase{U'ß', 's', 0x1334}, GlyphCase{U'ø', 'o', 0x133B},
                    GlyphCase{U'┘', '+', 0x133F}));

TEST(Glyphs, DecodeToTheCharacterThatWasEncoded) {
    int count = 0;
    for (char32_t character = 0x20; character < 0x2700; ++character) {
        const auto glyph = glyph_for(character);
        if (!glyph || character == U'\u2019') continue;
        ++count;
        const char32_t decoded = glyph->pair == 0                  ? basic_character(glyph->basic)
                                 : first_byte(glyph->pair) == 0x11 ? special_character(glyph->pair)
                                                                   : extended_character(glyph->pair);
        EXPECT_EQ(decoded, character) << std::hex << static_cast<unsigned>(character);
        if (glyph->basic != 0) {
            EXPECT_GE(glyph->basic, 0x20);
        }
    }
    // 96 basic, 15 special (the transparent space is not text), 64 extended less the second apostrophe.
    EXPECT_EQ(count, 96 + 15 + 63);
}

TEST(Substitute, ConsistsOfCharactersThatHaveGlyphs) {
    for (char32_t character = 0; character < 0x10000; ++character)
        for (const char32_t c : substitute_for(character))
            ASSERT_TRUE(glyph_for(c)) << std::hex << static_cast<unsigned>(character);
}

TEST(Substitute, KeepsTheSenseOfCommonCharacters) {
    EXPECT_EQ(substitute_for(U'…'), U"...");
    EXPECT_EQ(substitute_for(U'–'), U"-");
    EXPECT_EQ(substitute_for(U'€'), U"EUR");
    EXPECT_EQ(substitute_for(U'Š'), U"S");
    EXPECT_EQ(substitute_for(U'ž'), U"z");
    EXPECT_EQ(substitute_for(U'ł'), U"l");
    EXPECT_EQ(substitute_for(U'\u00A0'), U" ");
    EXPECT_EQ(substitute_for(U'\u200B'), U"");
    EXPECT_EQ(substitute_for(U'字'), U"?");
    EXPECT_EQ(substitute_for(0x1F600), U"?");
}

TEST(Compose, JoinsALetterAndItsMark) {
    EXPECT_EQ(compose(U'e', 0x0301), U'é');
    EXPECT_EQ(compose(U'n', 0x0303), U'ñ');
    EXPECT_EQ(compose(U'x', 0x0301), U'\0');
    EXPECT_EQ(compose(U'e', U'f'), U'\0');
}

}  // namespace
}  // namespace gsve::captions
