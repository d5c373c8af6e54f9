#include "scte20.h"

#include <algorithm>

#include "bits.h"

namespace gsve::captions {

namespace {

constexpr unsigned kReservedAndVbiDataFlag = 0x81;

unsigned reverse_bits(unsigned byte) {
    unsigned reversed = 0;
    for (int bit = 0; bit < 8; ++bit) reversed |= (byte >> bit & 1U) << (7 - bit);
    return reversed;
}

}  // namespace

std::vector<Scte20Construct> scte20_constructs(Word field_1, Word field_2, bool top_field_first) {
    const std::uint8_t first = top_field_first ? 1 : 2;
    std::vector<Scte20Construct> constructs;
    if (!is_null(field_1)) constructs.push_back({0, first, kScte20Line21, with_parity(field_1)});
    if (!is_null(field_2))
        constructs.push_back({0, static_cast<std::uint8_t>(3 - first), kScte20Line21, with_parity(field_2)});
    if (!top_field_first) std::reverse(constructs.begin(), constructs.end());
    return constructs;
}

std::vector<std::uint8_t> compose_scte20(std::span<const Scte20Construct> constructs) {
    if (constructs.empty()) return {};
    constructs = constructs.first(std::min(constructs.size(), kScte20MaximumConstructs));
    BitWriter bits;
    bits.put(kReservedAndVbiDataFlag, 8);
    bits.put(static_cast<unsigned>(constructs.size()), 5);
    for (const Scte20Construct& construct : constructs) {
        bits.put(construct.priority, 2);
        bits.put(construct.field_number, 2);
        bits.put(construct.line_offset, 5);
        bits.put(reverse_bits(construct.word >> 8), 8);
        bits.put(reverse_bits(construct.word & 0xFF), 8);
        bits.put(1, 1);
    }
    bits.put(0, 4);
    return bits.take();
}

std::optional<std::vector<Scte20Construct>> parse_scte20(std::span<const std::uint8_t> body) {
    BitReader bits(body);
    if (bits.get(8) != kReservedAndVbiDataFlag) return std::nullopt;
    const unsigned count = bits.get(5);
    std::vector<Scte20Construct> constructs;
    for (unsigned i = 0; i < count; ++i) {
        Scte20Construct construct;
        construct.priority = static_cast<std::uint8_t>(bits.get(2));
        construct.field_number = static_cast<std::uint8_t>(bits.get(2));
        construct.line_offset = static_cast<std::uint8_t>(bits.get(5));
        const unsigned data_1 = reverse_bits(bits.get(8));
        const unsigned data_2 = reverse_bits(bits.get(8));
        construct.word = make_word(data_1, data_2);
        if (bits.get(1) != 1 || construct.field_number == 0) return std::nullopt;
        constructs.push_back(construct);
    }
    bits.get(4);
    if (bits.overrun()) return std::nullopt;
    return constructs;
}

}  // namespace gsve::captions
