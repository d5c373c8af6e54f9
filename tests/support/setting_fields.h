#pragma once

// Every field that a setting lands in, by name, so that a test can state which fields a call changes and see
// that it changes no other.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gsve.h>

namespace gsve::test {

inline std::string printed(bool value) { return value ? "true" : "false"; }
inline std::string printed(int32_t value) { return std::to_string(value); }
inline std::string printed(const std::string& value) { return '"' + value + '"'; }
inline std::string printed(const char* value) { return printed(std::string(value)); }
inline std::string printed(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

/// Values that no setting's default or clamp produces (a bool has no such value: one of the two patterns
/// differs).
inline void soil(bool& value, int pattern) { value = pattern != 0; }
inline void soil(int32_t& value, int pattern) { value = pattern ? 771 : -771; }
inline void soil(double& value, int pattern) { value = pattern ? 771.25 : -771.25; }
inline void soil(std::string& value, int pattern) { value = pattern ? "soiled" : "dirty"; }

struct SettingField {
    std::string name;
    std::function<std::string(const GeneralStreamingVideoEncoder&)> print;
    std::function<void(GeneralStreamingVideoEncoder&, int pattern)> soil;
};

template <typename Value>
SettingField setting_field(const char* name, Value GeneralStreamingVideoEncoder::*member) {
    return {name, [member](const GeneralStreamingVideoEncoder& encoder) { return printed(encoder.*member); },
            [member](GeneralStreamingVideoEncoder& encoder, int pattern) { soil(encoder.*member, pattern); }};
}

inline const std::vector<SettingField>& setting_fields() {
    using E = GeneralStreamingVideoEncoder;
    static const std::vector<SettingField> fields = {
        setting_field("codec_id", &E::codec_id),
        setting_field("h264_nal_hrd", &E::h264_nal_hrd),
        setting_field("temporal_complexity_masking", &E::temporal_complexity_masking),
        setting_field("spatial_complexity_masking", &E::spatial_complexity_masking),
        setting_field("p_masking", &E::p_masking),
        setting_field("noise_reduction", &E::noise_reduction),
        setting_field("bitrate", &E::bitrate),
        setting_field("min_bitrate", &E::min_bitrate),
        setting_field("max_bitrate", &E::max_bitrate),
        setting_field("h264_b_slice_multithreading", &E::h264_b_slice_multithreading),
        setting_field("h264_aud", &E::h264_aud),
        setting_field("h264_level", &E::h264_level),
        setting_field("h264_profile", &E::h264_profile),
        setting_field("h264_preset", &E::h264_preset),
        setting_field("bitrate_tolerance", &E::bitrate_tolerance),
        setting_field("gop_size", &E::gop_size),
        setting_field("b_frames", &E::b_frames),
        setting_field("minimum_quant", &E::minimum_quant),
        setting_field("maximum_threads", &E::maximum_threads),
        setting_field("gop_synchronization", &E::gop_synchronization),
        setting_field("maximum_quant", &E::maximum_quant),
        setting_field("buffer_size", &E::buffer_size),
        setting_field("encoder_name", &E::encoder_name),
        setting_field("enabled", &E::enabled),
        setting_field("closed_gop", &E::closed_gop),
        setting_field("closed_gop_auto", &E::closed_gop_auto),
        setting_field("debug_file", &E::debug_file),
        setting_field("eia608_enable", &E::eia608_enable),
        setting_field("eia608_gop_delay", &E::eia608_gop_delay),
        setting_field("cea708_enable", &E::cea708_enable),
        setting_field("eia608_on_p_frames", &E::eia608_on_p_frames),
        setting_field("drop_frame_for_bitrate_limit", &E::drop_frame_for_bitrate_limit),
        setting_field("chroma_format", &E::chroma_format),
        setting_field("resize_deinterlace", &E::resize_deinterlace),
        setting_field("resize_width", &E::resize_width),
        setting_field("resize_height", &E::resize_height),
        setting_field("s_tune_cpu", &E::s_tune_cpu),
        setting_field("s_tune_bitrate", &E::s_tune_bitrate),
        setting_field("s_tune_recovery", &E::s_tune_recovery),
        setting_field("cpu_threshold", &E::cpu_threshold),
        setting_field("interlaced_motion_estimation", &E::interlaced_motion_estimation),
        setting_field("motion_estimation_range", &E::motion_estimation_range),
        setting_field("constant_bitrate_per_frame", &E::constant_bitrate_per_frame),
        setting_field("remove_trailing_zeros", &E::remove_trailing_zeros),
        setting_field("frame_rate_limit", &E::frame_rate_limit),
        setting_field("reference_frames", &E::reference_frames),
    };
    return fields;
}

/// Field names and their values, printed.
using FieldTexts = std::map<std::string, std::string>;

inline FieldTexts setting_values(const GeneralStreamingVideoEncoder& encoder) {
    FieldTexts values;
    for (const SettingField& field : setting_fields()) values[field.name] = field.print(encoder);
    return values;
}

inline void soil_settings(GeneralStreamingVideoEncoder& encoder, int pattern) {
    for (const SettingField& field : setting_fields()) field.soil(encoder, pattern);
}

}  // namespace gsve::test
