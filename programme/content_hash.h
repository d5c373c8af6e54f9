#pragma once

// SHA-256 of what is added piece by piece.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <fmt/format.h>

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/sha.h>
}

#include "programme/av.h"

namespace gsve::programme {

class ContentHash {
public:
    ContentHash() : sha_(av_sha_alloc(), av_free) {
        check_memory(sha_ != nullptr);
        av_sha_init(sha_.get(), 256);
    }

    void add(std::span<const uint8_t> bytes) { av_sha_update(sha_.get(), bytes.data(), bytes.size()); }
    void add(std::string_view text) { add({reinterpret_cast<const uint8_t*>(text.data()), text.size()}); }

    /// In hexadecimal digits. Nothing can be added any more.
    std::string finish() {
        uint8_t digest[32] = {};
        av_sha_final(sha_.get(), digest);
        std::string digits;
        for (const uint8_t byte : digest) digits += fmt::format("{:02x}", byte);
        return digits;
    }

private:
    std::unique_ptr<AVSHA, decltype(&av_free)> sha_;
};

}  // namespace gsve::programme
