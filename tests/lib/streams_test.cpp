// Whole streams: pictures in, units out, decoded again and compared with the source; and the timestamps that
// go with them.

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/av_decoder.h"
#include "support/frozen_clock.h"
#include "support/mpeg2_units.h"
#include "support/recording_host.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace gsve::test {
namespace {

using Settings = std::vector<std::pair<const char*, const char*>>;

AVCodecID decoder_for(const std::string& codec) {
    if (codec == "mpeg-2") return AV_CODEC_ID_MPEG2VIDEO;
    return codec == "h.264" ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
}

struct Source {
    int width = 176, height = 144;
    int num = 25, den = 1;
    int shift_x = 1, shift_y = 1;
    int flags = -1;
    uint64_t first_timestamp = 1000;
};

/// Encodes `count` pictures with consecutive timestamps, then drains.
struct Stream {
    Stream(const Source& source, const Settings& settings, unsigned count) {
        av_log_set_level(AV_LOG_QUIET);
        describe_source(host, source.width, source.height, source.num, source.den);
        host.input_chroma_shift_x = static_cast<uint32_t>(source.shift_x);
        host.input_chroma_shift_y = static_cast<uint32_t>(source.shift_y);
        host.input_interlaced = source.flags >= 0;
        configure(host, {{"enable", "1"}, {"bitrate", "6000000"}});
        configure(host, settings);
        said = stderr_of([&] {
            opened = host.client_addref();
            for (unsigned number = 0; opened && number < count; number++) {
                const TestPicture picture(source.width, source.height, source.shift_x, source.shift_y,
                                          number);
                EXPECT_TRUE(host.write_video(picture.y.data(), static_cast<size_t>(picture.width),
                                             picture.u.data(), static_cast<size_t>(picture.chroma_width),
                                             picture.v.data(), static_cast<size_t>(picture.chroma_width),
                                             source.flags, source.first_timestamp + number));
            }
            written = host.units.size();
            while (host.flush_delayed_video()) drained++;
        });
        host.client_unref();
    }
    RecordingHost host;
    bool opened = false;
    size_t written = 0, drained = 0;
    std::string said;
};

// Pictures

struct PictureCase {
    const char* codec;
    Source source;
    Settings settings;
    AVPixelFormat format;
};

class StreamPictures : public testing::TestWithParam<PictureCase> {};

TEST_P(StreamPictures, ComeBackFromTheDecoderInOrder) {
    const PictureCase& row = GetParam();
    Settings settings = {{"encoder", row.codec}};
    settings.insert(settings.end(), row.settings.begin(), row.settings.end());
    const unsigned count = 8;
    const Stream stream(row.source, settings, count);
    ASSERT_TRUE(stream.opened) << stream.host.last_error << "\n" << stream.said;
    EXPECT_EQ(stream.host.units.size(), count);
    EXPECT_EQ(stream.written + stream.drained, count);
    EXPECT_TRUE(stream.host.units.at(0).key);

    const auto pictures = decode(decoder_for(row.codec), stream.host.units);
    ASSERT_EQ(pictures.size(), count);
    for (unsigned number = 0; number < count; number++) {
        const DecodedPicture& picture = pictures[number];
        const TestPicture source(row.source.width, row.source.height, row.source.shift_x, row.source.shift_y,
                                 number);
        EXPECT_EQ(picture.width, row.source.width);
        EXPECT_EQ(picture.height, row.source.height);
        EXPECT_EQ(picture.format, row.format);
        EXPECT_GT(psnr(picture, source), 30.0) << "picture " << number;
    }
}

const PictureCase kPictureCases[] = {
    {"mpeg-2", {}, {}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {}, {{"b frames", "0"}}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {}, {{"b frames", "5"}}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {720, 480, 30000, 1001}, {}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {720, 576, 25, 1, 1, 1, 0}, {}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {176, 144, 24000, 1001}, {}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {176, 144, 60000, 1001}, {}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {200, 120, 50, 1}, {}, AV_PIX_FMT_YUV420P},
    {"mpeg-2", {176, 144, 25, 1, 1, 0}, {}, AV_PIX_FMT_YUV422P},
    {"h.264", {}, {}, AV_PIX_FMT_YUV420P},
    {"h.264", {}, {{"b frames", "0"}}, AV_PIX_FMT_YUV420P},
    {"h.264", {}, {{"b frames", "5"}}, AV_PIX_FMT_YUV420P},
    {"h.264", {720, 480, 30000, 1001, 1, 1, 1}, {}, AV_PIX_FMT_YUV420P},
    {"h.264", {176, 144, 24, 1}, {}, AV_PIX_FMT_YUV420P},
    {"h.264", {200, 120, 60, 1}, {}, AV_PIX_FMT_YUV420P},
    {"h.264", {176, 144, 25, 1, 1, 0}, {{"h.264 profile", "high422"}}, AV_PIX_FMT_YUV422P},
    {"h.264", {176, 144, 25, 1, 0, 0}, {{"h.264 profile", "high444"}}, AV_PIX_FMT_YUV444P},
    {"h.265", {}, {}, AV_PIX_FMT_YUV420P},
    {"h.265", {200, 120, 30000, 1001}, {}, AV_PIX_FMT_YUV420P},
    {"h.265", {352, 288, 50, 1}, {{"b frames", "0"}, {"h.264 profile", "main"}}, AV_PIX_FMT_YUV420P},
};

std::string picture_case_name(const testing::TestParamInfo<PictureCase>& info) {
    const PictureCase& row = info.param;
    std::string name = std::string(row.codec) + "_" + std::to_string(row.source.width) + "x" +
                       std::to_string(row.source.height) + "_" + std::to_string(row.source.num) + "_" +
                       av_get_pix_fmt_name(row.format) + "_" + std::to_string(info.index);
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Codecs, StreamPictures, testing::ValuesIn(kPictureCases), picture_case_name);

TEST(StreamAspect, ReachesTheDecoder) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        const Stream stream({}, {{"encoder", codec}}, 4);
        const auto pictures = decode(decoder_for(codec), stream.host.units);
        ASSERT_EQ(pictures.size(), 4u) << codec;
        const AVRational seen = pictures[0].sample_aspect_ratio;
        EXPECT_NEAR(av_q2d(seen) * 176 / 144, 4.0 / 3, 0.01) << codec;
    }
}

// Timestamps

struct TimestampCase {
    const char* codec;
    int divider;
    const char* per_frame;
    const char* b_frames;
};

class StreamTimestamps : public testing::TestWithParam<TimestampCase> {};

TEST_P(StreamTimestamps, FollowTheSourceFramesThatWereEncoded) {
    const TimestampCase& row = GetParam();
    const std::string limit = std::to_string(60 / row.divider);
    const unsigned count = 30;
    Source source{64, 48, 60, 1};
    // Every n-th picture is due from timestamp 0 on.
    source.first_timestamp = row.divider == 1 ? 1000 : 0;
    Stream stream(source,
                  {{"encoder", row.codec},
                   {"frame rate limit", limit.c_str()},
                   {"constant bitrate per frame", row.per_frame},
                   {"b frames", row.b_frames},
                   {"h.264 profile", "main"},
                   {"bitrate", "1000000"}},
                  count);
    ASSERT_TRUE(stream.opened) << stream.host.last_error;
    ASSERT_EQ(stream.host.frame_rate_divider, static_cast<unsigned>(row.divider));
    const bool per_frame = std::string(row.per_frame) == "1";
    ASSERT_EQ(stream.host.per_frame_rate_control, per_frame);
    const auto divider = static_cast<int64_t>(row.divider);
    const auto& units = stream.host.units;
    const size_t pictures = count / static_cast<size_t>(divider);
    ASSERT_EQ(units.size(), pictures);

    std::vector<int64_t> numbers, dts_values;
    for (size_t i = 0; i < units.size(); i++) {
        // Drained units keep the codec's own timestamps, unless these are mapped back.
        const int64_t unit = i < stream.written || per_frame ? divider : 1;
        EXPECT_EQ(units[i].pts % unit, 0) << "unit " << i;
        numbers.push_back(units[i].pts / unit);
        dts_values.push_back(units[i].dts / unit);
        EXPECT_LE(units[i].dts, units[i].pts) << "unit " << i;
    }
    EXPECT_TRUE(std::is_sorted(dts_values.begin(), dts_values.end()));
    std::sort(numbers.begin(), numbers.end());
    std::vector<int64_t> expected(pictures);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(numbers, expected);
    if (per_frame) {
        EXPECT_GE(dts_values.front(), 0) << "a time before the first picture is not known";
    }

    // Each picture must be the one that its timestamp names.
    const auto decoded = decode(decoder_for(row.codec), units);
    ASSERT_EQ(decoded.size(), pictures);
    for (size_t i = 0; i < pictures; i++) {
        const TestPicture right(64, 48, 1, 1, static_cast<unsigned>(i * row.divider));
        const TestPicture next(64, 48, 1, 1, static_cast<unsigned>((i + 1) * row.divider));
        EXPECT_GT(psnr(decoded[i].planes[0], right.y), psnr(decoded[i].planes[0], next.y)) << "picture " << i;
    }
}

std::vector<TimestampCase> timestamp_cases() {
    std::vector<TimestampCase> cases;
    for (const char* codec : {"mpeg-2", "h.264", "h.265"})
        for (const int divider : {1, 2, 3})
            for (const char* per_frame : {"0", "1"})
                for (const char* b_frames : {"0", "2"})
                    cases.push_back({codec, divider, per_frame, b_frames});
    return cases;
}

std::string timestamp_case_name(const testing::TestParamInfo<TimestampCase>& info) {
    const TimestampCase& row = info.param;
    std::string name = std::string(row.codec) + "_divider_" + std::to_string(row.divider) +
                       (row.per_frame[0] == '1' ? "_per_frame" : "_by_timestamp") + "_b_" + row.b_frames;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Codecs, StreamTimestamps, testing::ValuesIn(timestamp_cases()), timestamp_case_name);

TEST(StreamTimestamps, StartOnePictureEarlyForDecodingWithBFrames) {
    const Stream stream({64, 48, 25, 1},
                        {{"encoder", "mpeg-2"}, {"constant bitrate per frame", "0"}, {"bitrate", "1000000"}},
                        9);
    ASSERT_EQ(stream.host.units.size(), 9u);
    EXPECT_EQ(stream.host.units[0].pts, 0);
    EXPECT_EQ(stream.host.units[0].dts, -1) << "timestamps are signed";
}

TEST(StreamTimestamps, MapASourceThatLeavesPicturesOutBackToItsOwnTimes) {
    RecordingHost host;
    describe_source(host, 64, 48, 25, 1);
    configure(host, {{"encoder", "mpeg-2"}, {"enable", "1"}, {"bitrate", "1000000"}, {"b frames", "2"}});
    std::vector<int64_t> times;
    stderr_of([&] {
        ASSERT_TRUE(host.client_addref());
        ASSERT_TRUE(host.per_frame_rate_control);
        for (unsigned number = 0; number < 20; number++) {
            const uint64_t timestamp = 500 + number + number / 4 * 3;
            times.push_back(static_cast<int64_t>(timestamp - 500));
            const TestPicture picture(64, 48, 1, 1, number);
            host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 32, -1, timestamp);
        }
        while (host.flush_delayed_video()) {
        }
    });
    std::vector<int64_t> seen;
    for (const Unit& unit : host.units) seen.push_back(unit.pts);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, times);
    host.client_unref();
}

// Other promises about whole streams

TEST(Streams, CarryTheTagsOfTheirPictures) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        RecordingHost host;
        describe_source(host, 64, 48, 25, 1);
        configure(host, {{"encoder", codec}, {"enable", "1"}, {"bitrate", "1000000"}, {"b frames", "2"}});
        size_t written = 0;
        stderr_of([&] {
            ASSERT_TRUE(host.client_addref());
            for (unsigned number = 0; number < 20; number++) {
                host.host_frame_tag = 5000 + number;
                const TestPicture picture(64, 48, 1, 1, number);
                host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 32, -1,
                                 number);
            }
            written = host.units.size();
        });
        ASSERT_GT(written, 10u) << codec;
        for (size_t i = 0; i < written; i++)
            EXPECT_EQ(host.units[i].tag, 5000 + static_cast<uint64_t>(host.units[i].pts))
                << codec << " unit " << i;
        host.client_unref();
    }
}

TEST(Streams, ForceAnIPictureOnRequest) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        RecordingHost host;
        describe_source(host, 64, 48, 25, 1);
        configure(host, {{"encoder", codec},
                         {"enable", "1"},
                         {"bitrate", "1000000"},
                         {"b frames", "0"},
                         {"h.264 profile", "main"}});
        stderr_of([&] {
            ASSERT_TRUE(host.client_addref());
            for (unsigned number = 0; number < 12; number++) {
                if (number == 7) {
                    host.requested_picture_type = 'I';
                    host.gop_sync_frame_number = 7;
                }
                const TestPicture picture(64, 48, 1, 1, number);
                host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 32, -1,
                                 number);
            }
            while (host.flush_delayed_video()) {
            }
        });
        std::vector<size_t> intra;
        const auto pictures = decode(decoder_for(codec), host.units);
        for (size_t number = 0; number < pictures.size(); number++)
            if (pictures[number].type == AV_PICTURE_TYPE_I) intra.push_back(number);
        EXPECT_THAT(intra, testing::ElementsAre(0, 7)) << codec;
        host.client_unref();
    }
}

TEST(Streams, TellTheGopsThatTheMpeg2EncoderMade) {
    Stream stream({64, 48, 25, 1},
                  {{"encoder", "mpeg-2"}, {"gop size", "6"}, {"b frames", "2"}, {"bitrate", "1000000"}}, 30);
    std::string types;
    for (size_t i = 0; i < stream.written; i++) types += "?IPB"[coding_type(stream.host.units[i].bytes)];
    EXPECT_EQ(types.substr(0, 12), "IPBBIBBPBBIB") << "coding order";
    EXPECT_THAT(stream.host.bgop_text, testing::AnyOf("open-gop IBBPBB", "closed-gop IBBPBB"));
}

TEST(Streams, HoldTheSamePicturesWithAndWithoutTrailingZeros) {
    // The MPEG-2 encoder stuffs small pictures with zeros to hold a constant rate.
    std::vector<std::vector<DecodedPicture>> both;
    size_t sizes[2] = {};
    for (const char* trim : {"0", "1"}) {
        const Stream stream({64, 48, 25, 1},
                            {{"encoder", "mpeg-2"},
                             {"bitrate", "1000000"},
                             {"remove trailing zeros", trim},
                             {"maximum threads", "1"}},
                            30);
        for (const Unit& unit : stream.host.units) sizes[both.size()] += unit.bytes.size();
        both.push_back(decode(AV_CODEC_ID_MPEG2VIDEO, stream.host.units));
    }
    ASSERT_EQ(both[0].size(), 30u);
    ASSERT_EQ(both[1].size(), 30u);
    EXPECT_LT(sizes[1], sizes[0]) << "there was something to trim";
    for (size_t i = 0; i < 30; i++) EXPECT_EQ(both[0][i].planes[0], both[1][i].planes[0]) << i;
}

}  // namespace
}  // namespace gsve::test
