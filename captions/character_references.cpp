#include "character_references.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace gsve::captions {

namespace {

struct Entity {
    std::string_view name;
    char32_t character;
};
constexpr Entity kEntities[] = {
    {"Tab", U'\t'},        {"NewLine", U'\n'},    {"excl", U'!'},        {"quot", U'"'},
    {"num", U'#'},         {"dollar", U'$'},      {"percnt", U'%'},      {"amp", U'&'},
    {"apos", U'\''},       {"lpar", U'('},        {"rpar", U')'},        {"ast", U'*'},
    {"plus", U'+'},        {"comma", U','},       {"period", U'.'},      {"sol", U'/'},
    {"colon", U':'},       {"semi", U';'},        {"lt", U'<'},          {"equals", U'='},
    {"gt", U'>'},          {"quest", U'?'},       {"commat", U'@'},      {"lsqb", U'['},
    {"lbrack", U'['},      {"bsol", U'\\'},       {"rsqb", U']'},        {"rbrack", U']'},
    {"Hat", U'^'},         {"lowbar", U'_'},      {"grave", U'`'},       {"lcub", U'{'},
    {"lbrace", U'{'},      {"verbar", U'|'},      {"vert", U'|'},        {"rcub", U'}'},
    {"rbrace", U'}'},      {"OElig", U'\u0152'},  {"oelig", U'\u0153'},  {"Scaron", U'\u0160'},
    {"scaron", U'\u0161'}, {"Yuml", U'\u0178'},   {"Zcaron", U'\u017D'}, {"zcaron", U'\u017E'},
    {"fnof", U'\u0192'},   {"ensp", U'\u2002'},   {"emsp", U'\u2003'},   {"thinsp", U'\u2009'},
    {"zwnj", U'\u200C'},   {"zwj", U'\u200D'},    {"lrm", U'\u200E'},    {"rlm", U'\u200F'},
    {"hyphen", U'\u2010'}, {"ndash", U'\u2013'},  {"mdash", U'\u2014'},  {"horbar", U'\u2015'},
    {"lsquo", U'\u2018'},  {"rsquo", U'\u2019'},  {"sbquo", U'\u201A'},  {"ldquo", U'\u201C'},
    {"rdquo", U'\u201D'},  {"bdquo", U'\u201E'},  {"dagger", U'\u2020'}, {"Dagger", U'\u2021'},
    {"bull", U'\u2022'},   {"hellip", U'\u2026'}, {"permil", U'\u2030'}, {"prime", U'\u2032'},
    {"Prime", U'\u2033'},  {"lsaquo", U'\u2039'}, {"rsaquo", U'\u203A'}, {"frasl", U'\u2044'},
    {"euro", U'\u20AC'},   {"numero", U'\u2116'}, {"trade", U'\u2122'},  {"larr", U'\u2190'},
    {"rarr", U'\u2192'},   {"minus", U'\u2212'},  {"ne", U'\u2260'},     {"le", U'\u2264'},
    {"ge", U'\u2265'},     {"boxdr", U'\u250C'},  {"boxdl", U'\u2510'},  {"boxur", U'\u2514'},
    {"boxul", U'\u2518'},  {"block", U'\u2588'},  {"sung", U'\u266A'},
};

// U+00A0 to U+00FF, in order.
constexpr std::string_view kLatin1[] = {
    "nbsp",   "iexcl",  "cent",   "pound",  "curren", "yen",    "brvbar", "sect",   "uml",    "copy",
    "ordf",   "laquo",  "not",    "shy",    "reg",    "macr",   "deg",    "plusmn", "sup2",   "sup3",
    "acute",  "micro",  "para",   "middot", "cedil",  "sup1",   "ordm",   "raquo",  "frac14", "frac12",
    "frac34", "iquest", "Agrave", "Aacute", "Acirc",  "Atilde", "Auml",   "Aring",  "AElig",  "Ccedil",
    "Egrave", "Eacute", "Ecirc",  "Euml",   "Igrave", "Iacute", "Icirc",  "Iuml",   "ETH",    "Ntilde",
    "Ograve", "Oacute", "Ocirc",  "Otilde", "Ouml",   "times",  "Oslash", "Ugrave", "Uacute", "Ucirc",
    "Uuml",   "Yacute", "THORN",  "szlig",  "agrave", "aacute", "acirc",  "atilde", "auml",   "aring",
    "aelig",  "ccedil", "egrave", "eacute", "ecirc",  "euml",   "igrave", "iacute", "icirc",  "iuml",
    "eth",    "ntilde", "ograve", "oacute", "ocirc",  "otilde", "ouml",   "divide", "oslash", "ugrave",
    "uacute", "ucirc",  "uuml",   "yacute", "thorn",  "yuml"};
static_assert(std::size(kLatin1) == 96);

// 128 to 159 in Windows-1252; those that it leaves out stay what they are.
constexpr std::u32string_view kWindows1252 =
    U"\u20AC\x81\u201A\u0192\u201E\u2026\u2020\u2021\u02C6\u2030\u0160\u2039\u0152\x8D\u017D\x8F"
    U"\x90\u2018\u2019\u201C\u201D\u2022\u2013\u2014\u02DC\u2122\u0161\u203A\u0153\x9D\u017E\u0178";
static_assert(kWindows1252.size() == 32);

constexpr char32_t kReplacement = U'\uFFFD';

char32_t named(std::string_view name) {
    for (const Entity& entity : kEntities)
        if (entity.name == name) return entity.character;
    const auto latin1 = std::find(std::begin(kLatin1), std::end(kLatin1), name);
    if (latin1 == std::end(kLatin1)) return 0;
    return static_cast<char32_t>(0xA0 + (latin1 - std::begin(kLatin1)));
}

// More than any base has digits when it is none.
std::size_t digit_of(char c) {
    constexpr std::string_view kLower = "0123456789abcdef", kUpper = "0123456789ABCDEF";
    return std::min(kLower.find(c), kUpper.find(c));
}

// What follows "&#"; 0 when it is not a number.
char32_t numbered(std::string_view digits) {
    constexpr char32_t kLast = 0x10FFFF;
    const bool hexadecimal = digits.starts_with('x') || digits.starts_with('X');
    if (hexadecimal) digits.remove_prefix(1);
    if (digits.empty()) return 0;
    const char32_t base = hexadecimal ? 16 : 10;
    char32_t value = 0;
    for (const char c : digits) {
        const std::size_t digit = digit_of(c);
        if (digit >= base) return 0;
        value = std::min(value * base + static_cast<char32_t>(digit), kLast + 1);
    }
    if (value >= 128 && value < 160) return kWindows1252[value - 128];
    const bool surrogate = value >= 0xD800 && value < 0xE000;
    return value == 0 || value > kLast || surrogate ? kReplacement : value;
}

}  // namespace

std::optional<CharacterReference> reference_at(std::u32string_view text) {
    if (!text.starts_with(U'&')) return std::nullopt;
    std::string name;
    for (const char32_t c : text.substr(1)) {
        const bool letter = (c >= U'A' && c <= U'Z') || (c >= U'a' && c <= U'z') || (c >= U'0' && c <= U'9');
        if (!letter && (c != U'#' || !name.empty())) break;
        name.push_back(static_cast<char>(c));
    }
    const std::size_t length = name.size() + 2;
    if (name.empty() || text.size() < length || text[length - 1] != U';') return std::nullopt;
    const bool number = name[0] == '#';
    return CharacterReference{number ? numbered(std::string_view(name).substr(1)) : named(name), length};
}

}  // namespace gsve::captions
