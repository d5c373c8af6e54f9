#pragma once

// MPEG-2 video units (ISO/IEC 13818-2) small enough to be read in a test, and a walk over the start codes of
// real ones.

#include <cstdint>
#include <cstring>
#include <vector>

#include "support/bytes.h"

namespace gsve::test {

inline const Bytes kSequenceHeader = from_hex("00 00 01 B3 04 00 30 13 FF FF E0 18");
inline const Bytes kFirstSlice = from_hex("00 00 01 01 12 34 56 78");

/// 00 00 01 B8 and the 32 bits after it, of which the first 25 are the time code.
inline Bytes gop_header(uint32_t word) {
    return from_hex("00 00 01 B8") + Bytes{static_cast<uint8_t>(word >> 24), static_cast<uint8_t>(word >> 16),
                                           static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)};
}

/// Picture header with picture_coding_type 1 I, 2 P, 3 B, then a picture coding extension.
inline Bytes picture_header(int coding_type) {
    return from_hex("00 00 01 00") + Bytes{0x00, static_cast<uint8_t>(coding_type << 3), 0xFF, 0xF8} +
           from_hex("00 00 01 B5 8F FF F3 41 80");
}

/// One picture without sequence and GOP headers.
inline Bytes picture_unit(int coding_type) { return picture_header(coding_type) + kFirstSlice; }

inline constexpr uint32_t kClosedGop = 0x00080040;
inline constexpr uint32_t kOpenGop = 0x00080000;

/// An I-picture as it starts a GOP.
inline Bytes gop_unit(uint32_t gop_word) { return kSequenceHeader + gop_header(gop_word) + picture_unit(1); }

/// One start code with the bytes up to the next one.
struct Section {
    uint8_t code;
    size_t offset;  ///< of the 00 00 01 prefix
    Bytes payload;  ///< after the start code
};

inline std::vector<Section> sections(const Bytes& unit) {
    std::vector<Section> found;
    for (size_t i = 0; i + 3 < unit.size(); i++) {
        if (unit[i] != 0 || unit[i + 1] != 0 || unit[i + 2] != 1) continue;
        if (!found.empty())
            found.back().payload.assign(unit.begin() + found.back().offset + 4, unit.begin() + i);
        found.push_back({unit[i + 3], i, {}});
        i += 3;
    }
    if (!found.empty()) found.back().payload.assign(unit.begin() + found.back().offset + 4, unit.end());
    return found;
}

/// The payloads of the user data that stands between the picture header and the first slice, in order.
inline std::vector<Bytes> picture_user_data(const Bytes& unit) {
    std::vector<Bytes> found;
    bool in_picture = false;
    for (const Section& section : sections(unit)) {
        if (section.code == 0x00) in_picture = true;
        if (section.code >= 0x01 && section.code <= 0xAF) break;
        if (in_picture && section.code == 0xB2) found.push_back(section.payload);
    }
    return found;
}

/// picture_coding_type of the first picture, 0 where there is none.
inline int coding_type(const Bytes& unit) {
    for (const Section& section : sections(unit))
        if (section.code == 0x00 && section.payload.size() >= 2) return (section.payload[1] >> 3) & 7;
    return 0;
}

}  // namespace gsve::test
