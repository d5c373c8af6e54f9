// Streams read for inspection: pictures, groups, times, captions and damage.

#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "encoding/error.h"
#include "programme/input.h"
#include "programme/stream_inspection.h"
#include "support/captioned_stream.h"
#include "support/clip.h"
#include "support/http_server.h"
#include "support/media_files.h"
#include "support/scratch.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;
using gsve::Failure;
using gsve::captions::kRate25;
using testing::HasSubstr;

class Inspecting : public testing::Test {
protected:
    Inspecting() { av_log_set_level(AV_LOG_QUIET); }

    std::string stream(const std::string& codec, unsigned pictures, bool interlaced = false,
                       const char* b_frames = "2") {
        CaptionedStreamOptions options;
        options.codec = codec;
        options.pictures = pictures;
        options.interlaced = interlaced;
        options.schedule.rate = kRate25;
        options.schedule.eia608.push_back({3, 0, gsve::captions::make_word(0x41, 0x42)});
        options.settings = {{"b frames", b_frames}};
        options.timecode = gsve::captions::parse_timecode("01:00:00:00", kRate25);
        const std::string path = directory / (codec == "mpeg-2" ? "in.m2v" : "in.h264");
        CaptionedStream(options).write_to(path);
        return path;
    }

    ScratchDirectory directory;
};

TEST_F(Inspecting, ReadsPicturesGroupsAndTimes) {
    const InspectedStream read = read_stream(stream("mpeg-2", 40));
    EXPECT_EQ(read.format, "mpegvideo");
    EXPECT_EQ(read.codec, "mpeg2video");
    EXPECT_TRUE(read.mpeg_video);
    EXPECT_EQ(read.width, 176);
    EXPECT_EQ(read.height, 144);
    EXPECT_EQ(read.problem, "");
    EXPECT_FALSE(read.damage.any());
    ASSERT_EQ(read.pictures.size(), 40u);
    size_t bytes = 0;
    for (size_t n = 0; n < 40; n++) {
        const InspectedPicture& picture = read.pictures[n];
        EXPECT_NEAR(picture.time, 0.04 * static_cast<double>(n), 1e-9);
        EXPECT_EQ(picture.field_order, 0);
        EXPECT_FALSE(picture.damaged);
        bytes += picture.bytes;
    }
    EXPECT_EQ(bytes, read_file(directory / "in.m2v").size());
    ASSERT_GE(read.gops.size(), 3u);
    ASSERT_TRUE(read.gops[0].start.timecode);
    EXPECT_EQ(format_timecode(*read.gops[0].start.timecode), "01:00:00:00");
    size_t of_groups = 0;
    for (const auto& gop : read.gops) {
        EXPECT_EQ(gop.types.front(), 'I');
        of_groups += gop.types.size();
    }
    EXPECT_EQ(of_groups, 40u);
}

TEST_F(Inspecting, TellsFieldsAndH264) {
    const InspectedStream mpeg2 = read_stream(stream("mpeg-2", 20, true));
    EXPECT_EQ(mpeg2.pictures[5].field_order, 1);
    EXPECT_TRUE(mpeg2.pictures[5].top_field_first);
    const InspectedStream h264 = read_stream(stream("h.264", 20));
    EXPECT_EQ(h264.codec, "h264");
    EXPECT_FALSE(h264.mpeg_video);
    EXPECT_EQ(h264.pictures.size(), 20u);
    EXPECT_TRUE(h264.pictures[3].captions.cc_data);
    EXPECT_FALSE(h264.pictures[3].captions.scte20);
}

TEST_F(Inspecting, TakesTimesFromTheContainerWhereTheyRise) {
    write_mkv(directory / "in.mkv", {}, {0, 40, 90, 130, 170, 210});
    const InspectedStream read = read_stream(directory / "in.mkv");
    ASSERT_EQ(read.pictures.size(), 6u);
    EXPECT_NEAR(read.pictures[2].time, 0.09, 1e-9);
    EXPECT_NEAR(read.pictures[5].time, 0.21, 1e-9);
    write_mkv(directory / "in.mkv", {}, {0, 40, 40, 120});
    const InspectedStream counted = read_stream(directory / "in.mkv");
    ASSERT_EQ(counted.pictures.size(), 4u);
    for (size_t n = 0; n < 4; n++)
        EXPECT_NEAR(counted.pictures[n].time, static_cast<double>(n) / counted.rate.per_second(), 1e-9);
}

TEST_F(Inspecting, TellsOfAnEarlyEnd) {
    std::vector<int64_t> times;
    for (int64_t n = 0; n < 100; n++) times.push_back(40 * n);
    const std::string path = directory / "in.mkv";
    write_mkv(path, {.width = 160, .height = 120}, times);
    EXPECT_EQ(read_stream(path).damage, Damage());
    const std::string bytes = read_file(path);
    write_bytes(path, bytes.substr(0, bytes.size() / 2));
    const InspectedStream read = read_stream(path);
    ASSERT_TRUE(read.damage.early_end);
    EXPECT_NE(read.damage, Damage());
    EXPECT_NEAR(read.damage.early_end->seconds, 2, 0.2);
    ASSERT_TRUE(read.damage.early_end->expected);
    EXPECT_NEAR(*read.damage.early_end->expected, 4, 0.1);
}

std::string said(const Damage& damage) {
    std::string text = damage.early_end ? fmt::format("ends at {:.2f} s; ", damage.early_end->seconds) : "";
    for (const DamagedRange& range : damage.ranges)
        text += fmt::format("kind {} from {:.2f} to {:.2f} s: {}; ", static_cast<int>(range.kind),
                            range.begin, range.end, range.pictures);
    return text;
}

TEST_F(Inspecting, FindsTheDamageThatEncodingFinds) {
    // Transport packets of pictures in the middle are lost: some pictures are damaged, some missing.
    const std::string path = directory / "whole.ts";
    write_transport_stream(stream("mpeg-2", 120, false, "0"), path);
    const std::string bytes = read_file(path);
    const size_t packets = bytes.size() / kTransportPacket;
    const auto damage_of = [&](const std::string& file) {
        Input input(file, {});
        while (input.next()) {
        }
        const Damage encoded = input.damage(), inspected = read_stream(file).damage;
        EXPECT_EQ(said(inspected), said(encoded));
        return inspected;
    };
    EXPECT_FALSE(damage_of(path).any());
    uint64_t missing = 0;
    for (const size_t lost : {size_t{1}, packets / 20, packets / 8}) {
        SCOPED_TRACE(lost);
        const size_t begin = packets / 2;
        write_bytes(directory / "lossy.ts", lose_packets(bytes, 0x100, [&](size_t place) {
                                                return place >= begin && place < begin + lost;
                                            }).bytes);
        const Damage damage = damage_of(directory / "lossy.ts");
        EXPECT_TRUE(damage.any());
        EXPECT_FALSE(damage.early_end);
        EXPECT_GE(damage.missing(), missing);
        missing = damage.missing();
        for (const DamagedRange& range : damage.ranges) {
            EXPECT_GT(range.begin, 1.5);
            EXPECT_LT(range.end, 4.0);
        }
    }
    EXPECT_GE(missing, 5u);
    EXPECT_LE(missing, 120u / 8 + 5);
}

TEST_F(Inspecting, SurvivesNoiseAndTellsOfIt) {
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const unsigned seed : {1u, 2u, 3u}) {
            SCOPED_TRACE(std::string(codec) + " " + std::to_string(seed));
            const std::string path = stream(codec, 60);
            std::string bytes = read_file(path);
            std::mt19937 random(seed);
            for (size_t n = 0; n < bytes.size() / 200; n++)
                bytes[bytes.size() / 4 + random() % (bytes.size() / 2)] = static_cast<char>(random());
            write_bytes(path, bytes);
            const InspectedStream read = read_stream(path);
            EXPECT_TRUE(read.damage.any());
            EXPECT_FALSE(read.damage.early_end) << "the end is whole";
            EXPECT_GE(read.pictures.size(), 25u);
            size_t damaged = 0;
            for (const InspectedPicture& picture : read.pictures) damaged += picture.damaged;
            EXPECT_EQ(damaged > 0, read.damage.damaged() > 0);
            for (const DamagedRange& range : read.damage.ranges)
                EXPECT_NE(range.kind, DamagedRange::Kind::kMissing)
                    << "nothing tells in a stream without times";
            Input input(path, {});
            size_t pictures = 0;
            while (input.next()) pictures++;
            EXPECT_GE(pictures, 25u);
            EXPECT_TRUE(input.damage().any());
            EXPECT_EQ(input.problem(), "");
        }
}

TEST_F(Inspecting, TellsOfAnEndWithinATransportPacketThatNobodyPromised) {
    const std::string path = directory / "whole.ts";
    write_transport_stream(stream("mpeg-2", 40, false, "0"), path);
    const std::string bytes = read_file(path);
    write_bytes(path, bytes.substr(0, bytes.size() / 2 / kTransportPacket * kTransportPacket + 77));
    const InspectedStream read = read_stream(path);
    ASSERT_TRUE(read.damage.early_end);
    EXPECT_FALSE(read.damage.early_end->expected) << "a transport stream does not say how long it is";
    EXPECT_GT(read.damage.early_end->seconds, 0.4);
}

TEST(InspectedPicture, IsWholeUntilDamageIsFound) {
    EXPECT_FALSE(InspectedPicture().damaged);
    EXPECT_FALSE(InspectedPicture().top_field_first);
    EXPECT_EQ(InspectedPicture().type, '?');
    EXPECT_EQ(InspectedPicture().bytes, 0u);
    EXPECT_EQ(InspectedStream().problem, "");
    EXPECT_EQ(InspectedStream().width, 0);
    EXPECT_EQ(InspectedStream().height, 0);
    EXPECT_FALSE(InspectedStream().mpeg_video);
}

TEST_F(Inspecting, SaysWhereAConnectionBreaksOff) {
    const std::string bytes = read_file(stream("mpeg-2", 60));
    const HttpServer server(bytes.substr(0, bytes.size() * 2 / 3), bytes.size());
    const InspectedStream read = read_stream(server.url("in.m2v"));
    EXPECT_THAT(read.problem, testing::StartsWith("the file cannot be read further: "));
    EXPECT_GT(read.pictures.size(), 20u);
    EXPECT_LT(read.pictures.size(), 60u);

    Input input(server.url("in.m2v"), {});
    size_t pictures = 0;
    while (input.next()) pictures++;
    EXPECT_THAT(input.problem(), testing::StartsWith("the input cannot be read further: "));
    EXPECT_EQ(pictures, read.pictures.size());
}

TEST_F(Inspecting, LeavesOutTimeCodesThatTheRateDoesNotHave) {
    const std::string path = stream("mpeg-2", 40);
    std::string bytes = read_file(path);
    const size_t group = bytes.find(std::string("\0\0\1\xB8", 4));
    ASSERT_NE(group, bytes.npos);
    // 01:00:00:29 at 25 pictures/s; ISO/IEC 13818-2, 6.2.2.6.
    const uint32_t code = 1 << 26 | 0 << 20 | 1 << 19 | 0 << 13 | 29 << 7;
    for (int n = 0; n < 3; n++) bytes[group + 4 + n] = static_cast<char>(code >> (24 - 8 * n));
    bytes[group + 7] = static_cast<char>((code & 0x80) | (static_cast<uint8_t>(bytes[group + 7]) & 0x7F));
    write_bytes(path, bytes);
    Input input(path, {});
    const std::optional<Picture> first = input.next();
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->timecode);
    bool later = false;
    while (const std::optional<Picture> picture = input.next()) later |= picture->timecode.has_value();
    EXPECT_TRUE(later) << "those of the other groups are as they were";
}

TEST_F(Inspecting, RefusesStreamsWithoutAPicture) {
    write_bytes(directory / "in.txt", "not a stream");
    EXPECT_THROW(read_stream(directory / "in.txt"), Failure);
}

}  // namespace
