#pragma once

// SHA-256 of what is added piece by piece.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

struct AVSHA;

namespace gsve::programme {

class ContentHash {
public:
    ContentHash();

    void add(std::span<const uint8_t> bytes);
    void add(std::string_view text) { add({reinterpret_cast<const uint8_t*>(text.data()), text.size()}); }

    /// In hexadecimal digits. Nothing can be added any more.
    std::string finish();

private:
    std::unique_ptr<AVSHA, void (*)(void*)> sha_;
};

}  // namespace gsve::programme
