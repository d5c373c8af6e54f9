#include "programme/content_hash.h"

#include <fmt/format.h>

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/sha.h>
}

#include "programme/av.h"

namespace gsve::programme {

ContentHash::ContentHash() : sha_(av_sha_alloc(), av_free) {
    constexpr int kBits = 256;
    check_memory(sha_ != nullptr);
    av_sha_init(sha_.get(), kBits);
}

void ContentHash::add(std::span<const uint8_t> bytes) {
    av_sha_update(sha_.get(), bytes.data(), bytes.size());
}

std::string ContentHash::finish() {
    uint8_t digest[32] = {};
    av_sha_final(sha_.get(), digest);
    std::string digits;
    for (const uint8_t byte : digest) digits += fmt::format("{:02x}", byte);
    return digits;
}

}  // namespace gsve::programme
