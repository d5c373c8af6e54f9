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
///     for (const CdpDamage& damage : cdp.damage) fmt::print(stderr, "{}\n", damage.text);

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "timecode.h"

namespace gsve::captions {

enum class CdpFault {
    kUnknownSection,  ///< what follows it cannot be read
    kCutSection,      ///< a section is longer than the packet
    kNoFooter,
    kBytesAfterFooter,
    kCounters,  ///< those of header and footer differ
    kLength,
    kChecksum,
};

struct CdpDamage {
    CdpFault fault;
    std::string text;  ///< what is wrong, as part of a sentence
};

struct Cdp {
    std::optional<FrameRate> rate;  ///< nothing for a reserved cdp_frame_rate code
    std::uint16_t sequence_counter = 0;
    std::vector<std::uint8_t> cc_data;  ///< triples, as parse_cc_data() takes them
    int service_count = 0;              ///< services listed in the service information
    std::vector<CdpDamage> damage;      ///< what was wrong with it, each fault once
};

/// Reads a packet. What is whole of a damaged one is taken: the sections up to a fault, and the whole triples
/// of a ccdata_section that the end of the packet cuts. Throws std::invalid_argument, with a text that says
/// what is wrong, where there is no packet, and where damage leaves no construct of one.
Cdp parse_cdp(std::span<const std::uint8_t> packet);

/// The byte that brings the sum of all bytes to 0 modulo 256.
std::uint8_t zero_sum_checksum(std::span<const std::uint8_t> bytes);

}  // namespace gsve::captions
