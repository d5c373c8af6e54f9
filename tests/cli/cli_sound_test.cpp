// Sound that is brought to a loudness, and what the reports tell of every stream.

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavutil/log.h>
}

#include "programme/ac3_metadata.h"
#include "support/flash_and_click.h"
#include "support/media_files.h"
#include "support/program.h"
#include "support/scratch.h"
#include "support/third_party.h"

namespace {

using namespace gsve::test;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// What FFmpeg's meter says of a track.
struct Measured {
    double loudness = 0, true_peak = 0;
};

Measured measure(const std::string& path, int track) {
    const std::string command = "ffmpeg -nostdin -hide_banner -i '" + path +
                                "' -map 0:a:" + std::to_string(track) +
                                " -af ebur128=peak=true:framelog=verbose -f null -";
    const std::string said = output_of(command);
    const auto number_after = [&](const char* name) {
        const size_t at = said.rfind(name);
        if (at == said.npos) throw std::runtime_error("no " + std::string(name) + " in " + said);
        return std::strtod(said.c_str() + at + std::string(name).size(), nullptr);
    };
    return {.loudness = number_after("    I:"), .true_peak = number_after("    Peak:")};
}

class Sound : public testing::Test {
protected:
    Sound() { av_log_set_level(AV_LOG_QUIET); }

    ProgramResult encode(const std::string& in, const std::string& out, std::vector<std::string> more) {
        std::vector<std::string> arguments = {"encode", directory / in, directory / out,
                                              "-y",     "--set",        "bitrate=300000"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }

    /// A quiet track of PCM, and a loud one of AC-3 in six channels.
    void make_two_tracks() const {
        ffmpeg(
            directory / "",
            "-f lavfi -i color=gray:s=64x48:r=25:d=4 -f lavfi -i anoisesrc=c=pink:a=0.02:r=48000:d=4:seed=1 "
            "-f lavfi -i anoisesrc=c=pink:a=0.9:r=44100:d=4:seed=2,aformat=channel_layouts=5.1 -map 0 -map 1 "
            "-map 2 -c:v mpeg2video -c:a:0 pcm_s16le -c:a:1 ac3 -metadata:s:a:1 language=deu two.mkv");
    }

    ScratchDirectory directory;
};

TEST_F(Sound, IsBroughtToALoudnessInEveryTrack) {
    make_two_tracks();
    const Measured sources[] = {measure(directory / "two.mkv", 0), measure(directory / "two.mkv", 1)};
    for (const auto& [out, target] :
         {std::pair("out.mkv", -23.0), std::pair("out.ts", -24.0), std::pair("out.mxf", -30.0)}) {
        SCOPED_TRACE(out);
        std::vector<std::string> options = {"--loudness", std::to_string(target), "--report", "json"};
        // A codec that keeps noise as loud as it is.
        if (out == std::string("out.ts"))
            options.insert(options.end(), {"--sound", "ac3", "--sound-bitrate", "448k"});
        const ProgramResult result = encode("two.mkv", out, options);
        ASSERT_EQ(result.status, 0) << result.err;
        const json streams = json::parse(result.out)["streams"];
        ASSERT_EQ(streams.size(), 2u);
        for (int track = 0; track < 2; track++) {
            const Measured &before = sources[track], after = measure(directory / out, track);
            EXPECT_NEAR(after.loudness, target, 0.3) << track;
            EXPECT_NEAR(streams[track]["loudness"]["integrated"], before.loudness, 0.2) << track;
            EXPECT_NEAR(streams[track]["loudness"]["true_peak"], before.true_peak, 0.2) << track;
            EXPECT_NEAR(streams[track]["loudness_out"]["integrated"], after.loudness, 0.1) << track;
            EXPECT_NEAR(streams[track]["loudness_out"]["true_peak"], after.true_peak, 0.2) << track;
        }
    }
}

TEST_F(Sound, StaysInItsCodecWhereOnlyItsLoudnessChanges) {
    make_two_tracks();
    const ProgramResult result = encode("two.mkv", "out.mkv", {"--loudness", "-23"});
    EXPECT_THAT(result.out, HasSubstr("stream 1  sound, pcm_s16le to pcm_s16le"));
    EXPECT_THAT(result.out, HasSubstr("stream 2  sound deu, ac3 to ac3"));
    EXPECT_THAT(result.out, HasSubstr("loudness  -23.0 LUFS, true peak "));
    EXPECT_THAT(encode("two.mkv", "out.mkv", {"--loudness", "-23", "--sound", "aac"}).out,
                HasSubstr("stream 2  sound deu, ac3 to aac"));
}

TEST_F(Sound, TellsItsLoudnessAsDialogueLevel) {
    make_two_tracks();
    for (const auto& [loudness, level] :
         {std::pair("-24", -24), std::pair("-26.6", -27), std::pair("-40", -31)}) {
        ASSERT_EQ(encode("two.mkv", "out.ts", {"--loudness", loudness, "--sound", "ac3"}).status, 0);
        ffmpeg(directory / "", "-i out.ts -map 0:a:1 -c copy out.ac3");
        const std::string bytes = read_file(directory / "out.ac3");
        const auto metadata =
            gsve::programme::ac3_metadata({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
        ASSERT_TRUE(metadata);
        EXPECT_EQ(metadata->dialogue_level, level);
    }
}

TEST_F(Sound, IsLimitedWhereItsPeaksWouldGoTooHigh) {
    ffmpeg(directory / "", flash_and_click(6) + "-c:v mpeg2video -g 12 -c:a pcm_s24le clicks.mov");
    const Measured before = measure(directory / "clicks.mov", 0);
    ASSERT_GT(before.true_peak - before.loudness, 16) << "one gain alone would bring the peaks to -1 dBTP";
    const double target = before.loudness - before.true_peak + 5;
    for (const double highest : {-1.0, -3.0}) {
        const ProgramResult result =
            encode("clicks.mov", "out.mov",
                   {"--loudness", std::to_string(target), "--true-peak", std::to_string(highest)});
        ASSERT_EQ(result.status, 0) << result.err;
        const Measured after = measure(directory / "out.mov", 0);
        EXPECT_LE(after.true_peak, highest + 0.1);
        EXPECT_GT(after.true_peak, highest - 0.5);
        EXPECT_GT(after.loudness, before.loudness - before.true_peak + highest - 0.2);
        EXPECT_THAT(result.err, HasSubstr("its peaks had to be limited to " +
                                          std::string(highest == -1 ? "-1.0" : "-3.0")));

        const Events source = events_of(directory / "clicks.mov"), events = events_of(directory / "out.mov");
        ASSERT_EQ(events.clicks.size(), 6u);
        for (size_t n = 0; n < events.clicks.size(); n++)
            EXPECT_NEAR(events.clicks[n] - events.flashes[n], source.clicks[n] - source.flashes[n], 0.0005)
                << n;
    }
}

TEST_F(Sound, StaysAsItIsWhereItHasNoLoudness) {
    ffmpeg(
        directory / "",
        "-f lavfi -i color=gray:s=64x48:r=25:d=2 -f lavfi -i anullsrc=r=48000 -shortest -c:v mpeg2video -c:a "
        "pcm_s16le silent.mkv");
    const ProgramResult result = encode("silent.mkv", "out.mkv", {"--loudness", "-23", "--report", "json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err,
                HasSubstr("stream 1 (sound, pcm_s16le) is too quiet or short to have a loudness"));
    const json stream = json::parse(result.out)["streams"][0];
    EXPECT_TRUE(stream["loudness"]["integrated"].is_null());
    EXPECT_TRUE(stream["loudness"]["true_peak"].is_null());
}

TEST_F(Sound, IsMeasuredInFilesAlone) {
    make_two_tracks();
    const std::string in = directory / "two.mkv", out = directory / "out.ts";
    EXPECT_THAT(run({"encode", "-", out, "--loudness", "-23"}).err,
                HasSubstr("--loudness reads the input twice"));
    EXPECT_THAT(run({"encode", in, directory / "out.m2v", "--loudness", "-23"}).err,
                HasSubstr("no room for sound"));
    EXPECT_THAT(run({"encode", in, out, "--loudness", "-23", "--no-sound"}).err, HasSubstr("contradict"));
    EXPECT_THAT(run({"encode", in, out, "--true-peak", "-2"}).err, HasSubstr("--loudness"));
    EXPECT_EQ(run({"encode", in, out, "--loudness", "3"}).status, 2);
    EXPECT_FALSE(std::filesystem::exists(out));
}

TEST_F(Sound, AndAllOtherStreamsAreAccountedFor) {
    make_two_tracks();
    write_bytes(directory / "titles.srt", "1\n00:00:00,200 --> 00:00:00,900\nOne.\n");
    ffmpeg(directory / "", "-i two.mkv -i titles.srt -map 0 -map 1 -c copy -c:s subrip three.mkv");
    const ProgramResult result = encode("three.mkv", "out.ts", {"--report", "json"});
    ASSERT_EQ(result.status, 0);
    const json streams = json::parse(result.out)["streams"];
    ASSERT_EQ(streams.size(), 3u);
    EXPECT_EQ(streams[0]["number"], 1);
    EXPECT_EQ(streams[0]["treatment"], "converted");
    EXPECT_EQ(streams[0]["codec"], "pcm_s16le");
    EXPECT_EQ(streams[0]["codec_out"], "aac");
    EXPECT_TRUE(streams[0]["loudness"].is_null());
    EXPECT_EQ(streams[1]["treatment"], "carried");
    EXPECT_EQ(streams[1]["language"], "deu");
    EXPECT_GT(streams[1]["packets"], 100);
    EXPECT_EQ(streams[1]["why_left_out"], "");
    EXPECT_EQ(streams[2]["kind"], "subtitles");
    EXPECT_EQ(streams[2]["treatment"], "left out");
    EXPECT_THAT(streams[2]["why_left_out"], HasSubstr("TS does not take it"));
    EXPECT_THAT(encode("three.mkv", "out.ts", {}).out, HasSubstr("  stream 2  sound deu, ac3 as it is, "));
}

}  // namespace
