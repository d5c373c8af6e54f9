// Programmes of different kinds in and out: every picture, and every sample of sound.

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/flash_and_click.h"
#include "support/program.h"
#include "support/scratch.h"
#include "support/third_party.h"

namespace {

using namespace gsve::test;

struct Programme {
    std::string name;
    std::string made_by;  ///< ffmpeg's arguments behind the sources of picture and sound, and the file
    std::string out;
    std::vector<std::string> options = {};
    int tracks = 1;
    std::string rate = "25";
};

std::vector<Programme> programmes() {
    const std::string two = "-map 0:v -map 1:a -map 1:a ";
    return {
        {"MPEG-2 and MPEG audio, a transport stream", "-c:v mpeg2video -bf 2 -c:a mp2 in.ts", "out.ts"},
        {"H.264 and AAC, from MP4 to MP4", "-c:v libx264 -preset ultrafast -bf 2 -c:a aac in.mp4", "out.mp4"},
        {"ProRes and two tracks of PCM, from MOV to MOV",
         two + "-c:v prores_ks -c:a pcm_s16le in.mov",
         "out.mov",
         {},
         2},
        {"MPEG-2 and PCM, from MXF to MXF",
         "-c:v mpeg2video -c:a pcm_s24le in.mxf",
         "out.mxf",
         {"--codec", "mpeg-2"}},
        {"FLAC in six channels, from MKV to MKV",
         "-c:v libx264 -preset ultrafast -af aformat=channel_layouts=5.1 -c:a flac in.mkv", "out.mkv"},
        {"film and AC-3, from a transport stream to MP4",
         "-c:v mpeg2video -c:a ac3 in.ts",
         "out.mp4",
         {},
         1,
         "24000/1001"},
        {"interlaced pictures and two languages, to MOV",
         two + "-vf tinterlace=4 -flags +ildct+ilme -c:v mpeg2video -c:a ac3 -metadata:s:a:0 language=deu "
               "in.ts",
         "out.mov",
         {},
         2,
         "60000/1001"},
        {"VP9 and Opus, to MKV", "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -c:a libopus in.webm",
         "out.mkv"},
        {"motion JPEG and PCM, from AVI to MOV",
         "-c:v mjpeg -c:a pcm_s16le in.avi",
         "out.mov",
         {"--codec", "mpeg-2"}},
        {"PCM of 24 bits at 96 kHz, from MOV to MKV with H.265",
         "-c:v libx264 -preset ultrafast -ar 96000 -c:a pcm_s24le in.mov",
         "out.mkv",
         {"--codec", "h.265"}},
    };
}

/// A track's samples of all channels, 32 bits each.
std::string samples_of(const std::string& path, int track) {
    return output_of("ffmpeg -nostdin -v error -i '" + path + "' -map 0:a:" + std::to_string(track) +
                     " -f s32le -");
}

/// How many pictures FFmpeg decodes.
size_t pictures_in(const std::string& path) {
    const std::string lines = output_of("ffmpeg -nostdin -v error -i '" + path +
                                        "' -map 0:v:0 -fps_mode passthrough -f framehash -hash "
                                        "adler32 - | grep -v '^#'");
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n'));
}

class Programmes : public testing::TestWithParam<Programme> {};

TEST_P(Programmes, ComeOutWithEveryPictureAndEverySample) {
    const Programme& programme = GetParam();
    const ScratchDirectory directory;
    ffmpeg(directory / "", flash_and_click(2, programme.rate) + programme.made_by);
    const std::string in = directory / programme.made_by.substr(programme.made_by.rfind(' ') + 1);
    const std::string out = directory / programme.out;
    std::vector<std::string> arguments = {"encode", in, out, "-y", "--strict"};
    arguments.insert(arguments.end(), programme.options.begin(), programme.options.end());
    const ProgramResult result = run(arguments);
    ASSERT_EQ(result.status, 0) << result.err;

    EXPECT_EQ(pictures_in(out), pictures_in(in));
    for (int track = 0; track < programme.tracks; track++) {
        const std::string before = samples_of(in, track), after = samples_of(out, track);
        ASSERT_GT(before.size(), 2 * 48000 * 4 * 9 / 10);
        EXPECT_EQ(after.size() / 4, before.size() / 4) << "samples of track " << track;
        const auto differs = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
        EXPECT_TRUE(after == before) << "track " << track << ", from sample "
                                     << (differs.first - before.begin()) / 4 << " on";
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Programmes, testing::ValuesIn(programmes()), [](const auto& info) {
    std::string name = info.param.name;
    for (char& letter : name)
        if (!std::isalnum(static_cast<unsigned char>(letter))) letter = '_';
    return name;
});

}  // namespace
