// One picture's road through write_video(), step by step, with a codec that answers by script.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/frame_marks.h"
#include "support/mpeg2_units.h"
#include "support/scripted_encoder.h"

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char kAspectMessage[] = "gsve: a/r change, forcing I-frame\n";
const char kFieldOrderMessage[] = "gsve: field order change, forcing I-frame\n";

class WriteVideo : public ScriptedEncoder {
protected:
    size_t head_room() const { return host.output_window->data - host.output_window->base; }

    /// Leaves exactly `bytes` behind the head room of the output window, which must exist.
    void limit_window(size_t bytes) { host.output_window->limit = host.output_window->base + 8192 + bytes; }
};
using WriteVideoDeath = WriteVideo;

// Usability

TEST_F(WriteVideo, ReturnsTrueAndChangesNothingBeforeTheEncoderIsOpen) {
    CallLogHost closed;
    describe_source(closed, 64, 48, 25, 1);
    closed.refcount = 1;
    closed.current_output_tag = 5;
    closed.scte20_length = 3;
    closed.requested_picture_type = 'I';
    closed.gop_sync_frame_number = 7;
    closed.host_frame_tag = 9;
    closed.pending_gop_timecode.valid = 1;
    closed.first_timestamp = kAllOnes;
    EXPECT_TRUE(write_to(closed, 1234));
    EXPECT_EQ(closed.current_output_tag, 5u);
    EXPECT_EQ(closed.scte20_length, 3u);
    EXPECT_EQ(closed.requested_picture_type, 'I');
    EXPECT_EQ(closed.gop_sync_frame_number, 7);
    EXPECT_EQ(closed.host_frame_tag, 9u);
    EXPECT_EQ(closed.pending_gop_timecode.valid, 1);
    EXPECT_EQ(closed.first_timestamp, kAllOnes);
    EXPECT_EQ(closed.input_frame_count, 0u);
    EXPECT_EQ(closed.output_window, nullptr);
    EXPECT_TRUE(closed.aux_data_map.empty());
    closed.refcount = 0;
}

TEST_F(WriteVideo, ReturnsTrueWithoutAClient) {
    open("mpeg-2");
    host.refcount = 0;
    EXPECT_TRUE(write(0));
    EXPECT_EQ(host.output_window, nullptr);
    EXPECT_EQ(host.first_timestamp, kAllOnes);
    EXPECT_THAT(surroundings().pictures, IsEmpty());
    host.refcount = 1;
}

TEST_F(WriteVideo, ReturnsFalseWhenACodecObjectIsMissing) {
    open("mpeg-2");
    const auto missing = [&](auto& member) {
        const auto kept = std::exchange(member, nullptr);
        const bool result = write(0);
        member = kept;
        return !result;
    };
    EXPECT_TRUE(missing(host.mpeg_packet)) << "packet";
    EXPECT_TRUE(missing(host.mpeg_context)) << "context";
    EXPECT_TRUE(missing(host.mpeg_frame)) << "frame";
    EXPECT_TRUE(missing(host.mpeg_codec)) << "codec";
    EXPECT_EQ(host.output_window, nullptr);
    EXPECT_TRUE(write(0));
}

TEST_F(WriteVideo, AsksForOpennessBeforeItLooksAtTheCodecObjects) {
    CallLogHost closed;
    EXPECT_TRUE(write_to(closed, 0)) << "closed, and no codec object";
    closed.encoder_open = true;
    EXPECT_TRUE(write_to(closed, 0)) << "no client, and no codec object";
    closed.refcount = 1;
    EXPECT_FALSE(write_to(closed, 0)) << "usable but for the codec objects";
    closed.refcount = 0;
    closed.encoder_open = false;
}

// Output window

TEST_F(WriteVideo, SizesTheWindowByTheBitRateOfTwoSecondsWithAFloor) {
    const struct {
        int64_t bit_rate;
        size_t size;
    } cases[] = {
        {100000, 1048576},
        {4194304, 1048576},
        {4194311, 1048576},
        {4194312, 1048578},
        {8000000, 2000000},
        {8000007, 2000000},
        // Not a rate, but shows that the comparison is one of unsigned sizes.
        {-8, static_cast<size_t>(-2)},
    };
    open("mpeg-2");
    for (const auto& row : cases) {
        host.mpeg_context->bit_rate = row.bit_rate;
        surroundings().refuse_window = true;
        surroundings().window_sizes.clear();
        stderr_of([&] { write(0); });
        EXPECT_THAT(surroundings().window_sizes, ElementsAre(row.size)) << row.bit_rate << " bits/s";
    }
}

TEST_F(WriteVideo, ReportsAWindowThatCannotBeMadeAndTriesAgain) {
    open("mpeg-2");
    host.current_output_tag = 3;
    surroundings().refuse_window = true;
    bool result = true;
    EXPECT_EQ(stderr_of([&] { result = write(40); }), "WARNING: Encoder audio cannot alloc buffer\n");
    EXPECT_FALSE(result);
    EXPECT_EQ(host.current_output_tag, kAllOnes);
    EXPECT_EQ(host.first_timestamp, kAllOnes);
    EXPECT_EQ(host.input_frame_count, 0u);

    surroundings().refuse_window = false;
    EXPECT_TRUE(write(41));
    EXPECT_EQ(surroundings().window_sizes.size(), 2u);
    EXPECT_EQ(host.first_timestamp, 41u);
}

TEST_F(WriteVideo, KeepsOneWindowAndResetsItInFrontOfEveryUnit) {
    open("mpeg-2", {{"enable cea-708", "1"}});  // the inserter takes of the head room
    script({packet(picture_unit(1)), packet(picture_unit(2))});
    size_t used_at_send = 1, room_at_send = 0;
    surroundings().during_send = [&] {
        room_at_send = head_room();
        used_at_send = host.output_window->end - host.output_window->data;
    };
    for (uint64_t timestamp = 0; timestamp < 2; timestamp++) {
        EXPECT_TRUE(write(timestamp));
        EXPECT_EQ(room_at_send, 8192u);
        EXPECT_EQ(used_at_send, 0u);
    }
    EXPECT_EQ(surroundings().window_sizes.size(), 1u);
}

TEST_F(WriteVideoDeath, AbortsWhenTheWindowIsBrokenBeforeThePicture) {
    open("mpeg-2");
    write(0);
    surroundings().window_insane = true;
    EXPECT_DEATH(write(1),
                 "lib/gsve:706: .*GeneralStreamingVideoEncoder::write_video\\(.*Assertion "
                 "`sliding_window_v4_is_sane\\(output\\)' failed");
}

TEST_F(WriteVideoDeath, AbortsWhenTheWindowIsBrokenByThePacket) {
    open("mpeg-2");
    script({packet(picture_unit(1))});
    surroundings().during_send = [] { surroundings().window_insane = true; };
    EXPECT_DEATH(write(0),
                 "lib/gsve:991: .*GeneralStreamingVideoEncoder::write_video\\(.*Assertion "
                 "`sliding_window_v4_is_sane\\(output\\)' failed");
}

TEST_F(WriteVideoDeath, AbortsOnAnOverlongScte20Block) {
    open("mpeg-2");
    host.scte20_length = 1025;
    EXPECT_DEATH(write(0),
                 "lib/gsve:928: .*GeneralStreamingVideoEncoder::write_video\\(.*Assertion "
                 "`aux.scte20_data_length <= sizeof\\(aux.scte20_data\\)' failed");
}

// Timestamps in

TEST_F(WriteVideo, TakesTheFirstTimestampFromTheFirstPicture) {
    open("h.264");
    write(5000);
    write(5007);
    EXPECT_EQ(host.first_timestamp, 5000u);
    EXPECT_EQ(sent(0).pts, 0);
    EXPECT_EQ(sent(1).pts, 7);
    EXPECT_EQ(host.last_relative_timestamp, 7u);
}

TEST_F(WriteVideo, TakesTheFirstTimestampFromASkippedPictureToo) {
    open("h.264", {{"frame rate limit", "25"}});
    host.next_due_timestamp = 10;
    write(4);
    EXPECT_EQ(host.first_timestamp, 4u);
    write(10);
    EXPECT_EQ(sent(0).pts, 6);
}

TEST_F(WriteVideo, DividesTheRelativeTimestampUnsigned) {
    const struct {
        unsigned divider;
        uint64_t timestamp;
        int64_t pts;
    } cases[] = {
        {1, 100, 0}, {2, 101, 0}, {2, 103, 1}, {3, 108, 2}, {1, 95, -5}, {2, 95, INT64_MAX - 2},
    };
    open("h.264");
    write(100);
    for (const auto& row : cases) {
        host.frame_rate_divider = row.divider;
        write(row.timestamp);
        EXPECT_EQ(surroundings().pictures.back().pts, row.pts) << row.timestamp << " / " << row.divider;
        EXPECT_EQ(host.last_relative_timestamp, row.timestamp - 100);
    }
}

TEST_F(WriteVideo, CountsPicturesUnderPerFrameRateControl) {
    open("mpeg-2", {{"constant bitrate per frame", "1"}});
    script({packet(picture_unit(1)), send_error(AVERROR(EINVAL)), held_back()});
    for (const uint64_t timestamp : {100, 105, 160}) write(timestamp);
    EXPECT_EQ(sent(0).pts, 0);
    EXPECT_EQ(sent(1).pts, 1);
    EXPECT_EQ(sent(2).pts, 2);
    EXPECT_EQ(host.frame_counter, 3u);
    EXPECT_EQ(host.encoded_frame_count, 3u);
    EXPECT_THAT(host.pts_map, ElementsAre(std::pair(0, 0), std::pair(1, 5), std::pair(2, 60)));
}

TEST_F(WriteVideo, CarriesThePictureTimestampInTheReleasedPacket) {
    open("h.264");
    script({packet(picture_unit(1)), held_back()});
    std::vector<int64_t> seen;
    surroundings().during_send = [&] {
        seen.insert(seen.end(), {host.mpeg_packet->pts, host.mpeg_packet->dts, host.mpeg_packet->size});
    };
    write(10);
    write(13);
    EXPECT_THAT(seen, ElementsAre(0, 0, 0, 3, 3, 0));
}

TEST_F(WriteVideo, ForgetsOldTimestampsUnderPerFrameRateControl) {
    open("mpeg-2", {{"constant bitrate per frame", "1"}});
    const struct {
        uint64_t frame_counter;
        uint64_t oldest_kept;
    } cases[] = {{59, 0}, {60, 0}, {61, 1}, {100, 40}};
    write(0);
    for (const auto& row : cases) {
        host.pts_map.clear();
        for (uint64_t key = 0; key < 59; key++) host.pts_map[key] = key + 1000;
        host.frame_counter = row.frame_counter;
        write(77);
        EXPECT_EQ(host.pts_map.begin()->first, row.oldest_kept) << row.frame_counter;
        EXPECT_EQ(host.pts_map.at(row.frame_counter), 77u);
    }
}

TEST_F(WriteVideo, OverwritesATimestampThatIsMappedAlready) {
    open("mpeg-2", {{"constant bitrate per frame", "1"}});
    write(0);
    host.pts_map[1] = 99;
    write(6);
    EXPECT_EQ(host.pts_map.at(1), 6u);
}

TEST_F(WriteVideo, MapsNoTimestampsWithoutPerFrameRateControl) {
    open("h.264");
    script({packet(filler(8))});
    write(0);
    EXPECT_THAT(host.pts_map, IsEmpty());
}

// Frame-rate limit

TEST_F(WriteVideo, EncodesEverySecondPictureUnderALimitOfHalfTheRate) {
    describe_source(host, 64, 48, 50, 1);
    open("h.264", {{"frame rate limit", "25"}});
    ASSERT_EQ(host.frame_rate_divider, 2u);
    std::vector<size_t> sent_after;
    for (uint64_t timestamp = 0; timestamp < 5; timestamp++) {
        EXPECT_TRUE(write(timestamp));
        sent_after.push_back(surroundings().pictures.size());
    }
    EXPECT_THAT(sent_after, ElementsAre(1, 1, 2, 2, 3));
    EXPECT_EQ(sent(0).pts, 0);
    EXPECT_EQ(sent(1).pts, 1);
    EXPECT_EQ(sent(2).pts, 2);
}

TEST_F(WriteVideo, NeverLetsTheDueTimestampFallBehindThePicture) {
    describe_source(host, 64, 48, 50, 1);
    open("h.264", {{"frame rate limit", "25"}});
    const struct {
        uint64_t timestamp, due;
        size_t sent;
    } steps[] = {{0, 2, 1},   {1, 2, 1},   {10, 10, 2}, {11, 12, 3},
                 {11, 12, 3}, {12, 14, 4}, {13, 14, 4}, {100, 100, 5}};
    for (const auto& step : steps) {
        EXPECT_TRUE(write(step.timestamp));
        EXPECT_EQ(host.next_due_timestamp, step.due) << "timestamp " << step.timestamp;
        EXPECT_EQ(surroundings().pictures.size(), step.sent) << "timestamp " << step.timestamp;
    }
}

TEST_F(WriteVideo, TreatsANegativeLimitAsALimitOfEveryPicture) {
    open("h.264", {{"frame rate limit", "none"}});
    ASSERT_EQ(host.frame_rate_limit, -1);
    ASSERT_EQ(host.frame_rate_divider, 1u);
    for (const uint64_t timestamp : {0, 0, 1, 1, 2}) write(timestamp);
    EXPECT_EQ(surroundings().pictures.size(), 3u);
}

TEST_F(WriteVideo, TakesRepeatedTimestampsWithoutALimit) {
    open("h.264");
    for (const uint64_t timestamp : {0, 0, 0}) write(timestamp);
    EXPECT_EQ(surroundings().pictures.size(), 3u);
    EXPECT_EQ(host.next_due_timestamp, 0u);
}

TEST_F(WriteVideo, SkipsSilentlyAndKeepsWhatWaitsForTheNextPicture) {
    open("mpeg-2", {{"frame rate limit", "25"}, {"enable cea-708", "1"}});
    write(0);
    host.next_due_timestamp = 10;
    host.current_output_tag = 1;
    host.host_frame_tag = 2;
    host.scte20_length = 4;
    host.requested_picture_type = 'I';
    host.gop_sync_frame_number = 9;
    host.pending_gop_timecode.valid = 1;
    host.eia608_field1_queue = {0x1420};
    const uint64_t counted = host.input_frame_count;
    EXPECT_EQ(stderr_of([&] { EXPECT_TRUE(write(5)); }), "");
    EXPECT_EQ(host.current_output_tag, kAllOnes);
    EXPECT_EQ(host.input_frame_count, counted);
    EXPECT_EQ(host.host_frame_tag, 2u);
    EXPECT_EQ(host.scte20_length, 4u);
    EXPECT_EQ(host.requested_picture_type, 'I');
    EXPECT_EQ(host.gop_sync_frame_number, 9);
    EXPECT_EQ(host.pending_gop_timecode.valid, 1);
    EXPECT_EQ(host.eia608_field1_queue.size(), 1u);
    EXPECT_EQ(host.next_due_timestamp, 10u);
    EXPECT_EQ(host.last_relative_timestamp, 0u);
    EXPECT_EQ(surroundings().pictures.size(), 1u);
}

// Planes

TEST_F(WriteVideo, EncodesTheCallersPlanesInPlace) {
    open("h.264");
    host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 33, -1, 0);
    const SentPicture& seen = sent(0);
    EXPECT_EQ(seen.data[0], picture.y.data());
    EXPECT_EQ(seen.data[1], picture.u.data());
    EXPECT_EQ(seen.data[2], picture.v.data());
    EXPECT_THAT(seen.linesize, ElementsAre(64, 32, 33));
    EXPECT_EQ(seen.width, 64);
    EXPECT_EQ(seen.height, 48);
    EXPECT_EQ(seen.format, AV_PIX_FMT_YUV420P);
    EXPECT_THAT(host.resizes, IsEmpty());
}

TEST_F(WriteVideo, EncodesTheWorkingPlanesWhenResizing) {
    open("h.264", {{"resize", "80x32"}});
    host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 33, 1, 0);
    const SentPicture& seen = sent(0);
    for (int plane = 0; plane < 3; plane++) {
        EXPECT_EQ(seen.data[plane], host.resize_buffer[plane]);
        EXPECT_EQ(seen.linesize[plane], static_cast<int>(host.resize_buffer_stride[plane]));
    }
    EXPECT_EQ(seen.width, 80);
    EXPECT_EQ(seen.height, 32);
    ASSERT_EQ(host.resizes.size(), 1u);
    const ResizeCall& call = host.resizes[0];
    EXPECT_EQ(call.operation, "plain");
    EXPECT_THAT(call.planes, ElementsAre(picture.y.data(), picture.u.data(), picture.v.data()));
    EXPECT_THAT(call.strides, ElementsAre(64u, 32u, 33u));
    EXPECT_EQ(call.width, 64u);
    EXPECT_EQ(call.height, 48u);
    EXPECT_EQ(call.field, 1);
}

TEST_F(WriteVideo, ChoosesTheResizerByModeAndFlagsAlone) {
    const struct {
        int mode, flags;
        int8_t current_field_order;
        const char* operation;
    } cases[] = {
        {-1, -1, -1, "plain"},  {-1, 0, -1, "plain"},  {0, 0, -1, "plain"},  {1, 1, -1, "plain"},
        {2, 0, -1, "plain"},    {3, -1, -1, "plain"},  {3, -1, 1, "plain"},  {3, 0, -1, "basic"},
        {3, 1, -1, "basic"},    {3, 0, 0, "basic"},    {4, -1, -1, "plain"}, {4, -1, 2, "plain"},
        {4, 0, -1, "adaptive"}, {4, 1, 0, "adaptive"}, {5, 0, -1, "plain"},
    };
    open("h.264", {{"resize", "80x32"}});
    for (const auto& row : cases) {
        host.resizes.clear();
        host.resize_deinterlace = row.mode;
        host.current_field_order = row.current_field_order;
        stderr_of([&] { write(0, row.flags); });
        ASSERT_EQ(host.resizes.size(), 1u) << "mode " << row.mode << " flags " << row.flags;
        EXPECT_EQ(host.resizes[0].operation, row.operation) << "mode " << row.mode << " flags " << row.flags;
        EXPECT_EQ(host.resizes[0].field, row.flags);
    }
}

TEST_F(WriteVideo, CallsAnOverriddenAdaptiveDeinterlacerWithAnySize) {
    open("h.264", {{"resize", "80x32"}});
    host.resize_deinterlace = 4;
    host.input_height = 0;
    write(0, 0);
    ASSERT_EQ(host.resizes.size(), 1u);
    EXPECT_EQ(host.resizes[0].operation, "adaptive");
    EXPECT_EQ(host.resizes[0].width, 64u);
    EXPECT_EQ(host.resizes[0].height, 0u);
}

TEST_F(WriteVideo, LeavesTheWorkingPlanesAloneWhereItsOwnAdaptiveDeinterlacerHasASizeOfZero) {
    RecordingHost plain;
    open_encoder(plain, "h.264", {{"resize", "80x32"}});
    surroundings().scripted = true;
    plain.resize_deinterlace = 4;
    int32_t* const sizes[] = {&plain.input_width, &plain.input_height, &plain.output_width,
                              &plain.output_height};
    for (int32_t* size : sizes) {
        const size_t plane_size = plain.resize_buffer_stride[0] * (32 + 16);
        std::fill_n(plain.resize_buffer[0], plane_size, 0xA5);
        const int32_t kept = std::exchange(*size, 0);
        stderr_of([&] { EXPECT_TRUE(write_to(plain, 0, 0)); });
        *size = kept;
        EXPECT_EQ(std::count(plain.resize_buffer[0], plain.resize_buffer[0] + plane_size, 0xA5),
                  static_cast<ptrdiff_t>(plane_size));
    }
}

// Source GOP tracking

struct GopCase {
    const char* codec;
    int gop_size;
    int8_t requested;
    int32_t sync;
    std::string building_before;
    AVPictureType type;
    bool key;
    std::string building, finished;
};

TEST_F(WriteVideo, FollowsTheSourceGop) {
    const std::string eighty(80, 'B'), eighty_one(81, 'B');
    const AVPictureType none = AV_PICTURE_TYPE_NONE, i = AV_PICTURE_TYPE_I, p = AV_PICTURE_TYPE_P,
                        b = AV_PICTURE_TYPE_B;
    const GopCase cases[] = {
        // Not asked for, or not synchronised: no type, and the texts go.
        {"mpeg-2", 12, 'I', 5, "IBB", none, false, "", ""},
        {"mpeg-2", 1, 'P', 5, "IBB", none, false, "", ""},
        {"mpeg-2", -1, -1, 5, "IBB", none, false, "", ""},
        {"mpeg-2", -1, 'I', -1, "IBB", none, false, "", ""},
        // Forced types; an I-picture closes the GOP.
        {"mpeg-2", -1, 'P', 5, "I", p, false, "IP", "old"},
        {"mpeg-2", -1, 'B', 0, "IP", b, false, "IPB", "old"},
        {"mpeg-2", 0, 'I', 5, "IBBP", i, true, "I", "IBBP as-source"},
        {"mpeg-2", -3, 'I', 5, "", i, true, "I", " as-source"},
        {"mpeg-2", -1, 'X', 5, "IBBP", i, true, "I", "IBBP as-source"},
        {"mpeg-2", -1, 0, 5, "IBBP", i, true, "I", "IBBP as-source"},
        {"mpeg-2", -1, 'p', 5, "IBBP", i, true, "I", "IBBP as-source"},
        // A GOP that does not end is closed after 80 letters.
        {"mpeg-2", -1, 'P', 5, eighty, p, false, eighty + "P", "old"},
        {"mpeg-2", -1, 'P', 5, eighty_one, p, false, "P", eighty_one + " as-source"},
        {"mpeg-2", -1, 'B', 5, eighty_one, b, false, "B", eighty_one + " as-source"},
        // Only the MPEG-2 encoder collects letters.
        {"h.264", -1, 'P', 5, "", p, false, "", "old"},
        {"h.264", -1, 'I', 5, "IBBP", i, true, "", "IBBP as-source"},
        {"h.264", -1, 'B', 5, eighty_one, b, false, "", eighty_one + " as-source"},
    };
    for (const GopCase& row : cases) {
        SCOPED_TRACE(std::string(row.codec) + " gop size " + std::to_string(row.gop_size) + " requested " +
                     std::to_string(row.requested) + " sync " + std::to_string(row.sync));
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, row.codec);
        surroundings().scripted = true;
        surroundings().outcomes.push_back(send_error(AVERROR(EINVAL)));
        encoder.gop_size = row.gop_size;
        encoder.requested_picture_type = row.requested;
        encoder.gop_sync_frame_number = row.sync;
        encoder.dgop_building_text = row.building_before;
        encoder.dgop_text = "old";
        encoder.output_frame_count = 1000;
        write_to(encoder, 0);
        EXPECT_EQ(sent(0).pict_type, row.type);
        EXPECT_EQ(sent(0).key_frame, row.key);
        EXPECT_EQ(encoder.dgop_building_text, row.building);
        EXPECT_EQ(encoder.dgop_text, row.finished);
        EXPECT_EQ(encoder.output_frame_count, row.type == none ? 1000u : static_cast<uint64_t>(row.sync));
    }
}

TEST_F(WriteVideo, ForgetsAForcedTypeWithTheNextPicture) {
    open("mpeg-2");
    host.requested_picture_type = 'I';
    host.gop_sync_frame_number = 0;
    write(0);
    EXPECT_EQ(host.requested_picture_type, -1);
    EXPECT_EQ(host.gop_sync_frame_number, -1);
    write(1);
    EXPECT_EQ(sent(0).pict_type, AV_PICTURE_TYPE_I);
    EXPECT_TRUE(sent(0).key_frame);
    EXPECT_EQ(sent(1).pict_type, AV_PICTURE_TYPE_NONE);
    EXPECT_FALSE(sent(1).key_frame);
}

// Aspect ratio and field order

TEST_F(WriteVideo, GivesThePictureTheSampleAspectRatioOfItsDisplayAspectRatio) {
    const struct {
        int32_t current_num, current_den;
        uint32_t default_num, default_den;
        int num, den;
    } cases[] = {
        {-1, -1, 4, 3, 48 * 4, 64 * 3}, {16, 9, 4, 3, 48 * 16, 64 * 9}, {16, 0, 4, 3, 48 * 4, 64 * 3},
        {0, 9, 5, 4, 48 * 5, 64 * 4},   {16, -1, 4, 3, 48 * 4, 64 * 3}, {1, 1, 4, 3, 48, 64},
    };
    open("h.264");
    for (const auto& row : cases) {
        host.current_aspect_num = row.current_num;
        host.current_aspect_den = row.current_den;
        host.default_aspect_num = row.default_num;
        host.default_aspect_den = row.default_den;
        stderr_of([&] { write(0); });
        const AVRational seen = surroundings().pictures.back().sample_aspect_ratio;
        EXPECT_EQ(seen.num, row.num) << row.current_num << ":" << row.current_den;
        EXPECT_EQ(seen.den, row.den) << row.current_num << ":" << row.current_den;
        EXPECT_EQ(host.mpeg_context->sample_aspect_ratio.num, row.num);
        EXPECT_EQ(host.mpeg_context->sample_aspect_ratio.den, row.den);
    }
}

TEST_F(WriteVideo, TakesTheSampleAspectRatioFromTheSizeOfTheEncodedPicture) {
    open("h.264", {{"resize", "80x32"}});
    write(0);
    EXPECT_EQ(sent(0).sample_aspect_ratio.num, 32 * 4);
    EXPECT_EQ(sent(0).sample_aspect_ratio.den, 80 * 3);
}

TEST_F(WriteVideo, ForcesOneIPictureWhenTheAspectRatioChanges) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec);
        surroundings().scripted = true;
        surroundings().outcomes.assign(4, send_error(AVERROR(EINVAL)));
        const std::string said = stderr_of([&] {
            write_to(encoder, 0);
            encoder.current_aspect_num = 16;
            encoder.current_aspect_den = 9;
            for (uint64_t timestamp = 1; timestamp < 4; timestamp++) write_to(encoder, timestamp);
        });
        EXPECT_EQ(said, kAspectMessage) << codec;
        std::vector<bool> forced;
        for (const SentPicture& seen : surroundings().pictures)
            forced.push_back(seen.key_frame && seen.pict_type == AV_PICTURE_TYPE_I);
        EXPECT_THAT(forced, ElementsAre(false, true, false, false)) << codec;
    }
}

TEST_F(WriteVideo, SignalsTheFieldOrder) {
    const struct {
        int mode, flags;
        int8_t current;
        bool interlaced, top_first;
    } cases[] = {
        {-1, -1, -1, false, false}, {-1, -7, -1, false, false}, {-1, 0, -1, true, true},
        {-1, 1, -1, true, false},   {-1, 5, -1, true, false},   {-1, 0, 0, false, false},
        {-1, -1, 1, true, true},    {-1, 0, 2, true, false},    {-1, 1, 1, true, true},
        {0, 0, -1, false, false},   {2, 1, 1, false, false},
    };
    open("h.264");
    for (const auto& row : cases) {
        host.resize_deinterlace = row.mode;
        host.current_field_order = row.current;
        stderr_of([&] { write(0, row.flags); });
        const SentPicture& seen = surroundings().pictures.back();
        const std::string context =
            "flags " + std::to_string(row.flags) + " current " + std::to_string(row.current);
        EXPECT_EQ(seen.interlaced, row.interlaced) << context;
        EXPECT_EQ(seen.top_field_first, row.top_first) << context;
    }
}

TEST_F(WriteVideo, MarksThePictureInTheFieldsAndInTheFlagsOfEveryRelease) {
    // FFmpeg 6.1 and 7 have both, and a host may read either.
    const struct {
        int flags;
        int8_t requested;
        FrameMarks marks;
    } pictures[] = {
        {-1, -1, {true, false, false}},  // a new aspect ratio
        {-1, -1, {false, false, false}}, {0, -1, {true, true, true}},      {0, 'P', {false, true, true}},
        {0, 'I', {true, true, true}},    {1, 'P', {true, true, false}},    {1, 'B', {false, true, false}},
        {-1, 'B', {true, false, false}}, {-1, 'P', {false, false, false}},
    };
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec);
        surroundings().scripted = true;
        encoder.current_aspect_num = encoder.current_aspect_den = 1;
        uint64_t number = 0;
        for (const auto& row : pictures) {
            SCOPED_TRACE(std::string(codec) + ", picture " + std::to_string(number));
            encoder.requested_picture_type = row.requested;
            encoder.gop_sync_frame_number = row.requested < 0 ? -1 : 0;
            stderr_of([&] { write_to(encoder, number++, row.flags); });
            EXPECT_EQ(marks_by_fields(*encoder.mpeg_frame).value_or(row.marks), row.marks);
            EXPECT_EQ(marks_by_flags(*encoder.mpeg_frame).value_or(row.marks), row.marks);
            EXPECT_EQ(marks_of(*encoder.mpeg_frame), row.marks);
        }
    }
}

TEST_F(WriteVideo, ForcesAnIPictureWhenTheFieldOrderChanges) {
    const struct {
        int flags;
        int aspect_num;
        std::string message;
    } steps[] = {
        {-1, 4, ""},
        {0, 4, kFieldOrderMessage},
        {0, 4, ""},
        {1, 4, kFieldOrderMessage},
        {1, 5, kAspectMessage},
        {0, 6, std::string(kAspectMessage) + kFieldOrderMessage},
        {-1, 6, kFieldOrderMessage},
        {-1, 6, ""},
    };
    open("mpeg-2", {{"resize deinterlace", "-1"}});
    host.current_aspect_den = 3;
    for (const auto& step : steps) {
        host.current_aspect_num = step.aspect_num;
        script({send_error(AVERROR(EINVAL))});
        EXPECT_EQ(stderr_of([&] { write(0, step.flags); }), step.message);
        const SentPicture& seen = surroundings().pictures.back();
        EXPECT_EQ(seen.key_frame, !step.message.empty());
        EXPECT_EQ(seen.pict_type, step.message.empty() ? AV_PICTURE_TYPE_NONE : AV_PICTURE_TYPE_I);
    }
}

TEST_F(WriteVideo, TakesTheFirstInterlacedPictureForAChange) {
    host.input_interlaced = 1;
    open("mpeg-2");
    script({send_error(AVERROR(EINVAL))});
    EXPECT_EQ(stderr_of([&] { write(0, 0); }), kFieldOrderMessage);
    EXPECT_EQ(sent(0).pict_type, AV_PICTURE_TYPE_I);
}

TEST_F(WriteVideo, NeverForcesAnIPictureForTheFieldOrderWhenItDeinterlaces) {
    open("mpeg-2", {{"resize deinterlace", "0"}});
    script(std::vector<Outcome>(5, send_error(AVERROR(EINVAL))));
    const std::string said = stderr_of([&] {
        for (const int flags : {-1, 0, 1, 0, -1}) write(0, flags);
    });
    EXPECT_EQ(said, "");
    for (const SentPicture& seen : surroundings().pictures) EXPECT_FALSE(seen.key_frame);
}

TEST_F(WriteVideo, OverridesARequestedTypeWhenTheFieldOrderChanges) {
    open("mpeg-2");
    host.requested_picture_type = 'P';
    host.gop_sync_frame_number = 4;
    stderr_of([&] { write(0, 0); });
    EXPECT_EQ(sent(0).pict_type, AV_PICTURE_TYPE_I);
    EXPECT_TRUE(sent(0).key_frame);
    EXPECT_EQ(host.dgop_building_text, "P");
}

// Side data

TEST_F(WriteVideo, GivesEachPictureARecordUnderItsTimestamp) {
    open("h.264");
    host.host_frame_tag = 0x1122334455667788;
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 200;
    timecode.drop_frame_flag = 3;
    timecode.hours = 1;
    timecode.minutes = 2;
    timecode.seconds = 3;
    timecode.pictures = 4;
    timecode.text = "first";
    host.write_mpeg2_gop_timecode(timecode);
    host.eia608_field1_queue = {0x1420};
    uint8_t block[] = {1, 2, 3};
    host.write_scte20(block, 3);
    write(10);
    EXPECT_EQ(host.host_frame_tag, kAllOnes);
    EXPECT_EQ(host.pending_gop_timecode.valid, 0);
    EXPECT_EQ(host.scte20_length, 0u);
    write(14);

    ASSERT_EQ(host.aux_data_map.size(), 2u);
    const auto& first = host.aux_data_map.at(0);
    EXPECT_EQ(first.host_frame_tag, 0x1122334455667788u);
    EXPECT_EQ(first.gop_timecode.valid, 1);
    EXPECT_EQ(first.gop_timecode.drop_frame_flag, 3);
    EXPECT_EQ(first.gop_timecode.hours, 1);
    EXPECT_EQ(first.gop_timecode.minutes, 2);
    EXPECT_EQ(first.gop_timecode.seconds, 3);
    EXPECT_EQ(first.gop_timecode.pictures, 4);
    EXPECT_EQ(first.gop_timecode.text, "first");
    EXPECT_EQ(first.eia608_word_field1, 0x1420);
    EXPECT_EQ(hex(first.scte20_data, first.scte20_data_length), "01 02 03");

    const auto& second = host.aux_data_map.at(4);
    EXPECT_EQ(second.host_frame_tag, kAllOnes);
    EXPECT_EQ(second.gop_timecode.valid, 0);
    EXPECT_EQ(second.gop_timecode.text, "");
    EXPECT_EQ(second.eia608_word_field1, 0);
    EXPECT_EQ(second.scte20_data_length, 0u);
}

TEST_F(WriteVideo, ReplacesTheRecordOfATimestampThatComesAgain) {
    open("h.264");
    write(0);
    auto& record = host.aux_data_map.at(0);
    record.eia608_word_field1 = 1;
    record.eia608_word_field2 = 2;
    record.cea708_count = 3;
    record.cea708_words[0] = {0xFE, 0x1234};
    record.scte20_data_length = 4;
    record.host_frame_tag = 5;
    record.gop_timecode.valid = 1;
    record.gop_timecode.hours = 6;
    record.gop_timecode.text = "stale";
    host.host_frame_tag = 77;
    write(0);
    ASSERT_EQ(host.aux_data_map.size(), 1u);
    const auto& replaced = host.aux_data_map.at(0);
    EXPECT_EQ(replaced.eia608_word_field1, 0);
    EXPECT_EQ(replaced.eia608_word_field2, 0);
    EXPECT_EQ(replaced.cea708_count, 0u);
    EXPECT_EQ(replaced.cea708_words[0].header, 0);
    EXPECT_EQ(replaced.scte20_data_length, 0u);
    EXPECT_EQ(replaced.host_frame_tag, 77u);
    EXPECT_EQ(replaced.gop_timecode.valid, 0);
    EXPECT_EQ(replaced.gop_timecode.hours, 0);
    EXPECT_EQ(replaced.gop_timecode.text, "");
}

TEST_F(WriteVideo, ForgetsRecordsThatAreSixtyPicturesOld) {
    const struct {
        uint64_t timestamp;
        uint64_t oldest_kept;
    } cases[] = {{1, 0}, {59, 0}, {60, 0}, {61, 1}, {100, 40}};
    open("h.264");
    write(0);
    for (const auto& row : cases) {
        host.aux_data_map.clear();
        for (uint64_t key = 0; key < 50; key++) host.aux_data_map[key] = {};
        write(row.timestamp);
        EXPECT_EQ(host.aux_data_map.begin()->first, row.oldest_kept) << row.timestamp;
        EXPECT_TRUE(host.aux_data_map.count(row.timestamp)) << row.timestamp;
    }
}

TEST_F(WriteVideo, ClearsOnlyThePendingFlagOfATimecode) {
    open("h.264");
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 1;
    timecode.hours = 9;
    timecode.text = "kept";
    host.write_mpeg2_gop_timecode(timecode);
    write(0);
    EXPECT_EQ(host.pending_gop_timecode.valid, 0);
    EXPECT_EQ(host.pending_gop_timecode.hours, 9);
    EXPECT_EQ(host.pending_gop_timecode.text, "kept");
}

TEST_F(WriteVideo, FilesTheRecordBeforeThePictureIsDropped) {
    open("mpeg-2", {{"drop frame for bitrate limit", "on"}});
    write(0);
    host.drop_level = 3;
    host.drop_credit = 0;
    host.host_frame_tag = 8;
    host.eia608_field1_queue = {0x1420};
    write(1);
    EXPECT_EQ(surroundings().pictures.size(), 1u) << "the second picture was dropped";
    EXPECT_EQ(host.aux_data_map.at(1).host_frame_tag, 8u);
    EXPECT_EQ(host.aux_data_map.at(1).eia608_word_field1, 0x1420);
    EXPECT_EQ(host.host_frame_tag, kAllOnes);
    EXPECT_THAT(host.eia608_field1_queue, IsEmpty());
}

// The exchange with the codec

TEST_F(WriteVideo, TakesAPacketThatFillsTheWindowAndLosesALargerOne) {
    for (const size_t size : {100, 101}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, "h.264");
        surroundings().scripted = true;
        surroundings().outcomes = {held_back(), packet(filler(size))};
        stderr_of([&] { write_to(encoder, 0); });
        encoder.output_window->limit = encoder.output_window->base + 8192 + 100;
        const std::string said = stderr_of([&] { EXPECT_TRUE(write_to(encoder, 1)); });
        if (size == 100) {
            ASSERT_EQ(encoder.units.size(), 1u);
            EXPECT_EQ(hex(encoder.units[0].bytes), hex(filler(size)));
            EXPECT_EQ(said, "");
            EXPECT_EQ(encoder.codec_delay_count, 1u);
        } else {
            EXPECT_EQ(encoder.units.size(), 0u);
            EXPECT_EQ(said, "avcodec_send frame/receieve packet() codec delay 2 (80 ms)\n");
            EXPECT_EQ(encoder.mpeg_packet->size, 101) << "stays in the codec's packet until the next picture";
        }
        EXPECT_EQ(encoder.frame_counter, 2u);
    }
}

TEST_F(WriteVideo, CountsHeldBackPictures) {
    const struct {
        Outcome outcome;
        bool counts;
    } cases[] = {
        {held_back(), true},
        {packet({}), true},
        {packet(filler(9)), false},
        {receive_error(AVERROR_EXTERNAL), false},
        {receive_error(AVERROR_EOF), false},
        {send_error(AVERROR(EINVAL)), false},
        {send_error(AVERROR(EAGAIN)), false},
        {send_error(AVERROR_EOF), false},
    };
    describe_source(host, 64, 48, 30000, 1001);
    open("h.264");
    host.frame_rate_divider = 2;
    uint64_t delayed = 0, emitted = 0, attempts = 0;
    for (const auto& row : cases) {
        SCOPED_TRACE("send " + std::to_string(row.outcome.send) + " receive " +
                     std::to_string(row.outcome.receive));
        script({row.outcome});
        std::string expected;
        attempts++;
        if (row.counts) {
            delayed++;
            expected = "avcodec_send frame/receieve packet() codec delay " + std::to_string(delayed) + " (" +
                       std::to_string(delayed * 2 * 1001 * 1000 / 30000) + " ms)\n";
        }
        if (row.outcome.bytes.size()) emitted++;
        EXPECT_EQ(stderr_of([&] { EXPECT_TRUE(write(attempts)); }), expected);
        EXPECT_EQ(host.codec_delay_count, delayed);
        EXPECT_EQ(host.codec_delay_ms, delayed * 2 * 1001 * 1000 / 30000);
        EXPECT_EQ(host.output_frame_count, delayed + emitted);
        EXPECT_EQ(host.frame_counter, attempts);
        EXPECT_EQ(host.encoded_frame_count, attempts);
        EXPECT_EQ(host.input_frame_count, attempts);
        EXPECT_EQ(host.units.size(), emitted);
    }
}

TEST_F(WriteVideo, TakesPicturesOnWhenTheHostLosesItsFrameRate) {
    const struct { int num, den; } rates[] = {{0, 1}, {25, 0}, {0, 0}};
    open("h.264");
    host.write_eia608(0, 0x1420);
    uint64_t timestamp = 0;
    for (const auto& rate : rates) {
        SCOPED_TRACE(std::to_string(rate.num) + "/" + std::to_string(rate.den));
        host.frame_rate_num = rate.num;
        host.frame_rate_den = rate.den;
        script({held_back()});
        std::string said = stderr_of([&] { EXPECT_TRUE(write(timestamp++)); });
        EXPECT_EQ(said, "avcodec_send frame/receieve packet() codec delay " + std::to_string(timestamp) +
                            " (0 ms)\n");
        EXPECT_EQ(host.codec_delay_ms, 0u);
    }
    EXPECT_EQ(host.aux_data_map.at(0).eia608_word_field1, 0x1420) << "as below forty pictures a second";
}

TEST_F(WriteVideo, ReceivesOnlyAfterASuccessfulSend) {
    open("h.264");
    script({send_error(AVERROR(EAGAIN))});
    write(0);
    EXPECT_EQ(surroundings().receives, 0);
    stderr_of([&] { write(1); });
    EXPECT_EQ(surroundings().receives, 1);
}

TEST_F(WriteVideo, EmitsAtMostOneUnit) {
    open("h.264");
    script({packet(filler(5)), packet(filler(6))});
    write(0);
    EXPECT_EQ(host.units.size(), 1u);
    EXPECT_EQ(surroundings().receives, 1);
}

TEST_F(WriteVideo, KeepsTheKeyFlagAlone) {
    open("h.264");
    for (const int flags : {1, 0, 3, 2, 5, 4}) {
        script({packet(filler(5), flags)});
        write(0);
        EXPECT_EQ(host.last_key_flag, flags % 2) << flags;
    }
}

TEST_F(WriteVideo, ResetsTheOneShotFieldsWhateverBecomesOfThePicture) {
    const std::vector<Outcome> outcomes = {held_back(), packet(filler(9)), send_error(AVERROR(EINVAL)),
                                           receive_error(AVERROR_EXTERNAL)};
    open("h.264");
    for (const Outcome& outcome : outcomes) {
        script({outcome});
        host.scte20_length = 4;
        host.requested_picture_type = 'I';
        host.gop_sync_frame_number = 3;
        host.host_frame_tag = 6;
        host.pending_gop_timecode.valid = 1;
        stderr_of([&] { write(0); });
        EXPECT_EQ(host.scte20_length, 0u);
        EXPECT_EQ(host.requested_picture_type, -1);
        EXPECT_EQ(host.gop_sync_frame_number, -1);
        EXPECT_EQ(host.host_frame_tag, kAllOnes);
        EXPECT_EQ(host.pending_gop_timecode.valid, 0);
    }
    EXPECT_EQ(host.input_frame_count, outcomes.size());
}

// GOP structure that the encoder produced

TEST_F(WriteVideo, FollowsTheGopsOfTheMpeg2Encoder) {
    const std::string eighty(80, 'P'), eighty_one(81, 'P');
    const struct {
        std::string before;
        Bytes unit;
        bool as_source;
        std::string building, finished;
    } cases[] = {
        {"", picture_unit(1), false, "I", "old"},
        {"I", picture_unit(2), false, "IP", "old"},
        {"I", picture_unit(3), false, "IB", "old"},
        {"I", picture_unit(4), false, "I?", "old"},
        {"I", filler(20), false, "I?", "old"},
        {"IBBP", gop_unit(kClosedGop), false, "closed-gop I", "IBBP"},
        {"IBBP", gop_unit(kOpenGop), false, "open-gop I", "IBBP"},
        {"", gop_unit(kOpenGop), false, "open-gop I", ""},
        {"IBBP", gop_unit(kClosedGop), true, "closed-gop I", "IBBP as-source"},
        {"IBBP", gop_header(kClosedGop) + picture_unit(2), false, "P", "IBBP"},
        {"IBBP", gop_header(kOpenGop) + picture_unit(3), false, "B", "IBBP"},
        {eighty, picture_unit(2), false, eighty + "P", "old"},
        {eighty_one, picture_unit(2), false, "P", eighty_one},
        {eighty_one, picture_unit(3), true, "B", eighty_one + " as-source"},
        {eighty_one, picture_unit(1), false, "closed-gop I", eighty_one},
    };
    open("mpeg-2");
    for (const auto& row : cases) {
        SCOPED_TRACE(row.before + " then " + hex(row.unit));
        script({packet(row.unit)});
        host.gop_size = -1;
        host.requested_picture_type = row.as_source ? 'P' : -1;
        host.gop_sync_frame_number = row.as_source ? 5 : -1;
        host.bgop_building_text = row.before;
        host.bgop_text = "old";
        write(0);
        EXPECT_EQ(host.bgop_building_text, row.building);
        EXPECT_EQ(host.bgop_text, row.finished);
    }
}

TEST_F(WriteVideo, LeavesTheGopTextsAloneWithoutAnMpeg2Packet) {
    open("mpeg-2");
    host.bgop_building_text = "I";
    stderr_of([&] { write(0); });
    EXPECT_EQ(host.bgop_building_text, "I");

    CallLogHost h264;
    surroundings() = Surroundings{};
    open_encoder(h264, "h.264");
    surroundings().scripted = true;
    surroundings().outcomes = {packet(gop_unit(kClosedGop))};
    write_to(h264, 0);
    EXPECT_EQ(h264.bgop_building_text, "");
}

// Trailing zeros

TEST_F(WriteVideo, KeepsAtMostFourTrailingZeros) {
    const struct {
        size_t zeros, kept;
    } cases[] = {{0, 0}, {1, 1}, {3, 3}, {4, 4}, {5, 4}, {10, 4}, {5000, 4}};
    open("mpeg-2", {{"remove trailing zeros", "1"}, {"enable cea-708", "0"}, {"enable eia-608", "0"}});
    for (const auto& row : cases) {
        const Bytes unit = picture_unit(1);
        script({packet(unit + Bytes(row.zeros, 0))});
        host.units.clear();
        write(0);
        ASSERT_EQ(host.units.size(), 1u);
        EXPECT_EQ(host.units[0].bytes.size(), unit.size() + row.kept) << row.zeros << " zeros";
        EXPECT_EQ(hex(host.units[0].bytes), hex(unit + Bytes(row.kept, 0)));
    }
}

TEST_F(WriteVideo, TrimsZerosOfMpeg2OnlyAndOnlyWhenAsked) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec);
        surroundings().scripted = true;
        surroundings().outcomes = {packet(filler(20) + Bytes(10, 0))};
        encoder.remove_trailing_zeros = encoder.codec_id != 2;
        write_to(encoder, 0);
        ASSERT_EQ(encoder.units.size(), 1u);
        EXPECT_EQ(encoder.units[0].bytes.size(), 30u) << codec;
    }
}

TEST_F(WriteVideo, SurvivesAUnitOfNothingButZeros) {
    open("mpeg-2", {{"remove trailing zeros", "1"}});
    script({packet(Bytes(100, 0)), packet(picture_unit(1))});
    EXPECT_TRUE(write(0));
    for (const Unit& unit : host.units) EXPECT_LE(unit.bytes.size(), 100u);
    host.units.clear();
    EXPECT_TRUE(write(1));
    EXPECT_EQ(host.units.size(), 1u);
}

// Ancillary data

struct InserterCase {
    const char* codec;
    int coding_type;
    bool key;
    const char *eia608, *cea708, *on_p_frames;
    std::vector<std::string> calls;
};

TEST_F(WriteVideo, CallsTheInsertersThatThePictureNeedsInOrder) {
    const std::string cc = "mpeg_insert_eia608_cc()", scte20 = "mpeg_insert_scte20(3)",
                      ga94 = "mpeg_insert_cea708_cc(3)", sei = "h264_insert_cea708_cc(3)",
                      timecode = "mpeg_insert_gop_timecode(0:0:)";
    using Calls = std::vector<std::string>;
    const InserterCase cases[] = {
        {"mpeg-2", 1, true, "1", "1", "1", {cc, scte20, ga94, timecode}},
        {"mpeg-2", 1, true, "0", "1", "1", {scte20, ga94, timecode}},
        {"mpeg-2", 1, true, "1", "0", "1", {cc, scte20, timecode}},
        {"mpeg-2", 1, true, "0", "0", "1", {scte20, timecode}},
        {"mpeg-2", 1, false, "1", "1", "1", {scte20, ga94, timecode}},
        {"mpeg-2", 2, false, "1", "1", "1", {cc, scte20, ga94}},
        {"mpeg-2", 2, false, "1", "1", "-1", {cc, scte20, ga94}},
        {"mpeg-2", 2, false, "1", "1", "0", {scte20, ga94}},
        {"mpeg-2", 2, true, "1", "1", "0", {cc, scte20, ga94}},
        {"mpeg-2", 2, false, "0", "1", "1", {scte20, ga94}},
        {"mpeg-2", 3, false, "1", "1", "1", {scte20, ga94}},
        {"mpeg-2", 3, true, "1", "1", "0", {cc, scte20, ga94}},
        {"mpeg-2", 0, false, "1", "1", "1", {scte20, ga94}},
        {"h.264", 1, true, "1", "1", "1", {sei}},
        {"h.264", 2, false, "1", "1", "1", {sei}},
        {"h.264", 1, true, "1", "0", "1", {}},
        {"h.265", 1, true, "1", "1", "1", {}},
    };
    for (const InserterCase& row : cases) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, row.codec,
                     {{"enable eia-608", row.eia608},
                      {"enable cea-708", row.cea708},
                      {"eia-608 on p-frames", row.on_p_frames},
                      {"constant bitrate per frame", "0"}});
        surroundings().scripted = true;
        surroundings().outcomes = {held_back(),
                                   packet(picture_unit(row.coding_type), row.key ? AV_PKT_FLAG_KEY : 0)};
        stderr_of([&] {
            write_to(encoder, 10);
            write_to(encoder, 13);
        });
        Calls inserters;
        for (const std::string& call : encoder.calls)
            if (call.rfind("emit", 0) != 0 && call.rfind("mpeg_insert_output", 0) != 0)
                inserters.push_back(call);
        EXPECT_EQ(inserters, row.calls)
            << row.codec << " type " << row.coding_type << " key " << row.key << " 608 " << row.eia608
            << " 708 " << row.cea708 << " on P " << row.on_p_frames;
    }
}

TEST_F(WriteVideo, EmitsAfterTheLastInserter) {
    open("mpeg-2", {{"enable cea-708", "1"}});
    script({packet(picture_unit(2))});
    write(0);
    ASSERT_THAT(host.calls, testing::SizeIs(testing::Ge(2u)));
    EXPECT_EQ(host.calls.back(), "emit_data_out(" + std::to_string(picture_unit(2).size() + 84) + ")");
}

TEST_F(WriteVideo, CallsNoInserterWhenThereIsNoSideData) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec, {{"enable eia-608", "1"}, {"enable cea-708", "1"}});
        surroundings().scripted = true;
        surroundings().outcomes = {packet(gop_unit(kClosedGop))};
        surroundings().during_send = [&] { encoder.aux_data_map.clear(); };
        write_to(encoder, 0);
        EXPECT_THAT(encoder.calls, ElementsAre("emit_data_out(" + std::to_string(gop_unit(0).size()) + ")"));
    }
}

TEST_F(WriteVideo, GivesTheTimecodeOfThePictureThatThePacketHolds) {
    open("mpeg-2", {{"constant bitrate per frame", "0"}, {"enable cea-708", "0"}, {"enable eia-608", "0"}});
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 1;
    timecode.hours = 5;
    timecode.text = "here";
    host.write_mpeg2_gop_timecode(timecode);
    // Held back, then returned while the picture after it is sent; the last packet's picture is unknown.
    script({held_back(), packet(gop_unit(kClosedGop), 1, 0), packet(gop_unit(kClosedGop), 1, 40)});
    stderr_of([&] {
        for (uint64_t timestamp = 0; timestamp < 3; timestamp++) write(timestamp);
    });
    std::vector<std::string> given;
    for (const std::string& call : host.calls)
        if (call.rfind("mpeg_insert_gop_timecode", 0) == 0) given.push_back(call);
    EXPECT_THAT(given, ElementsAre("mpeg_insert_gop_timecode(1:5:here)"));
    const auto written = sections(host.units.at(0).bytes);
    ASSERT_EQ(written[1].code, 0xB8);
    EXPECT_EQ(hex(written[1].payload), "14 08 00 40");
}

TEST_F(WriteVideo, LooksForATimecodeOnlyInUnitsOfFiveBytesAndMore) {
    open("mpeg-2", {{"enable eia-608", "1"}, {"enable cea-708", "0"}});
    for (const size_t size : {4, 5}) {
        host.in_eia608_inserter = [&] { host.output_window->end = host.output_window->data + size; };
        host.calls.clear();
        script({packet(picture_unit(1))});
        write(0);
        const bool called =
            std::count(host.calls.begin(), host.calls.end(), "mpeg_insert_gop_timecode(0:0:)") == 1;
        EXPECT_EQ(called, size == 5) << size;
    }
}

// Timestamps out

TEST_F(WriteVideo, MultipliesTimestampsByTheDividerUnlessThereIsNone) {
    const struct {
        unsigned divider;
        int64_t pts, dts, pts_out, dts_out;
    } cases[] = {
        {3, 7, 5, 21, 15},
        {3, 0, -2, 0, -6},
        {1, 4, 3, 4, 3},
        {2, AV_NOPTS_VALUE, 4, AV_NOPTS_VALUE, 8},
        {2, 4, AV_NOPTS_VALUE, 8, AV_NOPTS_VALUE},
        {3, AV_NOPTS_VALUE, AV_NOPTS_VALUE, AV_NOPTS_VALUE, AV_NOPTS_VALUE},
    };
    open("h.264");
    for (const auto& row : cases) {
        host.frame_rate_divider = row.divider;
        host.units.clear();
        script({packet(filler(5), 1, row.pts, row.dts)});
        write(0);
        ASSERT_EQ(host.units.size(), 1u);
        EXPECT_EQ(host.units[0].pts, row.pts_out);
        EXPECT_EQ(host.units[0].dts, row.dts_out);
    }
}

TEST_F(WriteVideo, MapsTimestampsBackUnderPerFrameRateControl) {
    open("mpeg-2", {{"constant bitrate per frame", "1"}});
    host.frame_rate_divider = 2;
    script({held_back(), packet(picture_unit(1), 1, 1, 0), packet(picture_unit(2), 0, 77, -1)});
    stderr_of([&] {
        for (const uint64_t timestamp : {100, 106, 150}) write(timestamp);
    });
    ASSERT_EQ(host.units.size(), 2u);
    EXPECT_EQ(host.units[0].pts, 6);
    EXPECT_EQ(host.units[0].dts, 0);
    EXPECT_EQ(host.units[1].pts, 0) << "a picture that is not known";
    EXPECT_EQ(host.units[1].dts, 0) << "before the first picture";
    EXPECT_EQ(host.pts_map.size(), 5u) << "unknown keys are kept";
    EXPECT_EQ(host.pts_map.count(77), 1u);
    EXPECT_EQ(host.pts_map.count(kAllOnes), 1u);
}

TEST_F(WriteVideo, ShowsTheTagOfThePictureWhileItsUnitIsEmitted) {
    open("h.264");
    script({held_back(), packet(filler(5), 1, 0), packet(filler(5), 1, 2), packet(filler(5), 1, 55)});
    for (uint64_t number = 0; number < 4; number++) {
        if (number != 2) host.host_frame_tag = 100 + number;
        stderr_of([&] { write(number); });
    }
    ASSERT_EQ(host.units.size(), 3u);
    EXPECT_EQ(host.units[0].tag, 100u);
    EXPECT_EQ(host.units[1].tag, kAllOnes) << "the picture had no tag";
    EXPECT_EQ(host.units[2].tag, kAllOnes) << "no such picture";
    EXPECT_EQ(host.current_output_tag, kAllOnes);
}

TEST_F(WriteVideo, LooksUpTheTagUnderTheTimestampThatTheHostSees) {
    open("h.264");
    host.frame_rate_divider = 2;
    script({packet(filler(5), 1, 0), held_back(), packet(filler(5), 1, 1)});
    for (uint64_t number = 0; number < 3; number++) {
        host.host_frame_tag = 100 + number;
        stderr_of([&] { write(number * 2); });
    }
    ASSERT_EQ(host.units.size(), 2u);
    EXPECT_EQ(host.units[0].tag, 100u);
    EXPECT_EQ(host.units[1].pts, 2);
    EXPECT_EQ(host.units[1].tag, 102u) << "the record filed under 2 is that of the third picture";
}

// Emission

TEST_F(WriteVideo, HandsTheUnitOverInsideTheWindow) {
    open("mpeg-2", {{"enable cea-708", "1"}});
    bool checked = false;
    host.on_emit = [&](const uint8_t* data, size_t len, AVPacket* pkt) {
        checked = true;
        EXPECT_EQ(data, host.output_window->data);
        EXPECT_EQ(data + len, host.output_window->end);
        EXPECT_EQ(pkt, host.mpeg_packet);
        EXPECT_EQ(pkt->data, data);
        EXPECT_EQ(pkt->size, static_cast<int>(len));
        EXPECT_EQ(pkt->flags & AV_PKT_FLAG_KEY, AV_PKT_FLAG_KEY);
        EXPECT_EQ(host.output_frame_count, 0u);
    };
    script({packet(picture_unit(1))});
    write(0);
    EXPECT_TRUE(checked);
    EXPECT_EQ(host.output_frame_count, 1u);
    EXPECT_EQ(host.output_window->base + 8192 - 84, host.output_window->data);
}

TEST_F(WriteVideo, EmitsNothingWhenNothingIsLeftOfTheUnit) {
    open("mpeg-2", {{"enable eia-608", "1"}});
    host.in_eia608_inserter = [&] { host.output_window->end = host.output_window->data; };
    script({packet(picture_unit(1))});
    EXPECT_TRUE(write(0));
    EXPECT_THAT(host.units, IsEmpty());
    EXPECT_EQ(host.output_frame_count, 0u);
    EXPECT_EQ(host.input_frame_count, 1u);
}

// A host that calls back

TEST_F(WriteVideo, LetsTheHostCloseTheEncoderWhileItReceivesTheUnit) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec, {{"frame rate limit", "25"}});
        surroundings().scripted = true;
        surroundings().outcomes = {packet(gop_unit(kClosedGop))};
        encoder.on_emit = [&](const uint8_t*, size_t, AVPacket*) { encoder.client_unref(); };
        encoder.scte20_length = 4;
        EXPECT_TRUE(write_to(encoder, 0));
        EXPECT_FALSE(encoder.encoder_open);
        EXPECT_EQ(encoder.output_window, nullptr);
        EXPECT_EQ(encoder.refcount, 0);
        EXPECT_TRUE(write_to(encoder, 1)) << "a closed encoder passes pictures over";
        EXPECT_EQ(encoder.units.size(), 1u);
    }
}

TEST_F(WriteVideo, LetsTheHostReopenTheEncoderWhileItReceivesTheUnit) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec);
        surroundings().scripted = true;
        surroundings().outcomes = {packet(gop_unit(kClosedGop)), packet(gop_unit(kClosedGop))};
        bool reopened = false;
        encoder.on_emit = [&](const uint8_t*, size_t, AVPacket*) {
            if (!std::exchange(reopened, true)) encoder.on_set("bitrate", "2000000", true);
        };
        stderr_of([&] {
            EXPECT_TRUE(write_to(encoder, 0));
            EXPECT_TRUE(encoder.encoder_open);
            EXPECT_TRUE(write_to(encoder, 1));
        });
        EXPECT_EQ(encoder.units.size(), 2u);
        EXPECT_EQ(encoder.bitrate, 2000000);
    }
}

TEST_F(WriteVideo, StaysClosedWhenTheHostReopensItWithASettingThatFails) {
    open("mpeg-2");
    script({packet(gop_unit(kClosedGop))});
    host.on_emit = [&](const uint8_t*, size_t, AVPacket*) { host.on_set("bitrate", "1", true); };
    EXPECT_TRUE(write(0));
    EXPECT_FALSE(host.encoder_open);
    EXPECT_EQ(host.last_error, "Bitrate out of range");
    EXPECT_TRUE(write(1));
    EXPECT_EQ(host.units.size(), 1u);
}

TEST_F(WriteVideo, ReachesEmissionThroughTheVirtualTable) {
    struct Bypass : CallLogHost {
        void emit_data_out(const uint8_t*, size_t len, AVPacket* pkt) override {
            lengths.push_back(len);
            key = pkt->flags & AV_PKT_FLAG_KEY;
        }
        std::vector<size_t> lengths;
        bool key = false;
    } bypass;
    open_encoder(bypass, "h.264");
    surroundings().scripted = true;
    surroundings().outcomes = {packet(filler(33))};
    write_to(bypass, 0);
    EXPECT_THAT(bypass.lengths, ElementsAre(33u));
    EXPECT_TRUE(bypass.key);
    EXPECT_THAT(bypass.units, IsEmpty());
}

TEST_F(WriteVideo, GoesOnAfterCodecErrors) {
    open("h.264");
    script({send_error(AVERROR(ENOMEM)), receive_error(AVERROR(ENOMEM)), packet(filler(7))});
    for (uint64_t timestamp = 0; timestamp < 3; timestamp++)
        EXPECT_EQ(stderr_of([&] { EXPECT_TRUE(write(timestamp)); }), "");
    ASSERT_EQ(host.units.size(), 1u);
    EXPECT_EQ(host.units[0].pts, 2);
}

}  // namespace
}  // namespace gsve::test
