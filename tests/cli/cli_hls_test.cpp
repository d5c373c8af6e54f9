// HTTP Live Streaming: what players find, and when.

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/flash_and_click.h"
#include "support/media_files.h"
#include "support/program.h"
#include "support/scratch.h"

namespace {

namespace fs = std::filesystem;
using namespace gsve::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

/// What libavformat finds in a file.
struct Found {
    int pictures = 0, sounds = 0;
    bool begins_with_key = false;
    std::set<std::string> languages;
};

Found look(const std::string& path) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(input, nullptr) < 0)
        throw std::runtime_error("cannot read " + path);
    Found found;
    for (unsigned n = 0; n < input->nb_streams; n++) {
        found.pictures += input->streams[n]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        found.sounds += input->streams[n]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        if (const AVDictionaryEntry* language =
                av_dict_get(input->streams[n]->metadata, "language", nullptr, 0))
            found.languages.insert(language->value);
    }
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(input, packet) >= 0) {
        const bool is_picture =
            input->streams[packet->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        const bool key = packet->flags & AV_PKT_FLAG_KEY;
        av_packet_unref(packet);
        if (!is_picture) continue;
        found.begins_with_key = key;
        break;
    }
    av_packet_free(&packet);
    avformat_close_input(&input);
    return found;
}

class Hls : public testing::Test {
protected:
    Hls() {
        av_log_set_level(AV_LOG_QUIET);
        ffmpeg(directory / "",
               flash_and_click(8) + "-c:v mpeg2video -b:v 800k -g 12 -bf 2 -c:a ac3 -b:a 96k in.ts");
    }

    ProgramResult encode(std::vector<std::string> more = {}, const std::string& in = "in.ts",
                         const std::string& out = "out.m3u8") {
        std::vector<std::string> arguments = {"encode", directory / in, directory / out,
                                              "-y",     "--set",        "bitrate=400000"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }

    std::string master() const { return read_file(directory / "out.m3u8"); }

    /// The value of an attribute of the one variant.
    std::string attribute(const std::string& name) const {
        const std::string text = master();
        const size_t line = text.find("#EXT-X-STREAM-INF:");
        const size_t at = text.find(name + "=", line) + name.size() + 1;
        return text.substr(at, text.find_first_of(text[at] == '"' ? "\"\n" : ",\n", at + 1) - at);
    }

    std::vector<std::string> names_in(const std::string& folder) const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory / folder))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    ScratchDirectory directory;
};

TEST_F(Hls, HasSoundAndPictureTogetherInSegmentsThatBeginWithKeyPictures) {
    struct Row {
        std::vector<std::string> options;
        const char* segment;
        const char* codecs;
    };
    const Row rows[] = {
        {{}, ".ts", "\"avc1\\.[0-9A-F]{6},ac-3"},
        {{"--sound", "aac"}, ".ts", "\"avc1\\.[0-9A-F]{6},mp4a\\.40\\.2"},
        {{"--segments", "fmp4"}, ".m4s", "\"avc1\\.[0-9A-F]{6},ac-3"},
        {{"--codec", "h.265", "--sound", "aac"},
         ".m4s",
         "\"hvc1\\.1\\.6\\.L[0-9]+\\.[0-9A-F.]+,mp4a\\.40\\.2"},
        {{"--codec", "mpeg-2", "--sound", "eac3"}, ".ts", "\"mp4v\\.61,ec-3"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        std::vector<std::string> options = row.options;
        options.insert(options.end(), {"--segment-seconds", "2"});
        const ProgramResult result = encode(options);
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(attribute("CODECS"), MatchesRegex(row.codecs));
        EXPECT_EQ(attribute("RESOLUTION"), "160x120");
        EXPECT_EQ(attribute("FRAME-RATE"), "25.000");
        EXPECT_EQ(attribute("CLOSED-CAPTIONS"), "NONE");

        const Events events = events_of(directory / "out.m3u8");
        EXPECT_EQ(events.errors, 0);
        ASSERT_EQ(events.flashes.size(), 8u);
        ASSERT_EQ(events.clicks.size(), 8u);
        for (size_t n = 0; n < 8; n++) EXPECT_NEAR(events.clicks[n], events.flashes[n], 0.021) << n;

        int segments = 0;
        for (const std::string& name : names_in("out.segments")) {
            if (!name.ends_with(row.segment)) continue;
            segments++;
            std::string one = directory / ("out.segments/" + name);
            if (name.ends_with(".m4s")) {
                const std::string header = read_file(directory / "out.segments/picture-init.mp4");
                write_bytes(directory / "one.mp4", header + read_file(one));
                one = directory / "one.mp4";
            }
            EXPECT_TRUE(look(one).begins_with_key) << name;
        }
        EXPECT_GE(segments, 4);
    }
}

TEST_F(Hls, HasARenditionForEachOfSeveralTracks) {
    ffmpeg(directory / "",
           "-i in.ts -map 0 -map 0:a -c copy -metadata:s:a:0 language=deu -metadata:s:a:1 language=fra "
           "-metadata:s:a:1 title='Piste \"deux\"' -disposition:a:0 0 -disposition:a:1 default two.mkv");
    for (const char* segments : {"ts", "fmp4"}) {
        ASSERT_EQ(encode({"--segments", segments}, "two.mkv").status, 0);
        EXPECT_THAT(master(),
                    HasSubstr("#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"sound\",NAME=\"de 1\",LANGUAGE=\"de\","
                              "AUTOSELECT=YES,URI=\"out.segments/sound-1.m3u8\"\n"));
        EXPECT_THAT(master(),
                    HasSubstr("NAME=\"Piste deux\",LANGUAGE=\"fr\",DEFAULT=YES,AUTOSELECT=YES,URI="));
        EXPECT_EQ(attribute("AUDIO"), "\"sound");
        const Found found = look(directory / "out.m3u8");
        EXPECT_EQ(found.pictures, 1);
        EXPECT_EQ(found.sounds, 2);
        const Events events = events_of(directory / "out.m3u8");
        ASSERT_EQ(events.clicks.size(), 8u);
        ASSERT_EQ(events.flashes.size(), 8u);
        for (size_t n = 0; n < 8; n++) EXPECT_NEAR(events.clicks[n], events.flashes[n], 0.021) << n;
    }
}

TEST_F(Hls, TakesTheSoundOfATransportStreamAsItIs) {
    ffmpeg(directory / "", "-i in.ts -c:v copy -c:a aac -b:a 96k aac.ts");
    for (const char* segments : {"ts", "fmp4"}) {
        const ProgramResult result = encode({"--segments", segments}, "aac.ts");
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr("sound, aac as it is"));
        const Events events = events_of(directory / "out.m3u8");
        EXPECT_EQ(events.errors, 0);
        ASSERT_EQ(events.clicks.size(), 8u);
        for (size_t n = 0; n < 8; n++) EXPECT_NEAR(events.clicks[n], events.flashes[n], 0.025) << n;
    }
}

TEST_F(Hls, DeclaresItsCaptions) {
    write_bytes(directory / "one.scc",
                "Scenarist_SCC V1.0\n\n00:00:01:00\t9420 9420 9470 9470 c8e9 942f 942f\n");
    ASSERT_EQ(encode({"--captions", directory / "one.scc"}).status, 0);
    EXPECT_EQ(attribute("CLOSED-CAPTIONS"), "\"captions");
    EXPECT_THAT(master(), HasSubstr("#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"captions\",NAME=\"CC1\","
                                    "INSTREAM-ID=\"CC1\",DEFAULT=YES,AUTOSELECT=YES\n"));
    ASSERT_EQ(encode({"--captions", directory / "one.scc", "--captions-field", "2"}).status, 0);
    EXPECT_THAT(master(), HasSubstr("INSTREAM-ID=\"CC3\""));
}

TEST_F(Hls, TellsTheHighestRateOfItsSegments) {
    ASSERT_EQ(encode({"--segment-seconds", "2"}).status, 0);
    std::ifstream lines(directory / "out.segments/picture.m3u8");
    double seconds = 0, highest = 0, bits = 0, all = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("#EXTINF:")) seconds = std::stod(line.substr(8));
        if (line.empty() || line[0] == '#') continue;
        const double size = 8.0 * fs::file_size(directory / ("out.segments/" + line));
        highest = std::max(highest, size / seconds);
        bits += size;
        all += seconds;
    }
    EXPECT_NEAR(all, 8, 0.1);
    EXPECT_NEAR(std::stod(attribute("BANDWIDTH")), highest, 1);
    EXPECT_NEAR(std::stod(attribute("AVERAGE-BANDWIDTH")), bits / all, 1);
    EXPECT_THAT(master(), Not(HasSubstr(",AUDIO=")));
}

TEST_F(Hls, ReplacesAnOlderOneAsAWhole) {
    ASSERT_EQ(encode({"--segment-seconds", "1"}).status, 0);
    ffmpeg(directory / "", "-i in.ts -t 1 -c copy short.ts");
    const std::string before = master();
    const std::vector<std::string> files = names_in("out.segments");
    EXPECT_NE(run({"encode", directory / "short.ts", directory / "out.m3u8"}).status, 0) << "without -y";
    EXPECT_NE(encode({"--captions", directory / "in.ts"}, "short.ts").status, 0);
    EXPECT_EQ(master(), before);
    EXPECT_EQ(names_in("out.segments"), files);

    ASSERT_EQ(encode({"--segment-seconds", "1"}, "short.ts").status, 0);
    EXPECT_LT(names_in("out.segments").size(), files.size());
    EXPECT_THAT(names_in(""), ElementsAre("in.ts", "out.m3u8", "out.segments", "short.ts"))
        << "nothing hidden";
}

TEST_F(Hls, LeavesTheOlderOneWhereTheDiskIsFull) {
    ASSERT_EQ(encode().status, 0);
    const std::string before = master();
    const std::vector<std::string> files = names_in("out.segments");
    // Segments of 100 kB do not fit.
    const std::string command = "trap '' XFSZ; ulimit -f 100; '" + std::string(gsve_program()) +
                                "' encode '" + (directory / "in.ts") + "' '" + (directory / "out.m3u8") +
                                "' -y -q 2>'" + (directory / "err.txt") + "'";
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
    EXPECT_THAT(read_file(directory / "err.txt"), HasSubstr("out.m3u8: File too large; "));
    EXPECT_EQ(master(), before);
    EXPECT_EQ(names_in("out.segments"), files);
    EXPECT_THAT(names_in(""), ElementsAre("err.txt", "in.ts", "out.m3u8", "out.segments"));
}

TEST_F(Hls, EndsWithThePicture) {
    ffmpeg(directory / "", "-i in.ts -t 3 -an -c:v copy picture.ts");
    ffmpeg(directory / "", "-i picture.ts -i in.ts -map 0:v -map 1:a -c copy longer.mkv");
    const ProgramResult result = encode({}, "longer.mkv");
    EXPECT_THAT(result.err, HasSubstr(" s of sound after the last picture are left out: HLS is as long as"));
    const Events events = events_of(directory / "out.m3u8");
    EXPECT_EQ(events.flashes.size(), 3u);
    EXPECT_EQ(events.clicks.size(), 3u);
}

TEST_F(Hls, LeavesAFolderAloneThatNoPlaylistNames) {
    fs::create_directory(directory / "out.segments");
    write_bytes(directory / "out.segments/thesis.txt", "years of work");
    const ProgramResult result = encode();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("which is of no playlist here; move it, or name another"));
    EXPECT_THAT(names_in("out.segments"), ElementsAre("thesis.txt"));
    EXPECT_FALSE(fs::exists(directory / "out.m3u8"));
}

TEST_F(Hls, HasNamesThatPlayersCanAskFor) {
    ASSERT_EQ(encode({}, "in.ts", "50% off #1.m3u8").status, 0);
    EXPECT_THAT(read_file(directory / "50% off #1.m3u8"),
                HasSubstr("\n50%25%20off%20%231.segments/picture.m3u8\n"));
}

TEST_F(Hls, SaysWhatItDoesNotTake) {
    EXPECT_THAT(run({"encode", directory / "in.ts", "-", "--format", "m3u8"}).err,
                HasSubstr("HLS is several files"));
    EXPECT_THAT(encode({"--sound", "mp2"}).err, HasSubstr("choose aac, ac3 or eac3"));
    EXPECT_THAT(encode({"--codec", "h.265", "--segments", "ts"}).err, HasSubstr("fmp4 alone"));
    EXPECT_THAT(encode({"--mux-rate", "5M"}).err, HasSubstr("name a .ts file"));
    EXPECT_THAT(encode({"--segments", "ts"}, "in.ts", "out.mp4").err, HasSubstr("name a .m3u8 file"));
    EXPECT_THAT(names_in(""), ElementsAre("in.ts"));
}

}  // namespace
