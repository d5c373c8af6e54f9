// Clocks that wrap, jump and differ, as packets show them.

#include <algorithm>
#include <optional>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programme/timeline.h"

namespace gsve::programme {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int64_t kSecond = 90'000;
constexpr int64_t kPicture = kSecond / 25, kSound = kSecond / 50;
constexpr int kVideo = 0, kAudio = 1, kText = 2;
constexpr int64_t kWrap = int64_t{1} << 33;

int64_t wrapped(int64_t time) { return (time % kWrap + kWrap) % kWrap; }

PacketPtr packet_at(int stream, int64_t dts, int64_t shown_after = 0) {
    PacketPtr packet = new_packet();
    packet->stream_index = stream;
    packet->dts = dts;
    packet->pts = dts + shown_after;
    packet->duration = stream == kVideo ? kPicture : stream == kAudio ? kSound : 0;
    return packet;
}

/// A broadcast with a picture, sound and sparse subtitles.
Timeline broadcast(bool jumps_forward = true) {
    const TimedStream stream = {.time_base = {1, 90000}, .wrap_bits = 33, .continuous = true, .leads = false};
    std::vector<TimedStream> streams(3, stream);
    streams[kVideo].leads = true;
    streams[kText].continuous = false;
    return Timeline(streams, jumps_forward);
}

struct Placed {
    int stream;
    int64_t dts, pts;
    bool begins;
};

std::vector<Placed> take_all(Timeline& timeline) {
    std::vector<Placed> placed;
    while (const PacketPtr packet = timeline.take())
        placed.push_back({packet->stream_index, packet->dts, packet->pts, begins_clock(*packet)});
    return placed;
}

/// Puts `seconds` of sound and picture, interleaved, from `clock` on.
void put(Timeline& timeline, int64_t clock, double seconds, int64_t sound_ahead = 0,
         int64_t shown_after = kPicture) {
    const auto pictures = static_cast<int64_t>(seconds * 25);
    for (int64_t n = 0; n < pictures; n++) {
        timeline.put(packet_at(kVideo, wrapped(clock + n * kPicture), shown_after));
        for (int64_t half = 0; half < 2; half++)
            timeline.put(packet_at(kAudio, wrapped(clock + n * kPicture + half * kSound + sound_ahead)));
    }
}

/// Every stream's steps from packet to packet that are not one duration.
std::vector<int64_t> odd_steps(const std::vector<Placed>& placed, int stream) {
    std::vector<int64_t> odd;
    std::optional<int64_t> last;
    for (const Placed& p : placed) {
        if (p.stream != stream) continue;
        const int64_t duration = stream == kVideo ? kPicture : kSound;
        if (last && p.dts - *last != duration) odd.push_back(p.dts - *last);
        last = p.dts;
    }
    return odd;
}

TEST(Timeline, LeavesASteadyClockAsItIs) {
    Timeline timeline = broadcast();
    put(timeline, 5 * kSecond, 3, 1000);
    const std::vector<Placed> placed = take_all(timeline);
    ASSERT_THAT(placed, SizeIs(75 * 3));
    EXPECT_EQ(placed[0].dts, 5 * kSecond);
    EXPECT_EQ(placed[0].pts, 5 * kSecond + kPicture);
    EXPECT_EQ(placed[1].dts, 5 * kSecond + 1000);
    EXPECT_THAT(odd_steps(placed, kVideo), IsEmpty());
    EXPECT_THAT(odd_steps(placed, kAudio), IsEmpty());
    EXPECT_THAT(timeline.jumps(), IsEmpty());
}

TEST(Timeline, GoesOnThroughAnyNumberOfWraps) {
    // Nearly three wraps of a day and two hours, in steps that are no jumps yet.
    Timeline timeline = broadcast();
    constexpr int64_t kStep = 9 * kSecond;
    const int64_t first = kWrap - 5 * kSecond;
    for (int64_t time = 0; time < 3 * kWrap; time += kStep)
        timeline.put(packet_at(kVideo, wrapped(first + time), kPicture));
    const std::vector<Placed> placed = take_all(timeline);
    ASSERT_GT(placed.size(), 30'000u);
    for (size_t n = 0; n < placed.size(); n++) {
        ASSERT_EQ(placed[n].dts, first + static_cast<int64_t>(n) * kStep) << n;
        ASSERT_EQ(placed[n].pts, placed[n].dts + kPicture) << n;
    }
    EXPECT_THAT(timeline.jumps(), IsEmpty());
}

TEST(Timeline, KeepsAWrapBetweenDecodingAndShowing) {
    Timeline timeline = broadcast();
    timeline.put(packet_at(kVideo, kWrap - kPicture));
    PacketPtr packet = packet_at(kVideo, kWrap - 1);
    packet->pts = 3;
    timeline.put(std::move(packet));
    const std::vector<Placed> placed = take_all(timeline);
    EXPECT_EQ(placed[1].pts - placed[1].dts, 4);
}

TEST(Timeline, LetsASplicedProgrammeFollowAtOnce) {
    for (const int64_t clock : {int64_t{0}, 1000 * kSecond, 5000 * kSecond, kWrap - 2 * kSecond})
        for (const int64_t shown_after : {int64_t{0}, kPicture, 3 * kPicture}) {
            Timeline timeline = broadcast();
            put(timeline, 2000 * kSecond, 2);
            put(timeline, clock, 2, 0, shown_after);
            timeline.finish();
            const std::vector<Placed> placed = take_all(timeline);
            ASSERT_THAT(placed, SizeIs(300)) << clock;
            std::vector<int64_t> shown, heard;
            for (const Placed& p : placed) (p.stream == kVideo ? shown : heard).push_back(p.pts);
            for (size_t n = 1; n < shown.size(); n++)
                ASSERT_EQ(shown[n] - shown[n - 1], kPicture) << clock << ", picture " << n;
            for (const int stream : {kVideo, kAudio})
                EXPECT_EQ(std::count_if(placed.begin(), placed.end(),
                                        [&](const Placed& p) { return p.stream == stream && p.begins; }),
                          1)
                    << "the first of each";
            // Sound keeps its distance to the pictures of its own recording.
            EXPECT_EQ(heard[0] - shown[0], -kPicture);
            EXPECT_EQ(heard[100] - shown[50], -shown_after) << clock;
            ASSERT_THAT(timeline.jumps(), SizeIs(1)) << clock;
            EXPECT_NEAR(timeline.jumps()[0].at, 2002 - static_cast<double>(shown_after - kPicture) / kSecond,
                        1e-9);
        }
}

TEST(Timeline, WaitsForThePictureThatTellsWhereANewClockGoesOn) {
    Timeline timeline = broadcast();
    put(timeline, 0, 2);
    take_all(timeline);
    const int64_t clock = 700 * kSecond;
    // Sound of the new clock comes first, sound of the old one last.
    for (int64_t n = 0; n < 5; n++) timeline.put(packet_at(kAudio, clock + n * kSound));
    EXPECT_THAT(take_all(timeline), IsEmpty());
    timeline.put(packet_at(kVideo, clock + 10 * kPicture, kPicture));
    timeline.put(packet_at(kAudio, 2 * kSecond));
    timeline.put(packet_at(kAudio, clock + 5 * kSound));
    const std::vector<Placed> placed = take_all(timeline);
    ASSERT_THAT(placed, SizeIs(8));
    std::vector<int64_t> heard;
    for (const Placed& p : placed)
        if (p.stream == kAudio) heard.push_back(p.dts);
    // The first picture shown after 2 s + one picture; the sound is ten pictures ahead of it.
    const int64_t picture = 2 * kSecond;
    for (int64_t n = 0; n < 5; n++)
        EXPECT_EQ(heard[static_cast<size_t>(n)], picture - 10 * kPicture + n * kSound);
    EXPECT_EQ(heard[5], 2 * kSecond);
    EXPECT_EQ(heard[6], picture - 10 * kPicture + 5 * kSound);
    EXPECT_THAT(timeline.jumps(), SizeIs(1));
}

TEST(Timeline, PlacesSoundThatJumpsWithoutAPictureInTheEnd) {
    Timeline timeline = broadcast();
    put(timeline, 0, 2);
    take_all(timeline);
    timeline.put(packet_at(kAudio, 700 * kSecond));
    EXPECT_THAT(take_all(timeline), IsEmpty());
    timeline.finish();
    const std::vector<Placed> placed = take_all(timeline);
    ASSERT_THAT(placed, SizeIs(1));
    EXPECT_EQ(placed[0].dts, 2 * kSecond);
}

TEST(Timeline, KeepsPausesOfUpToTenSeconds) {
    for (const int64_t pause : {kSecond, 10 * kSecond}) {
        Timeline timeline = broadcast();
        put(timeline, 0, 2);
        put(timeline, 2 * kSecond + pause, 2);
        const std::vector<Placed> placed = take_all(timeline);
        EXPECT_THAT(odd_steps(placed, kVideo), ElementsAre(pause + kPicture));
        EXPECT_THAT(timeline.jumps(), IsEmpty());
    }
    Timeline longer = broadcast();
    put(longer, 0, 2);
    put(longer, 2 * kSecond + 10 * kSecond + 1, 2);
    EXPECT_THAT(odd_steps(take_all(longer), kVideo), IsEmpty());
    EXPECT_THAT(longer.jumps(), SizeIs(1));
}

TEST(Timeline, KeepsAnyPauseOfAFileThatTellsTrueTimes) {
    Timeline timeline = broadcast(false);
    put(timeline, 0, 2);
    put(timeline, 500 * kSecond, 2);
    EXPECT_THAT(odd_steps(take_all(timeline), kVideo), ElementsAre(498 * kSecond + kPicture));
    EXPECT_THAT(timeline.jumps(), IsEmpty());
}

TEST(Timeline, KeepsSoundThatPausesBesideThePictures) {
    Timeline timeline = broadcast();
    put(timeline, 0, 1);
    for (int64_t n = 25; n < 25 * 40; n++) timeline.put(packet_at(kVideo, n * kPicture));
    timeline.put(packet_at(kAudio, 39 * kSecond));
    const std::vector<Placed> placed = take_all(timeline);
    EXPECT_EQ(placed.back().stream, kAudio);
    EXPECT_EQ(placed.back().dts, 39 * kSecond);
    EXPECT_THAT(timeline.jumps(), IsEmpty());
}

TEST(Timeline, TakesAStepBackOfUpToHalfASecond) {
    Timeline timeline = broadcast();
    timeline.put(packet_at(kVideo, 10 * kSecond));
    timeline.put(packet_at(kVideo, 10 * kSecond + kPicture - kSecond / 2));
    EXPECT_EQ(take_all(timeline)[1].dts, 10 * kSecond + kPicture - kSecond / 2);
    timeline.put(packet_at(kVideo, 9 * kSecond));
    EXPECT_THAT(timeline.jumps(), SizeIs(1));
}

TEST(Timeline, ForgetsASinglePacketWithAWrongTime) {
    Timeline timeline = broadcast();
    put(timeline, 0, 1);
    timeline.put(packet_at(kVideo, 900 * kSecond, kPicture));
    put(timeline, kSecond + kPicture, 1);
    const std::vector<Placed> placed = take_all(timeline);
    EXPECT_THAT(odd_steps(placed, kVideo), IsEmpty());
    EXPECT_THAT(timeline.jumps(), IsEmpty());
}

TEST(Timeline, PlacesSparsePacketsWhereThePicturesAre) {
    Timeline timeline = broadcast();
    put(timeline, 0, 2);
    timeline.put(packet_at(kText, kSecond));
    put(timeline, 600 * kSecond, 30);
    timeline.put(packet_at(kText, 629 * kSecond));
    const std::vector<Placed> placed = take_all(timeline);
    std::vector<int64_t> texts;
    for (const Placed& p : placed)
        if (p.stream == kText) texts.push_back(p.pts);
    EXPECT_THAT(texts, ElementsAre(kSecond, 31 * kSecond));
}

TEST(Timeline, PassesPacketsWithoutTimes) {
    Timeline timeline = broadcast();
    PacketPtr packet = packet_at(kText, AV_NOPTS_VALUE);
    packet->pts = AV_NOPTS_VALUE;
    timeline.put(std::move(packet));
    const std::vector<Placed> placed = take_all(timeline);
    ASSERT_THAT(placed, SizeIs(1));
    EXPECT_EQ(placed[0].dts, AV_NOPTS_VALUE);
    EXPECT_EQ(placed[0].pts, AV_NOPTS_VALUE);
}

TEST(Timeline, ReturnsEveryPacketOnceWhateverTheTimes) {
    std::mt19937 random(11);
    for (int round = 0; round < 50; round++) {
        Timeline timeline = broadcast(round % 2);
        size_t taken = 0;
        for (int n = 0; n < 700; n++) {
            const auto stream = static_cast<int>(random() % 3);
            const int64_t time = wrapped(static_cast<int64_t>(random()) * static_cast<int64_t>(random() % 4));
            timeline.put(packet_at(stream, time, static_cast<int64_t>(random() % 5000)));
            taken += take_all(timeline).size();
        }
        timeline.finish();
        taken += take_all(timeline).size();
        ASSERT_EQ(taken, 700u);
    }
}

}  // namespace
}  // namespace gsve::programme
