#pragma once

// Units with start codes: the sections of MPEG-2 (ISO/IEC 13818-2, 6.2.1), and the NAL units of H.264 and
// H.265 in the byte stream format (ITU-T H.264 and H.265, annex B) with their emulation prevention (7.4.1).

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace gsve::encoding {

/// What follows a start code prefix, up to the next one or the end of the unit.
struct Section {
    std::span<const uint8_t> bytes;  ///< from the code or NAL header on; never empty
    size_t begin = 0;                ///< of the prefix within the unit
    size_t end = 0;                  ///< where the next one begins
};

std::vector<Section> sections(std::span<const uint8_t> unit);

/// The sections of a unit of H.264 or H.265: zeros at their end belong to the start code behind them.
std::vector<Section> nal_units(std::span<const uint8_t> unit);

/// A NAL unit's payload behind its header, without emulation prevention bytes and trailing zeros.
std::vector<uint8_t> rbsp_of(std::span<const uint8_t> nal, size_t header_size);

/// Start code, header and the payload with emulation prevention bytes.
std::vector<uint8_t> make_nal(std::span<const uint8_t> header, std::span<const uint8_t> rbsp);

}  // namespace gsve::encoding
