#include "encoding/start_codes.h"

#include <algorithm>
#include <array>

namespace gsve::encoding {

std::vector<Section> sections(std::span<const uint8_t> unit) {
    constexpr std::array<uint8_t, 3> kPrefix = {0, 0, 1};
    std::vector<Section> found;
    const auto next_prefix = [&](size_t from) {
        const auto at = std::search(unit.begin() + static_cast<ptrdiff_t>(from), unit.end(), kPrefix.begin(),
                                    kPrefix.end());
        return static_cast<size_t>(at - unit.begin());
    };
    for (size_t prefix = next_prefix(0); prefix != unit.size();) {
        const size_t begin = prefix + kPrefix.size();
        prefix = next_prefix(begin);
        if (begin == prefix) continue;
        found.push_back({unit.subspan(begin, prefix - begin), begin - kPrefix.size(), prefix});
    }
    return found;
}

std::vector<Section> nal_units(std::span<const uint8_t> unit) {
    std::vector<Section> found = sections(unit);
    for (size_t n = 0; n < found.size(); n++) {
        Section& nal = found[n];
        while (nal.bytes.size() > 1 && nal.bytes.back() == 0)
            nal.bytes = nal.bytes.first(nal.bytes.size() - 1);
        const bool has_zero_byte = nal.begin > 0 && unit[nal.begin - 1] == 0;
        nal.begin -= has_zero_byte;
        if (n > 0) found[n - 1].end = nal.begin;
    }
    return found;
}

std::vector<uint8_t> rbsp_of(std::span<const uint8_t> nal, size_t header_size) {
    std::vector<uint8_t> rbsp;
    rbsp.reserve(nal.size());
    size_t zeros = 0;
    for (const uint8_t byte : nal.subspan(std::min(header_size, nal.size()))) {
        const bool prevents = zeros >= 2 && byte == 3;
        zeros = byte == 0 ? zeros + 1 : 0;
        if (!prevents) rbsp.push_back(byte);
    }
    while (!rbsp.empty() && rbsp.back() == 0) rbsp.pop_back();
    return rbsp;
}

std::vector<uint8_t> make_nal(std::span<const uint8_t> header, std::span<const uint8_t> rbsp) {
    std::vector<uint8_t> nal;
    nal.reserve(4 + header.size() + rbsp.size() * 3 / 2);
    for (const uint8_t byte : {0, 0, 0, 1}) nal.push_back(byte);
    for (const uint8_t byte : header) nal.push_back(byte);
    size_t zeros = 0;
    for (const uint8_t byte : rbsp) {
        if (zeros >= 2 && byte <= 3) {
            nal.push_back(3);
            zeros = 0;
        }
        nal.push_back(byte);
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    return nal;
}

}  // namespace gsve::encoding
