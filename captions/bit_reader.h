#pragma once

// Fields of bits, the most significant first.

#include <cstddef>
#include <cstdint>
#include <span>

namespace gsve::captions {

class BitReader {
public:
    explicit BitReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    /// The next field, of up to 32 bits. Bits past the end read as zero.
    unsigned get(int bits) {
        unsigned value = 0;
        for (; bits > 0; --bits, ++at_)
            value = value << 1 | (exhausted() ? 0U : bytes_[at_ / 8] >> (7 - at_ % 8) & 1U);
        return value;
    }

    bool exhausted() const { return at_ >= bytes_.size() * 8; }
    bool overrun() const { return at_ > bytes_.size() * 8; }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t at_ = 0;
};

}  // namespace gsve::captions
