#pragma once

// What the caption carriers must hold for given words, composed from ATSC A/53 Part 4 (6.2.3) and CTA-608
// independently of the encoder.

#include <bit>
#include <cstdint>
#include <string>
#include <vector>

#include <orb_utils_v4/cea708.h>

#include "support/bytes.h"

namespace gsve::test {

/// The captions of one picture.
struct Captions {
    uint16_t field1 = 0;
    uint16_t field2 = 0;
    std::vector<zeph_cea708_word> words = {};
};

struct Rate {
    int num = 30000;
    int den = 1001;
    unsigned divider = 1;

    double real() const { return static_cast<double>(num) / (static_cast<double>(den) * divider); }
    int whole() const { return num / (den * static_cast<int>(divider)); }
};

inline uint8_t odd_parity(uint8_t byte) {
    const uint8_t bits = byte & 0x7F;
    return std::popcount(bits) % 2 == 1 ? bits : static_cast<uint8_t>(bits | 0x80);
}

/// A byte pair as it leaves: both bytes with odd parity, so that no word at all is 80 80.
inline Bytes byte_pair(uint16_t word) {
    return {odd_parity(static_cast<uint8_t>(word >> 8)), odd_parity(static_cast<uint8_t>(word))};
}

/// Constructs that one picture carries: 600 a second, and a few more below 25 pictures.
inline unsigned cc_count(const Rate& rate) {
    const struct {
        double from;
        unsigned count;
    } counts[] = {{59.0, 10}, {49.0, 12}, {29.0, 20}, {24.9, 24}, {0.0, 25}};
    for (const auto& row : counts)
        if (rate.real() >= row.from) return row.count;
    return 0;
}

/// cc_data from the byte with cc_count to the marker byte. Above 40 pictures a second a picture with one word
/// or none carries a single EIA-608 construct, of field 1 when `pts` is even and of field 2 when it is odd.
inline Bytes cc_data(const Rate& rate, uint64_t pts, const Captions& captions) {
    const unsigned count = cc_count(rate);
    const Bytes no_word = {0x80, 0x80};
    const Bytes field1 = byte_pair(captions.field1);
    const Bytes field2 = byte_pair(captions.field2);
    const bool odd = pts % 2 == 1;
    const bool off_beat = (field1 != no_word && (odd || field2 != no_word)) || (field2 != no_word && !odd);
    const bool both = rate.whole() <= 40 || off_beat;

    Bytes constructs;
    if (both || !odd) constructs = constructs + Bytes{0xFC} + field1;
    if (both || odd) constructs = constructs + Bytes{0xFD} + field2;
    for (const zeph_cea708_word& word : captions.words)
        if (word.header >= 0xFE && constructs.size() < 3 * count)
            constructs = constructs + Bytes{word.header, static_cast<uint8_t>(word.value >> 8),
                                            static_cast<uint8_t>(word.value)};
    while (constructs.size() < 3 * count) constructs = constructs + Bytes{0xFA, 0x00, 0x00};
    return Bytes{static_cast<uint8_t>(0x40 | count), 0x00} + constructs + Bytes{0xFF};
}

/// Picture user data with cc_data.
inline Bytes ga94_user_data(const Rate& rate, uint64_t pts, const Captions& captions) {
    return from_hex("00 00 01 B2 47 41 39 34 03") + cc_data(rate, pts, captions);
}

/// The SEI message with cc_data and the trailing bits of its RBSP.
inline Bytes cc_sei(const Rate& rate, uint64_t pts, const Captions& captions) {
    const Bytes body = from_hex("B5 00 31 47 41 39 34 03") + cc_data(rate, pts, captions);
    return Bytes{0x04, static_cast<uint8_t>(body.size())} + body + Bytes{0x80};
}

/// "CC" user data with the words of successive pictures.
inline Bytes cc_user_data(const std::vector<Captions>& pictures) {
    Bytes data = from_hex("00 00 01 B2 43 43 01 F8");
    data.push_back(static_cast<uint8_t>(0x80 | (pictures.size() * 2)));
    for (const Captions& captions : pictures)
        data = data + Bytes{0xFF} + byte_pair(captions.field1) + Bytes{0xFE} + byte_pair(captions.field2);
    return data;
}

/// A NAL unit's bytes after its header, with the emulation prevention (ITU-T H.264, 7.4.1) taken out.
inline Bytes rbsp(const Bytes& nal_payload) {
    Bytes plain;
    int zeros = 0;
    for (const uint8_t byte : nal_payload) {
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        plain.push_back(byte);
    }
    return plain;
}

}  // namespace gsve::test
