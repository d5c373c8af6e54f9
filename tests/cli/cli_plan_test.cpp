// A programme in chunks is the programme in one piece: its pictures, captions, time codes and sound.

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "programme/stream_inspection.h"
#include "support/film_clip.h"
#include "support/flash_and_click.h"
#include "support/program.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"
#include "support/third_party.h"

namespace {

using namespace gsve::test;
using gsve::programme::Gop;
using gsve::programme::InspectedStream;
using testing::HasSubstr;

constexpr int kSeconds = 7;

/// SCC that rolls up a row each second, with its number, in CC1.
std::string numbered_rows(int rows) {
    const auto with_parity = [](char letter) {
        const auto bits = static_cast<unsigned>(letter);
        return __builtin_popcount(bits) % 2 ? bits : bits | 0x80;
    };
    std::ostringstream text;
    text << "Scenarist_SCC V1.0\n";
    for (int row = 0; row < rows; row++) {
        char time[16], name[16], word[8];
        std::snprintf(time, sizeof time, "00:00:%02d:%02d", row / 2, row % 2 * 12 + 3);
        std::snprintf(name, sizeof name, "ROW %04d", row);
        text << "\n" << time << "\t9425 9425 94ad 94ad 9470 9470";
        for (int n = 0; n < 8; n += 2) {
            std::snprintf(word, sizeof word, " %02x%02x", with_parity(name[n]), with_parity(name[n + 1]));
            text << word;
        }
        text << "\n";
    }
    return text.str();
}

struct Division {
    std::string name;
    std::string source;  ///< ffmpeg's arguments behind picture and sound, and the file
    std::string out;
    std::vector<std::string> options;
    std::string rate = "30000/1001";
    bool captioned_source = false;  ///< the input carries captions, which a first encoding gave it
    std::string extra = {};         ///< of the source's picture: a filter
    int divider = 1;
};

std::vector<Division> divisions() {
    const std::string mpeg2 = "-c:v mpeg2video -q:v 4 -bf 2 -c:a mp2 in.ts";
    const std::string h264 =
        "-c:v libx264 -preset ultrafast -x264-params open-gop=1:keyint=24:bframes=2 -c:a aac in.mp4";
    return {
        {"MPEG-2 at a constant rate with captions of a file",
         mpeg2,
         "out.ts",
         {"--codec", "mpeg-2", "--set", "bitrate=2000000", "--timecode", "09:59:58;10"}},
        {"MPEG-2 at a variable rate",
         mpeg2,
         "out.ts",
         {"--codec", "mpeg-2", "--set", "bitrate=1500000", "--set", "min bitrate=0", "--set",
          "max bitrate=3000000"}},
        {"H.264 with a decoder's buffer",
         h264,
         "out.mov",
         {"--codec", "h.264", "--set", "bitrate=1000000", "--set", "enable h.264 nal hrd=1", "--timecode",
          "10:00:00:00"}},
        {"H.264 at a constant rate with the captions of its input",
         mpeg2,
         "out.ts",
         {"--codec", "h.264", "--set", "bitrate=1000000", "--set", "enable h.264 nal hrd=1"},
         "30000/1001",
         true},
        {"H.265 with the captions of its input",
         h264,
         "out.mkv",
         {"--codec", "h.265", "--set", "bitrate=800000", "--timecode", "10:00:00:00"},
         "30000/1001",
         true},
        {"60 pictures/s divided by two",
         h264,
         "out.mp4",
         {"--codec", "h.264", "--set", "frame rate limit=30"},
         "60000/1001",
         false,
         "",
         2},
        {"60 pictures/s, fields of captions by turns",
         mpeg2,
         "out.ts",
         {"--codec", "mpeg-2", "--set", "bitrate=2500000"},
         "60000/1001",
         true},
        {"film at the full rate of captions", h264, "out.ts", {"--codec", "h.264"}, "24000/1001", true},
        {"a variable rate",
         "-c:v libx264 -preset ultrafast -fps_mode vfr -c:a aac in.mp4",
         "out.mp4",
         {"--codec", "h.264"},
         "30000/1001",
         false,
         "select='not(eq(mod(n\\,7)\\,3))'"},
        {"HLS", mpeg2, "out.m3u8", {"--codec", "h.264"}},
        {"MXF", mpeg2, "out.mxf", {"--codec", "mpeg-2", "--set", "bitrate=2000000"}, "25"},
        {"an elementary stream", "-c:v mpeg2video -q:v 4 -an in.m2v", "out.m2v", {"--codec", "mpeg-2"}},
    };
}

std::string name_of(const testing::TestParamInfo<Division>& info) {
    std::string name;
    for (const char letter : info.param.name)
        if (std::isalnum(static_cast<unsigned char>(letter))) name += letter;
    return name;
}

/// Of each picture against the source's, in dB.
std::vector<double> quality_of(const std::string& path, const std::string& source, const Division& division) {
    // Pictures of a variable rate are brought to a constant one, others may have times that waver.
    const std::string steady = division.extra.empty() ? "" : "fps=" + division.rate + ",";
    const std::string reference =
        division.divider == 1 ? "" : "select=not(mod(n\\," + std::to_string(division.divider) + ")),";
    const std::string figures = path + ".psnr";
    output_of("ffmpeg -nostdin -v fatal -i '" + path + "' -i '" + source +
              "' -lavfi \"[0:v]setpts=N/25/TB[a];[1:v]" + steady + reference +
              "setpts=N/25/TB[b];[a][b]psnr=stats_file='" + figures + "'\" -f null -");
    std::vector<double> quality;
    std::istringstream lines(read_file(figures));
    for (std::string line; std::getline(lines, line);)
        if (const size_t at = line.find("psnr_avg:"); at != std::string::npos)
            quality.push_back(std::min(std::stod(line.substr(at + 9)), 60.0));
    return quality;
}

std::string sound_of(const std::string& path) {
    return output_of("ffmpeg -nostdin -v error -i '" + path + "' -map 0:a -f s32le -");
}

/// Whether the picture behind the GOP's only one begins a closed GOP.
bool closes_before_join(const InspectedStream& stream, const Gop& gop) {
    return std::any_of(stream.gops.begin(), stream.gops.end(), [&](const Gop& other) {
        return other.start.closed && other.picture == gop.picture + 1;
    });
}

class Divided : public testing::TestWithParam<Division> {
protected:
    ProgramResult succeed(const std::vector<std::string>& arguments) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.status, 0) << testing::PrintToString(arguments) << "\n" << result.err;
        return result;
    }

    /// Joins, and has chunks save bits for those behind them where the program asks for it.
    ProgramResult join(const std::string& plan) {
        constexpr int kMost = 25;
        ProgramResult result;
        for (int n = 0; n < kMost; n++) {
            result = run({"join", plan, "-y"});
            const size_t chunk = result.err.find("gsve chunk " + plan);
            if (result.status == 0 || chunk == std::string::npos ||
                result.err.find("--save") == std::string::npos)
                break;
            std::istringstream words(result.err.substr(chunk));
            std::string word, number, bits;
            words >> word >> word >> word >> number >> word >> bits;
            succeed({"chunk", plan, number, "--save", bits, "-q"});
        }
        EXPECT_EQ(result.status, 0) << result.err;
        return result;
    }

    std::string file_of_captions() {
        std::ofstream(directory / "rows.scc") << numbered_rows(2 * kSeconds - 3);
        return directory / "rows.scc";
    }

    std::string make_source(const Division& division) {
        const std::string name = division.source.substr(division.source.rfind(' ') + 1);
        const std::string filter = division.extra.empty() ? "" : " -vf \"" + division.extra + "\"";
        ffmpeg(directory / "", "-f lavfi -i testsrc2=s=320x180:r=" + division.rate +
                                   " -f lavfi -i sine=f=440:r=48000 -t " + std::to_string(kSeconds) + filter +
                                   " " + division.source);
        if (!division.captioned_source) return directory / name;
        const std::string captioned = directory / ("captioned" + name.substr(name.find('.')));
        succeed({"encode", directory / name, captioned, "--captions", file_of_captions(), "--codec",
                 name == "in.ts" ? "mpeg-2" : "h.264", "--set", "bitrate=3000000", "-q"});
        return captioned;
    }

    ScratchDirectory directory;
};

TEST_P(Divided, IsAsInOnePiece) {
    const Division& division = GetParam();
    const std::string source = make_source(division);
    const std::string extension = division.out.substr(division.out.find('.'));
    const std::string one = directory / ("one" + extension), joined = directory / division.out;
    std::vector<std::string> options = division.options;
    const bool has_sound = division.source.find("-an") == std::string::npos;
    if (!division.captioned_source) options.insert(options.end(), {"--captions", file_of_captions()});
    std::vector<std::string> encode = {"encode", source, one, "-q", "--set", "maximum threads=1"};
    encode.insert(encode.end(), options.begin(), options.end());
    succeed(encode);
    const std::string plan = directory / "film.plan.json";
    std::vector<std::string> planned = {"plan", source, joined, "--chunks", "2s", "-o", plan};
    planned.insert(planned.end(), options.begin(), options.end());
    succeed(planned);
    const size_t chunks = nlohmann::json::parse(read_file(plan)).at("chunks").size();
    EXPECT_GE(chunks, 3u);
    if (has_sound) succeed({"chunk", plan, "sound", "-q"});
    for (size_t n = chunks; n-- > 0;) succeed({"chunk", plan, std::to_string(n), "-q"});
    const ProgramResult join = this->join(plan);

    InspectedStream whole, parts;
    stderr_of([&] {
        whole = gsve::programme::read_stream(one, true);
        parts = gsve::programme::read_stream(joined, true);
    });
    EXPECT_EQ(parts.problem, "");
    EXPECT_FALSE(parts.damage.any());
    ASSERT_EQ(parts.pictures.size(), whole.pictures.size());
    size_t with_captions = 0;
    for (size_t n = 0; n < whole.pictures.size(); n++) {
        EXPECT_TRUE(parts.pictures[n].captions.cc_data == whole.pictures[n].captions.cc_data) << n;
        EXPECT_EQ(parts.pictures[n].time, whole.pictures[n].time) << n;
        const auto& cc = whole.pictures[n].captions.cc_data;
        with_captions += cc && std::any_of(cc->begin(), cc->end(), [](uint8_t byte) {
                             return byte != 0 && byte != 0x80 && byte < 0xF8;
                         });
    }
    EXPECT_GT(with_captions, 40u);
    // Only GOPs that begin with the same picture shown have the same time code.
    std::map<int64_t, const Gop*> gops;
    for (const Gop& gop : whole.gops) gops[gop.picture] = &gop;
    for (const Gop& gop : parts.gops) {
        const auto same = gops.find(gop.picture);
        // MPEG-2's encoder closes the stream before a join with an I-picture.
        EXPECT_TRUE(same != gops.end() || closes_before_join(parts, gop))
            << "an I-picture that the one piece has not: " << gop.picture;
        if (same == gops.end() || same->second->start.closed != gop.start.closed) continue;
        EXPECT_EQ(same->second->start.timecode, gop.start.timecode) << gop.picture;
    }
    if (parts.buffer && whole.buffer->holds()) {
        EXPECT_TRUE(parts.buffer->holds()) << join.out;
    }
    if (has_sound) {
        EXPECT_TRUE(sound_of(joined) == sound_of(one));
    }

    const std::vector<double> before = quality_of(one, source, division),
                              after = quality_of(joined, source, division);
    ASSERT_EQ(before.size(), after.size());
    for (size_t n = 0; n < after.size(); n++) EXPECT_GT(after[n], 15) << "another picture in place of " << n;
}

INSTANTIATE_TEST_SUITE_P(Programmes, Divided, testing::ValuesIn(divisions()), name_of);

class DividedFilm : public Divided {};

/// The rate control of a part begins where the whole programme's would be.
TEST_P(DividedFilm, IsAsGoodBehindEachJoin) {
    const Division& division = GetParam();
    const std::string source = directory / "film.ts";
    // Forwards and backwards, without a cut that real films have seldom.
    ffmpeg(directory / "",
           "-i '" + film_clip_path() +
               "' -filter_complex '[0:v]scale=360:202,split[a][b];[b]reverse[r];[a][r]concat=n=2,loop=1:380,"
               "setpts=N/25/TB' -t 20 -c:v mpeg2video -q:v 2 -g 15 -bf 2 -an film.ts");
    const std::string one = directory / ("one" + division.out), joined = directory / division.out;
    const std::string plan = directory / "film.plan.json";
    std::vector<std::string> encode = {"encode", source, one, "-q", "--set", "maximum threads=1"};
    std::vector<std::string> planned = {"plan", source, joined, "--chunks", "5s", "-o", plan, "-q"};
    encode.insert(encode.end(), division.options.begin(), division.options.end());
    planned.insert(planned.end(), division.options.begin(), division.options.end());
    succeed(encode);
    succeed(planned);
    constexpr size_t kChunks = 4, kBehind = 12;
    for (size_t n = 0; n < kChunks; n++) succeed({"chunk", plan, std::to_string(n), "-q"});
    join(plan);
    const std::vector<double> before = quality_of(one, source, division),
                              after = quality_of(joined, source, division);
    ASSERT_EQ(after.size(), 500u);
    ASSERT_EQ(before.size(), after.size());
    const nlohmann::json chunks = nlohmann::json::parse(read_file(plan)).at("chunks");
    ASSERT_EQ(chunks.size(), kChunks);
    double lost = 0, worst = -100;
    for (size_t n = 1; n < kChunks; n++) {
        const auto begin = chunks[n].at("range").at("begin").get<ptrdiff_t>();
        const auto mean = [&](const std::vector<double>& of) {
            return std::accumulate(of.begin() + begin, of.begin() + begin + kBehind, 0.0) / kBehind;
        };
        const double difference = mean(before) - mean(after);
        lost += difference / (kChunks - 1);
        worst = std::max(worst, difference);
    }
    std::printf("%s: %.2f dB below the one piece behind a join, %.2f at worst\n", division.name.c_str(), lost,
                worst);
    EXPECT_LE(lost, division.options[1] == "mpeg-2" ? 1.0 : 0.3);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, DividedFilm,
    testing::Values(
        Division{"MPEG-2", "", "out.m2v", {"--codec", "mpeg-2", "--set", "bitrate=1000000"}, "25"},
        Division{"H.264", "", "out.h264", {"--codec", "h.264", "--set", "bitrate=500000"}, "25"}),
    name_of);

}  // namespace
