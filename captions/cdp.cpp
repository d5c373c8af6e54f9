#include "cdp.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

namespace gsve::captions {

namespace {

constexpr std::size_t kHeaderSize = 7;
constexpr std::size_t kFooterSize = 4;

enum Section : std::uint8_t {
    kTimeCodeSection = 0x71,
    kCcDataSection = 0x72,
    kServiceInformationSection = 0x73,
    kFooter = 0x74,
    kLastFutureSection = 0xEF,
};

// cdp_frame_rate codes 1 to 8.
constexpr FrameRate kCdpRates[] = {kRate23_976, kRate24, kRate25,    kRate29_97,
                                   kRate30,     kRate50, kRate59_94, kRate60};

std::optional<FrameRate> rate_of_code(unsigned code) {
    if (code < 1 || code > std::size(kCdpRates)) return std::nullopt;
    return kCdpRates[code - 1];
}

// The length of the section at the front, its identifier included; 0 for an unknown one.
std::size_t section_size(std::span<const std::uint8_t> rest) {
    const std::uint8_t count = rest.size() > 1 ? rest[1] : 0;
    switch (rest[0]) {
        case kTimeCodeSection: return 5;
        case kCcDataSection: return 2 + 3 * (count & 0x1FU);
        case kServiceInformationSection: return 2 + 7 * (count & 0x0FU);
        case kFooter: return kFooterSize;
    }
    return rest[0] > kFooter && rest[0] <= kLastFutureSection ? 2U + count : 0U;
}

std::uint16_t big_endian_16(std::span<const std::uint8_t> bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

// Reads one section, of which `section` may be the beginning alone.
void read_section(std::span<const std::uint8_t> section, Cdp& cdp) {
    constexpr std::size_t kCcDataHeader = 2, kTriple = 3;
    if (section.size() < kCcDataHeader) return;
    if (section[0] == kCcDataSection) {
        const std::size_t whole = (section.size() - kCcDataHeader) / kTriple * kTriple;
        const auto triples = section.subspan(kCcDataHeader, whole);
        cdp.cc_data.insert(cdp.cc_data.end(), triples.begin(), triples.end());
    }
    if (section[0] == kServiceInformationSection) cdp.service_count += section[1] & 0x0F;
}

// What can be said of a packet with a whole footer, which begins `footer`.
void check_totals(std::span<const std::uint8_t> packet, std::span<const std::uint8_t> footer, Cdp& cdp) {
    if (footer.size() > kFooterSize)
        cdp.damage.push_back({CdpFault::kBytesAfterFooter, "bytes follow the packet's footer"});
    const auto size = packet.size() - footer.size() + kFooterSize;
    if (packet[2] != size)
        cdp.damage.push_back(
            {CdpFault::kLength,
             fmt::format("the packet's length byte says {} bytes, it has {}", packet[2], size)});
    const std::uint8_t expected = zero_sum_checksum(packet.first(size - 1));
    if (packet[size - 1] != expected)
        cdp.damage.push_back(
            {CdpFault::kChecksum, fmt::format("the packet's checksum is 0x{:02X}, its bytes need 0x{:02X}",
                                              packet[size - 1], expected)});
    if (big_endian_16(footer.subspan(1)) != cdp.sequence_counter)
        cdp.damage.push_back(
            {CdpFault::kCounters, "the sequence counters of the packet's header and footer differ"});
}

void read_sections(std::span<const std::uint8_t> packet, Cdp& cdp) {
    std::span<const std::uint8_t> rest = packet.subspan(kHeaderSize);
    while (!rest.empty()) {
        const std::size_t size = section_size(rest);
        if (size == 0) {
            cdp.damage.push_back({CdpFault::kUnknownSection,
                                  fmt::format("the packet has an unknown section 0x{:02X}", rest[0])});
            return;
        }
        if (rest[0] == kFooter && size <= rest.size()) return check_totals(packet, rest, cdp);
        if (rest[0] == kFooter) break;
        read_section(rest.first(std::min(size, rest.size())), cdp);
        if (size > rest.size()) {
            cdp.damage.push_back(
                {CdpFault::kCutSection, "a section of the packet is longer than the packet"});
            return;
        }
        rest = rest.subspan(size);
    }
    cdp.damage.push_back({CdpFault::kNoFooter, "the packet's footer is missing or cut short"});
}

}  // namespace

std::uint8_t zero_sum_checksum(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (const std::uint8_t byte : bytes) sum += byte;
    return static_cast<std::uint8_t>(0U - sum);
}

Cdp parse_cdp(std::span<const std::uint8_t> packet) {
    if (packet.size() < kHeaderSize || big_endian_16(packet) != 0x9669)
        throw std::invalid_argument(
            "the packet does not begin with the caption distribution identifier 9669");
    Cdp cdp;
    cdp.rate = rate_of_code(packet[3] >> 4U);
    cdp.sequence_counter = big_endian_16(packet.subspan(5));
    read_sections(packet, cdp);
    if (!cdp.damage.empty() && cdp.cc_data.empty()) throw std::invalid_argument(cdp.damage.front().text);
    return cdp;
}

}  // namespace gsve::captions
