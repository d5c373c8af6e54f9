#pragma once

// Byte strings in tests: written as the hex dumps that standards print, and shown so when they differ.

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace gsve::test {

using Bytes = std::vector<uint8_t>;

/// "00 00 01 B2".
inline std::string hex(const uint8_t* data, size_t size) {
    std::string text;
    char digits[4];
    for (size_t i = 0; i < size; i++) {
        std::snprintf(digits, sizeof digits, "%02X ", data[i]);
        text += digits;
    }
    if (!text.empty()) text.pop_back();
    return text;
}
inline std::string hex(const Bytes& bytes) { return hex(bytes.data(), bytes.size()); }

/// The bytes of a hex dump; everything but hex digits is skipped.
inline Bytes from_hex(std::string_view text) {
    Bytes bytes;
    int high = -1;
    for (const char character : text) {
        const size_t digit = std::string_view("0123456789ABCDEF").find(character);
        if (digit == std::string_view::npos) continue;
        if (high < 0) {
            high = static_cast<int>(digit);
        } else {
            bytes.push_back(static_cast<uint8_t>(high * 16 + static_cast<int>(digit)));
            high = -1;
        }
    }
    return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// `count` bytes of a pattern that holds no start code and no zero byte.
inline Bytes filler(size_t count, uint8_t seed = 0x31) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; i++) bytes[i] = static_cast<uint8_t>(0x10 + (seed + i * 7) % 0x60);
    return bytes;
}

}  // namespace gsve::test
