// Rate statistics, frame dropping and the MPEG-2 complexity adaptation, with packet sizes and encode times by
// script. The expected values are figures worked out by hand.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/mpeg2_units.h"
#include "support/scripted_encoder.h"

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr double kNoValue = -666.0;

/// An MPEG-2 picture of `size` bytes.
Bytes sized_unit(size_t size) {
    Bytes unit = picture_unit(2);
    while (unit.size() < size) unit.push_back(0x55);
    unit.resize(size);
    return unit;
}

class RateStatistics : public ScriptedEncoder {
protected:
    void open_plain(const char* codec, const Settings& more = {}) {
        Settings settings = {{"enable cea-708", "0"}, {"enable eia-608", "0"}};
        settings.insert(settings.end(), more.begin(), more.end());
        open(codec, settings);
    }
    void write_quietly(uint64_t timestamp) {
        stderr_of([&] { write(timestamp); });
    }
};

// Smoothing

TEST_F(RateStatistics, StartsWithoutAValueAndTakesTheFirstOneWhole) {
    open_plain("mpeg-2");
    EXPECT_EQ(host.smoothed_bitrate, kNoValue);
    EXPECT_EQ(host.smoothed_encode_time, kNoValue);
    script({taking(12500, packet(sized_unit(1000)))});
    write(0);
    EXPECT_DOUBLE_EQ(host.smoothed_bitrate, 1000 * 8 * 25);
    EXPECT_DOUBLE_EQ(host.smoothed_encode_time, 0.0125);
}

TEST_F(RateStatistics, SmoothsByCodec) {
    const struct {
        const char* codec;
        double weight;
    } cases[] = {{"mpeg-2", 0.25}, {"h.264", 0.025}, {"h.265", 0.025}};
    for (const auto& row : cases) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, row.codec);
        surroundings().scripted = true;
        encoder.smoothed_bitrate = 400000;
        encoder.smoothed_encode_time = 0.020;
        surroundings().outcomes = {taking(10000, packet(sized_unit(1000)))};
        write_to(encoder, 0);
        EXPECT_DOUBLE_EQ(encoder.smoothed_bitrate, 400000 * (1 - row.weight) + 200000 * row.weight)
            << row.codec;
        EXPECT_DOUBLE_EQ(encoder.smoothed_encode_time, 0.015) << row.codec;
    }
}

TEST_F(RateStatistics, TakesValuesJustAboveTheMarkersForValues) {
    const struct {
        double bitrate, encode_time, bitrate_after, encode_time_after;
    } cases[] = {
        {-666.0, -666.0, 200000, 0.01},
        {-665.0, -666.5, 200000, 0.01},
        {-664.9, -665.9, -664.9 * 0.75 + 50000, -665.9 * 0.5 + 0.005},
        {-700.0, -665.0, 200000, -665.0 * 0.5 + 0.005},
        {0.0, 0.0, 50000, 0.005},
    };
    open_plain("mpeg-2");
    for (const auto& row : cases) {
        host.smoothed_bitrate = row.bitrate;
        host.smoothed_encode_time = row.encode_time;
        script({taking(10000, packet(sized_unit(1000)))});
        write(0);
        EXPECT_DOUBLE_EQ(host.smoothed_bitrate, row.bitrate_after) << row.bitrate;
        EXPECT_DOUBLE_EQ(host.smoothed_encode_time, row.encode_time_after) << row.encode_time;
    }
}

TEST_F(RateStatistics, MeasuresTheRateOfEncodedPictures) {
    const struct {
        int num, den;
        unsigned divider;
        double rate;
    } cases[] = {
        {25, 1, 1, 200000.0},
        {50, 1, 2, 200000.0},
        {30000, 1001, 1, 8000.0 * 30000 / 1001},
        {60000, 1001, 3, 8000.0 * 60000 / 3003},
    };
    open_plain("mpeg-2");
    for (const auto& row : cases) {
        host.frame_rate_num = row.num;
        host.frame_rate_den = row.den;
        host.frame_rate_divider = row.divider;
        host.smoothed_bitrate = kNoValue;
        script({packet(sized_unit(1000))});
        write(0);
        EXPECT_NEAR(host.smoothed_bitrate, row.rate, 1e-6)
            << row.num << "/" << row.den << " by " << row.divider;
    }
}

TEST_F(RateStatistics, FormsTheRateWideEnoughForLargePackets) {
    open_plain("h.264");
    host.mpeg_context->bit_rate = 100000000;  // makes the window large
    host.frame_rate_num = 60000;
    host.frame_rate_den = 1001;
    script({packet(sized_unit(2000000))});
    write(0);
    EXPECT_NEAR(host.smoothed_bitrate, 2000000.0 * 8 * 60000 / 1001, 1e-3);
}

TEST_F(RateStatistics, CountsNothingForAPictureWithoutAPacketAndALostPacketInFull) {
    const struct {
        Outcome outcome;
        double size;
    } cases[] = {
        {held_back(), 0},
        {packet({}), 0},
        {send_error(AVERROR(EINVAL)), 0},
        {receive_error(AVERROR_EXTERNAL), 0},
        {packet(sized_unit(100)), 100},
        {packet(sized_unit(3000)), 3000},  // does not fit
    };
    open_plain("mpeg-2");
    write_quietly(0);
    host.output_window->limit = host.output_window->base + 8192 + 200;
    for (const auto& row : cases) {
        host.smoothed_bitrate = 400000;
        host.units.clear();
        script({row.outcome});
        write_quietly(1);
        EXPECT_DOUBLE_EQ(host.smoothed_bitrate, 300000 + row.size * 8 * 25 * 0.25);
        EXPECT_EQ(host.units.size(), row.size == 100 ? 1u : 0u);
    }
}

TEST_F(RateStatistics, MeasuresTheEncodeTimeOfEveryExchange) {
    const Outcome outcomes[] = {held_back(), send_error(AVERROR(EINVAL)), receive_error(AVERROR_EXTERNAL),
                                packet(sized_unit(100))};
    open_plain("h.264");
    for (const Outcome& outcome : outcomes) {
        host.smoothed_encode_time = 0.5;
        script({taking(250000, outcome)});
        write_quietly(0);
        EXPECT_DOUBLE_EQ(host.smoothed_encode_time, 0.375);
    }
}

TEST_F(RateStatistics, LetsTheDropLevelFollowTheRate) {
    const struct {
        double rate_before, level_before, change;
    } cases[] = {
        // 1000 bytes at 25 pictures/s are 200000 bits/s, a quarter of which enters the smoothed rate.
        {1600000, 0.0, 0.25},        // 1250000 against 1000000
        {1600000, 3.9, 0.25},        // clamped to 4
        {4000000, 0.0, 2.05},        // 3050000
        {800000, 1.0, -0.35},        // 650000
        {800000, 0.1, -0.35},        // clamped to 0
        {1266668.5, 0.5, 0.000001},  // 1000001.375: the fraction is cut off first
        {-400000, 1.5, -0.8},        // below the marker for no value: 200000 whole
        {-600, 3.0, -0.95045},       // a negative rate that counts: 49550
    };
    for (const char* drop : {"off", "on"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, "mpeg-2", {{"drop frame for bitrate limit", drop}});
        surroundings().scripted = true;
        for (const auto& row : cases) {
            encoder.smoothed_bitrate = row.rate_before;
            encoder.drop_level = row.level_before;
            encoder.drop_credit = 1000;
            surroundings().outcomes = {packet(sized_unit(1000))};
            write_to(encoder, 0);
            // With the switch off the level starts every picture at zero.
            const double start = encoder.drop_frame_for_bitrate_limit > 0 ? row.level_before : 0;
            EXPECT_NEAR(encoder.drop_level, std::clamp(start + row.change, 0.0, 4.0), 1e-12)
                << drop << " " << row.rate_before;
        }
    }
}

// Frame dropping

class FrameDropping : public RateStatistics {
protected:
    /// Whether each of `count` pictures is dropped when the drop level is put to `level` before each.
    std::vector<bool> dropped_at(double level, int count) {
        std::vector<bool> dropped;
        for (int i = 0; i < count; i++) {
            host.drop_level = level;
            const size_t sent_before = surroundings().pictures.size();
            surroundings().outcomes = {packet(sized_unit(100))};
            EXPECT_EQ(stderr_of([&] { EXPECT_TRUE(write(timestamp++)); }), "");
            dropped.push_back(surroundings().pictures.size() == sent_before);
        }
        return dropped;
    }
    uint64_t timestamp = 0;
};

TEST_F(FrameDropping, DropsTheFirstThreeAndThenTwoOfThreeAtLevelTwo) {
    open_plain("h.264", {{"drop frame for bitrate limit", "on"}});
    const bool expected[] = {true, true, true,  false, true, true, false,
                             true, true, false, true,  true, false};
    EXPECT_THAT(dropped_at(2.0, 13), ElementsAreArray(expected));
}

TEST_F(FrameDropping, FollowsTheLevel) {
    // Worked out by hand: a credit of pictures dropped so far is compared with the rounded level and paid
    // back by it. Credits between the rounded level and the level itself end the dropping.
    const struct {
        double level;
        const char* pictures;  // D: dropped
        double credit;         // after them
    } cases[] = {
        {0.0, "....................", 0},     {1.0, "....................", 0},
        {1.49, "....................", 0},    {1.5, "DDD.D.DD.D.DD.D.DD.D", 2.5},
        {1.75, "DDD.D.DD.DD.DD.D.DD.", 0.75}, {2.0, "DDD.DD.DD.DD.DD.DD.D", 2},
        {2.49, "DDD.DD.DD...........", 2.02}, {2.5, "DDDD.DD.DDD.DD.DDD.D", 2.5},
        {3.0, "DDDD.DDD.DDD.DDD.DDD", 4},     {3.3, "DDDD.DDD.DDD.DDD....", 3.1},
        {3.5, "DDDDD.DDD.DDDD.DDD.D", 2},     {4.0, "DDDDD.DDDD.DDDD.DDDD", 5},
    };
    open_plain("mpeg-2", {{"drop frame for bitrate limit", "1"}});
    for (const auto& row : cases) {
        host.drop_credit = 0;
        std::string pictures;
        for (const bool dropped : dropped_at(row.level, 20)) pictures += dropped ? 'D' : '.';
        EXPECT_EQ(pictures, row.pictures) << "level " << row.level;
        EXPECT_NEAR(host.drop_credit, row.credit, 1e-9) << "level " << row.level;
    }
}

TEST_F(FrameDropping, PaysTheCreditBackWithPicturesThatAreSent) {
    const struct {
        double level, credit, credit_after;
    } cases[] = {{1.0, 1.0, 0.0}, {1.0, 0.9, 0.9}, {1.4, 3.0, 1.6},
                 {0.0, 2.0, 2.0}, {2.0, 2.5, 0.5}, {4.0, 5.0, 1.0}};
    open_plain("h.264", {{"drop frame for bitrate limit", "on"}});
    for (const auto& row : cases) {
        host.drop_credit = row.credit;
        EXPECT_THAT(dropped_at(row.level, 1), ElementsAre(false)) << row.level;
        EXPECT_DOUBLE_EQ(host.drop_credit, row.credit_after) << row.level;
    }
}

TEST_F(FrameDropping, IsSwitchedBySettingOrByALowBitRate) {
    const struct {
        int setting;
        int bitrate;
        bool drops;
    } cases[] = {{1, 1000000, true}, {2, 9000000, true},  {0, 1000000, false}, {0, 100000, false},
                 {-1, 749999, true}, {-1, 750000, false}, {-5, 100000, true},  {-5, 1000000, false}};
    open_plain("h.264");
    for (const auto& row : cases) {
        host.drop_frame_for_bitrate_limit = row.setting;
        host.bitrate = row.bitrate;
        host.drop_credit = 0;
        EXPECT_THAT(dropped_at(2.0, 1), ElementsAre(row.drops)) << row.setting << " at " << row.bitrate;
    }
}

TEST_F(FrameDropping, ForgetsLevelAndCreditWhenSwitchedOff) {
    open_plain("h.264", {{"drop frame for bitrate limit", "off"}});
    host.drop_level = 3;
    host.drop_credit = 2;
    host.smoothed_bitrate = 0;
    script({packet(sized_unit(100))});
    write(0);
    EXPECT_EQ(host.drop_level, 0.0);
    EXPECT_EQ(host.drop_credit, 0.0);
}

TEST_F(FrameDropping, CountsADroppedPictureAsInputOnly) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec, {{"drop frame for bitrate limit", "on"}, {"frame rate limit", "25"}});
        surroundings().scripted = true;
        surroundings().outcomes = {packet(sized_unit(500)), packet(sized_unit(500))};
        write_to(encoder, 0);
        encoder.drop_level = 2.0;
        encoder.smoothed_bitrate = 2000000;
        encoder.smoothed_encode_time = 0.5;
        encoder.scte20_length = 3;
        encoder.requested_picture_type = 'I';
        encoder.gop_sync_frame_number = 1;
        bool result = false;
        EXPECT_EQ(stderr_of([&] { result = write_to(encoder, 1); }), "") << codec;
        EXPECT_TRUE(result);
        EXPECT_EQ(surroundings().pictures.size(), 1u);
        EXPECT_EQ(encoder.units.size(), 1u);
        EXPECT_EQ(encoder.frame_counter, 1u);
        EXPECT_EQ(encoder.encoded_frame_count, 1u);
        EXPECT_EQ(encoder.input_frame_count, 2u);
        EXPECT_EQ(encoder.codec_delay_count, 0u);
        EXPECT_EQ(encoder.output_frame_count, 1u)
            << "the frame number of the source, taken on by the request";
        EXPECT_EQ(encoder.last_relative_timestamp, 1u);
        EXPECT_EQ(encoder.next_due_timestamp, 2u);
        EXPECT_EQ(encoder.scte20_length, 0u);
        EXPECT_EQ(encoder.requested_picture_type, -1);
        EXPECT_DOUBLE_EQ(encoder.smoothed_encode_time, 0.25);
        const double rate = 2000000 * (encoder.codec_id == 2 ? 0.75 : 0.975);
        EXPECT_DOUBLE_EQ(encoder.smoothed_bitrate, rate) << codec;
        EXPECT_NEAR(encoder.drop_level, 2.0 + (static_cast<int32_t>(rate) - 1000000) / 1000000.0, 1e-12)
            << codec;
        EXPECT_EQ(encoder.pts_map.size(), encoder.codec_id == 2 ? 1u : 0u)
            << "no entry for a dropped picture";
    }
}

TEST_F(FrameDropping, GivesTheNextPictureTheDroppedOnesNumberUnderPerFrameRateControl) {
    open_plain("mpeg-2", {{"constant bitrate per frame", "1"}, {"drop frame for bitrate limit", "on"}});
    script({packet(sized_unit(500)), packet(sized_unit(500))});
    write(10);
    host.drop_level = 2.0;
    host.host_frame_tag = 1;
    write(11);
    host.drop_level = 0.0;
    host.host_frame_tag = 2;
    write(12);
    ASSERT_EQ(host.units.size(), 2u);
    EXPECT_EQ(sent(1).pts, 1);
    EXPECT_EQ(host.units[1].pts, 2) << "relative timestamp of the picture that was sent";
    EXPECT_EQ(host.aux_data_map.at(1).host_frame_tag, 2u);
}

// Complexity adaptation

class ComplexityAdaptation : public RateStatistics {
protected:
    /// Encodes one picture after the smoothed values were put so that the picture leaves exactly `rate` and
    /// `encode_time` in them. The codec's packet has 1000 bytes.
    void encode_with(double rate, double encode_time) {
        const double instantaneous =
            8000.0 * host.frame_rate_num / (host.frame_rate_den * host.frame_rate_divider);
        host.smoothed_bitrate = (rate - 0.25 * instantaneous) / 0.75;
        host.smoothed_encode_time = 2 * encode_time;
        script({taking(0, packet(sized_unit(1000)))});
        write_quietly(timestamp++);
    }
    uint64_t timestamp = 0;
};

struct BranchCase {
    const char* branch;
    double rate;         // bits/s against a target of 4000000
    double encode_time;  // seconds against a budget of 0.02: half of a period of 0.04
    bool per_frame;
    double complexity;  // against a floor of 0.1
    int me_range;       // against an upper bound of 16
    uint64_t output_frame_count;
    double complexity_after;
    int me_range_after;
    float masking;
};

TEST_F(ComplexityAdaptation, TakesEachBranchAsWorkedOutByHand) {
    const BranchCase cases[] = {
        {"recovers by 0.044", 3e6, 0.01, false, 0.5, 8, 1, 0.456, 8, 0.456f},
        {"recovers to the floor", 3e6, 0.01, false, 0.12, 8, 1, 0.1, 8, 0.1f},
        {"stays at the floor", 3e6, 0.01, false, 0.1, 8, 1, 0.1, 8, 0.1f},
        {"stays below the floor", 3e6, 0.01, false, 0.05, 8, 1, 0.05, 8, 0.05f},
        {"recovers from above one", 3e6, 0.01, false, 1.5, 8, 1, 1.456, 8, 1.0f},
        {"widens the range every 16th unit", 3e6, 0.01, false, 0.1, 8, 16, 0.1, 9, 0.1f},
        {"widens the range with unit 0", 3e6, 0.01, false, 0.1, 8, 0, 0.1, 9, 0.1f},
        {"widens the range to its bound", 3e6, 0.01, false, 0.1, 15, 32, 0.1, 16, 0.1f},
        {"leaves the range at its bound", 3e6, 0.01, false, 0.1, 16, 32, 0.1, 16, 0.1f},
        {"recovers just within the rate", 5.31e6, 0.01, false, 0.5, 8, 1, 0.456, 8, 0.456f},
        {"over budget within the rate", 3e6, 0.024, false, 0.5, 8, 1, 0.7, 7, 0.7f},
        {"over budget at the budget exactly", 3e6, 0.02, false, 0.5, 8, 1, 0.5, 7, 0.5f},
        {"over budget, capped", 3e6, 0.04, false, 0.5, 8, 1, 1.0, 7, 1.0f},
        {"over budget, complexity one already", 3e6, 0.03, false, 1.0, 8, 1, 1.0, 7, 1.0f},
        {"over budget, complexity above one", 3e6, 0.03, false, 1.5, 8, 1, 1.0, 7, 1.0f},
        {"over budget, range 4 to 3", 3e6, 0.02, false, 0.5, 4, 1, 0.5, 3, 0.5f},
        {"over budget, range 3 to 2", 3e6, 0.02, false, 0.5, 3, 1, 0.5, 2, 0.5f},
        {"over budget, range 2 stays", 3e6, 0.02, false, 0.5, 2, 1, 0.5, 2, 0.5f},
        {"over budget, range 1 to 2", 3e6, 0.02, false, 0.5, 1, 1, 0.5, 2, 0.5f},
        {"over budget never widens", 3e6, 0.02, false, 0.5, 8, 16, 0.5, 7, 0.5f},
        {"over the rate", 6e6, 0.01, false, 0.5, 8, 16, 0.5025, 8, 0.5025f},
        {"over the rate from 1.33 of the target on", 5.32e6, 0.01, false, 0.5, 8, 1, 0.50165, 8, 0.62165f},
        {"over the rate, twice the target", 8e6, 0.01, false, 0.99, 8, 1, 0.995, 8, 0.995f},
        {"over the rate, at one", 8e6, 0.01, false, 1.0, 8, 1, 1.0, 8, 1.0f},
        {"over the rate, beyond one", 8e6, 0.01, false, 0.999, 8, 1, 1.0, 8, 1.0f},
        {"over the rate, above one before", 8e6, 0.01, false, 1.7, 8, 1, 1.0, 8, 1.0f},
        {"over rate and budget, beyond one", 8e6, 0.02, false, 0.999, 8, 1, 1.0, 7, 1.0f},
        {"over rate and budget", 8e6, 0.024, false, 0.5, 8, 1, 0.705, 7, 0.705f},
        {"over the rate, per frame", 8e6, 0.01, true, 0.5, 8, 16, 0.5, 8, 0.5f},
        {"over rate and budget, per frame", 8e6, 0.024, true, 0.5, 8, 16, 0.7, 7, 0.7f},
    };
    open_plain("mpeg-2", {{"bitrate", "4000000"}, {"cpu threshhold", "0.5"}});
    for (const BranchCase& row : cases) {
        host.per_frame_rate_control = row.per_frame;
        host.spatial_complexity_masking = 0.1;
        host.saved_spatial_masking = row.complexity;
        host.mpeg_context->me_range = row.me_range;
        host.output_frame_count = row.output_frame_count;
        host.drop_level = 0;
        const double excess = row.rate / 4e6 - 1;  // becomes the drop level; 0.3 and more of it mask more
        encode_with(row.rate, row.encode_time);
        const double masking = std::min<double>(
            excess > 0.3 ? (excess - 0.3) * 4 + std::min(row.complexity_after, 1.0) : row.masking, 1.0);
        EXPECT_NEAR(host.saved_spatial_masking, row.complexity_after, 1e-9) << row.branch;
        EXPECT_EQ(host.mpeg_context->me_range, row.me_range_after) << row.branch;
        EXPECT_NEAR(host.mpeg_context->spatial_cplx_masking, masking, 1e-5) << row.branch;
    }
}

TEST_F(ComplexityAdaptation, AddsTheExcessOfTheDropLevelToTheMasking) {
    const struct {
        double level;
        float masking;
    } cases[] = {{0.0, 0.2f},  {0.29, 0.2f}, {0.3, 0.2f}, {0.35, 0.4f},
                 {0.45, 0.8f}, {0.5, 1.0f},  {0.6, 1.0f}, {4.0, 1.0f}};
    open_plain("mpeg-2", {{"drop frame for bitrate limit", "on"}, {"bitrate", "4000000"}});
    for (const auto& row : cases) {
        host.spatial_complexity_masking = 0.2;
        host.saved_spatial_masking = 0.2;
        host.drop_level = row.level;
        host.drop_credit = 100;
        encode_with(4000000, 0.001);
        ASSERT_NEAR(host.drop_level, row.level, 1e-6);
        EXPECT_NEAR(host.mpeg_context->spatial_cplx_masking, row.masking, 1e-5) << row.level;
    }
}

TEST_F(ComplexityAdaptation, UsesTheDropLevelThatThisPictureLeft) {
    open_plain("mpeg-2", {{"bitrate", "4000000"}});
    host.spatial_complexity_masking = host.saved_spatial_masking = 0.1;
    encode_with(5e6, 0.001);  // a quarter above the target: level 0.25
    EXPECT_FLOAT_EQ(host.mpeg_context->spatial_cplx_masking, 0.1f);
    encode_with(5.3e6, 0.001);  // level 0.325
    EXPECT_NEAR(host.drop_level, 0.325, 1e-6);
    EXPECT_NEAR(host.mpeg_context->spatial_cplx_masking, 0.2, 1e-5);
}

TEST_F(ComplexityAdaptation, ScalesItsStepsByTheTuningGains) {
    const struct {
        const char* what;
        double rate, encode_time, cpu, bitrate, recovery, after;
    } cases[] = {
        {"recovery", 3e6, 0.01, 7, 7, 2, 0.412}, {"no recovery", 3e6, 0.01, 7, 7, 0, 0.5},
        {"rate", 8e6, 0.01, 7, 20, 7, 0.6},      {"no rate", 8e6, 0.01, 7, 0, 7, 0.5},
        {"budget", 3e6, 0.022, 3, 7, 7, 0.8},    {"no budget", 3e6, 0.022, 0, 7, 7, 0.5},
    };
    open_plain("mpeg-2",
               {{"bitrate", "4000000"}, {"cpu threshhold", "0.5"}, {"constant bitrate per frame", "0"}});
    for (const auto& row : cases) {
        host.saved_spatial_masking = 0.5;
        host.s_tune_cpu = row.cpu;
        host.s_tune_bitrate = row.bitrate;
        host.s_tune_recovery = row.recovery;
        encode_with(row.rate, row.encode_time);
        EXPECT_NEAR(host.saved_spatial_masking, row.after, 1e-9) << row.what;
    }
}

TEST_F(ComplexityAdaptation, WeighsTheOverloadBySquareOfFourMegabitsOverTheTarget) {
    open_plain("mpeg-2", {{"bitrate", "8000000"}, {"cpu threshhold", "0.5"}});
    host.saved_spatial_masking = 0.1;
    encode_with(4e6, 0.024);
    EXPECT_NEAR(host.saved_spatial_masking, 0.1 + 0.2 / 4, 1e-9);
    host.bitrate = 2000000;
    host.saved_spatial_masking = 0.1;
    encode_with(1e6, 0.022);
    EXPECT_NEAR(host.saved_spatial_masking, 0.1 + 0.1 * 4, 1e-9);
}

TEST_F(ComplexityAdaptation, TakesThePeriodFromTheEncodedRate) {
    open_plain("mpeg-2", {{"bitrate", "4000000"}, {"cpu threshhold", "0.5"}});
    host.frame_rate_num = 60000;
    host.frame_rate_den = 1001;
    host.frame_rate_divider = 2;
    host.saved_spatial_masking = 0.5;
    encode_with(3e6, 0.001);
    EXPECT_NEAR(host.saved_spatial_masking, 0.5 - 1.1 * 2002 / 60000, 1e-9);
}

TEST_F(ComplexityAdaptation, IsLeftOutForOtherCodecsAndWithoutAPacket) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec);
        surroundings().scripted = true;
        if (encoder.codec_id != 2) surroundings().outcomes = {packet(sized_unit(1000))};
        encoder.saved_spatial_masking = 0.7;
        encoder.mpeg_context->spatial_cplx_masking = 0.25f;
        encoder.mpeg_context->me_range = 9;
        stderr_of([&] { write_to(encoder, 0); });
        EXPECT_EQ(encoder.saved_spatial_masking, 0.7) << codec;
        EXPECT_EQ(encoder.mpeg_context->spatial_cplx_masking, 0.25f) << codec;
        EXPECT_EQ(encoder.mpeg_context->me_range, 9) << codec;
    }
}

/// One picture of a run: what the codec makes of it, and what that leaves.
struct RunPicture {
    size_t size;      // bytes; 20000 of them are the target
    unsigned millis;  // against a budget of 20
    bool dropped;
    double rate, encode_time, level, credit;
    double complexity;
    int me_range;
    float masking;
};

TEST_F(ComplexityAdaptation, CarriesItsStateThroughARunAsWorkedOutByHand) {
    const RunPicture run[] = {
        // In rate and time: 0.5 - 0.044, and unit 0 widens the search.
        {20000, 10, false, 4e6, 0.010, 0, 0, 0.456, 9, 0.456f},
        // Over the rate by 1.6 Mbit/s: + 0.002; over the budget by 2 ms: + 0.1. A level of 0.4 masks 0.4
        // more.
        {52000, 34, false, 5.6e6, 0.022, 0.4, 0, 0.558, 8, 0.958f},
        // In time, over the rate by 2.9 Mbit/s.
        {54000, 12, false, 6.9e6, 0.017, 1.125, 0, 0.561625, 8, 1.0f},
        // Over the rate by 4.875 Mbit/s, over the budget by 8.5 ms: + 0.00609375 + 0.425.
        {74000, 40, false, 8.875e6, 0.0285, 2.34375, 0, 0.99271875, 7, 1.0f},
        // Four pictures are dropped: each lowers the rate by a quarter and the time by half, nothing else.
        {0, 0, true, 6.65625e6, 0.01425, 3.0078125, 1, 0.99271875, 7, 1.0f},
        {0, 0, true, 4.9921875e6, 0.007125, 3.25585925, 2, 0.99271875, 7, 1.0f},
        {0, 0, true, 3744140.625, 0.0035625, 3.19189425, 3, 0.99271875, 7, 1.0f},
        {0, 0, true, 2808105.46875, 0.00178125, 2.8939205, 4, 0.99271875, 7, 1.0f},
        // The credit of four is more than the level, which it pays back; in rate and time again.
        {20000, 10, false, 3106079.1015625, 0.005890625, 2.67044025, 1.1060795, 0.94871875, 7, 1.0f},
    };
    open_plain("mpeg-2", {{"bitrate", "4000000"},
                          {"cpu threshhold", "0.5"},
                          {"drop frame for bitrate limit", "on"},
                          {"constant bitrate per frame", "0"}});
    host.spatial_complexity_masking = 0.1;
    host.saved_spatial_masking = 0.5;
    host.mpeg_context->me_range = 8;
    for (const RunPicture& picture : run) {
        SCOPED_TRACE("picture " + std::to_string(timestamp + 1));
        const size_t sent_before = surroundings().pictures.size();
        surroundings().outcomes = {taking(picture.millis * 1000, packet(sized_unit(picture.size)))};
        write_quietly(timestamp++);
        EXPECT_EQ(surroundings().pictures.size() == sent_before, picture.dropped);
        EXPECT_NEAR(host.smoothed_bitrate, picture.rate, 1e-6);
        EXPECT_NEAR(host.smoothed_encode_time, picture.encode_time, 1e-12);
        EXPECT_NEAR(host.drop_level, picture.level, 1e-9);
        EXPECT_NEAR(host.drop_credit, picture.credit, 1e-9);
        EXPECT_NEAR(host.saved_spatial_masking, picture.complexity, 1e-9);
        EXPECT_EQ(host.mpeg_context->me_range, picture.me_range);
        EXPECT_NEAR(host.mpeg_context->spatial_cplx_masking, picture.masking, 1e-6);
    }
}

}  // namespace
}  // namespace gsve::test
