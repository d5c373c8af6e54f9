// Timestamps as hosts really have them: they start anywhere, wrap, repeat, go back and leap. What becomes of
// the pictures, under which times their units leave, and that nothing grows with the stream.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/av_decoder.h"
#include "support/mpeg2_units.h"
#include "support/scripted_encoder.h"
#include "support/serial_host.h"
#include "support/serial_numbers.h"
#include "support/serial_streams.h"

namespace gsve::test {
namespace {

using testing::ElementsAreArray;

/// How an encoder takes its pictures' time.
struct Mode {
    const char* name;
    const char* codec;
    AVCodecID id;
    bool per_frame;  ///< the codec counts pictures, and times are looked up
    const char* b_frames;

    bool is_mpeg2_by_time() const { return id == AV_CODEC_ID_MPEG2VIDEO && !per_frame; }
};

void PrintTo(const Mode& mode, std::ostream* out) { *out << mode.name; }

constexpr Mode kModes[] = {
    {"Mpeg2PerFrame", "mpeg-2", AV_CODEC_ID_MPEG2VIDEO, true, "0"},
    {"Mpeg2PerFrameWithB", "mpeg-2", AV_CODEC_ID_MPEG2VIDEO, true, "2"},
    {"Mpeg2ByTime", "mpeg-2", AV_CODEC_ID_MPEG2VIDEO, false, "0"},
    {"Mpeg2ByTimeWithB", "mpeg-2", AV_CODEC_ID_MPEG2VIDEO, false, "2"},
    {"H264PerFrameWithB", "h.264", AV_CODEC_ID_H264, true, "2"},
    {"H264ByTime", "h.264", AV_CODEC_ID_H264, false, "0"},
    {"H264ByTimeWithB", "h.264", AV_CODEC_ID_H264, false, "2"},
    {"H265ByTimeWithB", "h.265", AV_CODEC_ID_HEVC, false, "2"},
};

/// The time of picture `n`.
struct Pattern {
    const char* name;
    uint64_t (*time)(uint64_t n);
};

void PrintTo(const Pattern& pattern, std::ostream* out) { *out << pattern.name; }

constexpr uint64_t kHalf = uint64_t{1} << 63;

constexpr Pattern kPatterns[] = {
    {"FromZero", [](uint64_t n) { return n; }},
    {"FromTwoToThe32", [](uint64_t n) { return (uint64_t{1} << 32) - 5 + n; }},
    {"FromTwoToThe63", [](uint64_t n) { return kHalf - 5 + n; }},
    {"WrapsAtTwoToThe64", [](uint64_t n) { return n - 5; }},
    {"StartsAtAllOnes", [](uint64_t n) { return n - 1; }},
    {"Repeats", [](uint64_t n) { return 100 + n / 2; }},
    {"StandsStill", [](uint64_t) { return uint64_t{7}; }},
    {"StandsStillAtAllOnes", [](uint64_t) { return UINT64_MAX; }},
    {"Descends", [](uint64_t n) { return 1000000 - n; }},
    {"DescendsThroughZero", [](uint64_t n) { return 5 - n; }},
    {"Loops", [](uint64_t n) { return 1000 + n % 300; }},
    {"GoesBackALittle", [](uint64_t n) { return 1000 + n - 10 * (n / 25); }},
    {"GoesBackFurtherThanForward", [](uint64_t n) { return 10000000 + n - 80 * (n / 25); }},
    {"LeapsForward", [](uint64_t n) { return n + 1000003 * (n / 15); }},
    {"LeapsByQuadrillions", [](uint64_t n) { return n + 1234567890123457 * (n / 15); }},
    {"AlternatesBetweenTwoClocks", [](uint64_t n) { return n % 2 ? n + 1000000007 : n; }},
};

/// Times since the first picture's. All ones stands for no first picture yet.
std::vector<uint64_t> since_first(const std::vector<uint64_t>& times) {
    std::vector<uint64_t> relative;
    uint64_t first = UINT64_MAX;
    for (const uint64_t time : times) {
        if (first == UINT64_MAX) first = time;
        relative.push_back(time - first);
    }
    return relative;
}

/// The pts of the units in the order of the pictures. libavcodec's MPEG-2 encoder refuses pictures whose time
/// is not after that of the one before; the others take any.
std::vector<int64_t> expected_pts(const Mode& mode, const std::vector<uint64_t>& times) {
    std::vector<int64_t> expected;
    for (const uint64_t relative : since_first(times)) {
        const auto pts = static_cast<int64_t>(relative);
        if (mode.is_mpeg2_by_time() && !expected.empty() && pts <= expected.back()) continue;
        expected.push_back(pts);
    }
    return expected;
}

/// Follows the records that wait for units and compares the tag of each unit with the record of its time.
class TagWatchingHost : public RecordingHost {
public:
    ~TagWatchingHost() override { refcount = 0; }

    bool write(uint64_t time, uint64_t relative) {
        const uint64_t key = per_frame_rate_control ? frame_counter : relative;
        records_.erase(records_.begin(), records_.lower_bound(key > 60 ? key - 60 : 0));
        records_[key] = host_frame_tag = next_tag_++;
        watching_ = true;
        const bool result = write_small_picture(*this, time);
        watching_ = false;
        return result;
    }
    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        RecordingHost::host_emit_data_out(data, len, pkt);
        if (!watching_) return;
        const auto record = records_.find(static_cast<uint64_t>(pkt->pts));
        EXPECT_EQ(current_output_tag, record == records_.end() ? UINT64_MAX : record->second)
            << "unit " << units.size() - 1 << ", pts " << pkt->pts;
    }

private:
    std::map<uint64_t, uint64_t> records_;
    uint64_t next_tag_ = 0;
    bool watching_ = false;
};

void open(GeneralStreamingVideoEncoder& host, const Mode& mode, const Settings& settings = {}) {
    if (host.input_width == 0) describe_small_source(host, {25, 1, 1});
    configure(host, {{"constant bitrate per frame", mode.per_frame ? "1" : "0"},
                     {"b frames", mode.b_frames},
                     {"gop size", "12"},
                     {"enable cea-708", "1"},
                     {"h.264 profile", "main"}});
    open_encoder(host, mode.codec, settings);
}

class Timestamps : public testing::TestWithParam<std::tuple<Mode, Pattern>> {};

TEST_P(Timestamps, LeaveEveryPictureItsTimeSinceTheFirst) {
    const auto& [mode, pattern] = GetParam();
    std::vector<uint64_t> times;
    for (uint64_t n = 0; n < 80; n++) times.push_back(pattern.time(n));
    const std::vector<uint64_t> relative = since_first(times);

    TagWatchingHost host;
    open(host, mode);
    size_t undrained = 0;
    const std::string said = stderr_of([&] {
        for (size_t n = 0; n < times.size(); n++) {
            host.write_eia608(0, numbered_word(n));
            EXPECT_TRUE(host.write(times[n], relative[n])) << "picture " << n;
        }
        undrained = host.units.size();
        while (host.flush_delayed_video()) {
        }
    });
    EXPECT_EQ(count_of(said, "[gsve]"), 0u) << said;
    EXPECT_EQ(host.last_relative_timestamp, relative.back());

    std::vector<int64_t> expected = expected_pts(mode, times), left;
    for (const Unit& unit : host.units) left.push_back(unit.pts);
    if (mode.b_frames != std::string("0")) {
        std::sort(expected.begin(), expected.end());
        std::sort(left.begin(), left.end());
    }
    EXPECT_THAT(left, ElementsAreArray(expected));

    // As the codec counts pictures, captions stay with theirs, whatever their times.
    std::vector<Unit> units = host.units;
    for (Unit& unit : units) unit.pts = AV_NOPTS_VALUE;
    const auto shown = decode(mode.id, units);
    EXPECT_EQ(shown.size(), units.size());
    if (!mode.per_frame) return;
    FoundItems found;
    for (size_t n = 0; n < shown.size(); n++)
        read_cc_data(found, shown[n].a53, n, shown[n].a53.empty() ? 0 : 24);
    EXPECT_THAT(found.errors, testing::IsEmpty());
    std::vector<Serial> words;
    for (const Placed& word : found.words[0]) words.push_back(word.serial);
    EXPECT_EQ(words.size(), undrained);
    EXPECT_TRUE(std::is_sorted(words.begin(), words.end()));
    EXPECT_EQ(std::adjacent_find(words.begin(), words.end()), words.end());
}

INSTANTIATE_TEST_SUITE_P(Modes, Timestamps,
                         testing::Combine(testing::ValuesIn(kModes), testing::ValuesIn(kPatterns)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    std::get<1>(info.param).name;
                         });

// With a frame-rate limit

class LimitedTimestamps : public ScriptedEncoder {};

TEST_F(LimitedTimestamps, TakeWhatIsDueAndSkipTheRest) {
    const uint64_t all_ones = UINT64_MAX;
    const struct {
        const char* what;
        std::vector<uint64_t> times, taken;
        std::vector<int64_t> pts;
    } cases[] = {
        {"from zero", {0, 1, 2, 3, 4, 5}, {0, 2, 4}, {0, 1, 2}},
        {"from one: two pictures under one time", {1, 2, 3, 4, 5, 6}, {1, 2, 4, 6}, {0, 0, 1, 2}},
        {"from far on", {1000, 1001, 1002, 1003, 1004}, {1000, 1001, 1002, 1004}, {0, 0, 1, 2}},
        {"repeats", {0, 0, 1, 1, 2, 2, 3, 3, 4}, {0, 2, 4}, {0, 1, 2}},
        {"leaps forward", {0, 1, 100, 101, 102, 103}, {0, 100, 101, 102}, {0, 50, 50, 51}},
        {"goes back: skips until the due time comes again",
         {0, 1, 2, 3, 4, 0, 1, 2, 3, 4, 5, 6, 7},
         {0, 2, 4, 6},
         {0, 1, 2, 3}},
        {"goes back before the first", {10, 12, 5, 6, 14}, {10, 12, 14}, {0, 1, 2}},
        {"wraps: skips from then on",
         {all_ones - 2, all_ones - 1, all_ones, 0, 1, 2, 3},
         {all_ones - 2, all_ones - 1, all_ones},
         {0, 0, 1}},
        {"all ones first", {all_ones, 0, 1, 2}, {all_ones}, {0}},
    };
    for (const char* codec : {"h.264", "mpeg-2"}) {
        for (const auto& row : cases) {
            SCOPED_TRACE(std::string(codec) + " " + row.what);
            CallLogHost limited;
            describe_source(limited, 64, 48, 50, 1);
            surroundings() = Surroundings{};
            open_encoder(limited, codec, {{"frame rate limit", "25"}, {"constant bitrate per frame", "0"}});
            ASSERT_EQ(limited.frame_rate_divider, 2u);
            surroundings().scripted = true;
            std::vector<uint64_t> taken;
            stderr_of([&] {
                for (const uint64_t time : row.times) {
                    const size_t before = surroundings().pictures.size();
                    EXPECT_TRUE(write_to(limited, time));
                    if (surroundings().pictures.size() > before) taken.push_back(time);
                }
            });
            EXPECT_EQ(taken, row.taken);
            std::vector<int64_t> pts;
            for (const SentPicture& sent : surroundings().pictures) pts.push_back(sent.pts);
            EXPECT_EQ(pts, row.pts);
            surroundings().scripted = false;
        }
    }
}

// What waits for units is bounded

class WaitingRecords : public ScriptedEncoder, public testing::WithParamInterface<Pattern> {};

TEST_P(WaitingRecords, StayBoundedThroughALongStream) {
    constexpr uint64_t kPictures = 6000;
    constexpr size_t kMostRecords = 1024, kMostTimes = 64;
    for (const bool per_frame : {false, true}) {
        for (const unsigned divider : {1u, 2u}) {
            SCOPED_TRACE(std::string(per_frame ? "per frame" : "by time") + ", divider " +
                         std::to_string(divider));
            CallLogHost watched;
            describe_source(watched, 64, 48, 50, 1);
            surroundings() = Surroundings{};
            open_encoder(watched, "mpeg-2",
                         {{"constant bitrate per frame", per_frame ? "1" : "0"},
                          {"frame rate limit", divider == 1 ? "0" : "25"},
                          {"enable eia-608", "1"},
                          {"enable cea-708", "1"}});
            ASSERT_EQ(watched.frame_rate_divider, divider);
            surroundings().scripted = true;
            size_t most_records = 0, most_times = 0;
            const std::string said = stderr_of([&] {
                for (uint64_t n = 0; n < kPictures; n++) {
                    surroundings().outcomes.assign(1, packet(picture_unit(n % 12 ? 2 : 1)));
                    ASSERT_TRUE(write_to(watched, GetParam().time(n)));
                    surroundings().pictures.clear();
                    watched.units.clear();
                    watched.calls.clear();
                    most_records = std::max(most_records, watched.aux_data_map.size());
                    most_times = std::max(most_times, watched.pts_map.size());
                }
            });
            EXPECT_EQ(count_of(said, "[gsve]"), 0u) << said.substr(0, 300);
            EXPECT_LE(most_records, per_frame ? 61u : kMostRecords);
            EXPECT_LE(most_times, per_frame ? kMostTimes : 0);
            surroundings().scripted = false;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Patterns, WaitingRecords, testing::ValuesIn(kPatterns),
                         [](const auto& info) { return std::string(info.param.name); });

// Anything at all

class WildTimestamps : public testing::TestWithParam<Mode> {};

TEST_P(WildTimestamps, NeitherTrapNorLosePicturesThatTheCodecTakes) {
    const Mode& mode = GetParam();
    constexpr uint64_t kEdges[] = {0,         1,     1u << 16,  1u << 31,       uint64_t{1} << 32,
                                   kHalf - 1, kHalf, kHalf + 1, UINT64_MAX - 1, UINT64_MAX};
    std::mt19937_64 random(7);
    for (int round = 0; round < 4; round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        RecordingHost host;
        open(host, mode, {{"enable eia-608", "1"}, {"gop size", round % 2 ? "30" : "4"}});
        std::vector<uint64_t> times;
        uint64_t time = 0;
        const std::string said = stderr_of([&] {
            for (int n = 0; n < 150; n++) {
                switch (random() % 4) {
                    case 0: time = kEdges[random() % std::size(kEdges)] + random() % 5 - 2; break;
                    case 1: time += random() % 130; break;
                    case 2: time -= random() % 130; break;
                    default: time++;
                }
                times.push_back(time);
                host.write_eia608(static_cast<uint8_t>(n % 2), numbered_word(static_cast<Serial>(n)));
                EXPECT_TRUE(write_small_picture(host, time));
            }
            while (host.flush_delayed_video()) {
            }
        });
        EXPECT_EQ(count_of(said, "too many"), 0u);
        EXPECT_LE(host.aux_data_map.size(), times.size());
        if (!mode.is_mpeg2_by_time()) {
            std::vector<int64_t> expected = expected_pts(mode, times), left;
            for (const Unit& unit : host.units) left.push_back(unit.pts);
            std::sort(expected.begin(), expected.end());
            std::sort(left.begin(), left.end());
            EXPECT_EQ(left, expected);
        }
        std::vector<Unit> units = host.units;
        for (Unit& unit : units) unit.pts = AV_NOPTS_VALUE;
        EXPECT_EQ(decode(mode.id, units).size(), units.size());
        host.refcount = 0;
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, WildTimestamps, testing::ValuesIn(kModes),
                         [](const auto& info) { return std::string(info.param.name); });

/// "CC" user data spans the pictures between two dts; the distance must stay within what its count byte
/// holds.
TEST(CcUserData, SpansNoMorePicturesThanItCanCountWhateverTheTimes) {
    for (const char* on_p : {"0", "1"}) {
        std::mt19937_64 random(11);
        for (uint64_t leap = 1; leap <= 130; leap += 3) {
            SCOPED_TRACE(std::string("on P ") + on_p + ", leap " + std::to_string(leap));
            RecordingHost host;
            open(host, kModes[2],
                 {{"enable eia-608", "1"}, {"eia-608 on p-frames", on_p}, {"gop size", "20"}});
            uint64_t time = 0;
            const std::string said = stderr_of([&] {
                for (int n = 0; n < 45; n++) {
                    write_small_picture(host, time);
                    time += random() % 3 ? 1 : leap;
                }
            });
            EXPECT_EQ(count_of(said, "too many"), 0u);
            EXPECT_EQ(host.units.size(), 44u);
            host.refcount = 0;
        }
    }
}

}  // namespace
}  // namespace gsve::test
