// Captions and time codes of our streams, as other people's programs read them.

#include <algorithm>
#include <memory>
#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavformat/avformat.h>
}

#include "support/caption_blocks.h"
#include "support/captioned_stream.h"
#include "support/cues.h"
#include "support/program.h"
#include "support/third_party.h"

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

struct Codec {
    const char* name;
    const char* extension;
    const char* parser;  ///< GStreamer element
    AVCodecID id;
    const char* muxing_mode;  ///< MediaInfo's word for the carriage
};
constexpr Codec kCodecs[] = {
    {"mpeg-2", ".m2v", "mpegvideoparse", AV_CODEC_ID_MPEG2VIDEO, "A/53 / DTVCC Transport"},
    {"h.264", ".h264", "h264parse", AV_CODEC_ID_H264, "SCTE 128 / DTVCC Transport"}};

const std::string kFirst = "The first caption";
const std::string kSecond = "and the second.";

/// CC1 with two captions, CC3 with one, CEA-708 service 1.
captions::Schedule programme() {
    captions::Schedule schedule = captions::merge(
        pop_on({cue(1000, 1800, kFirst), cue(2000, 2500, kSecond)}, 0), pop_on({cue(1500, 2200, kFirst)}, 1));
    schedule.cea708.push_back({20, service_packet(1, 0, "Digital")});
    return schedule;
}

CaptionedStreamOptions options_for(const char* codec) {
    CaptionedStreamOptions options;
    options.codec = codec;
    options.schedule = programme();
    return options;
}

Captions captions_of(const captions::Schedule& schedule, int64_t picture) {
    Captions found;
    for (const captions::Eia608Event& event : schedule.eia608)
        if (event.frame == picture) (event.field == 0 ? found.field1 : found.field2) = event.word;
    for (const captions::Cea708Event& event : schedule.cea708)
        if (event.frame == picture)
            for (const captions::Cea708Construct& c : event.constructs)
                found.words.push_back({c.header, static_cast<uint16_t>(c.data_1 << 8 | c.data_2)});
    return found;
}

/// The units with their times, which elementary streams do not have.
void write_mkv(const CaptionedStream& stream, AVCodecID codec, const std::string& path) {
    constexpr int kReorderDepth = 2;
    AVFormatContext* muxer = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&muxer, nullptr, "matroska", path.c_str()), 0);
    AVStream* video = avformat_new_stream(muxer, nullptr);
    video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    video->codecpar->codec_id = codec;
    video->codecpar->width = 176;
    video->codecpar->height = 144;
    ASSERT_GE(avio_open(&muxer->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    if (codec ==
        AV_CODEC_ID_H264) {  // Matroska keeps the parameter sets, which the first unit has, in its header
        const Bytes& first = stream.units().front().bytes;
        video->codecpar->extradata =
            static_cast<uint8_t*>(av_mallocz(first.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        std::copy(first.begin(), first.end(), video->codecpar->extradata);
        video->codecpar->extradata_size = static_cast<int>(first.size());
    }
    ASSERT_GE(avformat_write_header(muxer, nullptr), 0);
    AVPacket* packet = av_packet_alloc();
    for (size_t i = 0; i < stream.units().size(); i++) {
        const Unit& unit = stream.units()[i];
        ASSERT_EQ(av_new_packet(packet, static_cast<int>(unit.bytes.size())), 0);
        std::copy(unit.bytes.begin(), unit.bytes.end(), packet->data);
        packet->pts = unit.pts;
        packet->dts = static_cast<int64_t>(i) - kReorderDepth;
        packet->flags = unit.key ? AV_PKT_FLAG_KEY : 0;
        av_packet_rescale_ts(packet, {1001, 30000}, video->time_base);
        ASSERT_GE(av_interleaved_write_frame(muxer, packet), 0);
    }
    av_packet_free(&packet);
    ASSERT_GE(av_write_trailer(muxer), 0);
    avio_closep(&muxer->pb);
    avformat_free_context(muxer);
}

class ThirdPartyCaptions : public testing::TestWithParam<Codec> {
protected:
    ScratchDirectory directory;
};

TEST_P(ThirdPartyCaptions, AreReadByGStreamerByteForByte) {
    if (!have("gst-launch-1.0 --version", "gstreamer1.0-tools") ||
        !have("gst-inspect-1.0 --exists ccextractor", "gstreamer1.0-plugins-bad"))
        return;
    const CaptionedStreamOptions options = options_for(GetParam().name);
    const CaptionedStream stream(options);
    const std::string in = directory / (std::string("in") + GetParam().extension), out = directory / "cc";
    stream.write_to(in);
    output_of("gst-launch-1.0 -q filesrc location=" + in + " ! " + GetParam().parser +
              " ! ccextractor name=x x. ! queue ! fakesink async=false sync=false"
              " x.caption ! queue ! filesink async=false location=" +
              out);

    Bytes expected;
    for (size_t i = 0; i < stream.undrained(); i++) {
        const auto pts = static_cast<uint64_t>(stream.units()[i].pts);
        const Bytes block = cc_data({}, pts, captions_of(options.schedule, static_cast<int64_t>(pts)));
        expected.insert(expected.end(), block.begin() + 2, block.end() - 1);
    }
    const std::string read = read_file(out);
    EXPECT_GT(stream.undrained(), 80u);
    EXPECT_EQ(hex(Bytes(read.begin(), read.end())), hex(expected));
}

TEST_P(ThirdPartyCaptions, AreReadByFfmpegAsText) {
    if (!have("ffmpeg -version", "ffmpeg")) return;
    const CaptionedStream stream(options_for(GetParam().name));
    const std::string file = directory / "in.mkv";
    write_mkv(stream, GetParam().id, file);
    const std::string text =
        output_of("ffmpeg -v error -f lavfi -i 'movie=" + file + "[out0+subcc]' -map 0:s -f srt -");
    // The captions of CC1, from picture 30 to 54 and from picture 60 to 75, at 1001/30000 s each.
    EXPECT_THAT(text, HasSubstr("00:00:01,001 --> 00:00:01,802"));
    EXPECT_THAT(text, HasSubstr(kFirst));
    EXPECT_THAT(text, HasSubstr("00:00:02,002 --> 00:00:02,503"));
    EXPECT_THAT(text, HasSubstr(kSecond));
}

/// "FORMAT SERVICE MUXING-MODE" of each caption stream that MediaInfo sees.
std::vector<std::string> services_by_mediainfo(const std::string& file) {
    const auto report = nlohmann::json::parse(output_of("mediainfo --Output=JSON " + file));
    std::vector<std::string> services;
    for (const auto& track : report["media"]["track"]) {
        if (track["@type"] != "Text") continue;
        std::string text = track["Format"].get<std::string>();
        if (track.contains("extra") && track["extra"].contains("CaptionServiceName"))
            text += " " + track["extra"]["CaptionServiceName"].get<std::string>();
        if (track.contains("MuxingMode")) text += " " + track["MuxingMode"].get<std::string>();
        services.push_back(text);
    }
    return services;
}

TEST_P(ThirdPartyCaptions, AreListedByMediaInfo) {
    if (!have("mediainfo --Version", "mediainfo")) return;
    const std::string file = directory / (std::string("in") + GetParam().extension);
    CaptionedStream(options_for(GetParam().name)).write_to(file);
    const std::string mode = std::string(" ") + GetParam().muxing_mode;
    EXPECT_THAT(services_by_mediainfo(file),
                ElementsAre("EIA-608 CC1" + mode, "EIA-608 CC3" + mode, "EIA-708 1" + mode));
}

INSTANTIATE_TEST_SUITE_P(Codecs, ThirdPartyCaptions, testing::ValuesIn(kCodecs), [](const auto& info) {
    return std::string(info.param.id == AV_CODEC_ID_H264 ? "H264" : "Mpeg2");
});

class Mpeg2UserData : public testing::Test {
protected:
    std::string write(CaptionedStreamOptions options) {
        const std::string path = directory / "in.m2v";
        CaptionedStream(options).write_to(path);
        return path;
    }
    static CaptionedStreamOptions scte20_only() {
        CaptionedStreamOptions options = options_for("mpeg-2");
        options.scte20 = true;
        options.settings = {{"enable cea-708", "0"}};
        return options;
    }
    static CaptionedStreamOptions cc_only() {
        CaptionedStreamOptions options = options_for("mpeg-2");
        options.settings = {{"enable cea-708", "0"}, {"enable eia-608", "1"}};
        return options;
    }
    static std::string text_by_ffmpeg(const std::string& file) {
        return output_of("ffmpeg -v error -f lavfi -i 'movie=" + file + "[out0+subcc]' -map 0:s -f srt -");
    }
    ScratchDirectory directory;
};

TEST_F(Mpeg2UserData, ShowsItsTimeCodesToMpeg2dec) {
    if (!have("command -v mpeg2dec", "mpeg2dec")) return;
    CaptionedStreamOptions options = options_for("mpeg-2");
    options.timecode = captions::parse_timecode("01:00:59;20", captions::kRate29_97);
    const CaptionedStream stream(options);
    const std::string file = directory / "in.m2v";
    stream.write_to(file);

    const captions::TimecodeCounter counter(*options.timecode, captions::kRate29_97);
    std::vector<std::string> expected;
    for (size_t i = 0; i < stream.undrained(); i++) {
        const Unit& unit = stream.units()[i];
        if (!unit.key) continue;
        const captions::Timecode code = counter.at(unit.pts);
        char text[40];
        std::snprintf(text, sizeof text, "GOP DROP %s%2d:%2d:%2d:%2d", i == 0 ? "CLOSED " : "", code.hours,
                      code.minutes, code.seconds, code.frames);
        expected.push_back(text);
    }
    ASSERT_GE(expected.size(), 5u);
    const std::string log = output_of("mpeg2dec -v -v -o null " + file);
    std::vector<std::string> read;
    const std::regex group_header("GOP [^\\n]*");
    for (std::sregex_iterator it(log.begin(), log.end(), group_header), end; it != end; ++it)
        read.push_back(it->str());
    EXPECT_EQ(read, expected) << log.substr(0, 2000);
}

TEST_F(Mpeg2UserData, ShowsScte20ToFfmpegAndMediaInfo) {
    if (!have("ffmpeg -version", "ffmpeg") || !have("mediainfo --Version", "mediainfo")) return;
    const std::string file = write(scte20_only());
    EXPECT_THAT(text_by_ffmpeg(file), HasSubstr(kFirst));
    // MediaInfo lists the services of field 1 alone.
    EXPECT_THAT(services_by_mediainfo(file), ElementsAre("EIA-608 CC1 SCTE 20"));
}

TEST_F(Mpeg2UserData, ShowsCcToFfmpegAndMediaInfo) {
    if (!have("ffmpeg -version", "ffmpeg") || !have("mediainfo --Version", "mediainfo")) return;
    const std::string file = write(cc_only());
    EXPECT_THAT(text_by_ffmpeg(file), HasSubstr(kFirst));
    EXPECT_THAT(services_by_mediainfo(file), ElementsAre("EIA-608 CC1", "EIA-608 CC3"));
}

}  // namespace
}  // namespace gsve::test
