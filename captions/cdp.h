#pragma once

/// Caption distribution packets of SMPTE ST 334-2:
///
///     0x9669, cdp_length, cdp_frame_rate (high four bits), flags, header sequence counter (2)
///     0x71 time_code_section (4 bytes), 0x72 ccdata_section, 0x73 ccsvcinfo_section, each optional
///     0x74 footer, sequence counter (2), checksum: all bytes add up to 0 modulo 256
///
/// Example:
///     Cdp cdp = parse_cdp(bytes);
///     append(schedule, frame, parse_cc_data(cdp.cc_data).captions);

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "timecode.h"

namespace gsve::captions {

struct Cdp {
    std::optional<FrameRate> rate;  ///< nothing for a reserved cdp_frame_rate code
    std::uint16_t sequence_counter = 0;
    std::vector<std::uint8_t> cc_data;  ///< triples, as parse_cc_data() takes them
    int service_count = 0;              ///< services listed in the service information
};

/// Reads one whole packet. Throws std::invalid_argument with a text that says what is wrong: identifier,
/// length, a section that leaves the packet, counters that differ, the checksum.
Cdp parse_cdp(std::span<const std::uint8_t> packet);

/// The byte that brings the sum of all bytes to 0 modulo 256.
std::uint8_t zero_sum_checksum(std::span<const std::uint8_t> bytes);

}  // namespace gsve::captions
