#include "captions/line21.h"

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "captions/text_file.h"

namespace gsve::captions {
namespace {

std::string shown(char32_t character) {
    std::string hex = "U+0000";
    for (std::size_t digit = 5; digit >= 2; --digit, character >>= 4)
        hex[digit] = "0123456789ABCDEF"[character & 15];
    return hex;
}

TEST(Line21, HasTheDimensionsAndCodesOfTheStandard) {
    EXPECT_EQ(kFields, 2);
    EXPECT_EQ(kChannels, 4);
    EXPECT_EQ(kRows, 15);
    EXPECT_EQ(kColumns, 32);
    EXPECT_EQ(kNullPair, 0x8080);
    EXPECT_EQ(kMidRowWhite, 0x1120);
    EXPECT_EQ(kMidRowItalics, 0x112E);
    EXPECT_EQ(tab_offset(1), 0x1721);
    EXPECT_EQ(tab_offset(2), 0x1722);
    EXPECT_EQ(tab_offset(3), 0x1723);
}

TEST(Parity, IsThatOfEachByteAlone) {
    for (unsigned first = 0; first < 256; ++first) {
        unsigned ones = 0;
        for (unsigned rest = first; rest != 0; rest /= 2) ones += rest % 2;
        const auto byte = static_cast<std::uint8_t>(first);
        const unsigned low = first % 128, high_ones = first >= 128 ? 1U : 0U;
        const unsigned right = (ones - high_ones) % 2 == 1 ? low : low + 128;
        EXPECT_EQ(has_odd_parity(byte), ones % 2 == 1) << first;
        EXPECT_EQ(with_odd_parity(byte), right) << first;
        EXPECT_EQ(with_parity(make_word(first, 0x20)), right * 256 + 0x20) << first;
        EXPECT_EQ(with_parity(make_word(0x20, first)), 0x2000 + right) << first;
        EXPECT_EQ(has_parity(make_word(first, 0x20)), ones % 2 == 1) << first;
        EXPECT_EQ(has_parity(make_word(0x20, first)), ones % 2 == 1) << first;
        EXPECT_EQ(is_null(make_word(first, 0)), low == 0) << first;
        EXPECT_EQ(is_null(make_word(0x80, first)), low == 0) << first;
        EXPECT_EQ(is_control(make_word(first, 0)), low >= 0x10 && low <= 0x1F) << first;
    }
}

TEST(Command, HasTheSecondByteOfTheStandard) {
    const std::tuple<Command, unsigned> codes[] = {{kResumeCaptionLoading, 0x20},
                                                   {kBackspace, 0x21},
                                                   {kDeleteToEndOfRow, 0x24},
                                                   {kRollUp2, 0x25},
                                                   {kRollUp3, 0x26},
                                                   {kRollUp4, 0x27},
                                                   {kFlashOn, 0x28},
                                                   {kResumeDirectCaptioning, 0x29},
                                                   {kTextRestart, 0x2A},
                                                   {kResumeTextDisplay, 0x2B},
                                                   {kEraseDisplayedMemory, 0x2C},
                                                   {kCarriageReturn, 0x2D},
                                                   {kEraseNonDisplayedMemory, 0x2E},
                                                   {kEndOfCaption, 0x2F}};
    for (const auto& [command, second] : codes) {
        EXPECT_EQ(command_word(command, 0), 0x1400 + second);
        EXPECT_EQ(command_word(command, 1), 0x1500 + second);
    }
}

TEST(Command, IsNoOtherPair) {
    for (unsigned first = 0; first < 128; ++first)
        for (unsigned second = 0; second < 128; ++second) {
            const bool any = (first == 0x14 || first == 0x15 || first == 0x1C || first == 0x1D) &&
                             second >= 0x20 && second <= 0x2F;
            const auto command = command_of(with_parity(make_word(first, second)));
            ASSERT_EQ(command.has_value(), any) << first << " " << second;
            if (any) {
                ASSERT_EQ(*command, second);
            }
        }
}

// First byte of the first channel and lowest second byte of each row.
constexpr std::pair<unsigned, unsigned> kRowCodes[] = {{0x11, 0x40}, {0x11, 0x60}, {0x12, 0x40}, {0x12, 0x60},
                                                       {0x15, 0x40}, {0x15, 0x60}, {0x16, 0x40}, {0x16, 0x60},
                                                       {0x17, 0x40}, {0x17, 0x60}, {0x10, 0x40}, {0x13, 0x40},
                                                       {0x13, 0x60}, {0x14, 0x40}, {0x14, 0x60}};

TEST(Preamble, HasTheCodesOfEveryRow) {
    for (int row = 1; row <= 15; ++row) {
        const auto& [first, second] = kRowCodes[row - 1];
        EXPECT_EQ(italics_pac(row), first * 256 + second + 0x0E) << row;
        for (int indent = 0; indent <= 28; indent += 4)
            EXPECT_EQ(indent_pac(row, indent),
                      first * 256 + second + 0x10 + static_cast<unsigned>(indent) / 2)
                << row << " " << indent;
    }
}

TEST(Preamble, IsReadOfBothChannelsAndWithEveryColour) {
    std::map<std::pair<unsigned, unsigned>, int> rows;  // by first byte and the highest bits of the second
    for (int row = 1; row <= 15; ++row) rows[kRowCodes[row - 1]] = row;
    for (unsigned first = 0; first < 128; ++first)
        for (unsigned second = 0; second < 128; ++second) {
            SCOPED_TRACE(first * 256 + second);
            const bool second_channel = first >= 0x18 && first <= 0x1F;
            const auto row = rows.find({second_channel ? first - 8 : first, second / 32 * 32});
            const auto preamble = preamble_of(with_parity(make_word(first, second)));
            ASSERT_EQ(preamble.has_value(), row != rows.end());
            if (!preamble) continue;
            const unsigned attribute = second % 32;
            ASSERT_EQ(preamble->row, row->second);
            ASSERT_EQ(preamble->italics, attribute == 0x0E || attribute == 0x0F);
            ASSERT_EQ(preamble->column, attribute < 0x10 ? 0 : (static_cast<int>(attribute) - 0x10) / 2 * 4);
        }
}

// The character of each code, and what is sent before it for receivers without the extended sets.
struct SetCase {
    const char* name;
    unsigned first_byte;
    unsigned second_byte;
    std::u32string_view characters;
    std::string_view before;
};

class CharacterSet : public testing::TestWithParam<SetCase> {};

TEST_P(CharacterSet, IsThatOfTheStandard) {
    const SetCase& set = GetParam();
    for (std::size_t n = 0; n < set.characters.size(); ++n) {
        const char32_t character = set.characters[n];
        const Word pair = make_word(set.first_byte, set.second_byte + static_cast<unsigned>(n));
        SCOPED_TRACE(shown(character));
        EXPECT_EQ(special_character(pair), set.before.empty() ? character : 0);
        EXPECT_EQ(extended_character(pair), set.before.empty() ? 0 : character);
        EXPECT_EQ(special_character(pair | 0x8800), special_character(pair));  // the second channel, parity
        EXPECT_EQ(extended_character(pair | 0x8880), extended_character(pair));
        // The transparent space is no text, and the apostrophe is in the basic set, too.
        if (character == U'\u00A0' || character == U'\'') continue;
        const auto glyph = glyph_for(character);
        ASSERT_TRUE(glyph);
        EXPECT_EQ(glyph->pair, pair);
        EXPECT_EQ(glyph->basic, set.before.empty() ? 0 : set.before[n]);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Line21, CharacterSet,
    testing::Values(SetCase{"Special", 0x11, 0x30, U"®°½¿™¢£♪à\u00A0èâêîôû", ""},
                    SetCase{"SpanishAndFrench", 0x12, 0x20, U"ÁÉÓÚÜü‘¡*'—©℠•“”ÀÂÇÈÊËëÎÏïÔÙùÛ«»",
                            "AEOUUu'!.'-cs.\"\"AACEEEeIIiOUuU\"\""},
                    SetCase{"PortugueseAndGerman", 0x13, 0x20, U"ÃãÍÌìÒòÕõ{}\\^_|~ÄäÖöß¥¤¦ÅåØø┌┐└┘",
                            "AaIIiOoOo()/'-!-AaOosYo!AaOo++++"}),
    [](const auto& info) { return info.param.name; });

TEST(CharacterSet, EndsWithItsLastCode) {
    for (unsigned first = 0; first < 128; ++first)
        for (unsigned second = 0; second < 128; ++second) {
            const Word word = make_word(first, second);
            const unsigned of_channel_1 = first & 0x77;
            ASSERT_EQ(special_character(word) != 0, of_channel_1 == 0x11 && second >= 0x30 && second <= 0x3F)
                << first << " " << second;
            ASSERT_EQ(extended_character(word) != 0,
                      (of_channel_1 == 0x12 || of_channel_1 == 0x13) && second >= 0x20 && second <= 0x3F)
                << first << " " << second;
        }
}

TEST(BasicSet, IsAsciiButForTenCharacters) {
    const std::map<unsigned, char32_t> others{{0x2A, U'á'}, {0x5C, U'é'}, {0x5E, U'í'}, {0x5F, U'ó'},
                                              {0x60, U'ú'}, {0x7B, U'ç'}, {0x7C, U'÷'}, {0x7D, U'Ñ'},
                                              {0x7E, U'ñ'}, {0x7F, U'█'}};
    for (unsigned byte = 0x20; byte < 0x80; ++byte) {
        const auto other = others.find(byte);
        const char32_t character = other == others.end() ? byte : other->second;
        EXPECT_EQ(basic_character(static_cast<std::uint8_t>(byte)), character) << byte;
        const auto glyph = glyph_for(character);
        ASSERT_TRUE(glyph) << byte;
        EXPECT_EQ(glyph->basic, byte);
        EXPECT_EQ(glyph->pair, 0);
    }
    EXPECT_FALSE(glyph_for(0x1F));
    EXPECT_FALSE(glyph_for(0x80));
}

// Every character that has one, by the text that is shown instead.
std::map<char32_t, std::u32string> substitutes() {
    const std::pair<std::u32string_view, std::u32string_view> by_text[] = {
        {U"a", U"ª"},   {U"o", U"º"},   {U"-", U"¬‐‑‒–−"}, {U"", U"\u00AD"}, {U"+/-", U"±"}, {U"1", U"¹"},
        {U"2", U"²"},   {U"3", U"³"},   {U"'", U"´ʼ′"},    {U"u", U"µ"},     {U"•", U"·●"},  {U"1/4", U"¼"},
        {U"3/4", U"¾"}, {U"AE", U"Æ"},  {U"ae", U"æ"},     {U"D", U"Ð"},     {U"d", U"ð"},   {U"x", U"×✕"},
        {U"Y", U"Ý"},   {U"y", U"ýÿ"},  {U"Th", U"Þ"},     {U"th", U"þ"},    {U"IJ", U"Ĳ"},  {U"ij", U"ĳ"},
        {U"OE", U"Œ"},  {U"oe", U"œ"},  {U"f", U"ƒ"},      {U"S", U"Ș"},     {U"s", U"ș"},   {U"T", U"Ț"},
        {U"t", U"ț"},   {U"SS", U"ẞ"},  {U"—", U"―"},      {U",", U"‚"},     {U"‘", U"‛"},   {U"“", U"„‟"},
        {U"+", U"†‡"},  {U"...", U"…"}, {U"%", U"‰"},      {U"\"", U"″"},    {U"<", U"‹"},   {U">", U"›"},
        {U"/", U"⁄"},   {U"EUR", U"€"}, {U"No", U"№"},     {U"<-", U"←"},    {U"->", U"→"},  {U"!=", U"≠"},
        {U"<=", U"≤"},  {U">=", U"≥"},  {U"♪", U"♩♫♬"},    {U"█", U"■"}};
    // A letter with an accent, then that letter.
    constexpr std::u32string_view kWithAccent =
        U"ĀAāaĂAăaĄAąaĆCćcĈCĉcĊCċcČCčcĎDďdĐDđdĒEēeĔEĕeĖEėeĘEęeĚEěeĜGĝgĞGğgĠGġgĢGģgĤHĥhĦHħhĨIĩiĪIīiĬIĭiĮIįiİIı"
        U"i"
        U"ĴJĵjĶKķkĸkĹLĺlĻLļlĽLľlĿLŀlŁLłlŃNńnŅNņnŇNňnŉnŊNŋnŌOōoŎOŏoŐOőoŔRŕrŖRŗrŘRřrŚSśsŜSŝsŞSşsŠSšsŢTţtŤTťtŦTŧ"
        U"t"
        U"ŨUũuŪUūuŬUŭuŮUůuŰUűuŲUųuŴWŵwŶYŷyŸYŹZźzŻZżzŽZžzſs";
    const std::tuple<std::u32string_view, char32_t, char32_t> ranges[] = {
        {U"", 0x0000, 0x001F},  {U"", 0x007F, 0x009F}, {U" ", 0x00A0, 0x00A0}, {U"", 0x0300, 0x036F},
        {U" ", 0x2000, 0x200A}, {U"", 0x200B, 0x200F}, {U"", 0x202A, 0x202E},  {U" ", 0x202F, 0x202F},
        {U" ", 0x205F, 0x205F}, {U"", 0x2060, 0x2064}, {U" ", 0x3000, 0x3000}, {U"", 0xFE00, 0xFE0F},
        {U"", 0xFEFF, 0xFEFF}};
    std::map<char32_t, std::u32string> expected;
    for (const auto& [text, characters] : by_text)
        for (const char32_t character : characters) expected[character] = text;
    for (std::size_t n = 0; n < kWithAccent.size(); n += 2)
        expected[kWithAccent[n]] = kWithAccent.substr(n + 1, 1);
    for (const auto& [text, first, last] : ranges)
        for (char32_t character = first; character <= last; ++character) expected[character] = text;
    return expected;
}

TEST(Substitute, IsTheNearestRelativeAndElseAQuestionMark) {
    const std::map<char32_t, std::u32string> expected = substitutes();
    for (char32_t character = 0; character < 0x11000; ++character) {
        if (glyph_for(character)) continue;
        const auto known = expected.find(character);
        ASSERT_EQ(encode_utf8(substitute_for(character)),
                  known == expected.end() ? "?" : encode_utf8(known->second))
            << shown(character);
    }
}

TEST(CombiningMark, IsOneOfTheirBlock) {
    EXPECT_FALSE(is_combining_mark(0x02FF));
    EXPECT_TRUE(is_combining_mark(0x0300));
    EXPECT_TRUE(is_combining_mark(0x036F));
    EXPECT_FALSE(is_combining_mark(0x0370));
}

// What each mark makes of the letters.
TEST(Compose, KnowsTheLettersOfWesternEurope) {
    const std::tuple<char32_t, std::u32string_view, std::u32string_view> marks[] = {
        {0x0300, U"AEIOUaeiou", U"ÀÈÌÒÙàèìòù"},
        {0x0301, U"AEIOUYaeiouy", U"ÁÉÍÓÚÝáéíóúý"},
        {0x0302, U"AEIOUaeiou", U"ÂÊÎÔÛâêîôû"},
        {0x0303, U"ANOano", U"ÃÑÕãñõ"},
        {0x0308, U"AEIOUaeiouy", U"ÄËÏÖÜäëïöüÿ"},
        {0x030A, U"Aa", U"Åå"},
        {0x0327, U"Cc", U"Çç"}};
    std::map<std::pair<char32_t, char32_t>, char32_t> expected;
    for (const auto& [mark, letters, composed] : marks)
        for (std::size_t n = 0; n < letters.size(); ++n) expected[{letters[n], mark}] = composed[n];
    for (char32_t mark = 0x02F0; mark < 0x0380; ++mark)
        for (char32_t letter = U'A'; letter <= U'z'; ++letter) {
            const auto known = expected.find({letter, mark});
            ASSERT_EQ(compose(letter, mark), known == expected.end() ? 0 : known->second)
                << shown(letter) << " " << shown(mark);
        }
}

}  // namespace
}  // namespace gsve::captions
