#pragma once

// Numbers in texts of other programs, and of users.

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace gsve::cli {

/// Nothing where the text is anything but one number that fits.
template <class Number>
std::optional<Number> whole_number(std::string_view text) {
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace gsve::cli
