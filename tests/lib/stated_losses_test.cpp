// What an encoder may lose of what it was given, case by case: full queues, items beyond what one call or one
// picture takes, pictures that never come out of the codec, and pictures or codecs that have no place for an
// item. Each is seen in a stream, through libavcodec's decoders; whatever is not named here arrives.

#include <algorithm>
#include <cstdint>
#include <map>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/caption_blocks.h"
#include "support/mpeg2_units.h"
#include "support/recording_host.h"
#include "support/serial_host.h"
#include "support/serial_numbers.h"
#include "support/serial_streams.h"

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Settings = std::vector<std::pair<const char*, const char*>>;

constexpr Rate kRate29_97 = {30000, 1001, 1};
constexpr Rate kRate50 = {50, 1, 1};
constexpr Rate kRate59_94 = {60000, 1001, 1};

/// Serial numbers from `first` on.
std::vector<Serial> numbers(Serial first, size_t count) {
    std::vector<Serial> made(count);
    std::iota(made.begin(), made.end(), first);
    return made;
}

std::vector<Serial> serials(const std::vector<Placed>& items) {
    std::vector<Serial> found;
    for (const Placed& item : items) found.push_back(item.serial);
    return found;
}

std::vector<size_t> pictures(const std::vector<Placed>& items) {
    std::vector<size_t> found;
    for (const Placed& item : items) found.push_back(item.picture);
    return found;
}

/// A stream without B-pictures, so that MPEG-2 units come at once, unless settings say otherwise.
class StatedLoss : public testing::Test {
protected:
    StatedLoss() { av_log_set_level(AV_LOG_QUIET); }
    ~StatedLoss() override {
        if (capturing_) said();
        host.refcount = 0;
    }

    void open(const std::string& codec, const Settings& settings = {}, const Rate& rate = kRate29_97) {
        codec_ = codec;
        rate_ = rate;
        if (!capturing_) testing::internal::CaptureStderr();
        capturing_ = true;
        describe_small_source(host, rate);
        configure(host, {{"encoder", codec_.c_str()},
                         {"enable", "1"},
                         {"bitrate", "400000"},
                         {"maximum threads", "1"},
                         {"b frames", "0"},
                         {"gop size", "6"},
                         {"enable cea-708", "1"},
                         {"enable eia-608", "0"}});
        configure(host, settings);
        host.units.clear();
        ASSERT_TRUE(host.client_addref()) << host.last_error;
        rate_.divider = host.frame_rate_divider;
        timestamp_ = 0;
    }
    void close() { host.free_encoder(); }
    void reopen() {
        host.units.clear();
        timestamp_ = 0;
        ASSERT_TRUE(host.init_encoder()) << host.last_error;
    }

    void words(unsigned field, Serial first, size_t count = 1) {
        for (const Serial serial : numbers(first, count))
            host.write_eia608(static_cast<uint8_t>(field), numbered_word(serial));
    }
    void constructs(Serial first, size_t count) {
        std::vector<zeph_cea708_word> batch;
        for (const Serial serial : numbers(first, count)) batch.push_back(numbered_construct(serial));
        host.write_cea708(static_cast<unsigned>(count), batch.data());
    }
    void block(Serial serial, size_t size = 20) {
        Bytes body = numbered_block(serial, size);
        host.write_scte20(body.data(), body.size());
    }
    void timecode(Serial serial) { host.write_mpeg2_gop_timecode(numbered_timecode(serial)); }
    /// One of everything.
    void load(Serial serial) {
        words(0, serial);
        words(1, serial);
        constructs(serial, 1);
        block(serial);
        timecode(serial);
        host.host_frame_tag = serial;
    }

    void pictures_pass(size_t count = 1) {
        for (; count > 0; count--) ASSERT_TRUE(write_small_picture(host, timestamp_++));
        undrained_ = host.units.size();
    }
    void drain() {
        while (host.flush_delayed_video()) {
        }
    }

    /// What the units since the last opening carry, on pictures numbered by their timestamps, or where those
    /// are not the numbers of encoded pictures in the order of display.
    FoundItems read() {
        std::vector<size_t> order(host.units.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(),
                         [&](size_t a, size_t b) { return host.units[a].pts < host.units[b].pts; });
        std::vector<Unit> units = host.units;
        if (rate_.divider != 1)
            for (size_t rank = 0; rank < order.size(); rank++)
                units[order[rank]].pts = static_cast<int64_t>(rank);
        std::vector<unsigned> counts(units.size());
        if (host.enabled_cea708()) std::fill_n(counts.begin(), undrained_, cc_count(rate_));
        const FoundItems found = items_by_libavcodec(
            codec_ == "mpeg-2" ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_H264, units, counts);
        EXPECT_EQ(found.decoded, units.size());
        EXPECT_THAT(found.errors, IsEmpty());
        return found;
    }
    /// The timestamps of the units, in the order of display.
    std::vector<Serial> shown() const {
        std::vector<Serial> found;
        for (const Unit& unit : host.units) found.push_back(static_cast<Serial>(unit.pts));
        std::sort(found.begin(), found.end());
        return found;
    }
    std::vector<uint64_t> tags() const {
        std::vector<uint64_t> found;
        for (const Unit& unit : host.units)
            if (unit.tag != UINT64_MAX) found.push_back(unit.tag);
        return found;
    }
    std::string said() {
        capturing_ = false;
        return testing::internal::GetCapturedStderr();
    }

    RecordingHost host;

private:
    std::string codec_;
    Rate rate_;
    bool capturing_ = false;
    uint64_t timestamp_ = 0;
    size_t undrained_ = 0;
};

// At the bounds of the queues

TEST_F(StatedLoss, OldestWordOfAFieldBeyondThirtyThreeThatWait) {
    open("mpeg-2");
    words(0, 0, 40);
    words(1, 0, 33);
    pictures_pass(50);
    const FoundItems found = read();
    EXPECT_EQ(serials(found.words[0]), numbers(7, 33));
    EXPECT_EQ(serials(found.words[1]), numbers(0, 33));
    EXPECT_EQ(count_of(said(), "[gsve] EIA-608 incoming overflow (33)\n"), 7u);
}

TEST_F(StatedLoss, PaddingInFrontOfTheNextWord) {
    open("mpeg-2");
    for (const uint16_t padding : {0x0000, 0x8080, 0x8080}) host.write_eia608(0, padding);
    words(0, 0);
    host.write_eia608(0, 0x8080);
    words(0, 1);
    pictures_pass(4);
    const FoundItems found = read();
    EXPECT_EQ(serials(found.words[0]), numbers(0, 2));
    EXPECT_THAT(pictures(found.words[0]), ElementsAre(0, 2)) << "padding between words keeps its picture";
}

TEST_F(StatedLoss, OldestConstructsBeyond192AtTheNextBatch) {
    open("mpeg-2");
    constructs(0, 200);
    constructs(200, 10);
    pictures_pass(20);
    EXPECT_EQ(serials(read().constructs), numbers(8, 202));
    EXPECT_EQ(count_of(said(), "[gsve] CEA-708 incoming overflow (200)\n"), 1u);
}

TEST_F(StatedLoss, ConstructsOfABatchBeyond256) {
    open("mpeg-2");
    constructs(0, 300);
    pictures_pass(20);
    EXPECT_EQ(serials(read().constructs), numbers(0, 256));
    EXPECT_EQ(count_of(said(), "[gsve] CEA-708 incoming too many words, truncating\n"), 1u);
}

TEST_F(StatedLoss, ConstructsThatAreNoneOfCea708) {
    open("mpeg-2");
    for (const int header : {0xFC, 0xFD, 0xFA, 0xF8, 0x00}) {
        zeph_cea708_word word = {static_cast<uint8_t>(header), 0x4142};
        host.write_cea708(1, &word);
    }
    constructs(0, 1);
    pictures_pass(2);
    const FoundItems found = read();
    EXPECT_EQ(serials(found.constructs), numbers(0, 1));
    EXPECT_THAT(pictures(found.constructs), ElementsAre(0)) << "they take no room either";
    EXPECT_THAT(found.words[0], IsEmpty());
}

TEST_F(StatedLoss, CaptionsGivenWhileClosedButNotBlocksAndTimeCodes) {
    open("mpeg-2");
    close();
    load(5);
    reopen();
    pictures_pass(2);
    const FoundItems found = read();
    EXPECT_THAT(found.words[0], IsEmpty());
    EXPECT_THAT(found.words[1], IsEmpty());
    EXPECT_THAT(found.constructs, IsEmpty());
    EXPECT_THAT(serials(found.blocks), ElementsAre(5));
    EXPECT_THAT(serials(found.timecodes), ElementsAre(5));
    EXPECT_THAT(tags(), ElementsAre(5));
}

TEST_F(StatedLoss, CaptionsGivenWithoutAClient) {
    open("mpeg-2");
    host.refcount = 0;
    words(0, 0);
    constructs(0, 3);
    host.refcount = 1;
    pictures_pass(2);
    const FoundItems found = read();
    EXPECT_THAT(found.words[0], IsEmpty());
    EXPECT_THAT(found.constructs, IsEmpty());
}

TEST_F(StatedLoss, WordsOfFieldsThatThereAreNot) {
    open("mpeg-2");
    words(2, 0, 3);
    words(255, 0, 3);
    pictures_pass(4);
    const FoundItems found = read();
    EXPECT_THAT(found.words[0], IsEmpty());
    EXPECT_THAT(found.words[1], IsEmpty());
}

// What a later call replaces

TEST_F(StatedLoss, BlockThatAnotherReplacesOrCancelsBeforeItsPicture) {
    open("mpeg-2");
    block(0);
    block(1);
    pictures_pass();
    block(2);
    host.write_scte20(nullptr, 0);
    pictures_pass();
    block(3);
    pictures_pass(2);
    const FoundItems found = read();
    EXPECT_THAT(serials(found.blocks), ElementsAre(1, 3));
    EXPECT_THAT(pictures(found.blocks), ElementsAre(0, 2));
}

TEST_F(StatedLoss, BlockOfMoreThan1024Bytes) {
    open("mpeg-2");
    block(0, 1024);
    block(1, 1025);
    pictures_pass(2);
    EXPECT_THAT(serials(read().blocks), ElementsAre(0)) << "the one before stays";
}

TEST_F(StatedLoss, TimeCodeAndTagThatOthersReplaceBeforeTheirPicture) {
    open("mpeg-2");
    for (const Serial serial : {0, 1}) {
        timecode(serial);
        host.host_frame_tag = serial;
    }
    pictures_pass(2);
    EXPECT_THAT(serials(read().timecodes), ElementsAre(1));
    EXPECT_THAT(tags(), ElementsAre(1));
}

TEST_F(StatedLoss, TimeCodeOfAPictureThatStartsNoGop) {
    open("mpeg-2");
    for (Serial serial = 0; serial < 14; serial++) {
        timecode(serial);
        pictures_pass();
    }
    const FoundItems found = read();
    EXPECT_THAT(serials(found.timecodes), ElementsAre(0, 6, 12));
    EXPECT_THAT(pictures(found.timecodes), ElementsAre(0, 6, 12));
}

// What never comes out of the codec, or comes out of it too late

TEST_F(StatedLoss, EverythingOnPicturesThatTheCodecHoldsWhenItIsClosed) {
    open("mpeg-2", {{"b frames", "2"}});
    for (Serial serial = 0; serial < 20; serial++) {
        load(serial);
        pictures_pass();
    }
    words(0, 20, 3);
    constructs(20, 3);
    host.host_frame_tag = 20;
    const size_t out = host.units.size();
    ASSERT_LT(out, 20u);
    const FoundItems first = read();
    const std::vector<Serial> before = shown();
    EXPECT_EQ(serials(first.words[0]), before);
    EXPECT_EQ(serials(first.words[1]), before);
    EXPECT_EQ(serials(first.constructs), before);
    EXPECT_EQ(serials(first.blocks), before);
    close();

    reopen();
    pictures_pass(10);
    const FoundItems second = read();
    EXPECT_EQ(serials(second.words[0]), numbers(20, 3)) << "what no picture took waits for the next";
    EXPECT_EQ(serials(second.constructs), numbers(20, 3));
    EXPECT_THAT(second.blocks, IsEmpty());
    EXPECT_THAT(tags(), IsEmpty()) << "a tag that waits ends with the run";
}

TEST_F(StatedLoss, EverythingOnDrainedPictures) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        SCOPED_TRACE(codec);
        host.eia608_field1_queue.clear();
        open(codec, {{"b frames", "2"}, {"h.264 profile", "main"}});
        for (Serial serial = 0; serial < 20; serial++) {
            load(serial);
            pictures_pass();
        }
        const size_t out = host.units.size();
        const std::vector<Serial> expected = shown();
        drain();
        ASSERT_EQ(host.units.size(), 20u);
        ASSERT_LT(out, 20u);
        const FoundItems found = read();
        EXPECT_EQ(serials(found.words[0]), expected);
        EXPECT_EQ(serials(found.words[1]), expected);
        EXPECT_EQ(serials(found.constructs), expected);
        close();
        host.client_unref();
    }
}

TEST_F(StatedLoss, WordsInFrontOfNoLaterCcCarrier) {
    open("mpeg-2", {{"enable eia-608", "1"}, {"enable cea-708", "0"}, {"eia-608 on p-frames", "0"}});
    for (Serial serial = 0; serial < 16; serial++) {
        words(0, serial);
        words(1, serial);
        pictures_pass();
    }
    ASSERT_EQ(coding_type(host.units.at(12).bytes), AV_PICTURE_TYPE_I);
    const auto last_carriers_dts = static_cast<size_t>(host.units[12].dts);
    drain();
    const FoundItems found = read();
    ASSERT_LT(last_carriers_dts, 16u);
    ASSERT_EQ(found.cc.size(), last_carriers_dts);
    for (size_t number = 0; number < found.cc.size(); number++) {
        EXPECT_EQ(found.cc[number].words[0], number);
        EXPECT_EQ(found.cc[number].words[1], number);
    }
}

TEST_F(StatedLoss, CcWordsOfPicturesSixtyBehindWhenCarriersAreFarApart) {
    open(
        "mpeg-2",
        {{"enable eia-608", "1"}, {"enable cea-708", "0"}, {"eia-608 on p-frames", "0"}, {"gop size", "63"}});
    while (host.units.size() < 64) {
        words(0, host.frame_counter);
        pictures_pass();
    }
    ASSERT_EQ(coding_type(host.units[63].bytes), AV_PICTURE_TYPE_I);
    // Sixty pictures in front of the latest still have their words; two more leave room for padding.
    const uint64_t oldest = host.frame_counter - 1 - 60;
    ASSERT_GT(oldest, 2u);
    const FoundItems found = read();
    ASSERT_EQ(found.cc.size(), static_cast<size_t>(host.units[63].dts) - (oldest - 2));
    EXPECT_FALSE(found.cc[0].words[0]);
    EXPECT_FALSE(found.cc[1].words[0]);
    for (size_t i = 2; i < found.cc.size(); i++) EXPECT_EQ(found.cc[i].words[0], oldest - 2 + i);
}

TEST_F(StatedLoss, EverythingOnPicturesThatTheCodecHoldsLongerThanSixtyPictures) {
    open("h.264",
         {{"h.264 preset", "placebo"}, {"b frames", "16"}, {"gop size", "250"}, {"h.264 profile", "main"}});
    for (Serial serial = 0; serial < 200; serial++) {
        load(serial);
        pictures_pass();
    }
    ASSERT_GT(host.units.size(), 50u);
    std::vector<Serial> expected;
    for (size_t i = 0; i < host.units.size(); i++) {
        const auto latest = static_cast<int64_t>(i + host.codec_delay_count);
        if (host.units[i].pts >= latest - 60) expected.push_back(static_cast<Serial>(host.units[i].pts));
    }
    ASSERT_THAT(expected, testing::Not(IsEmpty())) << "references are sent ahead of the pictures between";
    ASSERT_LT(expected.size(), host.units.size());
    EXPECT_EQ(tags(), expected);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(serials(read().words[0]), expected);
}

TEST_F(StatedLoss, EverythingOnPicturesDroppedForTheBitRate) {
    open("h.264", {{"drop frame for bitrate limit", "on"}});
    std::vector<Serial> expected;
    for (Serial serial = 0; serial < 12; serial++) {
        const uint64_t sent = host.encoded_frame_count;
        host.drop_level = serial % 4 == 2 ? 4 : 0;
        load(serial);
        pictures_pass();
        if (host.encoded_frame_count > sent) expected.push_back(serial);
    }
    ASSERT_LT(expected.size(), 12u);
    ASSERT_GT(expected.size(), 6u);
    host.drop_level = host.drop_credit = 0;
    pictures_pass(2);
    const FoundItems found = read();
    EXPECT_EQ(serials(found.words[0]), expected);
    EXPECT_EQ(serials(found.constructs), expected);
}

TEST_F(StatedLoss, EverythingOnPicturesThatTheCodecRefuses) {
    open("mpeg-2");
    const TestPicture& p = small_picture(0);
    std::vector<Serial> expected;
    for (Serial serial = 0; serial < 9; serial++) {
        load(serial);
        if (serial % 3 == 1) {
            EXPECT_TRUE(host.write_video(p.y.data(), kSmallWidth, nullptr, kSmallWidth / 2, nullptr,
                                         kSmallWidth / 2, -1, serial));
        } else {
            pictures_pass();
            expected.push_back(serial);
        }
    }
    pictures_pass();
    const FoundItems found = read();
    EXPECT_EQ(serials(found.words[0]), expected);
    EXPECT_EQ(serials(found.constructs), expected);
    EXPECT_EQ(serials(found.blocks), expected);
}

TEST_F(StatedLoss, EverythingOnAUnitThatTheOutputWindowCannotHold) {
    open("mpeg-2");
    constexpr int kWidth = 1920, kHeight = 1088;
    close();
    describe_source(host, kWidth, kHeight, 30000, 1001);
    configure(host, {{"maximum quant", "2"}, {"min bitrate", "100000"}});
    ASSERT_TRUE(host.init_encoder()) << host.last_error;
    Bytes noise(static_cast<size_t>(kWidth) * kHeight);
    uint32_t state = 1;
    for (uint8_t& sample : noise)
        sample = static_cast<uint8_t>((state = state * 1664525u + 1013904223u) >> 24);
    const Bytes grey(noise.size(), 128);
    const Bytes* const painted[] = {&noise, &grey};
    for (Serial serial = 0; serial < 3; serial++) {
        load(serial);
        const uint8_t* samples = painted[serial > 0]->data();
        EXPECT_TRUE(host.write_video(samples, kWidth, samples, kWidth / 2, samples, kWidth / 2, -1, serial));
    }
    EXPECT_EQ(host.codec_delay_count, 2u) << "the first picture waits, and a lost unit counts as a delay";
    ASSERT_EQ(host.units.size(), 1u);
    EXPECT_EQ(host.units[0].pts, 1);
    const auto bodies = mpeg2_user_data(host.units[0].bytes).bodies;
    ASSERT_EQ(bodies.size(), 1u);
    EXPECT_EQ(hex(bodies[0]), hex(numbered_block(1, 20)));
    EXPECT_THAT(tags(), ElementsAre(1));
}

// What goes by timestamps

TEST_F(StatedLoss, EverythingOnAPictureWhoseTimestampComesAgainBeforeItsUnit) {
    open("h.264", {{"b frames", "2"}, {"h.264 profile", "main"}});
    load(0);
    write_small_picture(host, 0);
    load(1);
    write_small_picture(host, 0);
    EXPECT_EQ(host.aux_data_map.size(), 1u);
    ASSERT_TRUE(host.aux_data_map.count(0));
    EXPECT_EQ(host.aux_data_map.at(0).host_frame_tag, 1u);
    EXPECT_EQ(host.aux_data_map.at(0).eia608_word_field1, numbered_word(1));
}

TEST_F(StatedLoss, NothingOnPicturesThatTheFrameRateLimitSkips) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        SCOPED_TRACE(codec);
        open(codec, {{"frame rate limit", "25"}}, kRate50);
        ASSERT_EQ(host.frame_rate_divider, 2u);
        for (Serial serial = 0; serial < 20; serial++) {
            words(0, serial);
            constructs(serial, 1);
            block(serial);
            pictures_pass();
        }
        pictures_pass(30);
        drain();
        const FoundItems found = read();
        EXPECT_EQ(serials(found.words[0]), numbers(0, 20));
        EXPECT_EQ(serials(found.constructs), numbers(0, 20));
        // Of the blocks that came after an encoded picture the one before the next stays.
        if (std::string(codec) == "mpeg-2") {
            EXPECT_THAT(serials(found.blocks), ElementsAre(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 19));
        }
        close();
        host.client_unref();
    }
}

TEST_F(StatedLoss, TagsUnderADividerAreThoseOfThePictureNumberedLikeTheSource) {
    open("mpeg-2", {{"frame rate limit", "25"}, {"b frames", "2"}}, kRate50);
    for (Serial serial = 0; serial < 12; serial++) {
        host.host_frame_tag = serial;
        pictures_pass(2);
    }
    std::map<int64_t, uint64_t> tags;
    for (const Unit& unit : host.units) tags[unit.pts] = unit.tag;
    // Picture 1 leaves as picture 2 of the source, when picture 2 is in the codec; picture 6 leaves as
    // picture 12, which is not.
    EXPECT_EQ(tags.at(0), 0u);
    EXPECT_EQ(tags.at(2), 2u);
    EXPECT_EQ(tags.at(12), UINT64_MAX);
}

TEST_F(StatedLoss, TagsUnderPerFrameRateControlAreThoseOfThePictureNumberedLikeTheTimestamp) {
    // The picture of number 3 and those after it come `gap` timestamps late, or early.
    for (const int gap : {0, 1, 20, -3}) {
        SCOPED_TRACE(gap);
        open("mpeg-2", {{"constant bitrate per frame", "1"}});
        ASSERT_TRUE(host.per_frame_rate_control);
        const auto timestamp_of = [&](uint64_t number) {
            return number < 3 ? number : number + static_cast<uint64_t>(gap);
        };
        for (uint64_t number = 0; number < 12; number++) {
            host.host_frame_tag = 100 + number;
            ASSERT_TRUE(write_small_picture(host, timestamp_of(number)));
        }
        ASSERT_GT(host.units.size(), 8u);
        for (uint64_t number = 0; number < host.units.size(); number++) {
            const Unit& unit = host.units[number];
            EXPECT_EQ(static_cast<uint64_t>(unit.pts), timestamp_of(number));
            // A picture that is 20 numbers later has not come yet.
            const uint64_t shown = gap == 20 && number >= 3 ? UINT64_MAX : 100 + timestamp_of(number);
            EXPECT_EQ(unit.tag, shown) << "picture " << number;
        }
        close();
        host.client_unref();
    }
}

TEST_F(StatedLoss, TagsAfterADroppedPictureUnderPerFrameRateControl) {
    // Dropped pictures have no number, but a timestamp.
    open("mpeg-2", {{"constant bitrate per frame", "1"}, {"drop frame for bitrate limit", "on"}});
    for (uint64_t source = 0; source < 12; source++) {
        host.drop_level = host.drop_credit = 0;
        if (source == 3) host.drop_level = 4;
        host.host_frame_tag = 100 + source;
        ASSERT_TRUE(write_small_picture(host, source));
    }
    EXPECT_EQ(host.frame_counter, 11u);
    std::map<int64_t, uint64_t> tags;
    for (const Unit& unit : host.units) tags[unit.pts] = unit.tag;
    EXPECT_EQ(tags.at(2), 102u);
    EXPECT_EQ(tags.count(3), 0u);
    EXPECT_EQ(tags.at(4), 105u) << "of picture number 4, which has timestamp 5";
}

// What has no place

TEST_F(StatedLoss, ConstructOfAFullPictureThatAWordOfTheOtherFieldsTurnPushesOut) {
    // Timestamps that leap by an odd number part the count of pictures from their pts.
    open("h.264", {{"b frames", "0"}}, kRate59_94);
    std::vector<Serial> expected;
    for (Serial serial = 0; serial < 6; serial++) {
        words(serial % 2, serial);
        constructs(serial * 9, 9);
        write_small_picture(host, serial < 3 ? serial : serial + 1);
    }
    write_small_picture(host, 7);
    pictures_pass(0);
    const FoundItems found = read();
    EXPECT_THAT(serials(found.words[0]), ElementsAre(0, 2, 4));
    EXPECT_THAT(serials(found.words[1]), ElementsAre(1, 3, 5));
    for (Serial serial = 0; serial < 54; serial++)
        if (serial < 27 || serial % 9 != 8) expected.push_back(serial);
    EXPECT_EQ(serials(found.constructs), expected);
    const std::string text = said();
    EXPECT_EQ(count_of(text, "[gsve] WARNING: Some CEA-708 was dropped (8/9 written)\n"), 3u);
    EXPECT_EQ(count_of(text, "[gsve] BUG: EIA-608 at 60fps (even/odd mode)"), 3u);
}

TEST_F(StatedLoss, CaptionsOfAServiceThatIsOff) {
    open("mpeg-2", {{"enable cea-708", "0"}});
    words(0, 0, 4);
    constructs(0, 4);
    pictures_pass(4);
    EXPECT_TRUE(host.eia608_field1_queue.empty()) << "pictures take them all the same";
    EXPECT_TRUE(host.cea708_queue.empty());
    const FoundItems found = read();
    EXPECT_THAT(found.words[0], IsEmpty());
    EXPECT_THAT(found.constructs, IsEmpty());
    EXPECT_THAT(found.cc, IsEmpty());
}

TEST_F(StatedLoss, CcUserDataAboveThirtyThreePicturesASecond) {
    open("mpeg-2", {{"enable eia-608", "1"}, {"enable cea-708", "0"}}, kRate50);
    words(0, 0, 4);
    pictures_pass(20);
    EXPECT_THAT(read().cc, IsEmpty());
    EXPECT_TRUE(host.eia608_field1_queue.empty());
}

TEST_F(StatedLoss, BlocksAndTimeCodesInH264AndEverythingInH265) {
    for (const char* codec : {"h.264", "h.265"}) {
        SCOPED_TRACE(codec);
        open(codec, {{"h.264 profile", "main"}});
        load(0);
        pictures_pass(20);
        ASSERT_GT(host.units.size(), 10u);
        EXPECT_EQ(host.scte20_length, 0u) << "pictures take them all the same";
        EXPECT_EQ(host.pending_gop_timecode.valid, 0);
        const Bytes body = numbered_block(0, 20);
        for (const Unit& unit : host.units)
            EXPECT_EQ(std::search(unit.bytes.begin(), unit.bytes.end(), body.begin(), body.end()),
                      unit.bytes.end());
        const AVCodecID id = codec == std::string("h.264") ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
        for (const DecodedPicture& picture : decode(id, host.units)) {
            EXPECT_FALSE(picture.gop_timecode);
            EXPECT_EQ(picture.a53.empty(), id == AV_CODEC_ID_HEVC);
        }
        close();
        host.client_unref();
    }
}

TEST_F(StatedLoss, WhatStillWaitsWhenTheLastPictureHasPassed) {
    open("mpeg-2");
    words(0, 0, 10);
    constructs(0, 100);
    pictures_pass(4);
    drain();
    const FoundItems found = read();
    EXPECT_EQ(serials(found.words[0]), numbers(0, 3))
        << "one word of a field in a picture, of which the codec holds the last";
    EXPECT_EQ(serials(found.constructs), numbers(0, 54)) << "eighteen constructs in a picture";
    EXPECT_EQ(host.eia608_field1_queue.size(), 6u);
    EXPECT_EQ(host.cea708_queue.size(), 28u);
}

}  // namespace
}  // namespace gsve::test
