#pragma once

// Fields of bits, the most significant first, and the Exp-Golomb codes of ITU-T H.264 and H.265 (9.1, 9.2).

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

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

    bool flag() { return get(1) != 0; }

    /// The next ue(v), up to 2^32 - 2. What no code can be reads as an overrun.
    unsigned unsigned_golomb() {
        const std::size_t begin = at_;
        int zeros = 0;
        while (!exhausted() && get(1) == 0) zeros++;
        const bool whole =
            at_ > begin && zeros < 32 && at_ + static_cast<std::size_t>(zeros) <= bytes_.size() * 8;
        if (!whole) at_ = bytes_.size() * 8 + 1;
        return whole ? static_cast<unsigned>((std::uint64_t{1} << zeros) - 1 + get(zeros)) : 0;
    }

    /// The next se(v).
    int signed_golomb() {
        const std::int64_t code = unsigned_golomb();
        return static_cast<int>(code % 2 ? code / 2 + 1 : -(code / 2));
    }

    std::size_t position() const { return at_; }  ///< in bits
    bool exhausted() const { return at_ >= bytes_.size() * 8; }
    bool overrun() const { return at_ > bytes_.size() * 8; }

private:
    std::span<const std::uint8_t> bytes_;
    std::size_t at_ = 0;
};

class BitWriter {
public:
    /// Appends the lowest `bits` of `value`, up to 32.
    void put(unsigned value, int bits) {
        while (bits-- > 0) {
            if (at_ % 8 == 0) bytes_.push_back(0);
            bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (value >> bits & 1U) << (7 - at_ % 8));
            at_++;
        }
    }

    /// Appends ue(v), of up to 2^32 - 2.
    void put_unsigned_golomb(unsigned value) {
        const int length = std::bit_width(value + 1);
        put(0, length - 1);
        put(value + 1, length);
    }

    /// Appends se(v).
    void put_signed_golomb(int value) {
        const std::int64_t wide = value;
        put_unsigned_golomb(static_cast<unsigned>(wide > 0 ? 2 * wide - 1 : -2 * wide));
    }

    /// Appends what the reader still has, up to bit `end` of its bytes.
    void copy(BitReader& from, std::size_t end) {
        while (from.position() < end) put(from.get(1), 1);
    }

    std::size_t position() const { return at_; }  ///< in bits

    /// What was put, filled up to whole bytes with zeros.
    std::vector<std::uint8_t> take() {
        at_ = 0;
        return std::exchange(bytes_, {});
    }

private:
    std::vector<std::uint8_t> bytes_;
    std::size_t at_ = 0;
};

/// Sets the field of `bits`, up to 32, that begins at bit `at` of `bytes`, which has them all.
inline void put_bits(std::span<std::uint8_t> bytes, std::size_t at, int bits, unsigned value) {
    for (; bits > 0; --bits, ++at) {
        const unsigned place = 7 - at % 8, bit = value >> (bits - 1) & 1U;
        bytes[at / 8] = static_cast<std::uint8_t>((bytes[at / 8] & ~(1U << place)) | bit << place);
    }
}

/// The field of `bits` at bit `at`.
inline unsigned get_bits(std::span<const std::uint8_t> bytes, std::size_t at, int bits) {
    BitReader reader(bytes.subspan(at / 8));
    reader.get(static_cast<int>(at % 8));
    return reader.get(bits);
}

}  // namespace gsve::captions
