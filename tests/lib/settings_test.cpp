// The settings vocabulary: keys, value syntax, clamps, defaults, and which keys close and reopen the encoder.

#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/recording_host.h"
#include "support/setting_fields.h"

namespace gsve::test {
namespace {

/// One call and the fields that it must leave behind; every other setting must stay as it was.
struct SettingCase {
    const char* key;
    const char* value;
    FieldTexts changes;
};

template <typename Value>
FieldTexts gives(const char* field, const Value& value) {
    return {{field, printed(value)}};
}

void expect_values(const GeneralStreamingVideoEncoder& encoder, const FieldTexts& expected) {
    const FieldTexts got = setting_values(encoder);
    for (const auto& [field, text] : expected) EXPECT_EQ(got.at(field), text) << "field " << field;
}

/// Applies each case to an encoder whose settings all hold foreign values, once for each of two patterns, so
/// that a field that ought to be written cannot be right by accident.
void check(const std::vector<SettingCase>& cases) {
    for (const SettingCase& c : cases)
        for (int pattern : {0, 1}) {
            SCOPED_TRACE(std::string("on_set(\"") + c.key + "\", \"" + c.value + "\") over pattern " +
                         std::to_string(pattern));
            RecordingHost host;
            soil_settings(host, pattern);
            FieldTexts expected = setting_values(host);
            for (const auto& [field, text] : c.changes) {
                ASSERT_TRUE(expected.contains(field)) << field;
                expected[field] = text;
            }
            host.on_set(c.key, c.value, false);
            expect_values(host, expected);
        }
}

double single(const char* text) { return std::strtof(text, nullptr); }

const FieldTexts kDefaults = {
    {"codec_id", printed(0)},
    {"h264_nal_hrd", printed(false)},
    {"temporal_complexity_masking", printed(0.005)},
    {"spatial_complexity_masking", printed(0.02)},
    {"p_masking", printed(0.8)},
    {"noise_reduction", printed(5)},
    {"bitrate", printed(6000000)},
    {"min_bitrate", printed(-1)},
    {"max_bitrate", printed(-1)},
    {"h264_b_slice_multithreading", printed(false)},
    {"h264_aud", printed(true)},
    {"h264_profile", printed("")},
    {"h264_preset", printed("")},
    {"bitrate_tolerance", printed(0)},
    {"gop_size", printed(-1)},
    {"b_frames", printed(2)},
    {"minimum_quant", printed(0)},
    {"maximum_threads", printed(0)},
    {"gop_synchronization", printed(false)},
    {"maximum_quant", printed(0)},
    {"buffer_size", printed(0)},
    {"enabled", printed(false)},
    {"closed_gop", printed(false)},
    {"closed_gop_auto", printed(true)},
    {"debug_file", printed(false)},
    {"eia608_enable", printed(-1)},
    {"eia608_gop_delay", printed(-1)},
    {"cea708_enable", printed(-1)},
    {"eia608_on_p_frames", printed(-1)},
    {"drop_frame_for_bitrate_limit", printed(0)},
    {"resize_deinterlace", printed(-1)},
    {"resize_width", printed(-1)},
    {"resize_height", printed(-1)},
    {"s_tune_cpu", printed(1.0)},
    {"s_tune_bitrate", printed(1.0)},
    {"s_tune_recovery", printed(1.0)},
    {"cpu_threshold", printed(0.6)},
    {"interlaced_motion_estimation", printed(-1)},
    {"motion_estimation_range", printed(16)},
    {"constant_bitrate_per_frame", printed(-1)},
    {"remove_trailing_zeros", printed(false)},
    {"frame_rate_limit", printed(0)},
    {"reference_frames", printed(0)},
};

const FieldTexts kKeptTexts = {{"encoder_name", ""}, {"chroma_format", ""}, {"h264_level", ""}};

TEST(DefaultConfig, GivesEverySettingItsDefaultAndKeepsThreeTexts) {
    for (int pattern : {0, 1}) {
        SCOPED_TRACE(pattern);
        RecordingHost host;
        soil_settings(host, pattern);
        host.global_header = true;
        FieldTexts expected = kDefaults;
        for (const auto& [field, unused] : kKeptTexts) expected[field] = setting_values(host).at(field);
        ASSERT_EQ(expected.size(), setting_fields().size());
        host.default_config();
        expect_values(host, expected);
        EXPECT_FALSE(host.global_header);
    }
}

TEST(DefaultConfig, RunsInTheConstructorWhereTheKeptTextsAreEmpty) {
    RecordingHost host;
    expect_values(host, kDefaults);
    for (const auto& [field, unused] : kKeptTexts) EXPECT_EQ(setting_values(host).at(field), "\"\"") << field;
    EXPECT_FALSE(host.global_header);
}

TEST(DefaultConfig, TakesEnabledFromItsDefaultField) {
    RecordingHost host;
    host.enabled_default = true;
    host.default_config();
    EXPECT_TRUE(host.enabled);
    EXPECT_TRUE(host.enabled_default);
    host.enabled_default = false;
    host.default_config();
    EXPECT_FALSE(host.enabled);
}

TEST(DefaultConfig, LeavesCaptionQueuesTextsAndStateAlone) {
    RecordingHost host;
    host.eia608_field1_queue = {0x1420};
    host.eia608_field2_queue = {0x1520, 0x1521};
    host.cea708_queue = {{0xFE, 0x1234}};
    host.last_error = "error";
    host.last_notes = "notes";
    host.refcount = 3;
    host.codec_changed = true;
    host.vbr_value = 12;
    host.encoder_index = 4;
    host.default_config();
    EXPECT_EQ(host.eia608_field1_queue.size(), 1u);
    EXPECT_EQ(host.eia608_field2_queue.size(), 2u);
    EXPECT_EQ(host.cea708_queue.size(), 1u);
    EXPECT_EQ(host.last_error, "error");
    EXPECT_EQ(host.last_notes, "notes");
    EXPECT_EQ(host.refcount, 3);
    EXPECT_TRUE(host.codec_changed);
    EXPECT_EQ(host.vbr_value, 12);
    EXPECT_EQ(host.encoder_index, 4u);
    EXPECT_EQ(host.free_calls, 0);
    EXPECT_EQ(host.init_calls, 0);
    host.refcount = 0;
}

TEST(OnSet, MaskingTakesSinglePrecisionWithoutClamp) {
    for (const auto& [key, field, fallback] :
         {std::tuple{"temporal complexity masking", "temporal_complexity_masking", 0.005},
          std::tuple{"spatial complexity masking", "spatial_complexity_masking", 0.02},
          std::tuple{"p masking", "p_masking", 0.8}})
        check({{key, "", gives(field, fallback)},
               {key, "0.3", gives(field, single("0.3"))},
               {key, "0", gives(field, 0.0)},
               {key, "1", gives(field, 1.0)},
               {key, "-3.7", gives(field, single("-3.7"))},
               {key, "  .25", gives(field, 0.25)},
               {key, "12345.678 per cent", gives(field, single("12345.678"))},
               {key, "0x1p4", gives(field, 16.0)},
               {key, "1e39", gives(field, static_cast<double>(HUGE_VALF))},
               {key, "none", gives(field, 0.0)}});
}

TEST(OnSet, NoiseReductionEmptyDiffersFromDefault) {
    const char* key = "noise reduction";
    check({{key, "", gives("noise_reduction", 15)},
           {key, "7", gives("noise_reduction", 7)},
           {key, "1", gives("noise_reduction", 1)},
           {key, "0", gives("noise_reduction", 0)},
           {key, "-1", gives("noise_reduction", 0)},
           {key, " 9 ", gives("noise_reduction", 9)},
           {key, "+9", gives("noise_reduction", 9)},
           {key, "0x10", gives("noise_reduction", 0)},
           {key, "010", gives("noise_reduction", 10)},
           {key, "2147483647", gives("noise_reduction", INT_MAX)},
           {key, "2147483648", gives("noise_reduction", 0)},
           {key, "4294967297", gives("noise_reduction", 1)},
           {key, "strong", gives("noise_reduction", 0)}});
}

TEST(OnSet, BitrateMustBePositive) {
    const char* key = "bitrate";
    check({{key, "", gives("bitrate", 6000000)},
           {key, "8000000", gives("bitrate", 8000000)},
           {key, "1", gives("bitrate", 1)},
           {key, "0", gives("bitrate", -1)},
           {key, "-8000000", gives("bitrate", -1)},
           {key, "5M", gives("bitrate", 5)},
           {key, "2147483648", gives("bitrate", -1)},
           {key, "4294967296", gives("bitrate", -1)},
           {key, "4301288704", gives("bitrate", 6321408)},
           {key, "99999999999999999999", gives("bitrate", -1)},
           {key, "fast", gives("bitrate", -1)}});
}

TEST(OnSet, MinBitrateIsDigitLed) {
    const char* key = "min bitrate";
    check({{key, "", gives("min_bitrate", -1)},
           {key, "0", gives("min_bitrate", 0)},
           {key, "500000", gives("min_bitrate", 500000)},
           {key, "-5", gives("min_bitrate", -1)},
           {key, " 5", gives("min_bitrate", -1)},
           {key, "+5", gives("min_bitrate", -1)},
           {key, "x5", gives("min_bitrate", -1)},
           {key, "4294967295", gives("min_bitrate", -1)},
           {key, "4294967294", gives("min_bitrate", -1)},
           {key, "2147483648", gives("min_bitrate", -1)},
           {key, "4294967298", gives("min_bitrate", 2)}});
}

TEST(OnSet, MaxBitrateTurnsANarrowedOverflowIntoZero) {
    const char* key = "max bitrate";
    check({{key, "", gives("max_bitrate", -1)},
           {key, "0", gives("max_bitrate", 0)},
           {key, "9000000", gives("max_bitrate", 9000000)},
           {key, "-5", gives("max_bitrate", -1)},
           {key, " 5", gives("max_bitrate", -1)},
           {key, "any", gives("max_bitrate", -1)},
           {key, "2147483647", gives("max_bitrate", INT_MAX)},
           {key, "2147483648", gives("max_bitrate", 0)},
           {key, "4294967294", gives("max_bitrate", 0)},
           {key, "4294967295", gives("max_bitrate", -1)},
           {key, "4294967296", gives("max_bitrate", 0)}});
}

TEST(OnSet, NalHrdReadsAnUnsignedNumberWithRadixPrefix) {
    const char* key = "enable h.264 nal hrd";
    check({{key, "", gives("h264_nal_hrd", false)},
           {key, "1", gives("h264_nal_hrd", true)},
           {key, "0", gives("h264_nal_hrd", false)},
           {key, "0x10", gives("h264_nal_hrd", true)},
           {key, "0x0", gives("h264_nal_hrd", false)},
           {key, "00", gives("h264_nal_hrd", false)},
           {key, "010", gives("h264_nal_hrd", true)},
           {key, "-1", gives("h264_nal_hrd", true)},
           {key, " 1", gives("h264_nal_hrd", true)},
           {key, "4294967296", gives("h264_nal_hrd", false)},
           {key, "2147483648", gives("h264_nal_hrd", true)},
           {key, "yes", gives("h264_nal_hrd", false)}});
}

TEST(OnSet, DigitLedSwitchesFallBackToTheirDefault) {
    for (const auto& [key, field, fallback] :
         {std::tuple{"h.264 b-slice multithreading", "h264_b_slice_multithreading", false},
          std::tuple{"h.264 aud", "h264_aud", true},
          std::tuple{"remove trailing zeros", "remove_trailing_zeros", false}})
        check({{key, "", gives(field, fallback)},
               {key, "1", gives(field, true)},
               {key, "2", gives(field, true)},
               {key, "0", gives(field, false)},
               {key, "-1", gives(field, fallback)},
               {key, " 1", gives(field, fallback)},
               {key, " 0", gives(field, fallback)},
               {key, "on", gives(field, fallback)},
               {key, "0x1", gives(field, false)},
               {key, "1x", gives(field, true)},
               {key, "2147483648", gives(field, false)},
               {key, "4294967296", gives(field, false)},
               {key, "4294967297", gives(field, true)}});
}

TEST(OnSet, GopSynchronizationIsOffUnlessAboveZero) {
    const char* key = "gop synchronization";
    check({{key, "", gives("gop_synchronization", false)},
           {key, "1", gives("gop_synchronization", true)},
           {key, " 1", gives("gop_synchronization", true)},
           {key, "0", gives("gop_synchronization", false)},
           {key, "-1", gives("gop_synchronization", false)},
           {key, "4294967296", gives("gop_synchronization", false)},
           {key, "on", gives("gop_synchronization", false)}});
}

TEST(OnSet, EnableAndDebugFileTestTheWholeLong) {
    for (const auto& [key, field] : {std::pair{"enable", "enabled"}, std::pair{"debug file", "debug_file"}})
        check({{key, "1", gives(field, true)},
               {key, " 2", gives(field, true)},
               {key, "0", gives(field, false)},
               {key, "-1", gives(field, false)},
               {key, "2147483648", gives(field, true)},
               {key, "4294967296", gives(field, true)},
               {key, "99999999999999999999", gives(field, true)},
               {key, "-4294967295", gives(field, false)},
               {key, "on", gives(field, false)}});
    check({{"debug file", "", gives("debug_file", false)}});
}

TEST(OnSet, EnableEmptyMeansItsDefaultField) {
    for (bool enabled_default : {false, true})
        for (bool before : {false, true}) {
            RecordingHost host;
            host.enabled_default = enabled_default;
            host.enabled = before;
            host.on_set("enable", "", false);
            EXPECT_EQ(host.enabled, enabled_default) << "was " << before;
        }
}

TEST(OnSet, ClosedGopEmptyMeansAutomatic) {
    const char* key = "closed gop";
    const auto both = [](bool closed, bool automatic) {
        return FieldTexts{{"closed_gop", printed(closed)}, {"closed_gop_auto", printed(automatic)}};
    };
    check({{key, "", both(false, true)},
           {key, "1", both(true, false)},
           {key, "0", both(false, false)},
           {key, "-1", both(false, false)},
           {key, "yes", both(false, false)},
           {key, "2147483648", both(true, false)},
           {key, "4294967296", both(true, false)}});
}

TEST(OnSet, TextsAreTakenAsTheyAre) {
    for (const auto& [key, field] :
         {std::pair{"h.264 level", "h264_level"}, std::pair{"h.264 profile", "h264_profile"},
          std::pair{"h.264 preset", "h264_preset"}, std::pair{"name", "encoder_name"},
          std::pair{"chroma format", "chroma_format"}})
        check({{key, "", gives(field, "")},
               {key, "high422", gives(field, "high422")},
               {key, "  4.1\t", gives(field, "  4.1\t")},
               {key, "4:1:1", gives(field, "4:1:1")},
               {key, "MiXeD Case, and rather longer than any short-string buffer",
                gives(field, "MiXeD Case, and rather longer than any short-string buffer")}});
}

TEST(OnSet, EmptyMeansMinusOneWhereOnlyPositiveNumbersAreKept) {
    for (const auto& [key, field] :
         {std::pair{"bitrate tolerance", "bitrate_tolerance"}, std::pair{"minimum quant", "minimum_quant"},
          std::pair{"maximum quant", "maximum_quant"}, std::pair{"buffer size", "buffer_size"}})
        check({{key, "", gives(field, -1)},
               {key, "1", gives(field, 1)},
               {key, "31", gives(field, 31)},
               {key, "0", gives(field, -1)},
               {key, "-4", gives(field, -1)},
               {key, " 4", gives(field, 4)},
               {key, "2147483647", gives(field, INT_MAX)},
               {key, "2147483648", gives(field, -1)},
               {key, "4294967297", gives(field, 1)},
               {key, "many", gives(field, -1)}});
}

TEST(OnSet, GopSizeKeepsNegativesAndHasACeiling) {
    const char* key = "gop size";
    check({{key, "", gives("gop_size", -1)},
           {key, "5000", gives("gop_size", 1000)},
           {key, "1001", gives("gop_size", 1000)},
           {key, "1000", gives("gop_size", 1000)},
           {key, "999", gives("gop_size", 999)},
           {key, "1", gives("gop_size", 1)},
           {key, "0", gives("gop_size", -1)},
           {key, "-3", gives("gop_size", -3)},
           {key, "-5000", gives("gop_size", -5000)},
           {key, "x", gives("gop_size", -1)},
           {key, "4294967296", gives("gop_size", -1)},
           {key, "4294967311", gives("gop_size", 15)},
           {key, "2147483648", gives("gop_size", INT_MIN)},
           {key, "99999999999999999999", gives("gop_size", -1)}});
}

TEST(OnSet, BFramesAreClampedToZeroAndHundred) {
    const char* key = "b frames";
    check({{key, "", gives("b_frames", 2)},
           {key, "250", gives("b_frames", 100)},
           {key, "101", gives("b_frames", 100)},
           {key, "100", gives("b_frames", 100)},
           {key, "99", gives("b_frames", 99)},
           {key, "0", gives("b_frames", 0)},
           {key, "-1", gives("b_frames", 0)},
           {key, " 3", gives("b_frames", 3)},
           {key, "two", gives("b_frames", 0)},
           {key, "2147483648", gives("b_frames", 0)},
           {key, "4294967299", gives("b_frames", 3)}});
}

TEST(OnSet, MaximumThreadsMustBePositive) {
    const char* key = "maximum threads";
    check({{key, "", gives("maximum_threads", 0)},
           {key, "8", gives("maximum_threads", 8)},
           {key, "1", gives("maximum_threads", 1)},
           {key, "0", gives("maximum_threads", 0)},
           {key, "-8", gives("maximum_threads", 0)},
           {key, "2147483648", gives("maximum_threads", 0)},
           {key, "all", gives("maximum_threads", 0)}});
}

TEST(OnSet, CaptionSwitchesKeepAnyNumber) {
    for (const auto& [key, field] : {std::pair{"enable eia-608", "eia608_enable"},
                                     std::pair{"enable eia-608 gop delay", "eia608_gop_delay"},
                                     std::pair{"enable cea-708", "cea708_enable"},
                                     std::pair{"eia-608 on p-frames", "eia608_on_p_frames"}})
        check({{key, "", gives(field, -1)},
               {key, "1", gives(field, 1)},
               {key, "0", gives(field, 0)},
               {key, "-7", gives(field, -7)},
               {key, " 5", gives(field, 5)},
               {key, "auto", gives(field, 0)},
               {key, "2147483648", gives(field, INT_MIN)},
               {key, "4294967296", gives(field, 0)}});
}

TEST(OnSet, DropFrameKnowsWordsAndNumbers) {
    const char* key = "drop frame for bitrate limit";
    const char* field = "drop_frame_for_bitrate_limit";
    check({{key, "", gives(field, 0)},
           {key, "auto", gives(field, -1)},
           {key, "on", gives(field, 1)},
           {key, "off", gives(field, 0)},
           {key, "0", gives(field, 0)},
           {key, "1", gives(field, 1)},
           {key, "3on", gives(field, 3)},
           {key, "4294967297", gives(field, 1)},
           {key, "2147483648", gives(field, INT_MIN)},
           {key, "-5", gives(field, -1)},
           {key, " 1", gives(field, -1)},
           {key, "On", gives(field, -1)},
           {key, "off ", gives(field, -1)},
           {key, "automatic", gives(field, -1)},
           {key, "sometimes", gives(field, -1)}});
}

TEST(OnSet, ResizeDeinterlaceAndInterlacedMotionEstimationKeepAnyDigitLedNumber) {
    for (const auto& [key, field] :
         {std::pair{"resize deinterlace", "resize_deinterlace"},
          std::pair{"interlaced motion estimation", "interlaced_motion_estimation"}})
        check({{key, "", gives(field, -1)},
               {key, "0", gives(field, 0)},
               {key, "3", gives(field, 3)},
               {key, "4", gives(field, 4)},
               {key, "77", gives(field, 77)},
               {key, "-2", gives(field, -1)},
               {key, " 3", gives(field, -1)},
               {key, "on", gives(field, -1)},
               {key, "2147483648", gives(field, INT_MIN)},
               {key, "4294967299", gives(field, 3)}});
}

TEST(OnSet, ResizeNeedsTwoPositiveNumbersAndALowerCaseX) {
    const char* key = "resize";
    const auto size = [](int width, int height) {
        return FieldTexts{{"resize_width", printed(width)}, {"resize_height", printed(height)}};
    };
    check({{key, "1280x720", size(1280, 720)},
           {key, "1x1", size(1, 1)},
           {key, "1280x720x3", size(1280, 720)},
           {key, "1280x720 pixels", size(1280, 720)},
           {key, "1280x 720", size(1280, 720)},
           {key, "1280x+720", size(1280, 720)},
           {key, "4294967297x4294967298", size(1, 2)},
           {key, "", size(-1, -1)},
           {key, "1280", size(-1, -1)},
           {key, "1280x", size(-1, -1)},
           {key, "1280X720", size(-1, -1)},
           {key, "1280 x720", size(-1, -1)},
           {key, " 1280x720", size(-1, -1)},
           {key, "+1280x720", size(-1, -1)},
           {key, "-1280x720", size(-1, -1)},
           {key, "0x720", size(-1, -1)},
           {key, "1280x0", size(-1, -1)},
           {key, "1280x-720", size(-1, -1)},
           {key, "x720", size(-1, -1)},
           {key, "4294967296x720", size(-1, -1)},
           {key, "2147483648x720", size(-1, -1)},
           {key, "1280x2147483648", size(-1, -1)},
           {key, "off", size(-1, -1)}});
}

TEST(OnSet, TuningGainsLieBetweenZeroAndTenThousand) {
    for (const char* key : {"s_tune_cpu", "s_tune_bitrate", "s_tune_recovery"})
        check({{key, "", gives(key, 1.0)},
               {key, "0", gives(key, 0.0)},
               {key, "0.3", gives(key, 0.3)},
               {key, "2.5x", gives(key, 2.5)},
               {key, "1e3", gives(key, 1000.0)},
               {key, "0x10", gives(key, 16.0)},
               {key, "9999.5", gives(key, 9999.5)},
               {key, "10000", gives(key, 10000.0)},
               {key, "10000.5", gives(key, 10000.0)},
               {key, "20000", gives(key, 10000.0)},
               {key, "1e999", gives(key, 10000.0)},
               {key, "-1", gives(key, 1.0)},
               {key, ".5", gives(key, 1.0)},
               {key, " 2", gives(key, 1.0)},
               {key, "nan", gives(key, 1.0)},
               {key, "inf", gives(key, 1.0)}});
}

TEST(OnSet, CpuThresholdLiesBetweenATenthAndNinetyFivePercent) {
    const char* key = "cpu threshhold";
    check({{key, "", gives("cpu_threshold", 0.6)},
           {key, "0.5", gives("cpu_threshold", 0.5)},
           {key, "0.1", gives("cpu_threshold", 0.1)},
           {key, "0.0999", gives("cpu_threshold", 0.1)},
           {key, "0.01", gives("cpu_threshold", 0.1)},
           {key, "0", gives("cpu_threshold", 0.1)},
           {key, "0.95", gives("cpu_threshold", 0.95)},
           {key, "0.9501", gives("cpu_threshold", 0.95)},
           {key, "2", gives("cpu_threshold", 0.95)},
           {key, "x", gives("cpu_threshold", 0.6)},
           {key, ".5", gives("cpu_threshold", 0.6)},
           {key, "-0.5", gives("cpu_threshold", 0.6)}});
}

TEST(OnSet, MotionEstimationRangeLiesBetweenOneAnd256) {
    const char* key = "motion estimation range";
    const char* field = "motion_estimation_range";
    check({{key, "", gives(field, 16)},
           {key, "abc", gives(field, 16)},
           {key, "-4", gives(field, 16)},
           {key, " 4", gives(field, 16)},
           {key, "0", gives(field, 1)},
           {key, "1", gives(field, 1)},
           {key, "2", gives(field, 2)},
           {key, "255", gives(field, 255)},
           {key, "256", gives(field, 256)},
           {key, "257", gives(field, 256)},
           {key, "999", gives(field, 256)},
           {key, "2147483648", gives(field, 1)},
           {key, "4294967295", gives(field, 1)}});
}

TEST(OnSet, ConstantBitratePerFrameLiesBetweenMinusOneAndOne) {
    const char* key = "constant bitrate per frame";
    const char* field = "constant_bitrate_per_frame";
    check({{key, "", gives(field, -1)},
           {key, "0", gives(field, 0)},
           {key, "1", gives(field, 1)},
           {key, "2", gives(field, 1)},
           {key, "-1", gives(field, -1)},
           {key, "on", gives(field, -1)},
           {key, "2147483648", gives(field, -1)},
           {key, "4294967295", gives(field, -1)},
           {key, "4294967296", gives(field, 0)}});
}

TEST(OnSet, FrameRateLimitReadsRadixPrefixes) {
    const char* key = "frame rate limit";
    check({{key, "", gives("frame_rate_limit", -1)},
           {key, "30", gives("frame_rate_limit", 30)},
           {key, "010", gives("frame_rate_limit", 8)},
           {key, "0x1e", gives("frame_rate_limit", 30)},
           {key, "0", gives("frame_rate_limit", 0)},
           {key, "09", gives("frame_rate_limit", 0)},
           {key, "-30", gives("frame_rate_limit", -1)},
           {key, " 30", gives("frame_rate_limit", -1)},
           {key, "film", gives("frame_rate_limit", -1)},
           {key, "4294967326", gives("frame_rate_limit", 30)},
           {key, "2147483648", gives("frame_rate_limit", INT_MIN)}});
}

TEST(OnSet, ReferenceFramesReadRadixPrefixes) {
    const char* key = "reference frames";
    check({{key, "", gives("reference_frames", 0)},
           {key, "3", gives("reference_frames", 3)},
           {key, "0x3", gives("reference_frames", 3)},
           {key, "017", gives("reference_frames", 15)},
           {key, "0", gives("reference_frames", 0)},
           {key, "-3", gives("reference_frames", 0)},
           {key, " 3", gives("reference_frames", 0)},
           {key, "two", gives("reference_frames", 0)},
           {key, "2147483648", gives("reference_frames", INT_MIN)}});
}

TEST(OnSet, IgnoresKeysThatAreNotExactlyInTheVocabulary) {
    for (const char* key : {"", "Gop size", "gop  size", "gop size ", " gop size", "gop", "gop sizes",
                            "gop_size", "cpu threshold", "s_tune", "Encoder", "encoders", "enable eia608",
                            "debug", "h.264", "h.265 profile", "frame rate", "resize deinterlace mode"})
        for (bool restart : {false, true}) {
            SCOPED_TRACE(std::string("key \"") + key + "\" restart " + printed(restart));
            RecordingHost host;
            soil_settings(host, 1);
            const FieldTexts before = setting_values(host);
            host.on_set(key, "1", restart);
            expect_values(host, before);
            EXPECT_EQ(host.free_calls, 0);
            EXPECT_EQ(host.init_calls, 0);
            EXPECT_FALSE(host.codec_changed);
            EXPECT_EQ(host.last_error, "");
            EXPECT_EQ(host.last_notes, "");
        }
}

struct KeyCase {
    const char* key;
    bool closes;
};

const KeyCase kKeys[] = {
    {"enable h.264 nal hrd", true},
    {"temporal complexity masking", true},
    {"spatial complexity masking", true},
    {"p masking", true},
    {"noise reduction", true},
    {"bitrate", true},
    {"min bitrate", true},
    {"max bitrate", true},
    {"h.264 b-slice multithreading", true},
    {"h.264 aud", true},
    {"h.264 level", true},
    {"h.264 profile", true},
    {"h.264 preset", true},
    {"bitrate tolerance", true},
    {"gop size", true},
    {"b frames", true},
    {"minimum quant", true},
    {"maximum threads", true},
    {"gop synchronization", false},
    {"maximum quant", true},
    {"buffer size", true},
    {"name", false},
    {"enable", true},
    {"closed gop", true},
    {"debug file", true},
    {"enable eia-608", true},
    {"enable eia-608 gop delay", true},
    {"enable cea-708", true},
    {"eia-608 on p-frames", true},
    {"drop frame for bitrate limit", true},
    {"chroma format", true},
    {"resize deinterlace", true},
    {"resize", true},
    {"s_tune_cpu", true},
    {"s_tune_bitrate", true},
    {"s_tune_recovery", true},
    {"cpu threshhold", true},
    {"interlaced motion estimation", true},
    {"motion estimation range", true},
    {"constant bitrate per frame", true},
    {"remove trailing zeros", false},
    {"frame rate limit", true},
    {"reference frames", true},
};

TEST(OnSet, ClosesAndReopensAccordingToKeyAndRestart) {
    ASSERT_EQ(std::size(kKeys), 43u) << "the vocabulary is these keys and \"encoder\"";
    for (const KeyCase& c : kKeys)
        for (const char* value : {"", "1", "nonsense"})
            for (bool restart : {false, true}) {
                RecordingHost host;
                host.on_set(c.key, value, restart);
                EXPECT_EQ(host.free_calls, c.closes ? 1 : 0) << c.key << " = " << value;
                EXPECT_EQ(host.init_calls, c.closes && restart ? 1 : 0) << c.key << " = " << value;
                EXPECT_FALSE(host.codec_changed) << c.key << " = " << value;
            }
}

TEST(OnSet, ClosesEvenWhenTheValueStaysTheSame) {
    RecordingHost host;
    host.on_set("bitrate", "6000000", false);
    host.on_set("bitrate", "6000000", true);
    EXPECT_EQ(host.free_calls, 2);
    EXPECT_EQ(host.init_calls, 1);
}

/// Notes what the settings held while the encoder was closed and opened.
class OrderedHost : public GeneralStreamingVideoEncoder {
public:
    void free_encoder() override {
        events.push_back("free codec_id=" + std::to_string(codec_id) + " bitrate=" + std::to_string(bitrate) +
                         (codec_changed ? " changed" : ""));
        GeneralStreamingVideoEncoder::free_encoder();
    }
    bool init_encoder() override {
        events.push_back("init codec_id=" + std::to_string(codec_id) + " bitrate=" + std::to_string(bitrate));
        return true;
    }
    std::vector<std::string> events;
};

TEST(OnSet, AppliesTheValueBeforeItClosesAndReopens) {
    OrderedHost host;
    host.on_set("bitrate", "123456", true);
    EXPECT_EQ(host.events,
              (std::vector<std::string>{"free codec_id=0 bitrate=123456", "init codec_id=0 bitrate=123456"}));
}

TEST(OnSetEncoder, ClosesUnderTheOldCodecAndAgainUnderTheNew) {
    OrderedHost host;
    host.on_set("encoder", "h.264", true);
    EXPECT_EQ(host.events, (std::vector<std::string>{"free codec_id=0 bitrate=6000000 changed",
                                                     "free codec_id=4 bitrate=6000000 changed",
                                                     "init codec_id=4 bitrate=6000000"}));
}

TEST(OnSetEncoder, SelectsByNameAndIgnoresWhatNamesNoCodec) {
    struct EncoderCase {
        const char* value;
        int before, after;
    };
    for (const EncoderCase& c : {
             EncoderCase{"mpeg-2", 0, 2},
             {"h.264", 0, 4},
             {"h.265", 0, 8},
             {"none", 4, 0},
             {"", 4, 0},
             {"", 8, 0},
             {"mpeg-2", 8, 2},
             {"h.265", 4, 8},
             // already selected
             {"", 0, 0},
             {"none", 0, 0},
             {"mpeg-2", 2, 2},
             {"h.264", 4, 4},
             {"h.265", 8, 8},
             // no codec's name
             {"H.264", 0, 0},
             {"h264", 2, 2},
             {"h.264 ", 2, 2},
             {" h.264", 2, 2},
             {"h.26", 2, 2},
             {"4", 2, 2},
             {"av1", 4, 4},
             {" ", 4, 4},
         })
        for (bool restart : {false, true}) {
            SCOPED_TRACE(std::string("\"") + c.value + "\" from " + std::to_string(c.before) + ", restart " +
                         printed(restart));
            RecordingHost host;
            host.codec_id = c.before;
            FieldTexts expected = setting_values(host);
            expected["codec_id"] = printed(c.after);
            host.on_set("encoder", c.value, restart);
            expect_values(host, expected);
            const bool changes = c.before != c.after;
            EXPECT_EQ(host.codec_changed, changes);
            EXPECT_EQ(host.free_calls, changes ? 2 : 0);
            EXPECT_EQ(host.init_calls, changes && restart ? 1 : 0);
        }
}

TEST(OnSetEncoder, RepeatedChangesNothing) {
    RecordingHost host;
    host.on_set("encoder", "h.264", true);
    EXPECT_EQ(host.codec_id, 4);
    EXPECT_EQ(host.free_calls, 2);
    EXPECT_EQ(host.init_calls, 1);
    host.codec_changed = false;
    host.on_set("encoder", "h.264", true);
    EXPECT_EQ(host.codec_id, 4);
    EXPECT_FALSE(host.codec_changed);
    EXPECT_EQ(host.free_calls, 2);
    EXPECT_EQ(host.init_calls, 1);
}

}  // namespace
}  // namespace gsve::test
