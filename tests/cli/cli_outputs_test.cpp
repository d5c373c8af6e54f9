// Where a programme may go beside a file of its own name: standard output, a transport stream made to order,
// places for a time code; and what is said where it cannot go on.

#include <cstdlib>
#include <map>
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

using namespace gsve::test;
using testing::AllOf;
using testing::HasSubstr;

/// A transport stream's clock references in seconds, and where they stand.
std::vector<std::pair<double, size_t>> clocks_of(const std::string& path) {
    const std::string bytes = read_file(path);
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(bytes[at]); };
    std::vector<std::pair<double, size_t>> clocks;
    for (size_t at = 0; at + kTransportPacket <= bytes.size(); at += kTransportPacket) {
        if (!(byte(at + 3) & 0x20) || byte(at + 4) < 7 || !(byte(at + 5) & 0x10)) continue;
        const uint64_t base = static_cast<uint64_t>(byte(at + 6)) << 25 | byte(at + 7) << 17 |
                              byte(at + 8) << 9 | byte(at + 9) << 1 | byte(at + 10) >> 7;
        const uint64_t extension = (byte(at + 10) & 1) << 8 | byte(at + 11);
        clocks.emplace_back(static_cast<double>(base * 300 + extension) / 27e6, at + 11);
    }
    return clocks;
}

class Outputs : public testing::Test {
protected:
    Outputs() {
        av_log_set_level(AV_LOG_QUIET);
        ffmpeg(directory / "",
               flash_and_click(3) + "-c:v mpeg2video -b:v 800k -g 12 -bf 2 -c:a mp2 -b:a 128k in.ts");
    }

    /// The exit status of a command line; what it says is in err.txt.
    int shell(const std::string& command) {
        const int status =
            std::system(("cd '" + (directory / "") + "' && { " + command + "; } 2>err.txt").c_str());
        err = read_file(directory / "err.txt");
        return WEXITSTATUS(status);
    }

    ProgramResult encode(const std::string& out, std::vector<std::string> more) {
        std::vector<std::string> arguments = {"encode", directory / "in.ts", directory / out, "-y"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }

    void expect_together(const std::string& path) {
        const Events events = events_of(path);
        ASSERT_EQ(events.flashes.size(), 3u);
        ASSERT_EQ(events.clicks.size(), 3u);
        for (size_t n = 0; n < 3; n++) EXPECT_NEAR(events.clicks[n], events.flashes[n], 0.021) << n;
    }

    ScratchDirectory directory;
    std::string err;
    const std::string gsve = gsve_program();
};

TEST_F(Outputs, MayBeStandardStreams) {
    for (const std::string format : {"ts", "mkv", "mp4", "mov"}) {
        SCOPED_TRACE(format);
        EXPECT_EQ(shell(gsve + " encode - - --format " + format + " <in.ts | cat >out." + format), 0);
        EXPECT_THAT(err, HasSubstr("75 in, 75 out")) << "the summary stands beside the stream";
        expect_together(directory / ("out." + format));
    }
    EXPECT_EQ(shell(gsve + " encode in.ts - -q --format h264 >out.h264"), 0);
    EXPECT_THAT(read_file(directory / "out.h264").substr(0, 4), std::string("\0\0\0\1", 4));
    EXPECT_EQ(shell(gsve + " encode in.ts - >out"), 2);
    EXPECT_THAT(err, HasSubstr("give --format, for example --format ts"));
    EXPECT_EQ(shell(gsve + " encode in.ts - --format avi >out"), 2);
    EXPECT_THAT(err, HasSubstr("\"avi\" is none of"));
}

TEST_F(Outputs, TellOfAReaderThatGoesAway) {
    shell("mkfifo pipe; head -c 20000 <pipe >/dev/null & " + gsve +
          " encode in.ts - -q --format ts --set bitrate=8000000 --set \"min bitrate=8000000\" --codec mpeg-2 "
          ">pipe; echo "
          "status $? >&2");
    EXPECT_THAT(err, AllOf(HasSubstr("gsve: cannot write -: Broken pipe; keep its reader running"),
                           HasSubstr("status 1")));
}

TEST_F(Outputs, TellOfAFullDisk) {
    for (const std::string format : {"ts", "mkv", "h264"}) {
        EXPECT_EQ(shell(gsve + " encode in.ts /dev/full -q --format " + format), 1);
        EXPECT_THAT(
            err,
            HasSubstr(
                "gsve: cannot write /dev/full: No space left on device; make room, or name another disk"))
            << format;
    }
}

TEST_F(Outputs, AreTransportStreamsMadeToOrder) {
    const ProgramResult result =
        encode("out.ts",
               {"--mux-rate", "4M", "--set", "bitrate=2000000", "--service-name", "Channel One", "--provider",
                "The House", "--program-number", "7", "--pmt-pid", "0x200", "--pids", "0x201,0x202"});
    ASSERT_EQ(result.status, 0) << result.err;
    expect_together(directory / "out.ts");

    AVFormatContext* input = nullptr;
    ASSERT_GE(avformat_open_input(&input, (directory / "out.ts").c_str(), nullptr, nullptr), 0);
    ASSERT_GE(avformat_find_stream_info(input, nullptr), 0);
    ASSERT_EQ(input->nb_programs, 1u);
    EXPECT_EQ(input->programs[0]->id, 7);
    EXPECT_EQ(input->programs[0]->pmt_pid, 0x200);
    EXPECT_STREQ(av_dict_get(input->programs[0]->metadata, "service_name", nullptr, 0)->value, "Channel One");
    EXPECT_STREQ(av_dict_get(input->programs[0]->metadata, "service_provider", nullptr, 0)->value,
                 "The House");
    EXPECT_EQ(input->streams[0]->id, 0x201);
    EXPECT_EQ(input->streams[1]->id, 0x202);
    avformat_close_input(&input);

    // Between two clock references, as many bits as the rate has in their time (ISO/IEC 13818-1, 2.4.3.5).
    const auto clocks = clocks_of(directory / "out.ts");
    ASSERT_GT(clocks.size(), 20u);
    for (size_t n = 1; n < clocks.size(); n++) {
        const double bits = 8.0 * static_cast<double>(clocks[n].second - clocks[0].second);
        EXPECT_NEAR(clocks[n].first - clocks[0].first, bits / 4e6, 1e-6) << n;
    }
}

TEST_F(Outputs, FitIntoTheRateThatTheRefusalNames) {
    const std::vector<std::string> options = {"--codec", "mpeg-2", "--rate", "50", "--set", "bitrate=300000"};
    const auto with_rate = [&](const std::string& rate) {
        std::vector<std::string> all = options;
        all.insert(all.end(), {"--mux-rate", rate});
        return encode("out.ts", all);
    };
    const std::string said = with_rate("300k").err, before = "give at least ";
    ASSERT_THAT(said, HasSubstr(before));
    const double needed = std::stod(said.substr(said.find(before) + before.size()));
    ASSERT_EQ(with_rate(std::to_string(static_cast<int>(needed))).status, 0);
    const auto clocks = clocks_of(directory / "out.ts");
    // What did not fit would make the clock run on behind the last picture.
    EXPECT_NEAR(clocks.back().first - clocks.front().first, 3, 0.1);
}

TEST_F(Outputs, AreRefusedWhereATransportStreamCannotBeSo) {
    const std::pair<std::vector<std::string>, const char*> rows[] = {
        {{"--mux-rate", "2M", "--set", "bitrate=2000000"},
         "--mux-rate 2000000 is too low for the picture, the sound"},
        {{"--pids", "0x100,0x100"}, "256 is given twice"},
        {{"--pids", "8191"}, "--pids takes 32 to 8190, not 8191"},
        {{"--pmt-pid", "16"}, "--pmt-pid takes 32 to 8190, not 16"},
    };
    for (const auto& [options, said] : rows) {
        const ProgramResult result = encode("out.ts", options);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr(said));
    }
    const ProgramResult other = encode("out.mp4", {"--mux-rate", "4M"});
    EXPECT_EQ(other.status, 2);
    EXPECT_THAT(other.err, HasSubstr("name a .ts file"));
}

TEST_F(Outputs, CarryATimeCodeFromContainerToContainer) {
    const auto timecode_of = [&](const std::string& name) {
        AVFormatContext* input = nullptr;
        std::string found;
        if (avformat_open_input(&input, (directory / name).c_str(), nullptr, nullptr) < 0 ||
            avformat_find_stream_info(input, nullptr) < 0)
            return std::string("cannot be read");
        std::vector<const AVDictionary*> places = {input->metadata};
        for (unsigned n = 0; n < input->nb_streams; n++) places.push_back(input->streams[n]->metadata);
        for (const AVDictionary* place : places)
            if (const AVDictionaryEntry* entry = av_dict_get(place, "timecode", nullptr, 0))
                found = entry->value;
        avformat_close_input(&input);
        return found;
    };
    ASSERT_EQ(encode("first.mov", {"--timecode", "10:11:12:13", "--no-sound"}).status, 0);
    EXPECT_EQ(timecode_of("first.mov"), "10:11:12:13");
    std::string last = "first.mov";
    for (const std::string name : {"a.mp4", "b.mkv", "c.mxf", "d.mov"}) {
        const ProgramResult result = run({"encode", directory / last, directory / name, "--codec", "mpeg-2"});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(timecode_of(name), "10:11:12:13") << name;
        last = name;
    }
}

TEST_F(Outputs, GoOnWhereOnePacketInAHundredIsLost) {
    const std::string bytes = read_file(directory / "in.ts");
    std::string left;
    std::map<int, size_t> seen;
    for (size_t at = 0; at < bytes.size(); at += kTransportPacket) {
        const int pid =
            (static_cast<uint8_t>(bytes[at + 1]) & 0x1F) << 8 | static_cast<uint8_t>(bytes[at + 2]);
        if (seen[pid]++ % 100 != 60) left += bytes.substr(at, kTransportPacket);
    }
    write_bytes(directory / "in.ts", left);
    const ProgramResult result = encode("out.mkv", {});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err,
                AllOf(HasSubstr("the input is damaged"), HasSubstr("(sound, mp2"), HasSubstr("damaged")));
    const Events events = events_of(directory / "out.mkv");
    ASSERT_GE(events.flashes.size(), 2u);
    ASSERT_GE(events.clicks.size(), 2u);
    for (const double click : events.clicks) {
        double nearest = 1;
        for (const double flash : events.flashes) nearest = std::min(nearest, std::abs(click - flash));
        EXPECT_LT(nearest, 0.1) << "a click at " << click << " without a flash";
    }
}

}  // namespace
