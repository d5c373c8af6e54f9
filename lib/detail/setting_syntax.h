#pragma once

// The text syntax of settings: every function turns one value text into one field's value. A malformed
// number is whatever strtol, strtof or strtod make of it; trailing text is ignored. Conversions are
// narrowed to 32 bits before they are compared, unless the name says `whole`.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace gsve::detail {

inline bool is_empty(const char* value) { return *value == '\0'; }

/// True when the first character is '0' to '9'; a sign or a space does not count.
inline bool is_digit_led(const char* value) { return *value >= '0' && *value <= '9'; }

inline int32_t parse_int32(const char* value, int base = 10) {
    return static_cast<int32_t>(std::strtol(value, nullptr, base));
}

/// A count that only makes sense above zero: others become `otherwise`.
template <int32_t when_empty, int32_t otherwise>
int32_t parse_positive(const char* value) {
    if (is_empty(value)) return when_empty;
    const int32_t number = parse_int32(value);
    return number > 0 ? number : otherwise;
}

/// Any number; `when_empty` for an empty text.
template <int32_t when_empty>
int32_t parse_number_or_empty(const char* value) {
    return is_empty(value) ? when_empty : parse_int32(value);
}

/// Any number in the given base (0 takes radix prefixes); `otherwise` unless digit-led.
template <int32_t otherwise, int base = 10>
int32_t parse_digit_led_number(const char* value) {
    return is_digit_led(value) ? parse_int32(value, base) : otherwise;
}

/// A switch: on above zero, `otherwise` unless digit-led.
template <bool otherwise>
bool parse_digit_led_switch(const char* value) {
    return is_digit_led(value) ? parse_int32(value) > 0 : otherwise;
}

/// A switch: on above zero, off when empty.
inline bool parse_switch(const char* value) { return !is_empty(value) && parse_int32(value) > 0; }

/// As parse_switch(), testing the whole 64-bit conversion.
inline bool parse_whole_switch(const char* value) {
    return !is_empty(value) && std::strtol(value, nullptr, 10) > 0;
}

/// A switch that takes radix prefixes: on when not zero, off when empty.
inline bool parse_nonzero_switch(const char* value) {
    return !is_empty(value) && static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) != 0;
}

/// A masking strength in single precision; `when_empty` for an empty text.
inline double parse_masking(const char* value, double when_empty) {
    return is_empty(value) ? when_empty : std::strtof(value, nullptr);
}
inline double parse_temporal_masking(const char* value) { return parse_masking(value, 0.005); }
inline double parse_spatial_masking(const char* value) { return parse_masking(value, 0.02); }
inline double parse_p_masking(const char* value) { return parse_masking(value, 0.8); }

/// A real number in [low, high]; `otherwise` unless digit-led.
inline double parse_real_in_range(const char* value, double otherwise, double low, double high) {
    return is_digit_led(value) ? std::clamp(std::strtod(value, nullptr), low, high) : otherwise;
}
inline double parse_tuning_gain(const char* value) { return parse_real_in_range(value, 1.0, 0.0, 10000.0); }
inline double parse_cpu_threshold(const char* value) { return parse_real_in_range(value, 0.6, 0.1, 0.95); }

/// A lower bit-rate bound; -1 not given.
inline int32_t parse_min_bitrate(const char* value) {
    return std::max(parse_digit_led_number<-1>(value), -1);
}

/// An upper bit-rate bound; -1 not given. A conversion that overflows to below -1 means no bound.
inline int32_t parse_max_bitrate(const char* value) {
    const int32_t number = parse_digit_led_number<-1>(value);
    return number < -1 ? 0 : number;
}

inline int32_t parse_gop_size(const char* value) {
    const int32_t number = parse_number_or_empty<-1>(value);
    return number == 0 ? -1 : std::min(number, 1000);
}

inline int32_t parse_b_frames(const char* value) {
    return std::clamp(parse_number_or_empty<2>(value), 0, 100);
}

inline int32_t parse_motion_estimation_range(const char* value) {
    return std::clamp(parse_digit_led_number<16>(value), 1, 256);
}

inline int32_t parse_constant_bitrate_per_frame(const char* value) {
    return std::clamp(parse_digit_led_number<-1>(value), -1, 1);
}

/// "on" 1, "off" 0, a number as it is, empty 0; "auto" and any other text -1, automatic.
inline int32_t parse_drop_frame(const char* value) {
    const std::string_view text = value;
    if (text.empty()) return 0;
    if (text == "auto") return -1;
    if (is_digit_led(value)) return parse_int32(value);
    if (text == "on") return 1;
    if (text == "off") return 0;
    return -1;
}

/// A picture size; -1 by -1 when not given.
struct PictureSize {
    int32_t width = -1;
    int32_t height = -1;
};

/// WIDTHxHEIGHT with a lower-case x, both positive; anything else is not given.
inline PictureSize parse_size(const char* value) {
    if (!is_digit_led(value)) return {};
    char* after = nullptr;
    PictureSize size;
    size.width = static_cast<int32_t>(std::strtol(value, &after, 10));
    if (*after == 'x') size.height = parse_int32(after + 1);
    return size.width >= 1 && size.height > 0 ? size : PictureSize{};
}

}  // namespace gsve::detail
