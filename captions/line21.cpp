#include "line21.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace gsve::captions {

namespace {

// First byte and base of the second byte, for rows 1 to 15.
struct RowCode {
    std::uint8_t first;
    std::uint8_t second;
};
constexpr std::array<RowCode, kRows> kRowCodes{{
    {0x11, 0x40},
    {0x11, 0x60},
    {0x12, 0x40},
    {0x12, 0x60},
    {0x15, 0x40},
    {0x15, 0x60},
    {0x16, 0x40},
    {0x16, 0x60},
    {0x17, 0x40},
    {0x17, 0x60},
    {0x10, 0x40},
    {0x13, 0x40},
    {0x13, 0x60},
    {0x14, 0x40},
    {0x14, 0x60},
}};

constexpr std::uint8_t kPacItalics = 0x0E;
constexpr std::uint8_t kPacIndent = 0x10;

struct BasicException {
    std::uint8_t byte;
    char32_t character;
};
// Where the basic set differs from ASCII. Byte 0x27 is the apostrophe, for which ASCII's is read.
constexpr BasicException kBasicExceptions[] = {
    {0x2A, U'á'}, {0x5C, U'é'}, {0x5E, U'í'}, {0x5F, U'ó'}, {0x60, U'ú'},
    {0x7B, U'ç'}, {0x7C, U'÷'}, {0x7D, U'Ñ'}, {0x7E, U'ñ'}, {0x7F, U'█'},
};

constexpr std::u32string_view kSpecial = U"®°½¿™¢£♪à\u00A0èâêîôû";                // 0x11 0x30
constexpr std::u32string_view kExtended1 = U"ÁÉÓÚÜü‘¡*'—©℠•“”ÀÂÇÈÊËëÎÏïÔÙùÛ«»";   // 0x12 0x20
constexpr std::u32string_view kExtended2 = U"ÃãÍÌìÒòÕõ{}\\^_|~ÄäÖöß¥¤¦ÅåØø┌┐└┘";  // 0x13 0x20
constexpr std::string_view kFallback1 = "AEOUUu'!.'-cs.\"\"AACEEEeIIiOUuU\"\"";
constexpr std::string_view kFallback2 = "AaIIiOoOo()/'-!-AaOosYo!AaOo++++";
static_assert(kSpecial.size() == 16 && kExtended1.size() == 32 && kExtended2.size() == 32);
static_assert(kFallback1.size() == 32 && kFallback2.size() == 32);

constexpr char32_t kTransparentSpace = U'\u00A0';

struct Substitute {
    char32_t character;
    std::u32string_view text;
};
constexpr Substitute kSubstitutes[] = {
    {0x00AA, U"a"},   {0x00AC, U"-"},  {0x00AD, U""},   {0x00B1, U"+/-"}, {0x00B2, U"2"},   {0x00B3, U"3"},
    {0x00B4, U"'"},   {0x00B5, U"u"},  {0x00B7, U"•"},  {0x00B9, U"1"},   {0x00BA, U"o"},   {0x00BC, U"1/4"},
    {0x00BE, U"3/4"}, {0x00C6, U"AE"}, {0x00D0, U"D"},  {0x00D7, U"x"},   {0x00DD, U"Y"},   {0x00DE, U"Th"},
    {0x00E6, U"ae"},  {0x00F0, U"d"},  {0x00FD, U"y"},  {0x00FE, U"th"},  {0x00FF, U"y"},   {0x0132, U"IJ"},
    {0x0133, U"ij"},  {0x0152, U"OE"}, {0x0153, U"oe"}, {0x0192, U"f"},   {0x0218, U"S"},   {0x0219, U"s"},
    {0x021A, U"T"},   {0x021B, U"t"},  {0x02BC, U"'"},  {0x1E9E, U"SS"},  {0x2010, U"-"},   {0x2011, U"-"},
    {0x2012, U"-"},   {0x2013, U"-"},  {0x2015, U"—"},  {0x201A, U","},   {0x201B, U"‘"},   {0x201E, U"“"},
    {0x201F, U"“"},   {0x2020, U"+"},  {0x2021, U"+"},  {0x2026, U"..."}, {0x2030, U"%"},   {0x2032, U"'"},
    {0x2033, U"\""},  {0x2039, U"<"},  {0x203A, U">"},  {0x2044, U"/"},   {0x20AC, U"EUR"}, {0x2116, U"No"},
    {0x2190, U"<-"},  {0x2192, U"->"}, {0x2212, U"-"},  {0x2260, U"!="},  {0x2264, U"<="},  {0x2265, U">="},
    {0x266B, U"♪"},   {0x266C, U"♪"},  {0x2669, U"♪"},  {0x25A0, U"█"},   {0x25CF, U"•"},   {0x2715, U"x"},
    {0xFFFD, U"?"},
};

// U+0100 to U+017F without their accents, in order; '?' where a table entry above serves.
constexpr std::u32string_view kLatinExtendedA =
    U"AaAaAaCcCcCcCcDdDdEeEeEeEeEeGgGgGgGgHhHhIiIiIiIiIi??JjKkkLlLlLlLlLlNnNnNnnNnOoOoOo??"
    U"RrRrRrSsSsSsSsTtTtTt"
    U"UuUuUuUuUuUuWwYyYZzZzZzs";
static_assert(kLatinExtendedA.size() == 128);

struct Composition {
    char32_t mark;
    std::u32string_view letters;
    std::u32string_view composed;
};
constexpr Composition kCompositions[] = {
    {0x0300, U"AEIOUaeiou", U"ÀÈÌÒÙàèìòù"},
    {0x0301, U"AEIOUYaeiouy", U"ÁÉÍÓÚÝáéíóúý"},
    {0x0302, U"AEIOUaeiou", U"ÂÊÎÔÛâêîôû"},
    {0x0303, U"ANOano", U"ÃÑÕãñõ"},
    {0x0308, U"AEIOUaeiouy", U"ÄËÏÖÜäëïöüÿ"},
    {0x030A, U"Aa", U"Åå"},
    {0x0327, U"Cc", U"Çç"},
};

bool is_invisible(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x200B && c <= 0x200F) ||
           (c >= 0x202A && c <= 0x202E) || (c >= 0x2060 && c <= 0x2064) || c == 0xFEFF ||
           (c >= 0xFE00 && c <= 0xFE0F);
}

bool is_space(char32_t c) {
    return c == 0x00A0 || (c >= 0x2000 && c <= 0x200A) || c == 0x202F || c == 0x205F || c == 0x3000;
}

}  // namespace

Word indent_pac(int row, int indent) {
    const RowCode code = kRowCodes[static_cast<std::size_t>(row - 1)];
    return make_word(code.first, code.second | kPacIndent | static_cast<unsigned>(indent / 4 * 2));
}

Word italics_pac(int row) {
    const RowCode code = kRowCodes[static_cast<std::size_t>(row - 1)];
    return make_word(code.first, code.second | kPacItalics);
}

std::optional<Preamble> preamble_of(Word word) {
    const std::uint8_t first = first_byte(word) & 0xF7;
    const std::uint8_t second = second_byte(word);
    const auto code = std::find_if(kRowCodes.begin(), kRowCodes.end(), [&](RowCode row) {
        return is_control(word) && row.first == first && row.second == (second & 0x60);
    });
    if (code == kRowCodes.end()) return std::nullopt;
    const int row = static_cast<int>(code - kRowCodes.begin()) + 1;
    const std::uint8_t attribute = second & 0x1E;
    const int column = attribute & kPacIndent ? (attribute & 0x0E) * 2 : 0;
    return Preamble{row, column, attribute == kPacItalics};
}

std::optional<Glyph> glyph_for(char32_t character) {
    if (character == U'\u2019') return Glyph{0x27, 0};
    for (const BasicException& exception : kBasicExceptions)
        if (exception.character == character) return Glyph{exception.byte, 0};
    if (character >= 0x20 && character < 0x7F &&
        basic_character(static_cast<std::uint8_t>(character)) == character)
        return Glyph{static_cast<std::uint8_t>(character), 0};
    if (const auto at = kSpecial.find(character); at != kSpecial.npos && character != kTransparentSpace)
        return Glyph{0, make_word(0x11, 0x30 + static_cast<unsigned>(at))};
    if (const auto at = kExtended1.find(character); at != kExtended1.npos)
        return Glyph{static_cast<std::uint8_t>(kFallback1[at]),
                     make_word(0x12, 0x20 + static_cast<unsigned>(at))};
    if (const auto at = kExtended2.find(character); at != kExtended2.npos)
        return Glyph{static_cast<std::uint8_t>(kFallback2[at]),
                     make_word(0x13, 0x20 + static_cast<unsigned>(at))};
    return std::nullopt;
}

char32_t basic_character(std::uint8_t byte) {
    for (const BasicException& exception : kBasicExceptions)
        if (exception.byte == byte) return exception.character;
    return byte;
}

char32_t special_character(Word word) {
    const std::uint8_t second = second_byte(word);
    if ((first_byte(word) & 0xF7) != 0x11 || second < 0x30 || second > 0x3F) return 0;
    return kSpecial[second - 0x30U];
}

char32_t extended_character(Word word) {
    const std::uint8_t first = first_byte(word) & 0xF7, second = second_byte(word);
    if ((first != 0x12 && first != 0x13) || second < 0x20 || second > 0x3F) return 0;
    return (first == 0x12 ? kExtended1 : kExtended2)[second - 0x20U];
}

std::u32string_view substitute_for(char32_t character) {
    if (is_invisible(character) || is_combining_mark(character)) return U"";
    if (is_space(character)) return U" ";
    const auto entry = std::find_if(std::begin(kSubstitutes), std::end(kSubstitutes),
                                    [&](const Substitute& s) { return s.character == character; });
    if (entry != std::end(kSubstitutes)) return entry->text;
    if (character >= 0x0100 && character < 0x0180) return kLatinExtendedA.substr(character - 0x0100, 1);
    return U"?";
}

char32_t compose(char32_t letter, char32_t mark) {
    for (const Composition& composition : kCompositions)
        if (composition.mark == mark)
            if (const auto at = composition.letters.find(letter); at != composition.letters.npos)
                return composition.composed[at];
    return 0;
}

}  // namespace gsve::captions
