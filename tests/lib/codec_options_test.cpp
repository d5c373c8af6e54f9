// What the codec is opened with: context fields and options, rate control and the room kept for captions, the
// frame-rate divider, the time base, and threads.

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/interposed_codec.h"
#include "support/interposed_host.h"
#include "support/subject.h"

namespace gsve::test {

// Printed by a failing comparison.
void PrintTo(const Option& o, std::ostream* out) { *out << '"' << o.first << "\" = \"" << o.second << '"'; }

namespace {

const std::string kX264Params =
    "trellis=0:scenecut=0:mixed-refs=0:me=dia:subme=0:aq-mode=0:b-adapt=0:deblock=1:rc-lookahead=0:ref=0:"
    "weightb=0:weightp=0";
const std::string kX265Params =
    "scenecut=0:subme=0:max-merge=1:ref=2:limit-refs=3:fast-intra=1:b-adapt=0:b-pyramid=0:deblock=1:limit-tu="
    "4:"
    "me=dia:ref=1:weightb=0:weightp=0:slices=0:wpp=0";

/// A rational as FFmpeg stores it: not reduced.
struct Fraction {
    int num, den;
    Fraction(int num, int den) : num(num), den(den) {}
    explicit Fraction(AVRational q) : num(q.num), den(q.den) {}
    bool operator==(const Fraction&) const = default;
};
void PrintTo(const Fraction& f, std::ostream* out) { *out << f.num << "/" << f.den; }

class CodecOptions : public testing::Test {
protected:
    void SetUp() override {
        codec_listener.reset();
        codec_listener.opening = Opening::kPretend;
        processor_count = 16;
    }
    void TearDown() override { EXPECT_EQ(codec_listener.alive(), 0u) << "codec objects left"; }

    /// Opens and closes; afterwards the listener holds this opening alone.
    void open(GeneralStreamingVideoEncoder& host) {
        const Opening opening = codec_listener.opening;
        codec_listener.reset();
        codec_listener.opening = opening;
        bool opened = false;
        printed = stderr_of([&] { opened = host.client_addref(); });
        ASSERT_TRUE(opened) << host.last_error;
        ASSERT_EQ(codec_listener.opened.size(), 1u);
    }
    static const AVCodecContext& context() { return codec_listener.opened.back().context; }

    std::string printed;
};

// Flags and fixed fields

TEST_F(CodecOptions, FlagsFollowGopInterlacingAndHeader) {
    for (int codec : kAllCodecs)
        for (int bits = 0; bits < 16; bits++)
            for (int deinterlace : {-5, -1, 0, 3})
                for (int motion : {-1, 0, 1, 7}) {
                    const bool closed = bits & 1, header = bits & 2;
                    const uint32_t interlaced = bits & 4 ? (bits & 8 ? 5 : 1) : 0;
                    SCOPED_TRACE("codec " + std::to_string(codec) + " bits " + std::to_string(bits) +
                                 " deinterlace " + std::to_string(deinterlace) + " motion " +
                                 std::to_string(motion));
                    Subject host(codec);
                    host.closed_gop = closed;
                    host.global_header = header;
                    host.input_interlaced = interlaced;
                    host.resize_deinterlace = deinterlace;
                    host.interlaced_motion_estimation = motion;
                    open(host);
                    unsigned expected = closed ? AV_CODEC_FLAG_CLOSED_GOP : 0;
                    if (interlaced && deinterlace < 0) {
                        expected |= AV_CODEC_FLAG_INTERLACED_DCT;
                        if (motion > 0) expected |= AV_CODEC_FLAG_INTERLACED_ME;
                    }
                    if (header) expected |= AV_CODEC_FLAG_GLOBAL_HEADER;
                    EXPECT_EQ(static_cast<unsigned>(context().flags), expected);
                }
}

TEST_F(CodecOptions, FixedFieldsHaveTheirValues) {
    for (int codec : kAllCodecs) {
        SCOPED_TRACE(codec);
        Subject host(codec, 720, 480, 30000, 1001);
        open(host);
        const AVCodecContext& c = context();
        EXPECT_EQ(c.flags2, AV_CODEC_FLAG2_FAST);
        EXPECT_EQ(ticks_per_frame(c), 1);
        EXPECT_EQ(c.width, 720);
        EXPECT_EQ(c.height, 480);
        EXPECT_EQ(c.gop_size, 15);
        EXPECT_EQ(c.me_range, 16);
        EXPECT_EQ(c.pre_dia_size, -2);
        EXPECT_EQ(c.dia_size, -2);
        EXPECT_EQ(c.pix_fmt, AV_PIX_FMT_YUV420P);
        EXPECT_EQ(c.max_b_frames, 2);
        EXPECT_EQ(c.temporal_cplx_masking, 0.005f);
        EXPECT_EQ(c.spatial_cplx_masking, 0.02f);
        EXPECT_EQ(c.p_masking, 0.8f);
        EXPECT_EQ(c.mb_decision, FF_MB_DECISION_BITS);
        EXPECT_EQ(c.keyint_min, 15);
        EXPECT_EQ(c.qmin, 2);
        EXPECT_EQ(c.qmax, 63);
        EXPECT_EQ(c.max_qdiff, 32768);
        EXPECT_EQ(c.field_order, AV_FIELD_TT);
        EXPECT_EQ(host.saved_spatial_masking, host.spatial_complexity_masking);
    }
}

TEST_F(CodecOptions, SettingsReachTheirFields) {
    Subject host(kMpeg2);
    host.motion_estimation_range = 77;
    host.b_frames = 5;
    host.gop_size = 48;
    host.temporal_complexity_masking = 0.25;
    host.spatial_complexity_masking = 0.1;
    host.p_masking = -1.5;
    open(host);
    EXPECT_EQ(context().me_range, 77);
    EXPECT_EQ(context().max_b_frames, 5);
    EXPECT_EQ(context().gop_size, 48);
    EXPECT_EQ(context().keyint_min, 48);
    EXPECT_EQ(context().temporal_cplx_masking, 0.25f);
    EXPECT_EQ(context().spatial_cplx_masking, 0.1f);
    EXPECT_EQ(context().p_masking, -1.5f);
    EXPECT_EQ(host.saved_spatial_masking, 0.1) << "a copy in double precision";
}

TEST_F(CodecOptions, ReferenceFramesOnlyWhenPositive) {
    for (int codec : kAllCodecs) {
        AVCodecContext* fresh =
            avcodec_alloc_context3(avcodec_find_encoder(codec == kMpeg2  ? AV_CODEC_ID_MPEG2VIDEO
                                                        : codec == kH264 ? AV_CODEC_ID_H264
                                                                         : AV_CODEC_ID_HEVC));
        const int unset = fresh->refs;
        avcodec_free_context(&fresh);
        for (int frames : {-3, 0, 1, 4}) {
            Subject host(codec);
            host.reference_frames = frames;
            open(host);
            EXPECT_EQ(context().refs, frames > 0 ? frames : unset)
                << "codec " << codec << " setting " << frames;
        }
    }
}

TEST_F(CodecOptions, SampleAspectRatioComesFromTheDisplayAspectRatio) {
    struct AspectCase {
        int width, height, current_num, current_den;
        unsigned default_num, default_den;
        Fraction expected;
    };
    for (const AspectCase& c : {
             AspectCase{720, 480, -1, -1, 4, 3, {4 * 480, 3 * 720}},
             {720, 576, 16, 9, 4, 3, {16 * 576, 9 * 720}},
             {1920, 1080, 16, 9, 4, 3, {16 * 1080, 9 * 1920}},
             {1920, 1080, -1, -1, 16, 9, {16 * 1080, 9 * 1920}},
             {720, 480, 0, 9, 4, 3, {4 * 480, 3 * 720}},
             {720, 480, 16, 0, 4, 3, {4 * 480, 3 * 720}},
             {720, 480, -16, 9, 4, 3, {4 * 480, 3 * 720}},
             {720, 480, 16, -9, 4, 3, {16 * 480, -9 * 720}},  // only a denominator of 0 is refused
         }) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " at " +
                     std::to_string(c.current_num) + ":" + std::to_string(c.current_den));
        Subject host(kMpeg2, c.width, c.height);
        host.current_aspect_num = c.current_num;
        host.current_aspect_den = c.current_den;
        host.default_aspect_num = c.default_num;
        host.default_aspect_den = c.default_den;
        open(host);
        EXPECT_EQ(Fraction(context().sample_aspect_ratio), c.expected);
    }
    Subject host(kMpeg2, 1920, 1080);
    host.resize_width = 720;
    host.resize_height = 576;
    open(host);
    EXPECT_EQ(Fraction(context().sample_aspect_ratio), Fraction(4 * 576, 3 * 720)) << "of the encoded size";
}

// Options, call by call

TEST_F(CodecOptions, Mpeg2OptionsInOrder) {
    Subject host(kMpeg2);
    open(host);
    EXPECT_EQ(
        codec_listener.option_calls,
        (Options{{"mepre", "0"}, {"mpeg_quant", "0"}, {"noise_reduction", "5"}, {"alternate_scan", "0"}}));
    EXPECT_EQ(codec_listener.opened[0].dictionary, codec_listener.option_calls);
    EXPECT_FALSE(codec_listener.option_flags_seen);
}

TEST_F(CodecOptions, Mpeg2ClosedGopTurnsSceneDetectionOff) {
    Subject host(kMpeg2);
    host.closed_gop = true;
    host.noise_reduction = 0;
    open(host);
    EXPECT_EQ(codec_listener.option_calls, (Options{{"mepre", "0"},
                                                    {"mpeg_quant", "0"},
                                                    {"sc_threshold", "1000000000"},
                                                    {"noise_reduction", "0"},
                                                    {"alternate_scan", "0"}}));
    for (int codec : {kH264, kH265}) {
        Subject other(codec);
        other.closed_gop = true;
        open(other);
        EXPECT_EQ(option("sc_threshold"), "(none)") << "codec " << codec;
    }
}

TEST_F(CodecOptions, Mpeg2TakesNoneOfTheOthersOptions) {
    Subject host(kMpeg2);
    host.minimum_quant = 4;
    host.maximum_quant = 20;
    host.h264_profile = "main";
    host.h264_preset = "fast";
    host.h264_level = "4.1";
    host.h264_nal_hrd = true;
    open(host);
    EXPECT_EQ(
        codec_listener.option_calls,
        (Options{{"mepre", "0"}, {"mpeg_quant", "0"}, {"noise_reduction", "5"}, {"alternate_scan", "0"}}));
    EXPECT_EQ(occurrences(printed, "H.264"), 0) << printed;
}

TEST_F(CodecOptions, H264OptionsInOrder) {
    Subject host(kH264);
    open(host);
    EXPECT_EQ(codec_listener.option_calls, (Options{{"mepre", "0"},
                                                    {"mpeg_quant", "0"},
                                                    {"noise_reduction", "5"},
                                                    {"aud", "1"},
                                                    {"profile", "main"},
                                                    {"preset", "veryfast"},
                                                    {"x264-params", kX264Params},
                                                    {"coder", "vlc"},
                                                    {"mbtree", "1"},
                                                    {"crf_max", "63"}}));
    EXPECT_EQ(codec_listener.opened[0].dictionary, codec_listener.option_calls);
    EXPECT_FALSE(codec_listener.option_flags_seen);
}

TEST_F(CodecOptions, H264WithEverythingSet) {
    Subject host(kH264, 1280, 720);
    host.closed_gop = true;
    host.noise_reduction = 15;
    host.h264_aud = false;
    host.h264_profile = "high422";
    host.h264_level = "4.1";
    host.h264_nal_hrd = true;
    host.minimum_quant = 12;
    host.maximum_quant = 40;
    open(host);
    EXPECT_EQ(codec_listener.option_calls, (Options{{"mepre", "0"},
                                                    {"mpeg_quant", "0"},
                                                    {"noise_reduction", "15"},
                                                    {"aud", "0"},
                                                    {"profile", "high422"},
                                                    {"preset", "superfast"},
                                                    {"level", "4.1"},
                                                    {"x264-params", kX264Params},
                                                    {"coder", "vlc"},
                                                    {"mbtree", "1"},
                                                    {"crf", "12"},
                                                    {"crf_max", "40"},
                                                    {"nal-hrd", "cbr"}}));
}

TEST_F(CodecOptions, H264WithACustomPresetHasNoParameterString) {
    Subject host(kH264);
    host.h264_preset = "slow";
    host.h264_level = "3.1";
    open(host);
    EXPECT_EQ(codec_listener.option_calls, (Options{{"mepre", "0"},
                                                    {"mpeg_quant", "0"},
                                                    {"noise_reduction", "5"},
                                                    {"aud", "1"},
                                                    {"profile", "main"},
                                                    {"preset", "slow"},
                                                    {"level", "3.1"},
                                                    {"mbtree", "1"},
                                                    {"crf_max", "63"}}));
}

TEST_F(CodecOptions, H265OptionsInOrder) {
    Subject host(kH265);
    open(host);
    EXPECT_EQ(codec_listener.option_calls, (Options{{"mepre", "0"},
                                                    {"mpeg_quant", "0"},
                                                    {"noise_reduction", "5"},
                                                    {"aud", "1"},
                                                    {"profile", "main"},
                                                    {"preset", "ultrafast"},
                                                    {"x265-params", kX265Params + ":rc-lookahead=3"},
                                                    {"crf_max", "63"}}));
}

TEST_F(CodecOptions, H265WithACustomPresetTakesMbtree) {
    Subject host(kH265);
    host.h264_preset = "medium";
    host.h264_level = "5";
    host.h264_nal_hrd = true;
    host.min_bitrate = 1000000;
    host.minimum_quant = 3;
    open(host);
    EXPECT_EQ(codec_listener.option_calls, (Options{{"mepre", "0"},
                                                    {"mpeg_quant", "0"},
                                                    {"noise_reduction", "5"},
                                                    {"aud", "1"},
                                                    {"profile", "main"},
                                                    {"preset", "medium"},
                                                    {"level", "5"},
                                                    {"mbtree", "1"},
                                                    {"crf", "3"},
                                                    {"crf_max", "63"},
                                                    {"nal-hrd", "vbr"}}));
}

TEST_F(CodecOptions, UltrafastWithDeblockingKeepsTheParameterStrings) {
    for (int codec : {kH264, kH265}) {
        Subject host(codec);
        host.h264_preset = "ultrafast+deblock";
        host.h264_level = "4";
        open(host);
        EXPECT_EQ(option("preset"), "ultrafast");
        EXPECT_EQ(option("level"), "4");
        EXPECT_EQ(option("x264-params"), codec == kH264 ? kX264Params : "(none)");
        EXPECT_EQ(option("coder"), codec == kH264 ? "vlc" : "(none)");
        EXPECT_EQ(option("x265-params"), codec == kH265 ? kX265Params + ":rc-lookahead=3" : "(none)");
        EXPECT_EQ(option("mbtree"), codec == kH264 ? "1" : "(none)");
    }
    Subject plain(kH264);
    plain.h264_preset = "ultrafast";
    open(plain);
    EXPECT_EQ(option("preset"), "ultrafast");
    EXPECT_EQ(option("x264-params"), "(none)") << "a preset of the user's own";
}

TEST_F(CodecOptions, H264PresetFollowsTheEncodedSize) {
    struct SizeCase {
        int width, height;
        const char* preset;
    };
    for (const SizeCase& c : {SizeCase{720, 576, "veryfast"},
                              {720, 480, "veryfast"},
                              {722, 576, "superfast"},
                              {721, 576, "superfast"},
                              {720, 577, "superfast"},
                              {720, 578, "superfast"},
                              {1280, 720, "superfast"},
                              {1920, 1080, "superfast"}}) {
        Subject host(kH264, c.width, c.height);
        open(host);
        EXPECT_EQ(option("preset"), c.preset) << c.width << "x" << c.height;
        Subject hevc(kH265, c.width, c.height);
        open(hevc);
        EXPECT_EQ(option("preset"), "ultrafast") << c.width << "x" << c.height;
    }
    Subject smaller(kH264, 1920, 1080);
    smaller.resize_width = 720;
    smaller.resize_height = 576;
    open(smaller);
    EXPECT_EQ(option("preset"), "veryfast");
    Subject larger(kH264, 720, 576);
    larger.resize_width = 1280;
    larger.resize_height = 720;
    open(larger);
    EXPECT_EQ(option("preset"), "superfast");
}

TEST_F(CodecOptions, ProfileDefaultsByInterlacingAndBFrames) {
    struct ProfileCase {
        const char* setting;
        int b_frames;
        bool interlaced;
        int deinterlace;
        const char* profile;
        const char* message;
        int max_b_frames;
    };
    const char* const main_text = "H.264 profile default: main\n";
    const char* const baseline_text = "H.264 profile default: baseline\n";
    const char* const zero_text = "H.264 baseline does not support H.264, defaulting to zero B-frames\n";
    for (int codec : {kH264, kH265})
        for (const ProfileCase& c : {ProfileCase{"", 2, false, -1, "main", main_text, 2},
                                     {"", 1, false, -1, "main", main_text, 1},
                                     {"", 0, false, -1, "baseline", baseline_text, 0},
                                     {"", 0, true, -1, "main", main_text, 0},
                                     {"", 0, true, 0, "baseline", baseline_text, 0},
                                     {"", 2, true, -1, "main", main_text, 2},
                                     {"baseline", 2, false, -1, "baseline", zero_text, 0},
                                     {"baseline", 1, false, -1, "baseline", "", 1},
                                     {"baseline", 3, false, -1, "baseline", "", 3},
                                     {"baseline", 0, false, -1, "baseline", "", 0},
                                     {"Baseline", 2, false, -1, "Baseline", "", 2},
                                     {"high", 2, false, -1, "high", "", 2}}) {
            SCOPED_TRACE("codec " + std::to_string(codec) + " profile \"" + c.setting + "\" b frames " +
                         std::to_string(c.b_frames) + (c.interlaced ? " interlaced" : ""));
            Subject host(codec);
            host.h264_profile = c.setting;
            host.b_frames = c.b_frames;
            host.input_interlaced = c.interlaced;
            host.resize_deinterlace = c.deinterlace;
            open(host);
            EXPECT_EQ(option("profile"), c.profile);
            EXPECT_EQ(context().max_b_frames, c.max_b_frames);
            for (const char* text : {main_text, baseline_text, zero_text})
                EXPECT_EQ(occurrences(printed, text), std::string(c.message) == text ? 1 : 0) << text;
            const std::string lookahead = kX265Params + ":rc-lookahead=" + std::to_string(c.max_b_frames + 1);
            EXPECT_EQ(option("x265-params"), codec == kH265 ? lookahead : "(none)");
        }
}

TEST_F(CodecOptions, LookaheadIsLeftOutForNegativeBFrames) {
    Subject host(kH265);
    host.gop_size = 12;  // the GOP length is given, so that the count of B-frames is only passed on
    host.b_frames = -2;
    open(host);
    EXPECT_EQ(context().max_b_frames, -2);
    EXPECT_EQ(option("x265-params"), kX265Params);
    EXPECT_EQ(option("profile"), "baseline");
}

TEST_F(CodecOptions, QuantizersReachFieldsAndOptions) {
    struct QuantCase {
        int minimum, maximum;
        int qmin, qmax;
        const char *crf, *crf_max;
    };
    for (const QuantCase& c : {QuantCase{-1, -1, 2, 63, "(none)", "63"},
                               {0, 0, 2, 63, "(none)", "63"},
                               {1, 0, 1, 63, "1", "63"},
                               {0, 1, 2, 1, "(none)", "1"},
                               {10, 51, 10, 51, "10", "51"},
                               {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX, "2147483647", "2147483647"}})
        for (int codec : kAllCodecs) {
            SCOPED_TRACE("codec " + std::to_string(codec) + " " + std::to_string(c.minimum) + ".." +
                         std::to_string(c.maximum));
            Subject host(codec);
            host.minimum_quant = c.minimum;
            host.maximum_quant = c.maximum;
            open(host);
            EXPECT_EQ(context().qmin, c.qmin);
            EXPECT_EQ(context().qmax, c.qmax);
            EXPECT_EQ(option("crf"), codec == kMpeg2 ? "(none)" : c.crf);
            EXPECT_EQ(option("crf_max"), codec == kMpeg2 ? "(none)" : c.crf_max);
        }
}

TEST_F(CodecOptions, NoiseReductionIsPrintedSigned) {
    for (int value : {0, 15, -3, INT32_MAX}) {
        Subject host(kMpeg2);
        host.noise_reduction = value;
        open(host);
        EXPECT_EQ(option("noise_reduction"), std::to_string(value));
    }
}

// Rate control

TEST_F(CodecOptions, RateFieldsFollowTheBitrate) {
    struct RateCase {
        int bitrate;
        int buffer, tolerance;
    };
    for (const RateCase& c : {RateCase{10000, 2500, 2000},
                              {10003, 2500, 2000},
                              {6000000, 1500000, 1200000},
                              {7340031, 1835007, 1468006},
                              {7340032, 1835008, 1468006},
                              {8000000, 1835008, 1600000},
                              {INT32_MAX, 1835008, 429496729}})
        for (int codec : kAllCodecs) {
            SCOPED_TRACE("codec " + std::to_string(codec) + " bitrate " + std::to_string(c.bitrate));
            Subject host(codec);
            host.bitrate = c.bitrate;
            open(host);
            EXPECT_EQ(context().bit_rate, c.bitrate);
            EXPECT_EQ(context().rc_max_rate, c.bitrate);
            EXPECT_EQ(context().rc_min_rate, c.bitrate);
            EXPECT_EQ(context().rc_buffer_size, c.buffer);
            EXPECT_EQ(context().bit_rate_tolerance, c.tolerance);
            EXPECT_EQ(host.vbr_value, c.bitrate);
        }
}

TEST_F(CodecOptions, CaptionsTakeTheirRoomFromTheBitrate) {
    const std::string note608 = "Making room for 608 CC data in bitrate, 1504 bits/sec\n";
    const std::string note708 = "Making room for 708 CC data in bitrate, 14512 bits/sec\n";
    for (int codec : kAllCodecs)
        for (bool eia608 : {false, true})
            for (bool cea708 : {false, true})
                for (int bitrate : {6000000, 10000}) {
                    SCOPED_TRACE("codec " + std::to_string(codec) + (eia608 ? " 608" : "") +
                                 (cea708 ? " 708" : "") + " at " + std::to_string(bitrate));
                    Subject host(codec);
                    host.bitrate = bitrate;
                    host.eia608_enable = eia608;
                    host.cea708_enable = cea708;
                    open(host);
                    const bool takes608 = eia608 && codec == kMpeg2;
                    const int reserve = (takes608 ? 1504 : 0) + (cea708 ? 14512 : 0);
                    EXPECT_EQ(context().bit_rate, bitrate - reserve);
                    EXPECT_EQ(context().rc_max_rate, bitrate - reserve);
                    EXPECT_EQ(context().rc_min_rate, bitrate - reserve);
                    EXPECT_EQ(context().rc_buffer_size, bitrate / 4) << "of the whole bit rate";
                    EXPECT_EQ(context().bit_rate_tolerance, bitrate / 5);
                    EXPECT_EQ(host.vbr_value, bitrate);
                    EXPECT_EQ(host.last_notes, "Encoding to pixel format 4:2:0\n" +
                                                   (takes608 ? note608 : "") + (cea708 ? note708 : ""));
                }
}

TEST_F(CodecOptions, AutomaticCaptionsFollowSizeAndRate) {
    struct AutomaticCase {
        int width, height, num, den;
        int reserve[3];  // MPEG-2, H.264, H.265
    };
    for (const AutomaticCase& c : {AutomaticCase{720, 480, 30000, 1001, {16016, 14512, 14512}},
                                   {720, 576, 25, 1, {0, 0, 0}},
                                   {1920, 1080, 30000, 1001, {14512, 14512, 14512}},
                                   {1280, 720, 60000, 1001, {14512, 14512, 14512}},
                                   {752, 576, 24, 1, {16016, 14512, 14512}},
                                   {1920, 1080, 50, 1, {0, 0, 0}}})
        for (int at = 0; at < 3; at++) {
            Subject host(kAllCodecs[at], c.width, c.height, c.num, c.den);
            open(host);
            EXPECT_EQ(context().bit_rate, 6000000 - c.reserve[at])
                << "codec " << kAllCodecs[at] << " " << c.width << "x" << c.height << " at " << c.num << "/"
                << c.den;
            EXPECT_EQ(host.vbr_value, 6000000);
        }
}

TEST_F(CodecOptions, OverridesReplaceTheDerivedRates) {
    struct OverrideCase {
        int buffer_size, tolerance, min_bitrate, max_bitrate;
        int expected_buffer, expected_tolerance;
        int64_t expected_min, expected_max;
        int vbr;
    };
    for (const OverrideCase& c : {OverrideCase{0, 0, -1, -1, 1500000, 1200000, 6000000, 6000000, 6000000},
                                  {-1, -1, -2, -2, 1500000, 1200000, 6000000, 6000000, 6000000},
                                  {1, 1, 1, 1, 1, 1, 1, 1, 6000000},
                                  {900000, 77, 2000000, 9000000, 900000, 77, 2000000, 9000000, 9000000},
                                  {0, 0, 0, 0, 1500000, 1200000, 0, 0, 6000000},
                                  {0, 0, 0, -1, 1500000, 1200000, 0, 6000000, 6000000},
                                  {0, 0, -1, 0, 1500000, 1200000, 6000000, 0, 6000000},
                                  {0, 0, -1, 6000001, 1500000, 1200000, 6000000, 6000001, 6000001},
                                  {0, 0, -1, INT32_MAX, 1500000, 1200000, 6000000, INT32_MAX, INT32_MAX},
                                  {0, 0, 9000000, -1, 1500000, 1200000, 9000000, 6000000, 6000000}})
        for (int codec : kAllCodecs) {
            SCOPED_TRACE("codec " + std::to_string(codec) + " overrides " + std::to_string(c.buffer_size) +
                         " " + std::to_string(c.tolerance) + " " + std::to_string(c.min_bitrate) + " " +
                         std::to_string(c.max_bitrate));
            Subject host(codec);
            host.buffer_size = c.buffer_size;
            host.bitrate_tolerance = c.tolerance;
            host.min_bitrate = c.min_bitrate;
            host.max_bitrate = c.max_bitrate;
            open(host);
            EXPECT_EQ(context().bit_rate, 6000000);
            EXPECT_EQ(context().rc_buffer_size, c.expected_buffer);
            EXPECT_EQ(context().bit_rate_tolerance, c.expected_tolerance);
            EXPECT_EQ(context().rc_min_rate, c.expected_min);
            EXPECT_EQ(context().rc_max_rate, c.expected_max);
            EXPECT_EQ(host.vbr_value, c.vbr);
        }
}

TEST_F(CodecOptions, PeakRateIncludesTheCaptionRoom) {
    Subject host(kMpeg2);
    host.eia608_enable = 1;
    host.cea708_enable = 1;
    host.max_bitrate = 9000000;
    open(host);
    EXPECT_EQ(context().bit_rate, 5983984);
    EXPECT_EQ(context().rc_max_rate, 9000000);
    EXPECT_EQ(host.vbr_value, 9016016);
}

TEST_F(CodecOptions, ConstantAndVariableRate) {
    struct HrdCase {
        int min_bitrate, max_bitrate;
        bool constant;
    };
    for (int codec : {kH264, kH265})
        for (const HrdCase& c : {HrdCase{-1, -1, true},
                                 {0, 0, true},
                                 {5000000, 5000000, true},
                                 {-1, 6000000, true},
                                 {0, -1, false},
                                 {-1, 8000000, false},
                                 {1000000, 8000000, false}})
            for (bool hrd : {false, true}) {
                SCOPED_TRACE("codec " + std::to_string(codec) + " " + std::to_string(c.min_bitrate) + ".." +
                             std::to_string(c.max_bitrate));
                Subject host(codec);
                host.min_bitrate = c.min_bitrate;
                host.max_bitrate = c.max_bitrate;
                host.h264_nal_hrd = hrd;
                open(host);
                EXPECT_EQ(occurrences(printed, "H.264 CBR\n"), c.constant ? 1 : 0);
                EXPECT_EQ(occurrences(printed, "H.264 VBR\n"), c.constant ? 0 : 1);
                EXPECT_EQ(option("nal-hrd"), !hrd ? "(none)" : c.constant ? "cbr" : "vbr");
            }
}

TEST_F(CodecOptions, CaptionRoomAloneDoesNotMakeARateVariable) {
    Subject host(kH264);
    host.cea708_enable = 1;
    open(host);
    EXPECT_EQ(occurrences(printed, "H.264 CBR\n"), 1);
    host.client_unref();
    host.max_bitrate = 6000000;  // the same as the setting, above what is left for video
    open(host);
    EXPECT_EQ(occurrences(printed, "H.264 VBR\n"), 1);
}

// Frame-rate divider and time base

struct DividerCase {
    int num, den, limit;
    unsigned divider;
    const char* line;  // "" none
    int duration;
    Fraction time_base;
};

TEST_F(CodecOptions, DividerTakesTheFirstRateWithinTheLimit) {
    for (const DividerCase& c : {
             // no limit
             DividerCase{30000, 1001, 0, 1, "", 3003, {1001, 30000}},
             {30000, 1001, -1, 1, "", 3003, {1001, 30000}},
             {25, 1, -30, 1, "", 3600, {1, 25}},
             // a limit that does not bite
             {25, 1, 25, 1, "div=1 25.000000 => 25.000000", 3600, {1, 25}},
             {30000, 1001, 30, 1, "div=1 29.970030 => 29.970030", 3003, {1001, 30000}},
             {60000, 1001, 60, 1, "div=1 59.940060 => 59.940060", 1501, {1001, 60000}},
             {15, 1, 1000, 1, "div=1 15.000000 => 15.000000", 6000, {1, 15}},
             // dividing
             {50, 1, 25, 2, "div=2 50.000000 => 25.000000", 3600, {2, 50}},
             {50, 1, 49, 2, "div=2 50.000000 => 25.000000", 3600, {2, 50}},
             {50, 1, 24, 3, "div=3 50.000000 => 16.666667", 5400, {3, 50}},
             {60000, 1001, 30, 2, "div=2 59.940060 => 29.970030", 3003, {2002, 60000}},
             {60000, 1001, 29, 3, "div=3 59.940060 => 19.980020", 4504, {3003, 60000}},
             {30000, 1001, 29, 2, "div=2 29.970030 => 14.985015", 6006, {2002, 30000}},
             {30000, 1001, 10, 3, "div=3 29.970030 => 9.990010", 9009, {3003, 30000}},
             {60, 1, 1, 60, "div=60 60.000000 => 1.000000", 90000, {60, 60}},
             {25, 1, 1, 25, "div=25 25.000000 => 1.000000", 90000, {25, 25}},
             {120, 1, 30, 4, "div=4 120.000000 => 30.000000", 3000, {4, 120}},
         }) {
        SCOPED_TRACE(std::to_string(c.num) + "/" + std::to_string(c.den) + " limit " +
                     std::to_string(c.limit));
        Subject host(kMpeg2, 320, 240, c.num, c.den);
        host.frame_rate_limit = c.limit;
        open(host);
        EXPECT_EQ(host.frame_rate_divider, c.divider);
        EXPECT_EQ(host.frame_duration_90k, c.duration);
        EXPECT_EQ(Fraction(context().time_base), c.time_base);
        const std::string line = *c.line ? std::string("Frame rate divider ") + c.line + "\n" : "";
        EXPECT_EQ(printed.substr(0, line.size()), line);
        EXPECT_EQ(occurrences(printed, "Frame rate divider"), *c.line ? 1 : 0);
        EXPECT_EQ(host.frame_rate_num, c.num);
        EXPECT_EQ(host.frame_rate_den, c.den);
    }
}

struct SnapCase {
    int num, den;         // source rate
    int rate, factor;     // R and F; 0 keeps the source fraction
    const char* printed;  // encoded rate, undivided
    const char* halved;   // encoded rate with a divider of 2
};

const SnapCase kSnapCases[] = {
    // the usual rates
    {60, 1, 60, 1, "60.000000", "30.000000"},
    {60000, 1001, 60000, 1001, "59.940060", "29.970030"},
    {50, 1, 50, 1, "50.000000", "25.000000"},
    {30, 1, 30, 1, "30.000000", "15.000000"},
    {30000, 1001, 0, 0, "29.970030", "14.985015"},
    {25, 1, 25, 1, "25.000000", "12.500000"},
    {24, 1, 24, 1, "24.000000", "12.000000"},
    {24000, 1001, 24000, 1001, "23.976024", "11.988012"},
    // both sides of every edge
    {601001, 10000, 0, 0, "60.100100", "30.050050"},
    {601, 10, 60, 1, "60.000000", "30.000000"},
    {5996, 100, 60, 1, "60.000000", "30.000000"},
    {599599, 10000, 60000, 1001, "59.940060", "29.970030"},
    {599, 10, 60000, 1001, "59.940060", "29.970030"},
    {598999, 10000, 0, 0, "59.899900", "29.949950"},
    {501, 10, 0, 0, "50.100000", "25.050000"},
    {500999, 10000, 50, 1, "50.000000", "25.000000"},
    {499, 10, 50, 1, "50.000000", "25.000000"},
    {498999, 10000, 0, 0, "49.899900", "24.949950"},
    {301001, 10000, 0, 0, "30.100100", "15.050050"},
    {301, 10, 30, 1, "30.000000", "15.000000"},
    {2999, 100, 30, 1, "30.000000", "15.000000"},
    {299899, 10000, 0, 0, "29.989900", "14.994950"},
    {251, 10, 0, 0, "25.100000", "12.550000"},
    {250999, 10000, 25, 1, "25.000000", "12.500000"},
    {249, 10, 25, 1, "25.000000", "12.500000"},
    {248999, 10000, 0, 0, "24.899900", "12.449950"},
    {2405, 100, 0, 0, "24.050000", "12.025000"},
    {240499, 10000, 24, 1, "24.000000", "12.000000"},
    {23999, 1000, 24, 1, "24.000000", "12.000000"},
    {239989, 10000, 0, 0, "23.998900", "11.999450"},
    {23977, 1000, 0, 0, "23.977000", "11.988500"},
    {239769, 10000, 24000, 1001, "23.976024", "11.988012"},
    {23975, 1000, 24000, 1001, "23.976024", "11.988012"},
    {239749, 10000, 0, 0, "23.974900", "11.987450"},
    // no band at all
    {15, 1, 0, 0, "15.000000", "7.500000"},
    {120, 1, 0, 0, "120.000000", "60.000000"},
    {100, 3, 0, 0, "33.333333", "16.666667"},
    {1, 2, 0, 0, "0.500000", nullptr},
};

TEST_F(CodecOptions, TimeBaseSnapsToBroadcastRatesAtTheUndividedRate) {
    for (const SnapCase& c : kSnapCases)
        for (int divider : {1, 2}) {
            if (divider == 2 && !c.halved) continue;
            SCOPED_TRACE(std::to_string(c.num) + "/" + std::to_string(c.den) + " divided by " +
                         std::to_string(divider));
            const double r = static_cast<double>(c.num) / c.den;
            Subject host(kMpeg2, 320, 240, c.num, c.den);
            host.frame_rate_limit = divider == 1 ? 0 : static_cast<int>(r / 2 + 0.999);
            open(host);
            ASSERT_EQ(host.frame_rate_divider, static_cast<unsigned>(divider));
            const Fraction expected =
                c.rate ? Fraction(divider * c.factor, c.rate) : Fraction(c.den * divider, c.num);
            EXPECT_EQ(Fraction(context().time_base), expected);
            EXPECT_EQ(host.frame_duration_90k, static_cast<int>(int64_t{c.den} * divider * 90000 / c.num))
                << "of the source's own fraction";
            char line[200];
            std::snprintf(line, sizeof line, "Source frame rate %.6f (%u/%u) encoder frame rate %s (%u/%u)\n",
                          r, c.num, c.den, divider == 1 ? c.printed : c.halved, expected.den, expected.num);
            EXPECT_EQ(occurrences(printed, line), 1) << "expected " << line << "printed " << printed;
        }
}

TEST_F(CodecOptions, LimitOf25With50HertzSource) {
    Subject host(kMpeg2, 720, 576, 50, 1);
    host.frame_rate_limit = 25;
    open(host);
    EXPECT_EQ(host.frame_rate_divider, 2u);
    EXPECT_EQ(Fraction(context().time_base), Fraction(2, 50));
    EXPECT_EQ(
        occurrences(printed, "Source frame rate 50.000000 (50/1) encoder frame rate 25.000000 (50/2)\n"), 1);
}

TEST_F(CodecOptions, LargeFractionsDoNotTrap) {
    Subject host(kMpeg2, 320, 240, 60000000, 1001000);
    open(host);
    EXPECT_EQ(Fraction(context().time_base), Fraction(1001, 60000));
}

TEST_F(CodecOptions, PictureLengthsThatHaveNo32BitValueAreZero) {
    Subject host(kMpeg2, 320, 240, -1, 1 << 27);  // 90000 << 27 keeps its lowest 32 bits: the least number
    open(host);
    EXPECT_EQ(host.frame_duration_90k, 0);
    Subject negative(kMpeg2, 320, 240, -25, -1);
    open(negative);
    EXPECT_EQ(negative.frame_duration_90k, 3600);
}

TEST_F(CodecOptions, EveryOpeningComputesTheDividerAnew) {
    Subject host(kMpeg2, 320, 240, 50, 1);
    host.frame_rate_limit = 25;
    open(host);
    EXPECT_EQ(host.frame_rate_divider, 2u);
    host.on_set("frame rate limit", "0", false);
    open(host);
    EXPECT_EQ(host.frame_rate_divider, 1u);
    EXPECT_EQ(host.frame_duration_90k, 1800);
}

// Threads

TEST_F(CodecOptions, ThreadCountFollowsProcessorsCodecAndSize) {
    struct ThreadCase {
        unsigned processors;
        int width, height, maximum;
        int expected[3];  // MPEG-2, H.264, H.265
    };
    for (const ThreadCase& c : {
             ThreadCase{16, 1920, 1080, 0, {3, 3, 5}},
             {16, 1920, 1080, -1, {3, 3, 5}},
             {16, 3840, 2160, 0, {4, 4, 5}},
             {16, 1922, 1080, 0, {4, 4, 5}},
             {16, 1920, 1082, 0, {4, 4, 5}},
             {16, 1080, 1920, 0, {4, 4, 5}},
             {64, 720, 576, 0, {3, 3, 5}},
             {64, 3840, 2160, 0, {4, 4, 5}},
             {4, 3840, 2160, 0, {4, 4, 4}},
             {3, 3840, 2160, 0, {3, 3, 3}},
             {3, 720, 576, 0, {3, 3, 3}},
             {2, 720, 576, 0, {2, 2, 2}},
             {1, 720, 576, 0, {1, 1, 1}},
             // as set, up to the processors
             {16, 1920, 1080, 8, {8, 8, 8}},
             {16, 1920, 1080, 1, {1, 1, 1}},
             {16, 1920, 1080, 16, {16, 16, 16}},
             {16, 1920, 1080, 17, {16, 16, 16}},
             {64, 720, 576, 40, {40, 40, 40}},
             {64, 720, 576, INT32_MAX, {64, 64, 64}},
             {2, 720, 576, 8, {2, 2, 2}},
         })
        for (int at = 0; at < 3; at++) {
            processor_count = c.processors;
            Subject host(kAllCodecs[at], c.width, c.height);
            host.maximum_threads = c.maximum;
            open(host);
            EXPECT_EQ(context().thread_count, c.expected[at])
                << "codec " << kAllCodecs[at] << ", " << c.processors << " processors, " << c.width << "x"
                << c.height << ", maximum " << c.maximum;
        }
}

TEST_F(CodecOptions, ThreadCountFollowsTheEncodedSize) {
    Subject smaller(kH264, 3840, 2160);
    smaller.resize_width = 1280;
    smaller.resize_height = 720;
    open(smaller);
    EXPECT_EQ(context().thread_count, 3);
    Subject larger(kMpeg2, 1280, 720);
    larger.resize_width = 3840;
    larger.resize_height = 2160;
    open(larger);
    EXPECT_EQ(context().thread_count, 4);
}

TEST_F(CodecOptions, ThreadTypeFollowsTheCodec) {
    AVCodecContext* fresh = avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_H264));
    const int unset = fresh->thread_type;
    avcodec_free_context(&fresh);
    struct TypeCase {
        int codec;
        bool b_slices;
        int expected;
    };
    for (const TypeCase& c : {TypeCase{kMpeg2, false, FF_THREAD_FRAME | FF_THREAD_SLICE},
                              {kMpeg2, true, FF_THREAD_FRAME | FF_THREAD_SLICE},
                              {kH264, false, unset},
                              {kH264, true, FF_THREAD_SLICE},
                              {kH265, false, FF_THREAD_FRAME | FF_THREAD_SLICE},
                              {kH265, true, FF_THREAD_FRAME | FF_THREAD_SLICE}}) {
        Subject host(c.codec);
        host.h264_b_slice_multithreading = c.b_slices;
        open(host);
        EXPECT_EQ(context().thread_type, c.expected) << "codec " << c.codec << " b-slices " << c.b_slices;
    }
}

// The real codecs take what they are given

TEST_F(CodecOptions, RealCodecsOpenUnderCommonSettings) {
    struct RealCase {
        int codec, width, height, num, den;
        std::vector<std::pair<const char*, const char*>> settings;
    };
    for (const RealCase& c : std::vector<RealCase>{
             {kMpeg2, 720, 480, 30000, 1001, {{"closed gop", "1"}, {"b frames", "2"}}},
             {kMpeg2, 720, 576, 50, 1, {{"frame rate limit", "25"}, {"max bitrate", "9000000"}}},
             {kMpeg2, 352, 288, 25, 1, {{"b frames", "0"}, {"minimum quant", "4"}, {"maximum quant", "28"}}},
             {kH264, 720, 480, 30000, 1001, {{"enable h.264 nal hrd", "1"}, {"h.264 level", "4.1"}}},
             {kH264, 320, 240, 25, 1, {{"h.264 profile", "baseline"}}},
             {kH264, 320, 240, 25, 1, {{"h.264 preset", "fast"}, {"h.264 profile", "high"}}},
             {kH264, 320, 240, 25, 1, {{"h.264 preset", "ultrafast+deblock"}, {"min bitrate", "1000000"}}},
             {kH265, 320, 240, 25, 1, {{"h.264 preset", "ultrafast+deblock"}}},
             {kH265, 320, 240, 30, 1, {{"h.264 preset", "veryfast"}, {"h.264 profile", "main"}}},
         }) {
        SCOPED_TRACE("codec " + std::to_string(c.codec) + " with \"" + c.settings[0].first + "\"");
        codec_listener.opening = Opening::kReal;
        processor_count = 2;
        Subject host(c.codec, c.width, c.height, c.num, c.den);
        configure(host, c.settings);
        open(host);
        EXPECT_TRUE(host.encoder_open);
    }
}

}  // namespace
}  // namespace gsve::test
