// What a stream says of its pictures beyond them - colour, active format, bars, captions, time code - from
// one file into every codec and container, as FFmpeg, MediaInfo and GStreamer read it.

#include <algorithm>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "encoding/picture_shape.h"
#include "encoding/start_codes.h"
#include "encoding/unit_messages.h"
#include "support/bytes.h"
#include "support/clip.h"
#include "support/gstreamer_reading.h"
#include "support/media_files.h"
#include "support/program.h"
#include "support/third_party.h"

namespace gsve::test {
namespace {

using encoding::Bars;
using encoding::PictureShape;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr unsigned kPictures = 20;
constexpr int kAfd = 10;
// High definition by its width, of which little has to be encoded.
constexpr int kSourceWidth = 1280, kSourceHeight = 96;
constexpr const char* kEncodedSize = "720x64";
constexpr Bars kSourceBars = {11, 84, {}, {}};
constexpr Bars kEncodedBars = {7, 56, {}, {}};

struct Way {
    const char* codec;
    const char* name;    ///< of the output
    const char* stream;  ///< of its elementary stream, as libavformat names it
    const char* parser;  ///< GStreamer's
    AVCodecID id;
};
constexpr const char *kMpeg2Parser = "mpegvideoparse", *kH264Parser = "h264parse", *kH265Parser = "h265parse";
const Way kWays[] = {
    {"mpeg-2", "out.m2v", "mpeg2video", kMpeg2Parser, AV_CODEC_ID_MPEG2VIDEO},
    {"mpeg-2", "out.ts", "mpeg2video", kMpeg2Parser, AV_CODEC_ID_MPEG2VIDEO},
    {"mpeg-2", "out.mp4", "mpeg2video", kMpeg2Parser, AV_CODEC_ID_MPEG2VIDEO},
    {"mpeg-2", "out.mov", "mpeg2video", kMpeg2Parser, AV_CODEC_ID_MPEG2VIDEO},
    {"mpeg-2", "out.mkv", "mpeg2video", kMpeg2Parser, AV_CODEC_ID_MPEG2VIDEO},
    {"mpeg-2", "out.mxf", "mpeg2video", kMpeg2Parser, AV_CODEC_ID_MPEG2VIDEO},
    {"h.264", "out.264", "h264", kH264Parser, AV_CODEC_ID_H264},
    {"h.264", "out.ts", "h264", kH264Parser, AV_CODEC_ID_H264},
    {"h.264", "out.mp4", "h264", kH264Parser, AV_CODEC_ID_H264},
    {"h.264", "out.mov", "h264", kH264Parser, AV_CODEC_ID_H264},
    {"h.264", "out.mkv", "h264", kH264Parser, AV_CODEC_ID_H264},
    {"h.264", "out.mxf", "h264", kH264Parser, AV_CODEC_ID_H264},
    {"h.265", "out.265", "hevc", kH265Parser, AV_CODEC_ID_HEVC},
    {"h.265", "out.ts", "hevc", kH265Parser, AV_CODEC_ID_HEVC},
    {"h.265", "out.mp4", "hevc", kH265Parser, AV_CODEC_ID_HEVC},
    {"h.265", "out.mov", "hevc", kH265Parser, AV_CODEC_ID_HEVC},
    {"h.265", "out.mkv", "hevc", kH265Parser, AV_CODEC_ID_HEVC},
};

/// Each picture of an MPEG-2 stream with a shape.
std::string with_shape(const std::string& stream, const PictureShape& shape) {
    const Bytes bytes(stream.begin(), stream.end());
    const Bytes data = encoding::mpeg2_user_data(encoding::afd_data(*shape.afd)) +
                       encoding::mpeg2_user_data(encoding::bar_data(*shape.bars));
    std::string out;
    bool in_picture = false;
    for (const encoding::Section& section : encoding::sections(bytes)) {
        constexpr uint8_t kPicture = 0x00, kFirstSlice = 0x01;
        if (section.bytes[0] == kPicture) in_picture = true;
        if (section.bytes[0] == kFirstSlice && std::exchange(in_picture, false))
            out.append(data.begin(), data.end());
        out.append(stream, section.begin, section.end - section.begin);
    }
    return out;
}

class Signalling : public testing::Test {
protected:
    /// High definition in BT.709 with captions, a drop-frame time code, and a shape on each picture.
    static void SetUpTestSuite() {
        directory = new ScratchDirectory;
        const std::string clip = *directory / "clip.y4m", bare = *directory / "bare.m2v",
                          shaped = *directory / "shaped.m2v";
        write_y4m(clip, {.width = kSourceWidth, .height = kSourceHeight, .rate = {30000, 1001}}, kPictures);
        write_bytes(*directory / "a.srt", "1\n00:00:00,300 --> 00:00:00,600\nHi\n");
        const ProgramResult made = run({"encode", clip, bare, "--captions", *directory / "a.srt",
                                        "--timecode", "01:02:03;04", "--quiet", "--colour", "keep"});
        ASSERT_EQ(made.status, 0) << made.err;
        write_bytes(shaped, with_shape(read_file(bare), {.afd = kAfd, .bars = kSourceBars}));
        source = *directory / "source.m2v";
        output_of("ffmpeg -nostdin -v error -i " + shaped +
                  " -c copy -bsf:v "
                  "mpeg2_metadata=colour_primaries=1:transfer_characteristics=1:matrix_coefficients=1 " +
                  source);
    }
    static void TearDownTestSuite() { delete std::exchange(directory, nullptr); }

    static inline ScratchDirectory* directory = nullptr;
    static inline std::string source;
};

class EachWay : public Signalling, public testing::WithParamInterface<Way> {
protected:
    void SetUp() override {
        out = *directory / GetParam().name;
        std::vector<std::string> arguments = {
            "encode",  source,           out,     "-y",
            "--codec", GetParam().codec, "--set", std::string("resize=") + kEncodedSize};
        if (has_timecode()) arguments.insert(arguments.end(), {"--timecode", "source"});
        const ProgramResult result = run(arguments);
        ASSERT_EQ(result.status, 0) << result.err;
        elementary = *directory / "elementary";
        output_of(fmt::format("ffmpeg -nostdin -y -v error -i {} -c copy -map 0:v -f {} {}", out,
                              GetParam().stream, elementary));
    }
    void expect_read_by_ffmpeg() const;
    void expect_shape_in_each_unit() const;
    void expect_read_by_gstreamer() const;
    void expect_read_by_mediainfo() const;

    bool is_h264() const { return GetParam().id == AV_CODEC_ID_H264; }
    bool is_h265() const { return GetParam().id == AV_CODEC_ID_HEVC; }
    bool container_has_timecode() const {
        return !std::string(GetParam().name).starts_with("out.ts") && !is_bare();
    }
    bool is_bare() const {
        return std::string(GetParam().name).find("out.m2v") == 0 ||
               std::string(GetParam().name).find("out.26") == 0;
    }
    bool has_timecode() const { return !is_h264() || container_has_timecode(); }

    std::string out, elementary;
};

void EachWay::expect_read_by_ffmpeg() const {
    const json probed = json::parse(output_of(
        "ffprobe -v error -select_streams v -show_streams -show_frames -show_format -of json " + out));
    const json& stream = probed["streams"][0];
    for (const json& tagged : {stream, probed["frames"][0]}) {
        EXPECT_EQ(tagged["color_space"], "smpte170m");
        EXPECT_EQ(tagged["color_primaries"], "bt709");
        EXPECT_EQ(tagged["color_transfer"], "bt709");
        EXPECT_EQ(tagged["color_range"], "tv");
        EXPECT_EQ(tagged["chroma_location"], "left");
    }
    ASSERT_EQ(probed["frames"].size(), kPictures);
    for (const json& frame : probed["frames"]) {
        std::vector<std::string> kinds;
        for (const json& data : frame["side_data_list"]) kinds.push_back(data["side_data_type"]);
        EXPECT_THAT(kinds, Contains("ATSC A53 Part 4 Closed Captions"));
        // FFmpeg 5.1 reads no active format in H.265.
        if (!is_h265()) {
            EXPECT_THAT(kinds, Contains("Active format description"));
        }
        if (is_h265()) {
            EXPECT_THAT(kinds, Contains("SMPTE 12-1 timecode"));
        }
    }
    if (!has_timecode()) return;
    const std::string text = probed.dump();
    EXPECT_THAT(text, HasSubstr("01:02:03;04"));
}

void EachWay::expect_shape_in_each_unit() const {
    const std::string stream = read_file(elementary);
    const Bytes bytes(stream.begin(), stream.end());
    const Bytes afd = encoding::afd_data(kAfd), bars = encoding::bar_data(kEncodedBars);
    const auto count = [&](const Bytes& data) {
        size_t found = 0;
        for (auto at = bytes.begin();
             (at = std::search(at, bytes.end(), data.begin(), data.end())) != bytes.end(); ++at)
            found++;
        return found;
    };
    EXPECT_EQ(count(afd), kPictures);
    EXPECT_EQ(count(bars), kPictures);
}

void EachWay::expect_read_by_gstreamer() const {
    const GStreamerReading reading = read_by_gstreamer(out, GetParam().parser);
    // Its parser of MPEG-2 tells no colour, and numbers of no time code.
    if (is_h264() || is_h265()) {
        EXPECT_EQ(reading.colorimetry, "2:4:5:1");
    }
    ASSERT_EQ(reading.pictures.size(), kPictures);
    for (const GStreamerPicture& picture : reading.pictures) {
        EXPECT_EQ(picture.afd, kAfd);
        ASSERT_TRUE(picture.bars);
        EXPECT_TRUE(picture.bars->is_letterbox);
        EXPECT_EQ(picture.bars->bar_data1, static_cast<guint>(*kEncodedBars.top_end));
        EXPECT_EQ(picture.bars->bar_data2, static_cast<guint>(*kEncodedBars.bottom_begin));
        EXPECT_EQ(picture.caption_bytes, 60u);
    }
    // GStreamer 1.22 counts n_frames in fields, as it is in H.264.
    const char* const read = GST_CHECK_VERSION(1, 24, 0) ? "01:02:03;04" : "01:02:03;02";
    if (is_h265()) {
        EXPECT_EQ(reading.pictures[0].timecode, read);
    }
}

void EachWay::expect_read_by_mediainfo() const {
    const json report = json::parse(output_of("mediainfo --Output=JSON " + out));
    json video;
    std::vector<std::string> services;
    for (const json& track : report["media"]["track"]) {
        if (track["@type"] == "Video") video = track;
        if (track["@type"] == "Text") services.push_back(track["Format"]);
    }
    EXPECT_EQ(video["matrix_coefficients"], "BT.601");
    EXPECT_EQ(video["colour_primaries"], "BT.709");
    EXPECT_EQ(video["transfer_characteristics"], "BT.709");
    // MediaInfo knows the active format in MPEG-2 alone; captions it does not find in Matroska, and in H.265
    // in transport streams alone.
    if (GetParam().id == AV_CODEC_ID_MPEG2VIDEO) {
        EXPECT_EQ(video["ActiveFormatDescription"], std::to_string(kAfd));
    }
    if (out.ends_with(".ts") || (!is_h265() && !out.ends_with(".mkv"))) {
        EXPECT_THAT(services, Contains("EIA-608"));
    }
}

TEST_P(EachWay, SaysTheSameToEveryReader) {
    expect_read_by_ffmpeg();
    expect_shape_in_each_unit();
    expect_read_by_gstreamer();
    expect_read_by_mediainfo();
}

INSTANTIATE_TEST_SUITE_P(All, EachWay, testing::ValuesIn(kWays), [](const auto& info) {
    std::string name = std::string(info.param.codec) + info.param.name;
    std::erase_if(name, [](char letter) { return !std::isalnum(static_cast<unsigned char>(letter)); });
    return name;
});

// Each delay follows from the first one, the rate and the bytes before it.
TEST_F(Signalling, OfDelaysIsRightWhereAContainerKeepsTheParameterSets) {
    for (const char* name : {"delays.264", "delays.mp4", "delays.mkv"}) {
        const std::string out = *directory / name;
        const ProgramResult encoded =
            run({"encode", source, out, "-y", "--codec", "h.264", "--set", "bitrate=600000", "--set",
                 "enable h.264 nal hrd=1", "--set", "maximum threads=1", "--set", "gop size=6"});
        ASSERT_EQ(encoded.status, 0) << encoded.err;
        const ProgramResult inspected = run({"inspect", out, "--buffer", "--json", "--pictures"});
        ASSERT_EQ(inspected.status, 0) << inspected.err;
        const json account = json::parse(inspected.out)["buffer"]["accounts"][0];
        const json packets = json::parse(
            output_of("ffprobe -v error -select_streams v -show_packets -of json " + out))["packets"];
        ASSERT_EQ(packets.size(), account["course"].size());
        const double rate = account["bit_rate"], first = account["course"][0]["stated_delay"];
        double bits = 0;
        int stated = 0;
        for (size_t n = 0; n < packets.size(); n++) {
            const json& delay = account["course"][n]["stated_delay"];
            // Lengths stand for start codes, some of which are a byte shorter; parameter sets are left out.
            constexpr double kLengths = 0.003;
            if (!delay.is_null()) {
                EXPECT_NEAR(delay.get<double>(), first + static_cast<double>(n) * 1001 / 30000 - bits / rate,
                            kLengths)
                    << name << " " << n;
            }
            stated += !delay.is_null();
            bits += 8 * std::stod(packets[n]["size"].get<std::string>());
        }
        EXPECT_GE(stated, 3) << name;
    }
}

class Colours : public testing::Test {
protected:
    /// A file of one colour through FFmpeg.
    std::string flat(const std::string& name, const std::string& size, const std::string& options) {
        const std::string path = directory / name;
        output_of("ffmpeg -nostdin -v error -f lavfi -i color=c=black:s=" + size + ":r=25:d=0.4 " + options +
                  " " + path);
        return path;
    }

    /// A file of one BT.709 colour, yellow of 75 %; `tags`: filters that say so.
    std::string yellow(const std::string& name, const std::string& size, const std::string& options,
                       const std::string& tags = {}) {
        return flat(name, size, "-vf 'format=yuv444p,lutyuv=y=168:u=44:v=136" + tags + "' " + options);
    }

    ProgramResult encode(const std::string& in, const std::string& name, std::vector<std::string> more = {}) {
        out = directory / name;
        more.insert(more.begin(), {"encode", in, out, "-y"});
        return run(more);
    }

    struct Samples {
        int y, u, v;
    };

    /// Of the middle of the first picture, where rounding may be another's; and its matrix and range as
    /// tagged.
    void expect_seen(const std::string& matrix, const std::string& range, const Samples& samples) const {
        SCOPED_TRACE(out);
        const json stream =
            json::parse(output_of("ffprobe -v error -show_streams -of json " + out))["streams"][0];
        EXPECT_EQ(stream.value("color_space", "-"), matrix);
        EXPECT_EQ(stream.value("color_range", "-"), range);
        const std::string raw = directory / "raw";
        output_of("ffmpeg -nostdin -y -v error -i " + out + " -frames:v 1 -f rawvideo " + raw);
        const std::string bytes = read_file(raw);
        const size_t width = stream["width"], height = stream["height"];
        ASSERT_EQ(bytes.size(), width * height * 3 / 2);
        const auto at = [&](size_t place) { return static_cast<int>(static_cast<uint8_t>(bytes[place])); };
        const size_t chroma = width * height + height / 4 * (width / 2) + width / 4;
        EXPECT_NEAR(at(height / 2 * width + width / 2), samples.y, 1);
        EXPECT_NEAR(at(chroma), samples.u, 1);
        EXPECT_NEAR(at(chroma + width * height / 4), samples.v, 1);
    }

    // Yellow of 75 %.
    static constexpr Samples kBt709 = {168, 44, 136}, kBt601 = {162, 44, 142};

    ScratchDirectory directory;
    std::string out;
};

constexpr const char* kHd = "1280x96";
const std::vector<std::string> kToSd = {"--set", "resize=720x64"};

TEST_F(Colours, OfHighDefinitionBecomeThoseOfStandardDefinition) {
    const std::string tags = ",setparams=color_primaries=bt709:color_trc=bt709:colorspace=bt709:range=tv";
    const std::string in = yellow("in.mkv", kHd, "-pix_fmt yuv420p -c:v ffv1 ", tags);
    for (const char* name : {"out.264", "out.m2v", "out.265"}) {
        const ProgramResult result = encode(in, name, kToSd);
        EXPECT_THAT(result.err, HasSubstr("converted from BT.709 to BT.601")) << name;
        expect_seen("smpte170m", "tv", kBt601);
    }
    std::vector<std::string> kept = kToSd;
    kept.insert(kept.end(), {"--colour", "keep"});
    EXPECT_THAT(encode(in, "keep.264", kept).err, Not(HasSubstr("converted")));
    expect_seen("bt709", "tv", kBt709);
    // Without a tag they are what they usually are; at the same definition they stay, and none is made up.
    const std::string untagged = yellow("untagged.mkv", kHd, "-pix_fmt yuv420p -c:v ffv1 ");
    encode(untagged, "untagged.264", kToSd);
    expect_seen("smpte170m", "tv", kBt601);
    encode(untagged, "same.264");
    expect_seen("-", "tv", kBt709);
}

TEST_F(Colours, OfStandardDefinitionBecomeThoseOfHighDefinition) {
    const std::string in = flat("in.mkv", "720x64",
                                "-vf 'format=yuv444p,lutyuv=y=162:u=44:v=142,setparams=colorspace=smpte170m' "
                                "-pix_fmt yuv420p -c:v ffv1");
    const ProgramResult result = encode(in, "out.264", {"--set", "resize=1280x96"});
    EXPECT_THAT(result.err, HasSubstr("converted from BT.601 to BT.709"));
    expect_seen("bt709", "tv", kBt709);
}

TEST_F(Colours, OfTenBitsComeDownToEightWithANote) {
    const std::string in =
        yellow("in.mkv", kHd, "-pix_fmt yuv420p10le -c:v ffv1", ",setparams=colorspace=bt709");
    const ProgramResult result = encode(in, "out.264");
    EXPECT_THAT(result.err, HasSubstr("converted from yuv420p10le to yuv420p"));
    expect_seen("bt709", "tv", kBt709);
    encode(in, "small.264", kToSd);
    expect_seen("smpte170m", "tv", kBt601);
}

// Red and blue fields, whose chroma lines alternate.
TEST_F(Colours, OfInterlacedPicturesAreThoseOfTheirField) {
    const std::string in = flat("in.mkv", kHd,
                                "-vf 'format=yuv420p,geq=lum=120:cb=128:cr=216-176*mod(Y\\,2),"
                                "setparams=field_mode=tff:colorspace=bt709' -c:v ffv1");
    encode(in, "out.m2v", {"--set", "resize=640x96", "--set", "bitrate=9000000"});
    output_of("ffmpeg -nostdin -y -v error -i " + out + " -frames:v 1 -f rawvideo " + (directory / "raw"));
    const std::string bytes = read_file(directory / "raw");
    const auto luma = [&](size_t line) {
        return static_cast<int>(static_cast<uint8_t>(bytes.at(line * 640 + 320)));
    };
    // 120 and 0.196 of what Cr is off its middle.
    for (size_t line = 8; line < 40; line++) EXPECT_NEAR(luma(line), line % 2 == 0 ? 137 : 103, 3) << line;
}

TEST_F(Colours, OfAPaletteAreThoseOfRgb) {
    encode(flat("in.mkv", kHd, "-vf 'format=rgb24,lutrgb=r=255:g=0:b=0,format=pal8' -c:v png"), "out.264");
    expect_seen("bt709", "tv", {62, 102, 239});  // FFmpeg's palette has red at 252
}

TEST_F(Colours, ThatAreDescribedInPartStandInMp4Too) {
    encode(yellow("in.mkv", kHd, "-pix_fmt yuv420p -c:v ffv1"), "out.mp4", kToSd);
    EXPECT_THAT(output_of("ffprobe -v trace " + out), HasSubstr("type:'colr'"));
    expect_seen("smpte170m", "tv", kBt601);
}

TEST_F(Colours, OfHighDynamicRangeAreRefused) {
    const struct { const char *transfer, *name; } rows[] = {{"smpte2084", "PQ"}, {"arib-std-b67", "HLG"}};
    for (const auto& row : rows) {
        const std::string in =
            yellow(std::string(row.name) + ".mkv", kHd, "-pix_fmt yuv420p10le -c:v ffv1",
                   std::string(",setparams=colorspace=bt2020nc:color_trc=") + row.transfer);
        const ProgramResult result = encode(in, "out.264");
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, AllOf(HasSubstr(row.name), HasSubstr("bring it to BT.709 first")));
    }
}

TEST_F(Colours, OfTheFullRangeStayWhereTheCodecKnowsIt) {
    const std::string in =
        flat("in.mkv", "176x144",
             "-vf 'format=yuvj420p,lutyuv=y=235:u=128:v=128' -pix_fmt yuvj420p -c:v mjpeg -q:v 1");
    encode(in, "out.264");
    expect_seen("bt470bg", "pc", {235, 128, 128});
    const ProgramResult result = encode(in, "out.m2v");
    EXPECT_THAT(result.err, HasSubstr("from the full range into the narrow one"));
    expect_seen("bt470bg", "tv", {16 + 235 * 219 / 255, 128, 128});
}

TEST_F(Colours, OfRgbGoByTheMatrixOfTheSize) {
    // Yellow of 75 %, 191 of 255.
    const std::string rgb = "-vf 'format=gbrp,lutrgb=r=191:g=191:b=0' -pix_fmt gbrp -c:v ffv1";
    encode(flat("hd.mkv", kHd, rgb), "hd.264");
    expect_seen("bt709", "tv", kBt709);
    encode(flat("sd.mkv", "720x64", rgb), "sd.264");
    expect_seen("smpte170m", "tv", kBt601);
}

}  // namespace
}  // namespace gsve::test
