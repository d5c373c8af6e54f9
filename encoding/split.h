#pragma once

// Text with separators.

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <vector>

namespace gsve::encoding {

/// The parts between separators, empty ones too: one more than there are separators.
inline std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

}  // namespace gsve::encoding
