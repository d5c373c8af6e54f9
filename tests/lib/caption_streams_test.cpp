// Captions and time codes through whole streams: what goes in with a picture comes out of FFmpeg's decoder on
// that picture, and stands in the stream in the order that receivers expect.

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/av_decoder.h"
#include "support/caption_blocks.h"
#include "support/mpeg2_units.h"
#include "support/recording_host.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace gsve::test {
namespace {

using Settings = std::vector<std::pair<const char*, const char*>>;

constexpr unsigned kPictures = 40;

struct Programme {
    std::string codec = "mpeg-2";
    Rate rate = {};
    std::string b_frames = "2";
    int flags = -1;
    Settings settings = {};
    bool scte20 = false;
    bool timecodes = false;
};

/// Above 40 pictures a second even pictures carry field 1 and odd ones field 2; below, every one carries
/// both. CEA-708 words come one more with each picture, up to what a picture takes.
Captions captions_for(unsigned number, const Rate& rate) {
    const auto word = [](unsigned value) {
        return static_cast<uint16_t>((0x20 + value / 90) << 8 | (0x20 + value % 90));
    };
    const unsigned room = cc_count(rate) - (rate.whole() > 40 ? 1 : 2);
    const bool alternating = rate.whole() > 40;
    Captions captions;
    if (!alternating || number % 2 == 0) captions.field1 = word(2 * number);
    if (!alternating || number % 2 == 1) captions.field2 = word(2 * number + 1);
    for (unsigned i = 0; i < number % (room + 1); i++)
        captions.words.push_back(
            {static_cast<uint8_t>(i ? 0xFE : 0xFF), static_cast<uint16_t>(number * 256 + i)});
    return captions;
}

/// One EIA-608 pair that differs from picture to picture, its bits in the order of line 21 (ANSI/SCTE 20).
Bytes scte20_body(unsigned number) {
    const auto reversed = [](uint8_t byte) {
        uint8_t result = 0;
        for (int bit = 0; bit < 8; bit++)
            result = static_cast<uint8_t>(result | ((byte >> bit & 1) << (7 - bit)));
        return result;
    };
    const uint8_t bytes[] = {odd_parity(static_cast<uint8_t>(0x20 + number)), odd_parity(0x41)};
    uint64_t bits = 0;
    int length = 0;
    const auto put = [&](unsigned value, int count) {
        bits = bits << count | value;
        length += count;
    };
    put(0x40, 7);  // reserved
    put(1, 1);     // vbi_data_flag
    put(1, 5);     // cc_count
    put(0, 2);     // cc_priority
    put(1, 2);     // field_number: the first
    put(11, 5);    // line_offset: line 21
    put(reversed(bytes[0]), 8);
    put(reversed(bytes[1]), 8);
    put(1, 1);  // marker_bit
    put(0, (8 - length % 8) % 8);
    Bytes body;
    for (int shift = length - 8; shift >= 0; shift -= 8) body.push_back(static_cast<uint8_t>(bits >> shift));
    return body;
}

mpeg2_gop_timecode_t timecode_for(unsigned number) {
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 1;
    timecode.drop_frame_flag = 1;
    timecode.hours = 10;
    timecode.minutes = static_cast<uint8_t>(20 + number / 50);
    timecode.seconds = static_cast<uint8_t>(number / 10 % 60);
    timecode.pictures = static_cast<uint8_t>(number % 10);
    return timecode;
}

/// The 25 bits of a time code in the GOP header.
uint32_t timecode_bits(unsigned number) {
    const mpeg2_gop_timecode_t code = timecode_for(number);
    return 1u << 24 | code.hours << 19u | code.minutes << 13u | 1u << 12 | code.seconds << 6u | code.pictures;
}

/// The programme encoded.
struct Stream {
    explicit Stream(const Programme& programme) {
        av_log_set_level(AV_LOG_QUIET);
        describe_source(host, 176, 144, programme.rate.num, programme.rate.den);
        host.input_interlaced = programme.flags >= 0;
        configure(host, {{"encoder", programme.codec.c_str()},
                         {"enable", "1"},
                         {"bitrate", "1500000"},
                         {"enable cea-708", "1"},
                         {"enable eia-608", "0"},
                         {"b frames", programme.b_frames.c_str()},
                         {"h.264 profile", "main"}});
        configure(host, programme.settings);
        stderr_of([&] { opened = host.client_addref(); });
        said = stderr_of([&] {
            for (unsigned number = 0; opened && number < kPictures; number++) write(programme, number);
            written = host.units.size();
            while (host.flush_delayed_video()) {
            }
        });
        host.client_unref();
    }

    void write(const Programme& programme, unsigned number) {
        Captions captions = captions_for(number, programme.rate);
        if (captions.field1) host.write_eia608(0, captions.field1);
        if (captions.field2) host.write_eia608(1, captions.field2);
        if (!captions.words.empty())
            host.write_cea708(static_cast<unsigned>(captions.words.size()), captions.words.data());
        if (programme.scte20) {
            Bytes body = scte20_body(number);
            host.write_scte20(body.data(), body.size());
        }
        if (programme.timecodes) host.write_mpeg2_gop_timecode(timecode_for(number));
        const TestPicture picture(176, 144, 1, 1, number);
        EXPECT_TRUE(host.write_video(picture.y.data(), 176, picture.u.data(), 88, picture.v.data(), 88,
                                     programme.flags, number));
    }

    /// The pictures whose units came out of write_video(); those that were drained carry nothing.
    std::set<unsigned> captioned() const {
        std::set<unsigned> numbers;
        for (size_t i = 0; i < written; i++) numbers.insert(static_cast<unsigned>(host.units[i].pts));
        return numbers;
    }

    RecordingHost host;
    bool opened = false;
    size_t written = 0;
    std::string said;  ///< while encoding, without the lines on the codec's delay
};

std::string without_delay_lines(const std::string& text) {
    std::string kept;
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        const std::string line = text.substr(start, end - start + 1);
        if (line.find("codec delay") == std::string::npos && line.find("x265") == std::string::npos)
            kept += line;
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return kept;
}

/// cc_data constructs alone, as FFmpeg attaches them to a picture.
Bytes constructs(const Bytes& cc_data) { return {cc_data.begin() + 2, cc_data.end() - 1}; }

// Captions through FFmpeg's decoder

class CaptionStreams : public testing::TestWithParam<Programme> {};

TEST_P(CaptionStreams, BringEveryWordToItsPicture) {
    const Programme& programme = GetParam();
    const Stream stream(programme);
    ASSERT_TRUE(stream.opened) << stream.host.last_error;
    ASSERT_EQ(stream.host.units.size(), kPictures);
    EXPECT_EQ(without_delay_lines(stream.said),
              programme.flags >= 0 ? "gsve: field order change, forcing I-frame\n" : "");
    const std::set<unsigned> captioned = stream.captioned();
    ASSERT_GT(captioned.size(), kPictures / 2);

    const AVCodecID id = programme.codec == "mpeg-2" ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_H264;
    const auto pictures = decode(id, stream.host.units);
    ASSERT_EQ(pictures.size(), kPictures);
    for (unsigned number = 0; number < kPictures; number++) {
        const Bytes expected =
            captioned.count(number)
                ? constructs(cc_data(programme.rate, number, captions_for(number, programme.rate)))
                : Bytes{};
        EXPECT_EQ(hex(pictures[number].a53), hex(expected)) << "picture " << number;
    }
}

std::vector<Programme> programmes() {
    std::vector<Programme> made;
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const Rate& rate : {Rate{24000, 1001, 1}, Rate{25, 1, 1}, Rate{30000, 1001, 1}, Rate{50, 1, 1},
                                 Rate{60000, 1001, 1}})
            for (const char* b_frames : {"0", "2", "5"})
                for (const int flags : {-1, 0}) {
                    if (flags >= 0 && rate.whole() > 40) continue;  // broadcast at these rates is progressive
                    Programme programme;
                    programme.codec = codec;
                    programme.rate = rate;
                    programme.b_frames = b_frames;
                    programme.flags = flags;
                    made.push_back(programme);
                }
    return made;
}

std::string programme_name(const testing::TestParamInfo<Programme>& info) {
    const Programme& programme = info.param;
    std::string name = programme.codec + "_" + std::to_string(programme.rate.num) + "_" +
                       std::to_string(programme.rate.den) + "_b_" + programme.b_frames +
                       (programme.flags < 0 ? "_progressive" : "_interlaced");
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Programmes, CaptionStreams, testing::ValuesIn(programmes()), programme_name);

TEST(CaptionStream, CarriesNothingInH265) {
    Programme programme;
    programme.codec = "h.265";
    const Stream stream(programme);
    ASSERT_EQ(stream.host.units.size(), kPictures);
    const auto pictures = decode(AV_CODEC_ID_HEVC, stream.host.units);
    ASSERT_EQ(pictures.size(), kPictures);
    for (const DecodedPicture& picture : pictures) EXPECT_TRUE(picture.a53.empty());
}

TEST(CaptionStream, KeepsTheCodecsOwnUnitsInFrontOfTheSei) {
    Programme programme;
    programme.codec = "h.264";
    const Stream stream(programme);
    for (size_t i = 0; i < stream.written; i++) {
        const Bytes& unit = stream.host.units[i].bytes;
        std::vector<int> types;
        for (const Section& section : sections(unit)) types.push_back(section.code & 0x1F);
        ASSERT_GE(types.size(), 3u);
        EXPECT_EQ(types.front(), 9) << "access unit delimiter, unit " << i;
        const size_t slice = static_cast<size_t>(
            std::find_if(types.begin(), types.end(), [](int type) { return type == 1 || type == 5; }) -
            types.begin());
        ASSERT_LT(slice, types.size());
        EXPECT_EQ(types[slice - 1], 6) << "unit " << i;
        const Bytes sei = rbsp(sections(unit)[slice - 1].payload);
        EXPECT_EQ(hex(sei.data(), 9), "04 47 B5 00 31 47 41 39 34") << "unit " << i;
    }
}

// "CC" user data

struct CcCase {
    const char* b_frames;
    const char* on_p_frames;
    Rate rate;
};

TEST(CaptionStream, CarriesEveryEia608WordOnceAsCcUserData) {
    const CcCase cases[] = {
        {"0", "1", {30000, 1001, 1}}, {"2", "1", {30000, 1001, 1}}, {"5", "1", {30000, 1001, 1}},
        {"0", "0", {30000, 1001, 1}}, {"2", "0", {24000, 1001, 1}}, {"2", "-1", {25, 1, 1}},
    };
    for (const CcCase& row : cases) {
        SCOPED_TRACE(std::string(row.b_frames) + " B-frames, on P " + row.on_p_frames);
        Programme programme;
        programme.rate = row.rate;
        programme.b_frames = row.b_frames;
        programme.settings = {
            {"enable eia-608", "1"}, {"enable cea-708", "0"}, {"eia-608 on p-frames", row.on_p_frames}};
        const Stream stream(programme);
        ASSERT_EQ(stream.host.units.size(), kPictures);
        unsigned carried = 0;
        for (size_t i = 0; i < stream.written; i++) {
            const Unit& unit = stream.host.units[i];
            const auto user_data = picture_user_data(unit.bytes);
            const int type = coding_type(unit.bytes);
            const bool may_carry = type == 1 || (type == 2 && std::string(row.on_p_frames) != "0");
            std::vector<Captions> due;
            if (may_carry)
                for (int64_t number = carried; number < unit.dts; number++)
                    due.push_back(captions_for(static_cast<unsigned>(number), row.rate));
            ASSERT_EQ(user_data.size(), due.empty() ? 0u : 1u) << "unit " << i;
            if (due.empty()) continue;
            EXPECT_EQ("00 00 01 B2 " + hex(user_data[0]), hex(cc_user_data(due))) << "unit " << i;
            carried += static_cast<unsigned>(due.size());
        }
        EXPECT_GT(carried, kPictures / 3);
        EXPECT_EQ(carried, stream.host.eia608_next_pts);
    }
}

TEST(CaptionStream, CarriesNoCcUserDataAtHighRates) {
    for (const Rate& rate : {Rate{50, 1, 1}, Rate{60000, 1001, 1}}) {
        Programme programme;
        programme.rate = rate;
        programme.settings = {{"enable eia-608", "1"}};
        const Stream stream(programme);
        for (size_t i = 0; i < stream.written; i++) {
            const auto user_data = picture_user_data(stream.host.units[i].bytes);
            ASSERT_EQ(user_data.size(), 1u);
            EXPECT_EQ(hex(user_data[0].data(), 4), "47 41 39 34");
        }
    }
}

// Everything at once

TEST(CaptionStream, OrdersUserDataCcThenScte20ThenGa94) {
    Programme programme;
    programme.scte20 = true;
    programme.timecodes = true;
    programme.settings = {{"enable eia-608", "1"}};
    const Stream stream(programme);
    ASSERT_EQ(stream.host.units.size(), kPictures);
    size_t with_all_three = 0;
    for (size_t i = 0; i < stream.written; i++) {
        const Unit& unit = stream.host.units[i];
        const auto number = static_cast<unsigned>(unit.pts);
        auto user_data = picture_user_data(unit.bytes);
        if (!user_data.empty() && hex(user_data[0].data(), 2) == "43 43") {
            with_all_three++;
            EXPECT_NE(coding_type(unit.bytes), 3) << "B-pictures carry no \"CC\" user data";
            user_data.erase(user_data.begin());
        }
        ASSERT_EQ(user_data.size(), 2u) << "unit " << i;
        EXPECT_EQ(hex(user_data[0]), hex(Bytes{0x03} + scte20_body(number)));
        EXPECT_EQ("00 00 01 B2 " + hex(user_data[1]),
                  hex(ga94_user_data(programme.rate, number, captions_for(number, programme.rate))));
    }
    EXPECT_GT(with_all_three, 5u);
    EXPECT_EQ(decode(AV_CODEC_ID_MPEG2VIDEO, stream.host.units).size(), kPictures);
}

TEST(CaptionStream, BringsScte20BlocksToTheirPictures) {
    Programme programme;
    programme.scte20 = true;
    programme.flags = 0;  // top field first: field_number 1 is line 21 of field 1
    programme.settings = {{"enable cea-708", "0"}};
    const Stream stream(programme);
    const std::set<unsigned> captioned = stream.captioned();
    const auto pictures = decode(AV_CODEC_ID_MPEG2VIDEO, stream.host.units);
    ASSERT_EQ(pictures.size(), kPictures);
    for (unsigned number = 0; number < kPictures; number++) {
        // The decoder makes a construct of it: cc_valid and cc_type 0, without the marker bits.
        const Bytes expected =
            captioned.count(number)
                ? Bytes{0x04, odd_parity(static_cast<uint8_t>(0x20 + number)), odd_parity(0x41)}
                : Bytes{};
        EXPECT_EQ(hex(pictures[number].a53), hex(expected)) << "picture " << number;
    }
}

// GOP time codes

TEST(GopTimecodes, ReachTheStreamWithThePictureThatStartsTheGop) {
    for (const char* b_frames : {"0", "2"}) {
        for (const char* closed_gop : {"0", "1"}) {
            SCOPED_TRACE(std::string(b_frames) + " B-frames, closed GOP " + closed_gop);
            Programme programme;
            programme.b_frames = b_frames;
            programme.timecodes = true;
            programme.settings = {{"gop size", "9"}, {"closed gop", closed_gop}, {"enable cea-708", "0"}};
            const Stream stream(programme);
            ASSERT_EQ(stream.host.units.size(), kPictures);
            std::set<int64_t> written;
            for (size_t i = 0; i < stream.host.units.size(); i++) {
                const Unit& unit = stream.host.units[i];
                for (const Section& section : sections(unit.bytes)) {
                    if (section.code != 0xB8) continue;
                    ASSERT_GE(section.payload.size(), 4u);
                    const uint32_t word = static_cast<uint32_t>(section.payload[0]) << 24 |
                                          section.payload[1] << 16 | section.payload[2] << 8 |
                                          section.payload[3];
                    EXPECT_EQ(coding_type(unit.bytes), 1);
                    const uint32_t expected = timecode_bits(static_cast<unsigned>(unit.pts));
                    if (i < stream.written) {
                        EXPECT_EQ(word >> 7, expected) << "picture " << unit.pts;
                        written.insert(word >> 7);
                    } else {
                        EXPECT_NE(word >> 7, expected) << "drained pictures keep the codec's own time code";
                    }
                    EXPECT_EQ(word & 0x3F, 0u) << "broken_link and what follows it";
                    if (closed_gop[0] == '1') {
                        EXPECT_EQ(word >> 6 & 1, 1u) << "closed_gop, picture " << unit.pts;
                    }
                }
            }
            EXPECT_GE(written.size(), 3u);

            std::set<int64_t> read;
            for (const DecodedPicture& picture : decode(AV_CODEC_ID_MPEG2VIDEO, stream.host.units))
                if (picture.gop_timecode) read.insert(*picture.gop_timecode);
            for (const int64_t code : written)
                EXPECT_EQ(read.count(code), 1u) << "read by the decoder: " << code;
        }
    }
}

TEST(GopTimecodes, AreTheCodecsOwnForPicturesWithoutOne) {
    Programme programme;
    programme.settings = {{"gop size", "9"}, {"enable cea-708", "0"}};
    const Stream stream(programme);
    ASSERT_EQ(stream.host.units.size(), kPictures);
    size_t headers = 0;
    for (const Unit& unit : stream.host.units)
        for (const Section& section : sections(unit.bytes)) {
            if (section.code != 0xB8) continue;
            headers++;
            // The encoder counts from 00:00:00, and this stream lasts less than two seconds.
            EXPECT_EQ(hex(section.payload.data(), 2), "00 08") << "picture " << unit.pts;
        }
    EXPECT_GE(headers, 4u);
}

}  // namespace
}  // namespace gsve::test
