#include "cdp.h"

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

// The length of the section at the front, its identifier included.
std::size_t section_size(std::span<const std::uint8_t> rest) {
    const std::uint8_t count = rest.size() > 1 ? rest[1] : 0;
    switch (rest[0]) {
        case kTimeCodeSection: return 5;
        case kCcDataSection: return 2 + 3 * (count & 0x1FU);
        case kServiceInformationSection: return 2 + 7 * (count & 0x0FU);
        case kFooter: return kFooterSize;
    }
    if (rest[0] > kFooter && rest[0] <= kLastFutureSection) return 2U + count;
    throw std::invalid_argument(fmt::format("the packet has an unknown section 0x{:02X}", rest[0]));
}

std::uint16_t big_endian_16(std::span<const std::uint8_t> bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void check_frame(std::span<const std::uint8_t> packet) {
    if (packet.size() < kHeaderSize + kFooterSize || big_endian_16(packet) != 0x9669)
        throw std::invalid_argument(
            "the packet does not begin with the caption distribution identifier 9669");
    if (packet[2] != packet.size())
        throw std::invalid_argument(
            fmt::format("the packet's length byte says {} bytes, it has {}", packet[2], packet.size()));
    const std::uint8_t expected = zero_sum_checksum(packet.first(packet.size() - 1));
    if (packet.back() != expected)
        throw std::invalid_argument(fmt::format("the packet's checksum is 0x{:02X}, its bytes need 0x{:02X}",
                                                packet.back(), expected));
}

}  // namespace

std::uint8_t zero_sum_checksum(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (const std::uint8_t byte : bytes) sum += byte;
    return static_cast<std::uint8_t>(0U - sum);
}

Cdp parse_cdp(std::span<const std::uint8_t> packet) {
    check_frame(packet);
    Cdp cdp;
    cdp.rate = rate_of_code(packet[3] >> 4U);
    cdp.sequence_counter = big_endian_16(packet.subspan(5));

    for (std::span<const std::uint8_t> rest = packet.subspan(kHeaderSize);;) {
        const std::size_t size = rest.empty() ? kFooterSize : section_size(rest);
        if (size > rest.size())
            throw std::invalid_argument("a section of the packet is longer than the packet");
        if (rest[0] == kCcDataSection)
            cdp.cc_data.insert(cdp.cc_data.end(), rest.begin() + 2,
                               rest.begin() + static_cast<std::ptrdiff_t>(size));
        if (rest[0] == kServiceInformationSection) cdp.service_count += rest[1] & 0x0F;
        if (rest[0] == kFooter) {
            if (size != rest.size()) throw std::invalid_argument("bytes follow the packet's footer");
            if (big_endian_16(rest.subspan(1)) != cdp.sequence_counter)
                throw std::invalid_argument("the sequence counters of the packet's header and footer differ");
            return cdp;
        }
        rest = rest.subspan(size);
    }
}

}  // namespace gsve::captions
