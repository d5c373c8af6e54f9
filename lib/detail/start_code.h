#pragma once

// Where ancillary data goes inside an encoded unit: start code search in MPEG-2 video (ISO/IEC 13818-2,
// 6.2.1) and in H.264 byte streams (ITU-T H.264, Annex B). Nothing outside [begin, end) is read.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace gsve::detail {

inline constexpr size_t kStartCodeSize = 4;

inline constexpr uint8_t kPictureStartCode = 0x00;
inline constexpr uint8_t kFirstSliceStartCode = 0x01;
inline constexpr uint8_t kUserDataStartCode = 0xB2;
inline constexpr uint8_t kGroupStartCode = 0xB8;

/// The first whole start code 00 00 01 `code` in [begin, end), or null.
inline uint8_t* find_start_code(uint8_t* begin, uint8_t* end, uint8_t code) {
    const uint8_t pattern[kStartCodeSize] = {0x00, 0x00, 0x01, code};
    return static_cast<uint8_t*>(memmem(begin, static_cast<size_t>(end - begin), pattern, kStartCodeSize));
}

/// The picture's first slice, in front of which picture user data goes, or null.
inline uint8_t* find_first_slice(uint8_t* begin, uint8_t* end) {
    uint8_t* const picture = find_start_code(begin, end, kPictureStartCode);
    return picture ? find_start_code(picture, end, kFirstSliceStartCode) : nullptr;
}

/// True for the NAL unit types that stand in front of a caption SEI: unspecified, SEI, SPS, PPS and access
/// unit delimiter (ITU-T H.264, table 7-1).
inline bool precedes_caption_sei(uint8_t nal_header) {
    const uint8_t nal_unit_type = nal_header & 0x1F;
    return nal_unit_type == 0 || (nal_unit_type >= 6 && nal_unit_type <= 9);
}

/// The three-byte prefix 00 00 01 of the access unit's first NAL unit behind its delimiter, parameter sets
/// and SEI, or null when none begins more than four bytes in front of the end.
inline uint8_t* find_caption_sei_position(uint8_t* begin, uint8_t* end) {
    constexpr uint8_t kPrefix[] = {0x00, 0x00, 0x01};
    while (end - begin > 4) {
        auto* const prefix =
            static_cast<uint8_t*>(memmem(begin, static_cast<size_t>(end - begin), kPrefix, sizeof(kPrefix)));
        if (!prefix || end - prefix <= 4) return nullptr;
        if (!precedes_caption_sei(prefix[3])) return prefix;
        begin = prefix + sizeof(kPrefix);
    }
    return nullptr;
}

/// One past the last byte that stays when zero stuffing at the end of [begin, end) is cut: at most four zero
/// bytes behind the last other one.
inline uint8_t* trim_trailing_zeros(uint8_t* begin, uint8_t* end) {
    constexpr ptrdiff_t kZerosKept = 4;
    uint8_t* used = end;
    while (used > begin && used[-1] == 0) used--;
    if (used == begin || end - used <= kZerosKept) return end;
    return used + kZerosKept;
}

}  // namespace gsve::detail
