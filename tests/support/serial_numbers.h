#pragma once

// Serial numbers inside everything that a host can give with a picture, so that what comes out of a decoder
// can be held against what went in, item by item.

#include <bit>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <orb_utils_v4/cea708.h>
#include <orb_utils_v4/mpeg12_video.h>

#include "support/bytes.h"
#include "support/caption_blocks.h"

namespace gsve::test {

using Serial = uint64_t;

/// One serial number of a kind of item: numbers count up from 0 and wrap where the item has no more bits.
struct Kind {
    const char* name;
    Serial modulus;
};

// EIA-608 words hold 14 bits beside the parity; all zeros are padding.

inline constexpr Serial kWordSerials = 0x3FFF;

inline uint16_t numbered_word(Serial serial) {
    const auto bits = static_cast<uint16_t>(serial % kWordSerials + 1);
    return static_cast<uint16_t>((bits >> 7) << 8 | (bits & 0x7F));
}

/// Nothing for padding.
inline std::optional<Serial> word_serial(uint8_t first, uint8_t second) {
    const unsigned bits = (first & 0x7Fu) << 7 | (second & 0x7Fu);
    if (bits == 0) return std::nullopt;
    return bits - 1;
}

// CEA-708 constructs hold 16 bits and the choice of two headers.

inline constexpr Serial kConstructSerials = 0x20000;

inline zeph_cea708_word numbered_construct(Serial serial) {
    return {static_cast<uint8_t>(0xFE | (serial >> 16 & 1)), static_cast<uint16_t>(serial)};
}

inline Serial construct_serial(uint8_t header, uint8_t high, uint8_t low) {
    return (header & 1u) << 16 | static_cast<unsigned>(high) << 8 | low;
}

// SCTE-20 bodies hold two byte pairs of 28 bits in all, and filler behind them.

inline constexpr Serial kBlockSerials = 1u << 28;

inline uint8_t reversed_bits(uint8_t byte) {
    uint8_t result = 0;
    for (int bit = 0; bit < 8; bit++) result = static_cast<uint8_t>(result | (byte >> bit & 1) << (7 - bit));
    return result;
}

/// Every byte has odd parity, so that no start code can come about.
inline Bytes numbered_block(Serial serial, size_t size) {
    std::vector<bool> bits;
    const auto put = [&](unsigned value, int count) {
        for (int bit = count - 1; bit >= 0; bit--) bits.push_back(value >> bit & 1);
    };
    put(0x40, 7);  // reserved
    put(1, 1);     // vbi_data_flag
    put(2, 5);     // cc_count
    for (int pair = 0; pair < 2; pair++) {
        put(0, 2);   // cc_priority
        put(1, 2);   // field_number
        put(11, 5);  // line_offset: line 21
        for (int byte = 0; byte < 2; byte++)
            put(reversed_bits(odd_parity(static_cast<uint8_t>(serial >> 7 * (pair * 2 + byte) & 0x7F))), 8);
        put(1, 1);  // marker_bit
    }
    while (bits.size() % 8) bits.push_back(true);
    Bytes body(bits.size() / 8);
    for (size_t i = 0; i < bits.size(); i++)
        if (bits[i]) body[i / 8] = static_cast<uint8_t>(body[i / 8] | 0x80 >> i % 8);
    if (size > body.size()) body = body + filler(size - body.size(), static_cast<uint8_t>(serial));
    return body;
}

inline constexpr size_t kSmallestBlock = 9;

/// From the four bytes of the two pairs.
inline Serial block_serial(const uint8_t (&bytes)[4]) {
    Serial serial = 0;
    for (int i = 0; i < 4; i++) serial |= static_cast<Serial>(bytes[i] & 0x7F) << 7 * i;
    return serial;
}

// Time codes number the pictures of a day but for its first hour, in which the codec's own lie.

inline constexpr Serial kCodeSerials = 23 * 60 * 60 * 60;

inline mpeg2_gop_timecode_t numbered_timecode(Serial serial) {
    const Serial number = serial % kCodeSerials;
    mpeg2_gop_timecode_t code;
    code.valid = 1;
    code.drop_frame_flag = number & 1;
    code.pictures = static_cast<uint8_t>(number % 60);
    code.seconds = static_cast<uint8_t>(number / 60 % 60);
    code.minutes = static_cast<uint8_t>(number / 3600 % 60);
    code.hours = static_cast<uint8_t>(1 + number / 216000);
    return code;
}

/// From the 25 bits of a GOP header. Nothing for a code of the codec's own.
inline std::optional<Serial> timecode_serial(int64_t bits) {
    const Serial hours = bits >> 19 & 31, minutes = bits >> 13 & 63, seconds = bits >> 6 & 63;
    if (hours == 0) return std::nullopt;
    return (((hours - 1) * 60 + minutes) * 60 + seconds) * 60 + (bits & 63);
}

inline constexpr Kind kField1 = {"EIA-608 word of field 1", kWordSerials};
inline constexpr Kind kField2 = {"EIA-608 word of field 2", kWordSerials};
inline constexpr Kind kConstruct = {"CEA-708 construct", kConstructSerials};
inline constexpr Kind kBlock = {"SCTE-20 block", kBlockSerials};
inline constexpr Kind kTimecode = {"GOP time code", kCodeSerials};
inline constexpr Kind kTag = {"host tag", UINT64_MAX};

// Comparison

/// An item and the picture that it belongs to or was found on.
struct Placed {
    Serial serial;
    size_t picture;
};

/// What is wrong with the items that were read, of which only the serial's remainder is known: the first that
/// is missing, doubled, out of order, foreign or on another picture. Empty when nothing is.
inline std::string difference(const Kind& kind, const std::vector<Placed>& expected,
                              const std::vector<Placed>& read) {
    const auto same = [&](const Placed& want, const Placed& got) {
        return want.serial % kind.modulus == got.serial;
    };
    const auto reads = [&](const Placed& want, size_t from) {
        for (size_t i = from; i < read.size(); i++)
            if (same(want, read[i])) return true;
        return false;
    };
    size_t i = 0;
    while (i < expected.size() && i < read.size() && same(expected[i], read[i]) &&
           expected[i].picture == read[i].picture)
        i++;
    if (i == expected.size() && i == read.size()) return {};

    std::ostringstream text;
    text << kind.name << " ";
    if (i == read.size()) {
        text << "#" << expected[i].serial << " of picture " << expected[i].picture << " is missing, and "
             << expected.size() - i - 1 << " after it";
        return text.str();
    }
    const Placed& got = read[i];
    for (size_t earlier = 0; earlier < i; earlier++)
        if (same(expected[earlier], got)) {
            text << "#" << expected[earlier].serial << " is doubled: read on picture "
                 << read[earlier].picture << " and again on picture " << got.picture;
            return text.str();
        }
    if (i == expected.size()) {
        text << got.serial << " (modulo " << kind.modulus << ") on picture " << got.picture
             << " was never given, and " << read.size() - i - 1 << " after it";
        return text.str();
    }
    const Placed& want = expected[i];
    text << "#" << want.serial << " of picture " << want.picture;
    if (same(want, got))
        text << " is on picture " << got.picture;
    else if (reads(want, i + 1))
        text << " is out of order: " << got.serial << " (modulo " << kind.modulus << ") on picture "
             << got.picture << " stands before it";
    else
        text << " is missing: " << got.serial << " (modulo " << kind.modulus << ") on picture " << got.picture
             << " stands in its place";
    return text.str();
}

}  // namespace gsve::test
