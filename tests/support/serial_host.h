#pragma once

// Pictures as small as codecs take them, for streams of many: what they show is beside the point.

#include <cstdint>
#include <string>
#include <vector>

#include "support/caption_blocks.h"
#include "support/recording_host.h"
#include "support/test_picture.h"

namespace gsve::test {

inline constexpr int kSmallWidth = 64;
inline constexpr int kSmallHeight = 48;

inline const TestPicture& small_picture(uint64_t number) {
    static const std::vector<TestPicture> pictures = [] {
        std::vector<TestPicture> made;
        for (unsigned i = 0; i < 8; i++) made.emplace_back(kSmallWidth, kSmallHeight, 1, 1, i);
        return made;
    }();
    return pictures[number % pictures.size()];
}

inline void describe_small_source(GeneralStreamingVideoEncoder& host, const Rate& rate) {
    describe_source(host, kSmallWidth, kSmallHeight, rate.num, rate.den);
}

inline bool write_small_picture(GeneralStreamingVideoEncoder& host, uint64_t timestamp, int flags = -1) {
    const TestPicture& p = small_picture(timestamp);
    return host.write_video(p.y.data(), kSmallWidth, p.u.data(), kSmallWidth / 2, p.v.data(), kSmallWidth / 2,
                            flags, timestamp);
}

inline size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) count++;
    return count;
}

}  // namespace gsve::test
