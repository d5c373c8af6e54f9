// Times, order and ends: every picture's unit leaves once, when it is due, whatever happens to the stream
// around it.

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "harnessed_element.h"

namespace gsve::test {
namespace {

const char* const kCodecs[] = {"mpeg-2", "h.264", "h.265"};

std::vector<int64_t> shown(const std::vector<ElementUnit>& units) {
    std::vector<int64_t> times;
    for (const ElementUnit& unit : units) times.push_back(unit.shown());
    std::ranges::sort(times);
    return times;
}

/// The times of pictures `begin` to `end`, every `step`.
std::vector<int64_t> times_of(const Source& source, uint64_t begin, uint64_t end, uint64_t step = 1) {
    std::vector<int64_t> times;
    for (uint64_t n = begin; n < end; n += step) times.push_back(static_cast<int64_t>(source.time_of(n)));
    return times;
}

void expect_decodable(const std::vector<ElementUnit>& units) {
    for (size_t n = 0; n < units.size(); n++) {
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(units[n].dts)) << n;
        EXPECT_LE(units[n].dts, units[n].pts) << n;
        if (n > 0) {
            EXPECT_LT(units[n - 1].dts, units[n].dts) << n;
        }
    }
}

TEST(Times, AreThoseOfThePicturesAndOfDecodingThemInOrder) {
    for (const char* codec : kCodecs)
        for (const char* b_frames : {"0", "2", "4"}) {
            SCOPED_TRACE(std::string(codec) + " b-frames=" + b_frames);
            HarnessedElement element(codec, {{"b-frames", b_frames}, {"h-264-profile", "main"}});
            const std::vector<ElementUnit> units = element.encode(40);
            EXPECT_EQ(shown(units), times_of(element.source(), 0, 40));
            expect_decodable(units);
            for (const ElementUnit& unit : units) EXPECT_NEAR(unit.duration, GST_SECOND / 30, 2);
        }
}

TEST(Times, LeaveRoomForDecodingBeforeTheFirstPicture) {
    HarnessedElement element("h.264");
    const std::vector<ElementUnit> units = element.encode(10);
    ASSERT_EQ(units.size(), 10u);
    EXPECT_LT(units[0].decoded(), 0);
    EXPECT_GT(units[0].dts, 0u);
    const GstSegment* segment = nullptr;
    while (GstEvent* const event = gst_harness_try_pull_event(element.harness())) {
        if (GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT) {
            gst_event_parse_segment(event, &segment);
            EXPECT_EQ(gst_segment_to_running_time(segment, GST_FORMAT_TIME, kOrigin), 0u);
        }
        gst_event_unref(event);
    }
    EXPECT_TRUE(segment);
}

TEST(Times, OfPicturesWithoutAnyFollowEachOther) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec);
        const std::vector<ElementUnit> units = element.encode(20, [](GstBuffer* buffer) {
            GST_BUFFER_PTS(buffer) = GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
        });
        ASSERT_EQ(units.size(), 20u);
        expect_decodable(units);
        std::set<GstClockTime> times;
        for (const ElementUnit& unit : units) times.insert(unit.pts);
        ASSERT_EQ(times.size(), 20u);
        EXPECT_NEAR(static_cast<double>(*times.rbegin() - *times.begin()), 19 * GST_SECOND / 30.0, 40);
    }
}

TEST(Times, OfPicturesWithoutAnyAreCountedOnFromThoseThatHaveOne) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec);
        uint64_t number = 0;
        const std::vector<ElementUnit> units = element.encode(21, [&](GstBuffer* buffer) {
            if (number++ % 3 != 0) GST_BUFFER_PTS(buffer) = GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
        });
        ASSERT_EQ(units.size(), 21u);
        expect_decodable(units);
        const std::vector<int64_t> times = shown(units), expected = times_of(element.source(), 0, 21);
        for (size_t n = 0; n < times.size(); n++)
            EXPECT_NEAR(static_cast<double>(times[n]), static_cast<double>(expected[n]), 40) << n;
    }
}

TEST(Times, MayBePausedInAndGoOn) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec);
        for (uint64_t n = 0; n < 30; n++)
            element.push(n, [&](GstBuffer* buffer) {
                if (n == 17) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
                if (n >= 17) GST_BUFFER_PTS(buffer) += 10 * GST_SECOND;
            });
        element.end();
        const std::vector<ElementUnit> units = element.take();
        std::vector<int64_t> expected = times_of(element.source(), 0, 17);
        for (const int64_t time : times_of(element.source(), 17, 30))
            expected.push_back(time + 10 * static_cast<int64_t>(GST_SECOND));
        EXPECT_EQ(shown(units), expected);
        expect_decodable(units);
    }
}

TEST(Times, ThatGoBackBeginWithAKeyPictureAfterAllThatCameBefore) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec);
        const auto later = [](GstBuffer* buffer) { GST_BUFFER_PTS(buffer) += GST_SECOND; };
        for (uint64_t n = 0; n < 11; n++) element.push(n, later);
        element.push_range(0, 11);
        element.end();
        const std::vector<ElementUnit> units = element.take();
        ASSERT_EQ(units.size(), 22u);
        // The first picture is put at the origin, which is a second later than it was.
        EXPECT_EQ(shown({units.begin(), units.begin() + 11}), times_of(element.source(), 0, 11));
        EXPECT_TRUE(units[11].key);
        std::vector<int64_t> earlier = times_of(element.source(), 0, 11);
        for (int64_t& time : earlier) time -= static_cast<int64_t>(GST_SECOND);
        EXPECT_EQ(shown({units.begin() + 11, units.end()}), earlier);
    }
}

TEST(Times, OfANewSegmentComeAfterAllOfTheOld) {
    HarnessedElement element("h.264");
    element.push_range(0, 9);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.base = element.source().time_of(9);
    gst_harness_push_event(element.harness(), gst_event_new_segment(&segment));
    EXPECT_EQ(element.take().size(), 9u);
    element.push_range(0, 9);
    element.end();
    const std::vector<ElementUnit> units = element.take();
    EXPECT_EQ(shown(units), times_of(element.source(), 0, 9));
    EXPECT_TRUE(units[0].key);
}

TEST(Times, OfADividedRateAreThoseOfEverySecondPictureTwiceAsLong) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"frame-rate-limit", "30"}}, {.rate_num = 60});
        const std::vector<ElementUnit> units = element.encode(60);
        EXPECT_EQ(shown(units), times_of(element.source(), 0, 60, 2));
        expect_decodable(units);
        for (const ElementUnit& unit : units) EXPECT_NEAR(unit.duration, GST_SECOND / 30, 4);
        EXPECT_EQ(element.caps_field("framerate"), "30/1");
    }
}

TEST(Times, StayWithTheirPicturesWhereOthersAreDroppedForTheBitRate) {
    HarnessedElement element(
        "mpeg-2", {{"drop-frame-for-bitrate-limit", "on"}, {"bitrate", "60000"}, {"maximum-quant", "2"}});
    const std::vector<ElementUnit> units = element.encode(90);
    ASSERT_FALSE(units.empty());
    EXPECT_LT(units.size(), 90u);
    const std::vector<int64_t> possible = times_of(element.source(), 0, 90);
    for (const int64_t time : shown(units)) EXPECT_TRUE(std::ranges::binary_search(possible, time));
    expect_decodable(units);
    const auto dropped = element.messages(GST_MESSAGE_QOS);
    EXPECT_EQ(dropped.size() + units.size(), 90u) << "each picture has a unit, or is known to have none";
}

TEST(End, BringsThePicturesThatAreHeldBack) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"h-264-preset", "medium"}, {"h-264-profile", "main"}});
        element.push_range(0, 12);
        const size_t before = element.take().size();
        EXPECT_LT(before, 12u);
        element.end();
        EXPECT_EQ(before + element.take().size(), 12u);
    }
}

TEST(End, WithoutAPictureIsQuiet) {
    HarnessedElement element("h.264");
    element.end();
    EXPECT_TRUE(element.take().empty());
    EXPECT_TRUE(
        element.messages(static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING)).empty());
}

TEST(Flush, ForgetsWhatIsHeldBackAndBeginsAnew) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec);
        element.push_range(0, 13);
        element.take();
        gst_harness_push_event(element.harness(), gst_event_new_flush_start());
        gst_harness_push_event(element.harness(), gst_event_new_flush_stop(TRUE));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_harness_push_event(element.harness(), gst_event_new_segment(&segment));
        element.push_range(20, 30);
        element.end();
        const std::vector<ElementUnit> units = element.take();
        ASSERT_EQ(units.size(), 10u);
        for (uint64_t n = 0; n < 10; n++)
            EXPECT_NEAR(shown(units)[n], element.source().time_of(n), 2) << "none of those before the flush";
        EXPECT_TRUE(units[0].key);
    }
}

TEST(CapsChange, DrainsOnlyWhereThePicturesChange) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"gop-size", "100"}});
        element.push_range(0, 8);
        const size_t held = 8 - element.take().size();
        EXPECT_GT(held, 0u);
        // What says nothing new of the picture.
        Source same = element.source();
        same.more = ", interlace-mode=progressive";
        element.change_source(same);
        EXPECT_TRUE(element.take().empty());
        element.push_range(8, 16);
        std::vector<ElementUnit> units = element.take();
        for (const ElementUnit& unit : units) EXPECT_EQ(unit.key, unit.shown() == 0);
        // And what does.
        Source larger = same;
        larger.width = 96;
        element.change_source(larger);
        std::vector<ElementUnit> drained = element.take();
        EXPECT_EQ(8 - held + units.size() + drained.size(), 16u);
        EXPECT_EQ(element.caps_field("width"), "64");
        element.push_range(16, 24);
        element.end();
        const std::vector<ElementUnit> after = element.take();
        EXPECT_EQ(shown(after), times_of(larger, 16, 24));
        EXPECT_TRUE(after[0].key);
        EXPECT_EQ(element.caps_field("width"), "96");
    }
}

TEST(KeyUnits, AreForcedFromBothSidesOnTheFrameThatWasAsked) {
    for (const char* codec : kCodecs)
        for (const bool upstream : {true, false}) {
            SCOPED_TRACE(std::string(codec) + (upstream ? " asked downstream" : " asked upstream"));
            HarnessedElement element(codec, {{"gop-size", "100"}});
            constexpr uint64_t kAsked = 13;
            for (uint64_t n = 0; n < 30; n++) {
                if (n == kAsked && upstream)
                    gst_harness_push_upstream_event(
                        element.harness(),
                        gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 7));
                if (n == kAsked && !upstream) {
                    const GstClockTime time = element.source().time_of(n);
                    gst_harness_push_event(element.harness(), gst_video_event_new_downstream_force_key_unit(
                                                                  time, time, time, TRUE, 7));
                }
                element.push(n);
            }
            element.end();
            std::set<int64_t> keys;
            for (const ElementUnit& unit : element.take())
                if (unit.key) keys.insert(unit.shown());
            EXPECT_EQ(keys, (std::set<int64_t>{0, static_cast<int64_t>(element.source().time_of(kAsked))}));
            guint announced = 0;
            while (GstEvent* const event = gst_harness_try_pull_event(element.harness())) {
                guint count = 0;
                if (gst_video_event_is_force_key_unit(event)) {
                    gst_video_event_parse_downstream_force_key_unit(event, nullptr, nullptr, nullptr, nullptr,
                                                                    &count);
                    EXPECT_EQ(count, 7u);
                    announced++;
                }
                gst_event_unref(event);
            }
            EXPECT_EQ(announced, 1u);
        }
}

TEST(KeyUnits, ThatMeetASkippedPictureComeWithTheNext) {
    HarnessedElement element("mpeg-2", {{"gop-size", "100"}, {"frame-rate-limit", "30"}}, {.rate_num = 60});
    for (uint64_t n = 0; n < 40; n++) {
        if (n == 15)
            gst_harness_push_upstream_event(
                element.harness(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 1));
        element.push(n);
    }
    element.end();
    std::set<int64_t> keys;
    for (const ElementUnit& unit : element.take())
        if (unit.key) keys.insert(unit.shown());
    EXPECT_EQ(keys, (std::set<int64_t>{0, static_cast<int64_t>(element.source().time_of(16))}));
}

TEST(Repetition, FillsAPauseUpToTheLongestAndNoLongerOne) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"longest-repeat", "500000000"}});  // 15 pictures
        element.push_range(0, 10);
        element.push_range(24, 30);
        element.push_range(46, 50);
        element.end();
        const std::vector<ElementUnit> units = element.take();
        std::vector<int64_t> expected = times_of(element.source(), 0, 30);
        const std::vector<int64_t> rest = times_of(element.source(), 46, 50);
        expected.insert(expected.end(), rest.begin(), rest.end());
        const std::vector<int64_t> found = shown(units);
        ASSERT_EQ(found.size(), expected.size());
        for (size_t n = 0; n < found.size(); n++) EXPECT_NEAR(found[n], expected[n], 20) << n;
        expect_decodable(units);
    }
}

TEST(Repetition, IsOffByDefaultAndLeavesWaveringTimesAlone) {
    HarnessedElement plain("mpeg-2");
    plain.push_range(0, 5);
    plain.push_range(10, 15);
    plain.end();
    EXPECT_EQ(plain.take().size(), 10u);

    HarnessedElement element("mpeg-2", {{"longest-repeat", "1000000000"}});
    const auto picture = static_cast<int64_t>(element.source().time_of(1));
    std::vector<int64_t> expected;
    for (uint64_t n = 0; n < 20; n++) {
        const int64_t off = n % 2 ? picture / 5 : 0;
        expected.push_back(static_cast<int64_t>(element.source().time_of(n)) + off);
        element.push(n, [&](GstBuffer* buffer) { GST_BUFFER_PTS(buffer) += static_cast<GstClockTime>(off); });
    }
    element.end();
    EXPECT_EQ(shown(element.take()), expected);
}

TEST(Repetition, SaysCaptionsOnce) {
    HarnessedElement element("mpeg-2", {{"longest-repeat", "1000000000"}});
    const guint8 pair[] = {0x80 | 'A', 'b'};
    for (const uint64_t n : {0, 1, 2, 12, 13})
        element.push(n, [&](GstBuffer* buffer) {
            if (n == 2)
                gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA608_RAW, pair,
                                                  sizeof pair);
        });
    element.end();
    const std::vector<ElementUnit> units = element.take();
    EXPECT_EQ(units.size(), 14u);
    const Bytes sent = {0xFC, 0xC1, 0x62};
    EXPECT_EQ(std::ranges::count_if(units,
                                    [&](const ElementUnit& unit) {
                                        return std::search(unit.bytes.begin(), unit.bytes.end(), sent.begin(),
                                                           sent.end()) != unit.bytes.end();
                                    }),
              1);
}

TEST(Repetition, ReachesFromOneSourceToAnotherOfTheSameKind) {
    HarnessedElement element("mpeg-2", {{"longest-repeat", "1000000000"}});
    element.push_range(0, 5);
    Source other = element.source();
    other.more = ", multiview-mode=mono";
    element.change_source(other);
    element.push_range(15, 20);
    element.end();
    EXPECT_EQ(element.take().size(), 20u);
}

TEST(Repetition, LeavesOutWhatASourceBehindTheLastOneBringsUntilItHasCaughtUp) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"longest-repeat", "1000000000"}});
        element.push_range(0, 20);
        element.push_range(12, 30);
        element.end();
        const std::vector<ElementUnit> units = element.take();
        EXPECT_EQ(shown(units), times_of(element.source(), 0, 30));
        expect_decodable(units);
    }
    HarnessedElement far("mpeg-2", {{"longest-repeat", "100000000"}});
    far.push_range(0, 20);
    far.push_range(0, 10);
    far.end();
    EXPECT_EQ(far.take().size(), 30u) << "times of their own";
}

TEST(Repetition, DoesNotReachAcrossFormatsSegmentsAndFlushes) {
    for (const char* change : {"caps", "segment", "flush"}) {
        SCOPED_TRACE(change);
        HarnessedElement element("mpeg-2", {{"longest-repeat", "1000000000"}});
        element.push_range(0, 5);
        if (change == std::string("caps")) {
            Source other = element.source();
            other.width = 96;
            element.change_source(other);
        } else if (change == std::string("segment")) {
            GstSegment segment;
            gst_segment_init(&segment, GST_FORMAT_TIME);
            segment.base = GST_SECOND;
            gst_harness_push_event(element.harness(), gst_event_new_segment(&segment));
        } else {
            GstSegment segment;
            gst_segment_init(&segment, GST_FORMAT_TIME);
            gst_harness_push_event(element.harness(), gst_event_new_flush_start());
            gst_harness_push_event(element.harness(), gst_event_new_flush_stop(TRUE));
            gst_harness_push_event(element.harness(), gst_event_new_segment(&segment));
        }
        element.push_range(15, 20);
        element.end();
        const size_t kept =
            change == std::string("flush") ? 5 : 10;  // a flush may throw away what was before it
        const size_t units = element.take().size();
        EXPECT_GE(units, kept);
        EXPECT_LE(units, 10u);
    }
}

GstClockTime latency_of(HarnessedElement& element) {
    GstClockTime least = 0, most = 0;
    gst_video_encoder_get_latency(GST_VIDEO_ENCODER(element.element()), &least, &most);
    EXPECT_EQ(least, most);
    return least;
}

TEST(Latency, IsThatOfTheUnitsAndIsReportedAgainWithEachConfiguration) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"b-frames", "2"}, {"h-264-profile", "main"}});
        int64_t most = 0;
        for (uint64_t n = 0; n < 40; n++) {
            element.push(n);
            for (const ElementUnit& unit : element.take())
                most = std::max(most, static_cast<int64_t>(element.source().time_of(n)) - unit.shown());
        }
        EXPECT_NEAR(static_cast<double>(latency_of(element)), static_cast<double>(most), 40);
        EXPECT_FALSE(element.messages(GST_MESSAGE_LATENCY).empty());

        element.set("b-frames", "0");
        element.push_range(40, 60);
        EXPECT_LT(latency_of(element), static_cast<GstClockTime>(most));
        EXPECT_FALSE(element.messages(GST_MESSAGE_LATENCY).empty());
    }
}

TEST(Qos, LeavesPicturesOutThatComeTooLateAndKeepsTheirCaptions) {
    HarnessedElement element("mpeg-2", {{"qos", "true"}, {"b-frames", "0"}});
    element.push_range(0, 5);
    // What is due before the eighth picture and a bit comes too late.
    const GstClockTime late = element.source().time_of(8) - element.source().time_of(1);
    gst_harness_push_upstream_event(element.harness(),
                                    gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 0.5, 0, late));
    const guint8 pair[] = {0x80 | 'A', 'b'};
    element.push(5);
    element.push(6, [&](GstBuffer* buffer) {
        gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA608_RAW, pair, sizeof pair);
    });
    element.push_range(7, 20);
    element.end();
    const std::vector<ElementUnit> units = element.take();
    const size_t dropped = element.messages(GST_MESSAGE_QOS).size();
    EXPECT_GE(dropped, 2u);
    EXPECT_EQ(units.size() + dropped, 20u);
    expect_decodable(units);
    const Bytes sent = {0xFC, 0xC1, 0x62};
    const auto carrying = std::ranges::find_if(units, [&](const ElementUnit& unit) {
        return std::search(unit.bytes.begin(), unit.bytes.end(), sent.begin(), sent.end()) !=
               unit.bytes.end();
    });
    ASSERT_NE(carrying, units.end());
    EXPECT_GT(carrying->shown(), static_cast<int64_t>(element.source().time_of(6)));
}

}  // namespace
}  // namespace gsve::test
