// Settings, one to a line, against an independent model of them.
//
//     gop size=5000        on_set("gop size", "5000", false)
//     !encoder=h.264       on_set("encoder", "h.264", true)
//     @                    default_config()
//     +  -                 enabled_default on, off
//
// After each line every field that a setting lands in, and the calls that closed and opened the encoder, are
// as the model has them.

#include <bit>
#include <string>

#include <gsve.h>

#include "input.h"
#include "settings_model.h"
#include "support/setting_fields.h"

namespace {

using namespace gsve::fuzz;

/// Counts the calls; nothing is opened.
class CountingEncoder : public GeneralStreamingVideoEncoder {
public:
    void free_encoder() override { calls.frees++; }
    bool init_encoder() override {
        calls.inits++;
        return false;
    }

    Calls calls;
};

/// Numbers of any kind by their bits: a NaN equals itself here, and -0 is not 0.
template <typename Value>
bool same(const Value& a, const Value& b) {
    return a == b;
}
bool same(double a, double b) { return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b); }

template <typename Rules>
bool same_fields(const Rules& rules, const Encoder& a, const Encoder& b) {
    for (const auto& rule : rules) {
        if (!same(a.*rule.field, b.*rule.field)) return false;
    }
    return true;
}

bool same_settings(const Encoder& a, const Encoder& b) {
    return same_fields(kNumberRules, a, b) && same_fields(kSwitchRules, a, b) &&
           same_fields(kRealRules, a, b) && same_fields(kTextRules, a, b) && a.codec_id == b.codec_id &&
           a.enabled == b.enabled && a.closed_gop == b.closed_gop && a.closed_gop_auto == b.closed_gop_auto &&
           a.drop_frame_for_bitrate_limit == b.drop_frame_for_bitrate_limit &&
           a.resize_width == b.resize_width && a.resize_height == b.resize_height &&
           a.codec_changed == b.codec_changed;
}

[[noreturn]] void show_difference(const std::string& line, const Encoder& actual, const Encoder& expected) {
    const auto actual_values = gsve::test::setting_values(actual);
    for (const auto& [field, value] : gsve::test::setting_values(expected)) {
        if (actual_values.at(field) != value)
            fail("after \"%s\" %s is %s, expected %s", line.c_str(), field.c_str(),
                 actual_values.at(field).c_str(), value.c_str());
    }
    fail("after \"%s\" codec_changed is %d, expected %d", line.c_str(), actual.codec_changed,
         expected.codec_changed);
}

void check(const std::string& line, const CountingEncoder& actual, const Encoder& expected,
           const Calls& expected_calls) {
    if (!same_settings(actual, expected)) show_difference(line, actual, expected);
    if (actual.calls != expected_calls)
        fail("\"%s\" freed %d and opened %d times, expected %d and %d", line.c_str(), actual.calls.frees,
             actual.calls.inits, expected_calls.frees, expected_calls.inits);
}

/// Carries out one line on both sides; returns the calls that it is to make.
Calls apply(const std::string& line, CountingEncoder& encoder, Encoder& expected) {
    SettingsModel model(expected);
    if (line == "@") {
        encoder.default_config();
        model.apply_defaults();
        return {};
    }
    if (line == "+" || line == "-") {
        encoder.enabled_default = expected.enabled_default = line == "+";
        return {};
    }
    const bool restart = !line.empty() && line[0] == '!';
    const size_t equals = line.find('=');
    // What on_set() sees ends at a NUL, and so does what the model is given.
    const std::string key = line.substr(restart, equals == line.npos ? line.npos : equals - restart).c_str();
    const std::string value = equals == line.npos ? "" : line.substr(equals + 1).c_str();
    encoder.on_set(key.c_str(), value.c_str(), restart);
    return model.apply(key, value.c_str(), restart);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    CountingEncoder encoder;
    Encoder expected;
    SettingsModel(expected).apply_defaults();
    check("the constructor", encoder, expected, {});
    while (!input.empty()) {
        const std::string line = input.text_until('\n');
        encoder.calls = {};
        const Calls expected_calls = apply(line, encoder, expected);
        check(line, encoder, expected, expected_calls);
    }
    return 0;
}
