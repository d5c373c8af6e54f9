#pragma once

// The time code of a group of pictures header (ISO/IEC 13818-2, 6.2.2.6).

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <orb_utils_v4/mpeg12_video.h>

#include "start_code.h"

namespace gsve::detail {

/// The 32 bits behind the start code:
///     drop_frame_flag 31, hours 30..26, minutes 25..20, marker 19, seconds 18..13, pictures 12..7,
///     closed_gop 6, broken_link 5, and five bits that are not the header's.
/// The last seven are taken from `header`. Values are shifted into place unmasked.
inline uint32_t with_gop_timecode(uint32_t header, const mpeg2_gop_timecode_t& tc) {
    constexpr uint32_t kKept = 0x7F;
    return (tc.drop_frame_flag ? 1u << 31 : 0u) | static_cast<uint32_t>(tc.hours) << 26 |
           static_cast<uint32_t>(tc.minutes) << 20 | 1u << 19 | static_cast<uint32_t>(tc.seconds) << 13 |
           static_cast<uint32_t>(tc.pictures) << 7 | (header & kKept);
}

/// The word behind the GOP start code of the unit [begin, end), or null. The header stands right behind the
/// sequence header, so only the unit's first 1024 bytes are searched.
inline uint8_t* find_gop_timecode(uint8_t* begin, uint8_t* end) {
    uint8_t* const limit = begin + std::min<ptrdiff_t>(end - begin, 1024);
    uint8_t* const start_code = find_start_code(begin, limit, kGroupStartCode);
    if (!start_code || limit - start_code < 8) return nullptr;
    return start_code + kStartCodeSize;
}

inline uint32_t read_be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

inline void write_be32(uint8_t* p, uint32_t word) {
    for (int i = 0; i < 4; i++) p[i] = static_cast<uint8_t>(word >> (24 - 8 * i));
}

}  // namespace gsve::detail
