// Sound and picture stay together, whatever an input's times are like: a flash and a click each second,
// encoded and decoded again, event by event.

#include <algorithm>
#include <cmath>
#include <fstream>
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
#include "support/soft_telecine.h"

namespace {

using namespace gsve::test;
using testing::HasSubstr;

constexpr double kSample = 1.0 / 48000;

struct Shape {
    std::string name;
    std::string input;                    ///< the file
    std::vector<double> flashes, clicks;  ///< the truth, from any zero
    std::vector<std::string> options = {};
    std::string note = {};  ///< that the program says
    double period = 0.04;   ///< of the output's pictures
};

struct Target {
    const char* extension;
    double tick;  ///< of the container, for sound
    std::vector<std::string> options = {};
    double smear = 0;  ///< by which a coded click begins early or late, in seconds
};

/// All inputs, made once.
class Inputs {
public:
    Inputs() {
        const std::string dir = directory_ / "";
        ffmpeg(dir,
               flash_and_click(4) + "-c:v libx264 -preset ultrafast -bf 2 -g 12 -c:a aac -b:a 128k aac.mp4");
        ffmpeg(dir, "-i aac.mp4 -c:v copy -c:a mp2 -b:a 128k mp2.ts");
        ffmpeg(dir, "-i mp2.ts -c copy -output_ts_offset 95441.7 -mpegts_copyts 1 wraps.ts");
        ffmpeg(dir, "-i mp2.ts -c copy -output_ts_offset 7000 later.ts");
        ffmpeg(dir, "-ss 1.7 -i aac.mp4 -c copy edited.mp4");
        ffmpeg(dir, "-i aac.mp4 -itsoffset 0.75 -i aac.mp4 -map 0:v -map 1:a -c copy late_sound.mov");
        ffmpeg(dir, "-itsoffset 0.75 -i aac.mp4 -i aac.mp4 -map 0:v -map 1:a -c copy late_picture.mov");
        ffmpeg(dir, flash_and_click(4) +
                        "-vf \"select='not(mod(n,3))+lt(mod(n+15,25),2)'\" -fps_mode vfr -c:v libx264 "
                        "-preset ultrafast "
                        "-c:a pcm_s16le uneven.mkv");
        ffmpeg(dir,
               flash_and_click(6) +
                   "-vf \"setpts='if(gte(T,2.999),PTS+20/TB,PTS)'\" -af \"asetnsamples=1000,asetpts="
                   "'if(gte(T,2.999),PTS+20/TB,PTS)'\" -fps_mode vfr -c:v libx264 -preset ultrafast -c:a "
                   "pcm_s16le paused.mkv");
        ffmpeg(dir,
               flash_and_click(4, "24000/1001") + "-c:v mpeg2video -b:v 1M -bf 2 -c:a ac3 -b:a 96k film.ts");
        ffmpeg(dir,
               flash_and_click(4, "24000/1001") +
                   "-an -vf crop=160:96 -flags +ildct+ilme -c:v mpeg2video -b:v 1M -bf 0 -g 12 film.m2v");
        write_bytes(path("telecine.m2v"), SoftTelecine(read_file(path("film.m2v")), false).stream());
        put_into_container(path("telecine.m2v"), path("silent.ts"));
        ffmpeg(dir,
               "-i silent.ts " + flash_and_click(4) + "-map 0:v -map 2:a -c:v copy -c:a mp2 telecine.ts");
        join("mp2.ts", "mp2.ts", "again.ts");
        join("mp2.ts", "later.ts", "forward.ts");
        join("later.ts", "mp2.ts", "back.ts");
    }

    std::string path(const std::string& name) const { return directory_ / name; }

private:
    void join(const char* first, const char* second, const char* to) const {
        write_bytes(path(to), read_file(path(first)) + read_file(path(second)));
    }

    ScratchDirectory directory_;
};

const Inputs& inputs() {
    static const Inputs made;
    return made;
}

std::vector<double> every_second(int from, int count) {
    std::vector<double> times;
    for (int n = 0; n < count; n++) times.push_back(from + n + 0.4);
    return times;
}

std::vector<double> operator+(std::vector<double> times, double by) {
    for (double& time : times) time += by;
    return times;
}

std::vector<double> operator+(std::vector<double> first, const std::vector<double>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::vector<Shape> shapes() {
    const auto four = every_second(0, 4), eight = every_second(0, 8);
    const auto paused = every_second(0, 3) + every_second(23, 3);
    return {
        {"priming samples in an edit list", "aac.mp4", four, four},
        {"a transport stream's start", "mp2.ts", four, four},
        {"a clock of 33 bits that wraps", "wraps.ts", four, four},
        {"an edit list that begins in the middle", "edited.mp4", every_second(2, 2), every_second(2, 2)},
        {"sound that starts late", "late_sound.mov", four, four + 0.75},
        {"pictures that start late", "late_picture.mov", four + 0.75, four},
        {"an uneven rate", "uneven.mkv", four, four, {"--rate", "25"}},
        {"half of the pictures", "mp2.ts", four, four, {"--set", "frame rate limit=13"}, "", 0.08},
        {"twice the pictures", "mp2.ts", four, four, {"--rate", "50"}, "", 0.02},
        {"film", "film.ts", four, four, {}, "", 1001.0 / 24000},
        {"soft telecine", "telecine.ts", four, four, {}, "", 0.075},
        {"a pause that is filled",
         "paused.mkv",
         paused,
         paused,
         {},
         "no picture for 20.000 s: the one before is repeated"},
        {"a pause that stays",
         "paused.mkv",
         paused,
         paused,
         {"--longest-repeat", "10"},
         "no picture for 20.000 s: the output has none either"},
        {"a recording after itself", "again.ts", eight, eight, {}, "the input's clock jumps by -4."},
        {"a clock that jumps ahead", "forward.ts", eight, eight, {}, "the input's clock jumps by +69"},
        {"a clock that jumps back", "back.ts", eight, eight, {}, "the input's clock jumps by -70"},
    };
}

class Timing : public testing::TestWithParam<Shape> {
protected:
    Timing() { av_log_set_level(AV_LOG_QUIET); }

    void expect_together(const Target& target) {
        const Shape& shape = GetParam();
        const std::string out = directory_ / ("out" + std::string(target.extension));
        std::vector<std::string> arguments = {
            "encode", inputs().path(shape.input), out,     "-y",
            "--set",  "bitrate=1000000",          "--set", "h.264 preset=ultrafast"};
        arguments.insert(arguments.end(), shape.options.begin(), shape.options.end());
        arguments.insert(arguments.end(), target.options.begin(), target.options.end());
        const bool is_mxf = std::string_view(target.extension) == ".mxf";
        const ProgramResult result = run(arguments);
        if (is_mxf && shape.period == 0.08) {
            EXPECT_THAT(result.err, HasSubstr("MXF has 24, 25, 30, 50 or 60 pictures/s"));
            return;
        }
        ASSERT_EQ(result.status, 0) << result.err;
        if (!is_mxf) {
            EXPECT_THAT(result.err, HasSubstr(shape.note));
        }
        const Events events = events_of(out);
        EXPECT_EQ(events.errors, 0);
        ASSERT_EQ(events.flashes.size(), shape.flashes.size());
        std::vector<double> clicks = shape.clicks;
        // MXF is as long as its pictures, and HLS ends with them.
        if (is_mxf || std::string_view(target.extension) == ".m3u8")
            std::erase_if(clicks, [&](double time) {
                return (is_mxf && time < shape.flashes.front() - 0.4) || time > shape.flashes.back() + 0.6;
            });
        ASSERT_EQ(events.clicks.size(), clicks.size());
        // The zero is the output's own; it is that of the sound.
        const double zero = events.clicks.back() - clicks.back();
        const double heard = std::max(target.tick, kSample) + target.smear + 3 * kSample;
        for (size_t n = 0; n < clicks.size(); n++)
            EXPECT_NEAR(events.clicks[n] - zero, clicks[n], heard) << "click " << n;
        for (size_t n = 0; n < shape.flashes.size(); n++) {
            EXPECT_NEAR(events.flashes[n] - zero, shape.flashes[n], shape.period / 2 + heard)
                << "flash " << n;
        }
    }

private:
    ScratchDirectory directory_;
};

TEST_P(Timing, IsKeptInEveryContainer) {
    const Target targets[] = {
        {".ts", 1.0 / 90000},
        {".mp4", 1.0 / 48000},
        {".mov", 1.0 / 48000},
        {".mkv", 1.0 / 1000},
        {".ts", 1.0 / 90000, {"--codec", "mpeg-2", "--sound", "ac3"}, 0.0005},
        {".mp4", 1.0 / 48000, {"--sound", "aac"}, 0.0005},
        {".mxf", 1.0 / 48000, {"--codec", "mpeg-2"}, 0.0005},
        {".m3u8", 1.0 / 90000, {"--segments", "ts"}, 0.0005},
        {".m3u8", 1.0 / 48000, {"--segments", "fmp4"}, 0.0005},
    };
    for (const Target& target : targets) {
        SCOPED_TRACE(std::string(target.extension) +
                     (target.options.empty() ? "" : " " + target.options.back()));
        expect_together(target);
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Timing, testing::ValuesIn(shapes()), [](const auto& info) {
    std::string name = info.param.name;
    for (char& letter : name)
        if (!std::isalnum(static_cast<unsigned char>(letter))) letter = '_';
    return name;
});

}  // namespace
