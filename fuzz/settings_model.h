#pragma once

// The settings as tables: what each key takes, what it makes of a value, and what it leaves when it can make
// nothing of it. Written to be checked against, so it shares nothing with the library but the C library's
// number conversions, which are part of the definition.

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gsve.h>

namespace gsve::fuzz {

using Encoder = GeneralStreamingVideoEncoder;

/// Numbers from `low` to `high` become `value`.
struct Replacement {
    int32_t low, high, value;
};

inline constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
inline constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();

/// What makes a value text count as a number at all.
enum class Reads { kUnlessEmpty, kDigitLed };

struct NumberRule {
    const char* key;
    int32_t Encoder::*field;
    int32_t preset;  ///< the default
    Reads reads;
    int32_t otherwise;  ///< where the text does not count
    int base = 10;
    std::vector<Replacement> replacements = {};
};

struct SwitchRule {
    const char* key;
    bool Encoder::*field;
    bool preset;
    Reads reads;
    bool otherwise;
    enum Test { kAboveZero, kWholeAboveZero, kNotZero } test = kAboveZero;
    bool applies_at_once = false;
};

struct RealRule {
    const char* key;
    double Encoder::*field;
    double preset;
    enum Syntax { kSingleUnlessEmpty, kDoubleIfDigitLed } syntax;
    double low = -std::numeric_limits<double>::infinity();
    double high = std::numeric_limits<double>::infinity();
};

struct TextRule {
    const char* key;
    std::string Encoder::*field;
    bool has_preset;  ///< false: the defaults leave it alone
    bool applies_at_once = false;
};

inline const NumberRule kNumberRules[] = {
    {"noise reduction", &Encoder::noise_reduction, 5, Reads::kUnlessEmpty, 15, 10, {{kLowest, 0, 0}}},
    {"bitrate", &Encoder::bitrate, 6000000, Reads::kUnlessEmpty, 6000000, 10, {{kLowest, 0, -1}}},
    {"min bitrate", &Encoder::min_bitrate, -1, Reads::kDigitLed, -1, 10, {{kLowest, -2, -1}}},
    {"max bitrate", &Encoder::max_bitrate, -1, Reads::kDigitLed, -1, 10, {{kLowest, -2, 0}}},
    {"bitrate tolerance", &Encoder::bitrate_tolerance, 0, Reads::kUnlessEmpty, -1, 10, {{kLowest, 0, -1}}},
    {"gop size", &Encoder::gop_size, -1, Reads::kUnlessEmpty, -1, 10, {{0, 0, -1}, {1001, kHighest, 1000}}},
    {"b frames", &Encoder::b_frames, 2, Reads::kUnlessEmpty, 2, 10, {{kLowest, -1, 0}, {101, kHighest, 100}}},
    {"minimum quant", &Encoder::minimum_quant, 0, Reads::kUnlessEmpty, -1, 10, {{kLowest, 0, -1}}},
    {"maximum threads", &Encoder::maximum_threads, 0, Reads::kUnlessEmpty, 0, 10, {{kLowest, 0, 0}}},
    {"maximum quant", &Encoder::maximum_quant, 0, Reads::kUnlessEmpty, -1, 10, {{kLowest, 0, -1}}},
    {"buffer size", &Encoder::buffer_size, 0, Reads::kUnlessEmpty, -1, 10, {{kLowest, 0, -1}}},
    {"enable eia-608", &Encoder::eia608_enable, -1, Reads::kUnlessEmpty, -1},
    {"enable eia-608 gop delay", &Encoder::eia608_gop_delay, -1, Reads::kUnlessEmpty, -1},
    {"enable cea-708", &Encoder::cea708_enable, -1, Reads::kUnlessEmpty, -1},
    {"eia-608 on p-frames", &Encoder::eia608_on_p_frames, -1, Reads::kUnlessEmpty, -1},
    {"resize deinterlace", &Encoder::resize_deinterlace, -1, Reads::kDigitLed, -1},
    {"interlaced motion estimation", &Encoder::interlaced_motion_estimation, -1, Reads::kDigitLed, -1},
    {"motion estimation range",
     &Encoder::motion_estimation_range,
     16,
     Reads::kDigitLed,
     16,
     10,
     {{kLowest, 0, 1}, {257, kHighest, 256}}},
    {"constant bitrate per frame",
     &Encoder::constant_bitrate_per_frame,
     -1,
     Reads::kDigitLed,
     -1,
     10,
     {{kLowest, -2, -1}, {2, kHighest, 1}}},
    {"frame rate limit", &Encoder::frame_rate_limit, 0, Reads::kDigitLed, -1, 0},
    {"reference frames", &Encoder::reference_frames, 0, Reads::kDigitLed, 0, 0},
};

inline const SwitchRule kSwitchRules[] = {
    {"enable h.264 nal hrd", &Encoder::h264_nal_hrd, false, Reads::kUnlessEmpty, false, SwitchRule::kNotZero},
    {"h.264 b-slice multithreading", &Encoder::h264_b_slice_multithreading, false, Reads::kDigitLed, false},
    {"h.264 aud", &Encoder::h264_aud, true, Reads::kDigitLed, true},
    {"gop synchronization", &Encoder::gop_synchronization, false, Reads::kUnlessEmpty, false,
     SwitchRule::kAboveZero, true},
    {"debug file", &Encoder::debug_file, false, Reads::kUnlessEmpty, false, SwitchRule::kWholeAboveZero},
    {"remove trailing zeros", &Encoder::remove_trailing_zeros, false, Reads::kDigitLed, false,
     SwitchRule::kAboveZero, true},
};

inline const RealRule kRealRules[] = {
    {"temporal complexity masking", &Encoder::temporal_complexity_masking, 0.005,
     RealRule::kSingleUnlessEmpty},
    {"spatial complexity masking", &Encoder::spatial_complexity_masking, 0.02, RealRule::kSingleUnlessEmpty},
    {"p masking", &Encoder::p_masking, 0.8, RealRule::kSingleUnlessEmpty},
    {"s_tune_cpu", &Encoder::s_tune_cpu, 1.0, RealRule::kDoubleIfDigitLed, 0, 10000},
    {"s_tune_bitrate", &Encoder::s_tune_bitrate, 1.0, RealRule::kDoubleIfDigitLed, 0, 10000},
    {"s_tune_recovery", &Encoder::s_tune_recovery, 1.0, RealRule::kDoubleIfDigitLed, 0, 10000},
    {"cpu threshhold", &Encoder::cpu_threshold, 0.6, RealRule::kDoubleIfDigitLed, 0.1, 0.95},
};

inline const TextRule kTextRules[] = {
    {"h.264 level", &Encoder::h264_level, false},  {"h.264 profile", &Encoder::h264_profile, true},
    {"h.264 preset", &Encoder::h264_preset, true}, {"chroma format", &Encoder::chroma_format, false},
    {"name", &Encoder::encoder_name, false, true},
};

/// Keys that fit no table: "encoder", "enable", "closed gop", "drop frame for bitrate limit", "resize".
inline constexpr size_t kSpecialKeys = 5;
static_assert(std::size(kNumberRules) + std::size(kSwitchRules) + std::size(kRealRules) +
                      std::size(kTextRules) + kSpecialKeys ==
                  44,
              "the encoder has 44 settings");

/// What one call does beside storing values.
struct Calls {
    int frees = 0;
    int inits = 0;

    friend bool operator==(const Calls&, const Calls&) = default;
};

/// Applies settings by the tables to a second set of the same fields, of which only those of settings count.
class SettingsModel {
public:
    explicit SettingsModel(Encoder& fields) : fields_(fields) {}

    void apply_defaults() {
        for (const NumberRule& rule : kNumberRules) fields_.*rule.field = rule.preset;
        for (const SwitchRule& rule : kSwitchRules) fields_.*rule.field = rule.preset;
        for (const RealRule& rule : kRealRules) fields_.*rule.field = rule.preset;
        for (const TextRule& rule : kTextRules) {
            if (rule.has_preset) (fields_.*rule.field).clear();
        }
        fields_.codec_id = 0;
        fields_.enabled = fields_.enabled_default;
        fields_.closed_gop = false;
        fields_.closed_gop_auto = true;
        fields_.drop_frame_for_bitrate_limit = 0;
        fields_.resize_width = fields_.resize_height = -1;
    }

    Calls apply(std::string_view key, const char* value, bool restart) {
        const Calls reopening = {1, restart ? 1 : 0};
        for (const NumberRule& rule : kNumberRules) {
            if (key != rule.key) continue;
            fields_.*rule.field = number(rule, value);
            return reopening;
        }
        for (const SwitchRule& rule : kSwitchRules) {
            if (key != rule.key) continue;
            fields_.*rule.field = reads(rule.reads, value) ? tested(rule.test, value) : rule.otherwise;
            return rule.applies_at_once ? Calls{} : reopening;
        }
        for (const RealRule& rule : kRealRules) {
            if (key != rule.key) continue;
            fields_.*rule.field = real(rule, value);
            return reopening;
        }
        for (const TextRule& rule : kTextRules) {
            if (key != rule.key) continue;
            fields_.*rule.field = value;
            return rule.applies_at_once ? Calls{} : reopening;
        }
        if (key == "encoder") return select_codec(value, restart);
        if (key == "enable") {
            fields_.enabled =
                *value == '\0' ? fields_.enabled_default : tested(SwitchRule::kWholeAboveZero, value);
        } else if (key == "closed gop") {
            fields_.closed_gop_auto = *value == '\0';
            fields_.closed_gop = *value != '\0' && tested(SwitchRule::kWholeAboveZero, value);
        } else if (key == "drop frame for bitrate limit") {
            fields_.drop_frame_for_bitrate_limit = drop_frame(value);
        } else if (key == "resize") {
            set_resize(value);
        } else {
            return {};
        }
        return reopening;
    }

private:
    static bool digit_led(const char* value) { return *value >= '0' && *value <= '9'; }

    static int32_t whole(const char* value, int base) {
        return static_cast<int32_t>(std::strtol(value, nullptr, base));
    }

    static bool reads(Reads rule, const char* value) {
        return rule == Reads::kDigitLed ? digit_led(value) : *value != '\0';
    }

    static int32_t number(const NumberRule& rule, const char* value) {
        if (!reads(rule.reads, value)) return rule.otherwise;
        const int32_t converted = whole(value, rule.base);
        for (const Replacement& range : rule.replacements) {
            if (converted >= range.low && converted <= range.high) return range.value;
        }
        return converted;
    }

    static bool tested(SwitchRule::Test test, const char* value) {
        switch (test) {
            case SwitchRule::kAboveZero: return whole(value, 10) > 0;
            case SwitchRule::kWholeAboveZero: return std::strtol(value, nullptr, 10) > 0;
            case SwitchRule::kNotZero: return static_cast<uint32_t>(std::strtoul(value, nullptr, 0)) != 0;
        }
        return false;
    }

    static double real(const RealRule& rule, const char* value) {
        if (rule.syntax == RealRule::kSingleUnlessEmpty)
            return *value == '\0' ? rule.preset : static_cast<double>(std::strtof(value, nullptr));
        if (!digit_led(value)) return rule.preset;
        const double converted = std::strtod(value, nullptr);
        if (converted < rule.low) return rule.low;
        return converted > rule.high ? rule.high : converted;
    }

    static int32_t drop_frame(const std::string& value) {
        if (value.empty()) return 0;
        if (value == "auto") return -1;
        if (digit_led(value.c_str())) return whole(value.c_str(), 10);
        return value == "on" ? 1 : value == "off" ? 0 : -1;
    }

    void set_resize(const char* value) {
        fields_.resize_width = fields_.resize_height = -1;
        if (!digit_led(value)) return;
        char* behind = nullptr;
        const auto width = static_cast<int32_t>(std::strtol(value, &behind, 10));
        const int32_t height = *behind == 'x' ? whole(behind + 1, 10) : -1;
        if (width < 1 || height <= 0) return;
        fields_.resize_width = width;
        fields_.resize_height = height;
    }

    Calls select_codec(std::string_view value, bool restart) {
        std::optional<int32_t> id;
        if (value.empty() || value == "none") id = 0;
        if (value == "mpeg-2") id = 2;
        if (value == "h.264") id = 4;
        if (value == "h.265") id = 8;
        if (!id || *id == fields_.codec_id) return {};
        fields_.codec_id = *id;
        fields_.codec_changed = true;
        return {2, restart ? 1 : 0};
    }

    Encoder& fields_;
};

}  // namespace gsve::fuzz
