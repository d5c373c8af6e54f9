// What users read where an encoder does not open, or could not go on.

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "encoding/advice.h"
#include "encoding/stuffing.h"
#include "encoding/vbv_delay.h"

namespace {

using namespace gsve::encoding;
using testing::HasSubstr;
using testing::StartsWith;

/// MPEG-2, 720x576 at 25 pictures/s, with nothing to complain about.
void set_up(PictureEncoder& encoder) {
    encoder.describe_source({.width = 720, .height = 576, .frame_rate = {25, 1}});
    encoder.apply("encoder", "mpeg-2");
    encoder.output_chroma_shift_x = encoder.output_chroma_shift_y = 1;
    encoder.output_pixel_format = AV_PIX_FMT_YUV420P;
    encoder.frame_rate_divider = 1;
    encoder.per_frame_rate_control = true;
}

const char* const kNothingKnown = "check the settings; --verbose shows what the codec says";

TEST(OpeningAdvice, NamesTheSettingToChange) {
    using Change = std::function<void(PictureEncoder&)>;
    const struct {
        Change change;
        std::string advice;  ///< its beginning
    } rows[] = {
        {[](auto&) {}, kNothingKnown},
        // H.265 and its one profile
        {[](auto& e) { e.apply("encoder", "h.265"), e.apply("b frames", "0"); },
         "H.265 has the main profile: --set \"h.264 profile=main\""},
        {[](auto& e) {
             e.apply("encoder", "h.265"), e.apply("b frames", "0"), e.apply("h.264 profile", "main");
         },
         kNothingKnown},
        {[](auto& e) { e.apply("encoder", "h.265"), e.apply("b frames", "1"); }, kNothingKnown},
        {[](auto& e) {
             e.apply("encoder", "h.265"), e.apply("b frames", "2"), e.apply("h.264 profile", "high");
         },
         "H.265 has the main profile"},
        {[](auto& e) { e.apply("encoder", "h.264"), e.apply("h.264 profile", "high"); }, kNothingKnown},
        // B-pictures
        {[](auto& e) { e.apply("b frames", "16"); }, kNothingKnown},
        {[](auto& e) { e.apply("b frames", "17"); }, "no codec takes more than 16 B-pictures"},
        // Sizes
        {[](auto& e) { e.apply("resize", "352x288"); }, kNothingKnown},
        {[](auto& e) { e.apply("resize", "351x288"); }, "this chroma format needs even sizes"},
        {[](auto& e) { e.apply("resize", "352x287"); }, "this chroma format needs even sizes"},
        {[](auto& e) { e.apply("resize", "351x287"), e.output_chroma_shift_x = 0; }, kNothingKnown},
        {[](auto& e) { e.resize_height = 287; }, kNothingKnown},
        {[](auto& e) { e.resize_width = 0, e.resize_height = 287; }, kNothingKnown},
        {[](auto& e) { e.apply("resize", "1x288"); }, "this chroma format needs even sizes"},
        {[](auto& e) { e.input_interlaced = 1, e.apply("resize", "352x290"); },
         "interlaced pictures need a height in multiples of 4"},
        {[](auto& e) { e.input_interlaced = 1, e.apply("resize", "352x288"); }, kNothingKnown},
        {[](auto& e) { e.apply("resize", "352x290"); }, kNothingKnown},
        {[](auto& e) { e.input_interlaced = 1, e.apply("resize", "352x290"), e.resize_deinterlace = 0; },
         kNothingKnown},
        // Chroma
        {[](auto& e) { e.output_pixel_format = AV_PIX_FMT_YUV411P; }, "no codec has 4:1:1"},
        // Buffers: a picture at 25/s
        {[](auto& e) { e.apply("bitrate", "2500000"), e.apply("buffer size", "100000"); }, kNothingKnown},
        {[](auto& e) { e.apply("bitrate", "2500000"), e.apply("buffer size", "99999"); },
         "MPEG-2 needs room for a picture in its buffer: --set \"buffer size=100000\" --set \"min "
         "bitrate=0\""},
        {[](auto& e) { e.apply("bitrate", "2500001"), e.apply("buffer size", "1"); },
         "MPEG-2 needs room for a picture in its buffer: --set \"buffer size=100001\""},
        {[](auto& e) { e.apply("encoder", "h.264"), e.apply("buffer size", "1"); }, kNothingKnown},
        {[](auto& e) { e.apply("bitrate", "45000000"); }, kNothingKnown},
        {[](auto& e) { e.apply("bitrate", "45875200"); }, kNothingKnown},  // a picture of 1835008 bits
        {[](auto& e) { e.apply("bitrate", "45875225"); }, "MPEG-2 needs room for a picture in its buffer"},
        {[](auto& e) { e.frame_rate_num = 24, e.frame_rate_divider = 6; },
         kNothingKnown},  // a quarter second
        {[](auto& e) { e.frame_rate_num = 24, e.frame_rate_divider = 7; },
         "MPEG-2 needs room for a picture in its buffer"},
        // Rates
        {[](auto& e) { e.frame_rate_num = 26; }, "MPEG-2 may not have 26.000 pictures/s: --rate 30000/1001"},
        {[](auto& e) { e.frame_rate_num = 50, e.frame_rate_den = 2; }, kNothingKnown},
        {[](auto& e) { e.apply("encoder", "h.264"), e.frame_rate_num = 26; }, kNothingKnown},
        // Bounds of the rate
        {[](auto& e) { e.apply("max bitrate", "5999999"); }, "\"max bitrate\" is below"},
        {[](auto& e) { e.apply("max bitrate", "6000000"); }, kNothingKnown},
        {[](auto& e) { e.apply("max bitrate", "7000000"), e.apply("min bitrate", "7000001"); },
         "\"max bitrate\" is below"},
        {[](auto& e) { e.apply("max bitrate", "7000000"), e.apply("min bitrate", "7000000"); },
         kNothingKnown},
        {[](auto& e) { e.max_bitrate = 0; }, "\"max bitrate\" is below"},
        // Bounds of the quantiser
        {[](auto& e) { e.apply("maximum quant", "4"), e.apply("minimum quant", "5"); },
         "\"minimum quant\" is above"},
        {[](auto& e) { e.apply("maximum quant", "5"), e.apply("minimum quant", "5"); }, kNothingKnown},
        {[](auto& e) { e.apply("maximum quant", "1"), e.apply("minimum quant", "2"); },
         "\"minimum quant\" is above"},
        {[](auto& e) { e.apply("minimum quant", "5"); }, kNothingKnown},
    };
    int number = 0;
    for (const auto& row : rows) {
        PictureEncoder encoder("advice");
        set_up(encoder);
        row.change(encoder);
        EXPECT_THAT(opening_advice(encoder), StartsWith(row.advice)) << "row " << number;
        number++;
    }
}

TEST(OpeningAdvice, GivesTheLikeliestReasonFirst) {
    PictureEncoder encoder("advice");
    set_up(encoder);
    encoder.apply("b frames", "17");
    encoder.apply("max bitrate", "100000");
    encoder.apply("resize", "351x288");
    EXPECT_THAT(opening_advice(encoder), StartsWith("no codec takes"));
    encoder.apply("b frames", "2");
    EXPECT_THAT(opening_advice(encoder), StartsWith("this chroma format"));
}

TEST(HardestBitsPerSample, FollowsTheCoarsestQuantiserThatIsAllowed) {
    for (const int any : {-1, 0, 31, 32, 63}) EXPECT_DOUBLE_EQ(hardest_bits_per_sample(any), 3.8) << any;
    EXPECT_NEAR(hardest_bits_per_sample(30), 3.947, 0.001);
    EXPECT_NEAR(hardest_bits_per_sample(8), 9.858, 0.001);
    EXPECT_NEAR(hardest_bits_per_sample(1), 19.158, 0.001);
}

TEST(HardestPicture, CountsTheSamplesThatAreCoded) {
    PictureEncoder encoder("vbv");
    set_up(encoder);
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 2363904);
    encoder.input_chroma_shift_y = 0;
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 3151872);
    encoder.input_chroma_shift_x = 0;
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 4727808);
    encoder.input_chroma_shift_x = encoder.input_chroma_shift_y = 1;
    encoder.apply("resize", "352x288");
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 577843.2);
    encoder.resize_width = 0;
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 2363904);
    encoder.resize_width = 352, encoder.resize_height = 0;
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 2363904);
    encoder.resize_width = encoder.resize_height = 1;
    EXPECT_DOUBLE_EQ(hardest_picture(encoder), 1.5 * 3.8);
}

TEST(VbvDelayAdvice, IsNeededWhereOnePictureCanTakeTooLong) {
    struct Row {
        std::vector<std::pair<const char*, const char*>> settings;
        bool needed;
    };
    const Row rows[] = {
        {{{"bitrate", "3000000"}}, true},
        {{{"bitrate", "3262393"}}, true},
        {{{"bitrate", "3262394"}}, false},  // from here on, a picture of noise fits
        {{{"bitrate", "3000000"}, {"encoder", "h.264"}}, false},
        {{{"bitrate", "3000000"}, {"min bitrate", "0"}}, false},
        {{{"bitrate", "3000000"}, {"min bitrate", "2983984"}}, true},
        {{{"bitrate", "3000000"}, {"min bitrate", "2983983"}}, false},
        {{{"bitrate", "3000000"}, {"max bitrate", "3016016"}}, true},
        {{{"bitrate", "3000000"}, {"max bitrate", "3016017"}}, false},
        {{{"bitrate", "3000000"}, {"min bitrate", "3000000"}, {"max bitrate", "3000000"}}, true},
        {{{"bitrate", "3000000"}, {"buffer size", "2184501"}}, true},
        {{{"bitrate", "3000000"}, {"buffer size", "2184502"}}, false},
        {{{"bitrate", "3000000"}, {"buffer size", "1"}}, true},
        {{{"bitrate", "16000"}, {"min bitrate", "0"}, {"max bitrate", "0"}, {"buffer size", "1"}}, false},
        {{{"bitrate", "16000"}, {"min bitrate", "0"}, {"max bitrate", "1"}, {"buffer size", "1"}}, true},
        {{{"bitrate", "6000000"}, {"maximum quant", "8"}}, true},
    };
    int number = 0;
    for (const Row& row : rows) {
        PictureEncoder encoder("vbv");
        set_up(encoder);
        for (const auto& [key, value] : row.settings) encoder.apply(key, value);
        EXPECT_EQ(vbv_delay_advice(encoder).needed, row.needed) << "row " << number;
        EXPECT_EQ(long_picture_warning(encoder).empty(), !row.needed) << "row " << number;
        number++;
    }
}

TEST(VbvDelayAdvice, HasNoNeedWithALargeBufferByDefault) {
    // A quarter second, up to 1835008 bits, is above 0.728 s of the highest rate only where that is low; no
    // rate is.
    PictureEncoder encoder("vbv");
    set_up(encoder);
    for (int rate = 100000; rate < 3200000; rate += 100000) {
        encoder.bitrate = rate;
        EXPECT_TRUE(vbv_delay_advice(encoder).needed) << rate;
    }
}

TEST(VbvDelayAdvice, TellsWhatWouldDo) {
    PictureEncoder encoder("vbv");
    set_up(encoder);
    encoder.apply("bitrate", "3000000");
    const VbvDelayAdvice advice = vbv_delay_advice(encoder);
    EXPECT_EQ(advice.bitrate, 3262394);
    EXPECT_EQ(advice.buffer_size, 2184502);
    EXPECT_EQ(long_picture_warning(encoder),
              "at a constant 3000000 bits/s a noisy picture can take more than the 0.73 s that MPEG-2 has "
              "for it, and "
              "libavcodec then ends the program: --set \"min bitrate=0\", or --set \"buffer size=2184502\", "
              "or give "
              "3262394 bits/s");
}

/// Of grey pictures, MPEG-2 at 25 pictures/s and a constant rate.
struct StillEncoder {
    StillEncoder(int width, int height, int threads, int64_t bitrate)
        : width_(width), grey_(width * height, 128) {
        encoder.describe_source({.width = width, .height = height, .frame_rate = {25, 1}});
        const std::pair<const char*, std::string> settings[] = {
            {"encoder", "mpeg-2"},   {"b frames", "0"},       {"maximum threads", std::to_string(threads)},
            {"enable eia-608", "0"}, {"enable cea-708", "0"}, {"bitrate", std::to_string(bitrate)},
            {"enable", "1"}};
        for (const auto& [key, value] : settings) encoder.apply(key, value);
        encoder.send_units_to([this](const EncodedUnit&) { units_++; });
        EXPECT_TRUE(encoder.open({})) << encoder.last_error;
    }

    /// How many come out, up to the first that is refused.
    int encode(int count) {
        const size_t width = width_;
        for (int n = 0; n < count && units_ + 2 > n; n++)  // one is held back
            encoder.push({.planes = {grey_.data(), grey_.data(), grey_.data()},
                          .strides = {width, width / 2, width / 2},
                          .number = static_cast<uint64_t>(n)},
                         {});
        if (units_ + 2 > count) encoder.drain();
        return units_;
    }

    PictureEncoder encoder{"stuffing"};

private:
    int width_;
    int units_ = 0;
    std::vector<uint8_t> grey_;
};

TEST(StuffingWarning, IsOfTheRatesAtWhichStillPicturesAreRefused) {
    constexpr int kPictures = 100;
    constexpr double kMargin = 1.08;  // libavcodec allocates a sixteenth more than it asks for
    const struct {
        int width, height, threads;
        int64_t highest;
    } rows[] = {
        {720, 576, 1, 22725800}, {320, 180, 1, 5061800}, {64, 48, 1, 2143400},
        {64, 48, 2, 9429800},    {640, 16, 2, 2501800},  // one row of macroblocks is not divided
    };
    for (const auto& [width, height, threads, highest] : rows) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << ", " << threads << " threads");
        StillEncoder fits(width, height, threads, highest),
            refuses(width, height, threads, kMargin * highest);
        EXPECT_EQ(highest_stuffed_rate(*fits.encoder.mpeg_context), highest);
        EXPECT_EQ(stuffing_warning(fits.encoder), "");
        EXPECT_EQ(fits.encode(kPictures), kPictures);
        EXPECT_NE(stuffing_warning(refuses.encoder), "");
        EXPECT_LT(refuses.encode(kPictures), kPictures);
    }
}

TEST(StuffingWarning, NamesTheSettingsToChange) {
    StillEncoder still(320, 180, 1, 6000000);
    EXPECT_EQ(
        stuffing_warning(still.encoder),
        "at no less than 6000000 bits/s a still picture of 320x180 can take more stuffing than libavcodec "
        "has room for with 1 thread, and libavcodec then ends the program: --set \"min bitrate=0\", or give "
        "at most 5061800 bits/s");
    PictureEncoder variable("stuffing"), other("stuffing");
    for (PictureEncoder* encoder : {&variable, &other}) {
        encoder->describe_source({.width = 64, .height = 48, .frame_rate = {25, 1}});
        encoder->apply("encoder", encoder == &variable ? "mpeg-2" : "h.264");
        encoder->apply("min bitrate", encoder == &variable ? "0" : "6000000");
        encoder->apply("enable", "1");
        ASSERT_TRUE(encoder->open({})) << encoder->last_error;
        EXPECT_EQ(stuffing_warning(*encoder), "");
    }
}

}  // namespace
