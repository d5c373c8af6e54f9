#pragma once

// JSON objects whose members are all known.

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "encoding/error.h"

namespace gsve::report {

using Json = nlohmann::ordered_json;

/// The bytes of a file name that is no UTF-8 text would not come back. Throws UsageError.
inline const std::string& text(const std::string& value, std::string_view what) {
    try {
        (void)Json(value).dump();
    } catch (const Json::exception&) {
        throw UsageError(fmt::format("the {} has bytes that are no UTF-8 text: rename it", what));
    }
    return value;
}

/// Reads a value. False where it is of another kind, or a number that has a fraction or does not fit.
template <class Value>
bool get_exact(const Json& json, Value& value) try {
    if constexpr (std::integral<Value> && !std::same_as<Value, bool>) {
        if (!json.is_number_integer()) return false;
        const bool fits = json.is_number_unsigned() ? std::in_range<Value>(json.get<uint64_t>())
                                                    : std::in_range<Value>(json.get<int64_t>());
        if (!fits) return false;
    }
    json.get_to(value);
    return true;
} catch (const Json::exception&) {
    return false;
}

template <class Element>
bool get_exact(const Json& json, std::vector<Element>& values) {
    if (!json.is_array()) return false;
    return std::ranges::all_of(json, [&](const Json& element) {
        Element value = {};
        if (!get_exact(element, value)) return false;
        values.push_back(std::move(value));
        return true;
    });
}

template <class Element, size_t count>
bool get_exact(const Json& json, std::array<Element, count>& values) {
    if (!json.is_array() || json.size() != count) return false;
    for (size_t n = 0; n < count; n++)
        if (!get_exact(json[n], values[n])) return false;
    return true;
}

/// An object whose members are all to be read. Throws UsageError where one is missing, of another kind, or
/// unknown.
class Members {
public:
    Members(const Json& object, std::string_view name) : object_(object), name_(name) {
        if (!object.is_object()) throw UsageError(fmt::format("{} is no JSON object", name));
    }

    template <class Value>
    void read(const char* key, Value& value) {
        keys_.emplace_back(key);
        const auto member = object_.find(key);
        if (member == object_.end()) throw UsageError(fmt::format("{} lacks \"{}\"", name_, key));
        if (!get_exact(*member, value))
            throw UsageError(fmt::format("\"{}\" of {} is of another kind", key, name_));
    }

    const Json& at(const char* key) {
        Json value;
        read(key, value);
        return object_.at(key);
    }

    void expect_no_more() const {
        for (const auto& [key, value] : object_.items())
            if (std::find(keys_.begin(), keys_.end(), key) == keys_.end())
                throw UsageError(fmt::format("{} has an unknown \"{}\"", name_, key));
    }

private:
    const Json& object_;
    std::string_view name_;
    std::vector<std::string> keys_;
};

/// Throws UsageError where it is none, which `what` names.
inline Json parse_json(std::string_view text, std::string_view what) {
    Json parsed = Json::parse(text, nullptr, false);
    if (parsed.is_discarded()) throw UsageError(fmt::format("{} is no JSON", what));
    return parsed;
}

}  // namespace gsve::report
