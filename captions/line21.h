#pragma once

/// The code space of CTA-608 (EIA-608, line 21): parity, control codes, rows and character sets.
///
/// A Word is one byte pair, first byte in the high eight bits. Unless a function says otherwise, parity
/// bits are not looked at. Rows count from 1 (top) to 15, columns from 0 to 31.
///
/// Example: the code pair that moves to row 15, column 4
///     Word pac = with_parity(indent_pac(15, 4));      // 0x9472

#include <bit>
#include <cstdint>
#include <optional>
#include <string_view>

namespace gsve::captions {

using Word = std::uint16_t;

inline constexpr int kFields = 2;
inline constexpr int kChannels = 4;  ///< two of each field: CC1 to CC4, T1 to T4
inline constexpr int kRows = 15;
inline constexpr int kColumns = 32;

/// The pair that carries nothing, with parity.
inline constexpr Word kNullPair = 0x8080;

constexpr std::uint8_t first_byte(Word word) { return static_cast<std::uint8_t>(word >> 8 & 0x7F); }
constexpr std::uint8_t second_byte(Word word) { return static_cast<std::uint8_t>(word & 0x7F); }

constexpr Word make_word(unsigned first, unsigned second) { return static_cast<Word>(first << 8 | second); }

constexpr bool has_odd_parity(std::uint8_t byte) { return std::popcount(byte) % 2 == 1; }

constexpr std::uint8_t with_odd_parity(std::uint8_t byte) {
    const std::uint8_t low = byte & 0x7F;
    return has_odd_parity(low) ? low : static_cast<std::uint8_t>(low | 0x80);
}

/// The pair with both parity bits set right.
constexpr Word with_parity(Word word) {
    return make_word(with_odd_parity(static_cast<std::uint8_t>(word >> 8)),
                     with_odd_parity(static_cast<std::uint8_t>(word & 0xFF)));
}

constexpr bool has_parity(Word word) { return with_parity(word) == word; }
constexpr bool is_null(Word word) { return (word & 0x7F7F) == 0; }

/// Control pairs (first byte 0x10 to 0x1F) are sent twice; a receiver ignores the repetition.
constexpr bool is_control(Word word) { return (first_byte(word) & 0x70) == 0x10; }

/// Second bytes of the miscellaneous control codes (first byte 0x14 in field 1, 0x15 in field 2; with 0x08
/// added for the second channel of the field).
enum Command : std::uint8_t {
    kResumeCaptionLoading = 0x20,
    kBackspace = 0x21,
    kDeleteToEndOfRow = 0x24,
    kRollUp2 = 0x25,
    kRollUp3 = 0x26,
    kRollUp4 = 0x27,
    kFlashOn = 0x28,
    kResumeDirectCaptioning = 0x29,
    kTextRestart = 0x2A,
    kResumeTextDisplay = 0x2B,
    kEraseDisplayedMemory = 0x2C,
    kCarriageReturn = 0x2D,
    kEraseNonDisplayedMemory = 0x2E,
    kEndOfCaption = 0x2F,
};

/// A miscellaneous control code of the field's first channel (CC1 for field 0, CC3 for field 1).
constexpr Word command_word(Command command, int field) {
    return make_word(field == 0 ? 0x14 : 0x15, command);
}

/// Whether the pair is a miscellaneous control code, of either field and channel; and which.
constexpr std::optional<Command> command_of(Word word) {
    const unsigned code = first_byte(word) & ~0x08U;
    const std::uint8_t second = second_byte(word);
    if ((code != 0x14 && code != 0x15) || second < 0x20 || second > 0x2F) return std::nullopt;
    return static_cast<Command>(second);
}

/// The pair as it is to be sent in a field: of the miscellaneous control codes each field has its own, and
/// receivers ignore those of the other. Any other pair stays as it is.
constexpr Word in_field(Word word, int field) {
    constexpr Word kField2 = 0x0100;
    if (!command_of(word)) return word;
    const Word own = field == 0 ? word & ~kField2 : word | kField2;
    return first_byte(own) == first_byte(word) ? word : with_parity(own);
}

/// Mid-row codes: they take one column, shown as a space.
inline constexpr Word kMidRowWhite = 0x1120;
inline constexpr Word kMidRowItalics = 0x112E;

/// Tab offset by 1 to 3 columns.
constexpr Word tab_offset(int columns) { return make_word(0x17, 0x20 + static_cast<unsigned>(columns)); }

/// Preamble address codes: white text at an indent of 0, 4, ... 28 columns, or italics at column 0.
Word indent_pac(int row, int indent);
Word italics_pac(int row);

struct Preamble {
    int row;
    int column;
    bool italics;
};

/// What a preamble address code says; nothing for another pair.
std::optional<Preamble> preamble_of(Word word);

/// How a character is sent: `pair` 0 for one of the basic set, which is the single byte `basic`; otherwise
/// the two-byte code. An extended character replaces the character before it, so that `basic` is sent
/// first, for receivers without the extended set; a special character has `basic` 0.
struct Glyph {
    std::uint8_t basic;
    Word pair;
};

std::optional<Glyph> glyph_for(char32_t character);

/// The character of a byte of the basic set (0x20 to 0x7F).
char32_t basic_character(std::uint8_t byte);

/// The character of a special (0x11 0x30..0x3F) or extended (0x12, 0x13 0x20..0x3F) pair; 0 for another.
/// The transparent space comes back as U+00A0.
char32_t special_character(Word word);
char32_t extended_character(Word word);

constexpr bool is_combining_mark(char32_t character) { return character >= 0x0300 && character <= 0x036F; }

/// What to write for a character outside the sets: its nearest relatives, "" for an invisible character
/// and for a combining mark, "?" when there is none. Every character of the result has a glyph.
std::u32string_view substitute_for(char32_t character);

/// The character that a letter and a following combining mark (U+0300 to U+036F) make; 0 when unknown.
char32_t compose(char32_t letter, char32_t mark);

}  // namespace gsve::captions
