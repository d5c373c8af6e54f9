#pragma once

// What every fuzz target is made of: the bytes of one run taken apart into values, and requirements that end
// the run with a reason.
//
// A target is one function, LLVMFuzzerTestOneInput(), which libFuzzer calls with inputs of its own and
// replay.cpp with those of a directory.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace gsve::fuzz {

using Bytes = std::vector<uint8_t>;

/// Values from the front of the input. Past its end every value is 0, so that any input is a whole one.
class Input {
public:
    Input(const uint8_t* data, size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }

    uint8_t u8() {
        if (rest_.empty()) return 0;
        const uint8_t value = rest_.front();
        rest_ = rest_.subspan(1);
        return value;
    }
    uint16_t u16() {
        const unsigned high = u8();
        return static_cast<uint16_t>(high << 8 | u8());
    }
    uint32_t u32() {
        const uint32_t high = u16();
        return high << 16 | u16();
    }
    uint64_t u64() {
        const uint64_t high = u32();
        return high << 32 | u32();
    }
    bool flag() { return u8() % 2 != 0; }

    /// A value from `low` to `high`: one byte where that is enough, else four.
    unsigned between(unsigned low, unsigned high) {
        const uint64_t count = uint64_t{high} - low + 1;
        return low + static_cast<unsigned>((count <= 256 ? u8() : u32()) % count);
    }

    template <typename Value, size_t count>
    const Value& one_of(const Value (&values)[count]) {
        return values[between(0, count - 1)];
    }

    /// The next `count` bytes, fewer at the end of the input.
    Bytes bytes(size_t count) {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }
    Bytes rest() { return bytes(rest_.size()); }

    /// The text up to a `terminator`, which is passed over, or to the end.
    std::string text_until(uint8_t terminator) {
        const auto end = std::find(rest_.begin(), rest_.end(), terminator);
        std::string text(rest_.begin(), end);
        rest_ = rest_.subspan(std::min(text.size() + 1, rest_.size()));
        return text;
    }

private:
    std::span<const uint8_t> rest_;
};

/// Ends the run: the input is a finding.
template <typename... Arguments>
[[noreturn]] void fail(const char* format, Arguments... arguments) {
    std::fputs("fuzz: ", stderr);
    if constexpr (sizeof...(arguments) == 0)
        std::fputs(format, stderr);
    else
        std::fprintf(stderr, format, arguments...);
    std::fputc('\n', stderr);
    std::abort();
}

#define GSVE_FUZZ_REQUIRE(condition)                                                                      \
    do {                                                                                                  \
        if (!(condition)) ::gsve::fuzz::fail("%s:%d: does not hold: %s", __FILE__, __LINE__, #condition); \
    } while (false)

/// Plays xorshift32 from a seed: pixels that no input has to spell out.
class Noise {
public:
    explicit Noise(uint32_t seed) : state_(seed | 1) {}
    uint32_t operator()() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        return state_ ^= state_ << 5;
    }

private:
    uint32_t state_;
};

}  // namespace gsve::fuzz
