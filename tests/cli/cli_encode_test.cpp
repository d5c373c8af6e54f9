// gsve encode, from its command line to what a player makes of the files.

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <numeric>
#include <random>
#include <regex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/clip.h"
#include "support/program.h"

namespace {

using namespace gsve::test;
using nlohmann::json;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

constexpr unsigned kPictures = 26;

json report_of(const ProgramResult& result) { return json::parse(result.out); }

/// The pictures of a decoded clip are those of `numbers`, in order.
void expect_pictures(const DecodedClip& clip, const ClipFormat& format, const std::vector<unsigned>& numbers,
                     unsigned source_pictures) {
    ASSERT_EQ(clip.pictures.size(), numbers.size());
    EXPECT_EQ(clip.errors, 0);
    for (size_t n = 0; n < numbers.size(); n++) {
        EXPECT_EQ(recognise(clip.pictures[n], format, source_pictures), numbers[n]) << "picture " << n;
        EXPECT_GT(luma_psnr(clip.pictures[n], format, numbers[n]), 30) << "picture " << n;
    }
}

/// Every picture is shown at its source frame number, and decoding times rise and never pass presentation.
void expect_times(const DecodedClip& clip, const ClipFormat& format, const std::vector<unsigned>& numbers) {
    ASSERT_EQ(clip.pictures.size(), numbers.size());
    const double origin = clip.pictures[0].seconds - numbers[0] / av_q2d(format.rate);
    for (size_t n = 0; n < numbers.size(); n++)
        EXPECT_NEAR((clip.pictures[n].seconds - origin) * av_q2d(format.rate), numbers[n], 0.05)
            << "picture " << n;
    for (size_t n = 0; n < clip.packet_dts.size(); n++) {
        if (clip.packet_dts[n] == AV_NOPTS_VALUE) continue;  // Matroska keeps presentation times only
        EXPECT_LE(clip.packet_dts[n], clip.packet_pts[n]) << "packet " << n;
        if (n > 0) {
            EXPECT_GT(clip.packet_dts[n], clip.packet_dts[n - 1]) << "packet " << n;
        }
    }
}

/// Names of the files in a directory, in order.
std::vector<std::string> files_in(const ScratchDirectory& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory / "."))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

/// Writes pictures into a named pipe, and ends them when it goes.
class PictureFeed {
public:
    PictureFeed(const std::string& path, const ClipFormat& format, unsigned pictures)
        : pipe_(open(path.c_str(), O_WRONLY)) {
        std::string bytes = y4m_header(format);
        for (unsigned n = 0; n < pictures; n++) bytes += y4m_picture(format, n);
        for (size_t written = 0; written < bytes.size();) {
            const ssize_t count = write(pipe_, bytes.data() + written, bytes.size() - written);
            if (count <= 0) throw std::runtime_error("nobody reads the pictures");
            written += static_cast<size_t>(count);
        }
    }
    ~PictureFeed() { close(pipe_); }
    PictureFeed(const PictureFeed&) = delete;
    PictureFeed& operator=(const PictureFeed&) = delete;

    /// Until the reader has taken all that is in the pipe.
    void wait_until_read() const {
        using namespace std::chrono_literals;
        for (int tries = 0; tries < 60'000; tries++) {
            int waiting = 0;
            if (ioctl(pipe_, FIONREAD, &waiting) == 0 && waiting == 0) return;
            std::this_thread::sleep_for(1ms);
        }
        throw std::runtime_error("the reader does not read on");
    }

private:
    int pipe_;
};

std::vector<unsigned> every(unsigned step, unsigned pictures) {
    std::vector<unsigned> numbers;
    for (unsigned n = 0; n < pictures; n += step) numbers.push_back(n);
    return numbers;
}

struct Codec {
    const char* name;
    const char* extension;
    AVCodecID id;
};
constexpr Codec kCodecs[] = {{"mpeg-2", ".m2v", AV_CODEC_ID_MPEG2VIDEO},
                             {"h.264", ".h264", AV_CODEC_ID_H264},
                             {"h.265", ".h265", AV_CODEC_ID_HEVC}};

class EncodeCommand : public testing::Test {
protected:
    std::string y4m(const ClipFormat& format, unsigned pictures = kPictures) {
        const std::string path = directory / "in.y4m";
        write_y4m(path, format, pictures);
        return path;
    }
    ScratchDirectory directory;
};

class EncodeToContainer : public EncodeCommand,
                          public testing::WithParamInterface<std::tuple<Codec, const char*>> {};

TEST_P(EncodeToContainer, CarriesEveryPictureOnceAtItsTime) {
    const auto& [codec, extension] = GetParam();
    const ClipFormat format = {.rate = {30000, 1001}};
    const std::string out = directory / (std::string("out") + extension);
    const ProgramResult result = run({"encode", y4m(format), out, "--codec", codec.name, "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;

    const DecodedClip clip = decode_clip(out);
    EXPECT_EQ(clip.codec, codec.id);
    expect_pictures(clip, format, every(1, kPictures), kPictures);
    expect_times(clip, format, every(1, kPictures));

    std::map<std::string, int> types;
    for (const ClipPicture& picture : clip.pictures) types[{picture.type}]++;
    EXPECT_EQ(report_of(result)["pictures"]["types"].get<decltype(types)>(), types);
    EXPECT_GT(types["B"], 0) << "nothing is reordered here";
}

INSTANTIATE_TEST_SUITE_P(Grid, EncodeToContainer,
                         testing::Combine(testing::ValuesIn(kCodecs),
                                          testing::Values(".ts", ".mp4", ".mkv")));

class EncodeToElementaryStream : public EncodeCommand, public testing::WithParamInterface<Codec> {};

TEST_P(EncodeToElementaryStream, TakesTheCodecFromTheNameAndCarriesEveryPicture) {
    const ClipFormat format;
    const std::string out = directory / (std::string("out") + GetParam().extension);
    const ProgramResult result = run({"encode", y4m(format), out, "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const DecodedClip clip = decode_clip(out);
    EXPECT_EQ(clip.codec, GetParam().id);
    expect_pictures(clip, format, every(1, kPictures), kPictures);

    const json report = report_of(result);
    EXPECT_EQ(report["encoder"], GetParam().name);
    EXPECT_EQ(report["pictures"]["in"], kPictures);
    EXPECT_EQ(report["pictures"]["out"], kPictures);
    EXPECT_EQ(report["bytes"], read_file(out).size());
    EXPECT_GT(report["pictures"]["held_back"], 0);
    EXPECT_NEAR(report["bit_rate"]["mean"].get<double>(), read_file(out).size() * 8.0 * 25 / kPictures, 1);
    const json& status = report["status"];
    EXPECT_EQ(status.size(), 4u) << status;
    EXPECT_THAT(status["active"].get<std::string>(), HasSubstr("1,res=128x96"));
    for (const char* subject : {"debug status", "last error", "last notes"})
        EXPECT_TRUE(status.contains(subject)) << subject;
}

INSTANTIATE_TEST_SUITE_P(Codecs, EncodeToElementaryStream, testing::ValuesIn(kCodecs));

class EncodeAtDividedRate : public EncodeCommand,
                            public testing::WithParamInterface<std::tuple<Codec, unsigned, const char*>> {};

TEST_P(EncodeAtDividedRate, ShowsEachRemainingPictureAtItsSourceTime) {
    const auto& [codec, divider, per_frame] = GetParam();
    const ClipFormat format = {.rate = {60, 1}};
    const std::string limit = "frame rate limit=" + std::to_string(60 / divider);
    const std::string control = std::string("constant bitrate per frame=") + per_frame;
    const std::string out = directory / "out.mp4";
    const ProgramResult result = run({"encode", y4m(format, 40), out, "--codec", codec.name, "--set", limit,
                                      "--set", control, "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;

    const std::vector<unsigned> numbers = every(divider, 40);
    const DecodedClip clip = decode_clip(out);
    expect_pictures(clip, format, numbers, 40);
    expect_times(clip, format, numbers);
    const json pictures = report_of(result)["pictures"];
    EXPECT_EQ(pictures["in"], 40);
    EXPECT_EQ(pictures["out"], numbers.size());
    EXPECT_EQ(pictures["skipped"], 40 - numbers.size());
    EXPECT_EQ(pictures["dropped"], 0);
    EXPECT_EQ(pictures["lost"], 0);
}

INSTANTIATE_TEST_SUITE_P(Grid, EncodeAtDividedRate,
                         testing::Combine(testing::ValuesIn(kCodecs), testing::Values(1u, 2u, 3u),
                                          testing::Values("0", "1")));

TEST_F(EncodeCommand, KeepsTimesWithoutBPictures) {
    const ClipFormat format;
    const std::string out = directory / "out.mp4";
    ASSERT_EQ(run({"encode", y4m(format), out, "--set", "b frames=0"}).status, 0);
    const DecodedClip clip = decode_clip(out);
    expect_pictures(clip, format, every(1, kPictures), kPictures);
    expect_times(clip, format, every(1, kPictures));
    EXPECT_EQ(clip.packet_pts, clip.packet_dts);
}

TEST_F(EncodeCommand, FailsRatherThanMisplacePicturesWhenTheirTimesAreLost) {
    const ProgramResult result =
        run({"encode", y4m({}, 100), directory / "out.mp4", "--set", "constant bitrate per frame=1", "--set",
             "h.264 preset=placebo", "--set", "b frames=16"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("choose a faster \"h.264 preset\""));
}

TEST_F(EncodeCommand, CountsPicturesDroppedForTheBitRate) {
    const std::string out = directory / "out.ts";
    const ProgramResult result =
        run({"encode", y4m({}, 60), out, "--codec", "mpeg-2", "--set", "drop frame for bitrate limit=on",
             "--set", "bitrate=20000", "--set", "min bitrate=0", "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const json pictures = report_of(result)["pictures"];
    EXPECT_GT(pictures["dropped"], 0);
    EXPECT_EQ(pictures["out"].get<int>() + pictures["dropped"].get<int>(), 60);
    const DecodedClip clip = decode_clip(out);
    EXPECT_EQ(clip.pictures.size(), pictures["out"]);
    for (size_t n = 1; n < clip.packet_dts.size(); n++) EXPECT_GT(clip.packet_dts[n], clip.packet_dts[n - 1]);
}

TEST_F(EncodeCommand, CropsOddSizesAndSaysSo) {
    const ClipFormat format = {.width = 131, .height = 97};
    const std::string out = directory / "out.mp4";
    const ProgramResult result = run({"encode", y4m(format), out});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("cropped from 131x97 to 130x96"));
    const DecodedClip clip = decode_clip(out);
    EXPECT_EQ(clip.pictures[0].width, 130);
    EXPECT_EQ(clip.pictures[0].height, 96);
    expect_pictures(clip, format, every(1, kPictures), kPictures);
}

class EncodeInterlaced : public EncodeCommand,
                         public testing::WithParamInterface<std::tuple<const char*, char>> {};

TEST_P(EncodeInterlaced, CarriesTheFieldOrder) {
    const auto& [codec, interlacing] = GetParam();
    const ClipFormat format = {.interlacing = interlacing};
    const std::string out = directory / "out.mp4";
    ASSERT_EQ(run({"encode", y4m(format), out, "--codec", codec}).status, 0);
    for (const ClipPicture& picture : decode_clip(out).pictures) {
        EXPECT_EQ(picture.interlaced, interlacing != 'p');
        EXPECT_EQ(picture.top_field_first, interlacing == 't');
    }
}

INSTANTIATE_TEST_SUITE_P(Grid, EncodeInterlaced,
                         testing::Combine(testing::Values("mpeg-2", "h.264"),
                                          testing::Values('p', 't', 'b')));

TEST_F(EncodeCommand, KeepsWholeLinePairsInEachFieldOfInterlacedPictures) {
    const std::string out = directory / "out.mp4";
    const ProgramResult result = run({"encode", y4m({.height = 98, .interlacing = 't'}), out});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(decode_clip(out).pictures[0].height, 96);
}

class EncodeAspectRatio : public EncodeCommand, public testing::WithParamInterface<Codec> {};

TEST_P(EncodeAspectRatio, CarriesTheDisplayAspectRatio) {
    const ClipFormat format = {.width = 720, .height = 576, .sample_aspect = {64, 45}};  // 16:9
    const std::string out = directory / (std::string("out") + GetParam().extension);
    ASSERT_EQ(run({"encode", y4m(format, 3), out}).status, 0);
    const AVRational sample = decode_clip(out).pictures.at(0).sample_aspect;
    EXPECT_EQ(av_cmp_q(sample, {64, 45}), 0) << sample.num << ":" << sample.den;
}

INSTANTIATE_TEST_SUITE_P(Codecs, EncodeAspectRatio, testing::ValuesIn(kCodecs));

TEST_F(EncodeCommand, TakesSamplesAsSquareWhenTheSourceDoesNotTell) {
    const std::string out = directory / "out.mp4";
    ASSERT_EQ(run({"encode", y4m({.width = 160, .height = 90, .sample_aspect = {0, 0}}, 3), out}).status, 0);
    EXPECT_EQ(av_cmp_q(decode_clip(out).pictures.at(0).sample_aspect, {1, 1}), 0);
}

TEST_F(EncodeCommand, HandsOverFourTwoTwo) {
    const ClipFormat format = {.shift_x = 1, .shift_y = 0};
    const std::string out = directory / "out.ts";
    ASSERT_EQ(run({"encode", y4m(format), out, "--codec", "mpeg-2"}).status, 0);
    const DecodedClip clip = decode_clip(out);
    EXPECT_EQ(clip.pictures.at(0).format, AV_PIX_FMT_YUV422P);
    expect_pictures(clip, format, every(1, kPictures), kPictures);
}

TEST_F(EncodeCommand, ConvertsPixelFormatsThatNoCodecHas) {
    const ClipFormat dv = {.shift_x = 2, .shift_y = 0};
    const std::string out = directory / "out.mp4";
    const ProgramResult result = run({"encode", y4m(dv), out});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("converted from yuv411p to yuv420p"));
    expect_pictures(decode_clip(out), dv, every(1, kPictures), kPictures);
}

std::vector<int64_t> regular_times(unsigned pictures, int64_t period_ms) {
    std::vector<int64_t> times;
    for (unsigned n = 0; n < pictures; n++) times.push_back(n * period_ms);
    return times;
}

TEST_F(EncodeCommand, ConvertsTenBitPictures) {
    const std::string in = directory / "in.mkv";
    const std::string out = directory / "out.mp4";
    const ClipFormat format;
    write_mkv(in, format, regular_times(kPictures, 40), AV_PIX_FMT_YUV420P10);
    const ProgramResult result = run({"encode", in, out});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("converted from yuv420p10le to yuv420p"));
    expect_pictures(decode_clip(out), format, every(1, kPictures), kPictures);
}

TEST_F(EncodeCommand, SaysWhatIsConvertedOrLeftOut) {
    const std::string in = directory / "in.mkv";
    write_mkv(in, {}, regular_times(kPictures, 40), AV_PIX_FMT_YUV420P, true);
    const ProgramResult result = run({"encode", in, directory / "out.m2v"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(
        result.err,
        HasSubstr("stream 1 (sound, pcm_s16le) is left out: an elementary stream has room for "
                  "the picture alone; a name in .ts or .mp4 or .mov or .mkv or .mxf or .m3u8 takes it"));
    EXPECT_THAT(run({"encode", in, directory / "quiet.m2v", "--no-sound"}).err, Not(HasSubstr("stream 1")));
}

TEST_F(EncodeCommand, RepeatsPicturesToMakeAVariableFrameRateConstant) {
    const ClipFormat format = {.rate = {25, 1}};
    const std::string in = directory / "in.mkv";
    const std::string out = directory / "out.mp4";
    std::vector<int64_t> times;
    std::vector<unsigned> shown;  // source picture in each 40 ms
    for (unsigned n = 0; n < 24; n++) {
        times.push_back(static_cast<int64_t>(shown.size()) * 40);
        shown.insert(shown.end(), n % 3 == 1 ? 3 : 1, n);
    }
    shown.resize(times.back() / 40 + 1);
    write_mkv(in, format, times);
    const ProgramResult result = run({"encode", in, out, "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(report_of(result)["pictures"]["decoded"], 24);

    const DecodedClip clip = decode_clip(out);
    ASSERT_GE(clip.pictures.size(), shown.size());
    for (size_t n = 0; n < shown.size(); n++)
        EXPECT_EQ(recognise(clip.pictures[n], format, 24), shown[n]) << "picture " << n;
}

TEST_F(EncodeCommand, ChangesTheFrameRateOnRequest) {
    const ClipFormat format = {.rate = {50, 1}};
    const std::string out = directory / "out.mp4";
    const ProgramResult result = run({"encode", y4m(format, 40), out, "--rate", "25"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("the frame rate is 50.000: made 25.000 pictures/s"));
    const DecodedClip clip = decode_clip(out);
    EXPECT_EQ(clip.pictures.size(), 20u);
    for (size_t n = 1; n < clip.pictures.size(); n++)
        EXPECT_NEAR(clip.pictures[n].seconds - clip.pictures[n - 1].seconds, 0.04, 1e-6);
}

TEST_F(EncodeCommand, GoesOnWhereARecordingsClockRestarts) {
    const ClipFormat format;
    const std::string part = directory / "part.ts";
    const std::string joined = directory / "joined.ts";
    const std::string out = directory / "out.mp4";
    ASSERT_EQ(run({"encode", y4m(format, 30), part, "--codec", "mpeg-2"}).status, 0);
    std::ofstream(joined, std::ios::binary) << read_file(part) << read_file(part);
    ASSERT_EQ(run({"encode", joined, out}).status, 0);
    std::vector<unsigned> twice = every(1, 30);
    twice.insert(twice.end(), twice.begin(), twice.begin() + 30);
    expect_pictures(decode_clip(out), format, twice, 30);
}

/// A y4m file of pictures whose samples are black or white at random, the hardest that there is to code.
std::string noise(const std::string& path, int width, int height, int pictures) {
    std::ofstream file(path, std::ios::binary);
    file << "YUV4MPEG2 W" << width << " H" << height << " F25:1 Ip A1:1 C420jpeg\n";
    std::mt19937 random(1);
    for (int n = 0; n < pictures; n++) {
        file << "FRAME\n";
        for (int i = 0; i < width * height * 3 / 2; i++) file.put(random() % 2 == 0 ? '\0' : '\xff');
    }
    return path;
}

TEST_F(EncodeCommand, WarnsOfAConstantMpeg2RateThatNoiseWouldBreak) {
    const std::string in = noise(directory / "noise.y4m", 320, 240, 4);
    const std::vector<std::string> command = {"encode", in, directory / "out.m2v", "-y", "--codec", "mpeg-2"};
    const auto with = [&](const std::vector<std::string>& more) {
        std::vector<std::string> whole = command;
        whole.insert(whole.end(), more.begin(), more.end());
        return run(whole);
    };
    // 320 x 240 x 1.5 samples of 3.8 bits in 65535 / 90000 s, and the most that captions take.
    const std::string said = "at a constant 200000 bits/s a noisy picture can take more than the 0.73 s";
    for (const char* loudness : {"--verbose", "--quiet"}) {
        const ProgramResult broken = with({"--set", "bitrate=200000", loudness});
        EXPECT_EQ(broken.status, 128 + SIGABRT);
        EXPECT_THAT(broken.err, HasSubstr(said));
        EXPECT_THAT(broken.err, HasSubstr("--set \"min bitrate=0\", or --set \"buffer size=145635\", or give "
                                          "617198 bits/s"));
    }
    const std::vector<std::string> remedies[] = {
        {"--set", "bitrate=200000", "--set", "min bitrate=0"},
        {"--set", "bitrate=200000", "--set", "buffer size=145635"},
        {"--set", "bitrate=617198"},
    };
    for (const std::vector<std::string>& remedy : remedies) {
        const ProgramResult result = with(remedy);
        EXPECT_EQ(result.status, 0) << remedy.back() << ": " << result.err;
        EXPECT_THAT(result.err, Not(HasSubstr("noisy"))) << remedy.back();
    }
    EXPECT_EQ(with({"--set", "bitrate=200000", "--set", "buffer size=145634"}).status, 128 + SIGABRT);
    EXPECT_THAT(with({"--set", "bitrate=200000", "--codec", "h.264"}).err, Not(HasSubstr("noisy")));
}

TEST_F(EncodeCommand, WarnsOfAConstantMpeg2RateThatStillPicturesWouldBreak) {
    const std::string in = y4m({.width = 64, .height = 48, .rate = {25, 1}}, 3);
    const auto encode = [&](const std::string& setting) {
        return run({"encode", in, directory / "out.m2v", "-y", "-q", "--set", "maximum threads=1", "--set",
                    setting});
    };
    const ProgramResult result = encode("bitrate=2143401");
    EXPECT_EQ(result.status, 0) << "three pictures do not fill the buffer";
    EXPECT_THAT(result.err, HasSubstr("--set \"min bitrate=0\", or give at most 2143400 bits/s"));
    for (const char* remedy : {"bitrate=2143400", "min bitrate=0"}) {
        const ProgramResult remedied = encode(remedy);
        EXPECT_EQ(remedied.status, 0);
        EXPECT_EQ(remedied.err, "");
    }
}

TEST_F(EncodeCommand, RefusesOddSizesForMpeg2WhateverTheChroma) {
    const ProgramResult result = run({"encode", y4m({}, 3), directory / "out.m2v", "--codec", "mpeg-2",
                                      "--set", "resize=33x32", "--set", "chroma format=4:4:4"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("\"resize\" takes even sizes"));
}

TEST_F(EncodeCommand, ShowsProgressOnATerminal) {
    const std::string in = y4m({});
    const std::string out = directory / "out.ts";
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        execl(gsve_program(), gsve_program(), "encode", in.c_str(), out.c_str(), nullptr);
        _exit(127);
    }
    std::string shown;
    char bytes[4096];
    for (ssize_t count; (count = read(terminal, bytes, sizeof bytes)) > 0;) shown.append(bytes, count);
    int status = -1;
    waitpid(child, &status, 0);
    close(terminal);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(
        std::regex_search(shown, std::regex("picture [0-9]+  [0-9.]+ pictures/s  [0-9.]+x  [0-9.]+ Mbit/s  "
                                            "+[0-9]+%  left [0-9]+:[0-9]{2}\r")))
        << shown;
    EXPECT_EQ(shown.find("codec delay"), std::string::npos) << "in the middle of progress: " << shown;
}

TEST_F(EncodeCommand, SummarisesForAReader) {
    const ProgramResult result =
        run({"encode", y4m({.rate = {50, 1}}, 60), directory / "out.ts", "--set", "frame rate limit=25"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("out.ts: h.264 128x96 at 25.000 pictures/s"));
    EXPECT_THAT(result.out, HasSubstr("60 in, 30 out"));
    EXPECT_THAT(result.out, HasSubstr("30 skipped by the frame-rate limit, 0 dropped for the bit rate"));
    EXPECT_THAT(result.out, HasSubstr("Mbit/s mean"));
    EXPECT_THAT(result.err, Not(HasSubstr("\033"))) << "no progress bar without a terminal";
}

TEST_F(EncodeCommand, PrintsStatusPairsAsText) {
    const ProgramResult result = run({"encode", y4m({}), directory / "main.ts", "--report", "text", "--quiet",
                                      "--set", "enable cea-708=1"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("*main, active: 1,res=128x96"));
    EXPECT_THAT(result.out, HasSubstr("efc=26"));
    EXPECT_THAT(result.out, HasSubstr("*main, last error: "));
    EXPECT_THAT(result.out,
                HasSubstr("*main, last notes: Encoding to pixel format 4:2:0, Making room for 708 CC data in "
                          "bitrate, 14512 bits/sec\n"));
    EXPECT_THAT(result.out, Not(HasSubstr("Mbit/s mean")));
}

TEST_F(EncodeCommand, AppliesSettings) {
    const std::string out = directory / "out.m2v";
    const ProgramResult result =
        run({"encode", y4m({}), out, "--set", "gop size=4", "--set", "b frames = 0", "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(report_of(result)["pictures"]["types"], (json{{"I", 7}, {"P", 19}}));
}

TEST_F(EncodeCommand, ShowsWhyTheCodecDoesNotOpenAndLeavesNoFile) {
    const std::string out = directory / "out.ts";
    const ProgramResult result = run({"encode", y4m({}), out, "--set", "h.264 level=none such"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("gsve: the h.264 encoder does not open: Unable to open encoder "
                                      "(Encoding to pixel format 4:2:0"));
    EXPECT_FALSE(std::filesystem::exists(out));
}

struct Misfit {
    const char* name;                   ///< of the output
    std::vector<std::string> settings;  ///< that the codec refuses
    const char* advice;
    std::vector<std::string> remedy;  ///< settings that follow the advice
    char interlacing = 'p';
};

class EncodeRefused : public EncodeCommand, public testing::WithParamInterface<Misfit> {};

TEST_P(EncodeRefused, SaysWhatToChangeAndThenOpens) {
    const Misfit& misfit = GetParam();
    std::vector<std::string> arguments = {
        "encode", y4m({.rate = {50, 1}, .interlacing = misfit.interlacing}, 3), directory / misfit.name};
    for (const std::string& setting : misfit.settings) arguments.insert(arguments.end(), {"--set", setting});
    const ProgramResult refused = run(arguments);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr(misfit.advice));
    for (const std::string& setting : misfit.remedy) arguments.insert(arguments.end(), {"--set", setting});
    const ProgramResult taken = run(arguments);
    EXPECT_EQ(taken.status, 0) << taken.err;
}

INSTANTIATE_TEST_SUITE_P(
    Settings, EncodeRefused,
    testing::Values(
        Misfit{"out.h265", {"b frames=0"}, "--set \"h.264 profile=main\"", {"h.264 profile=main"}},
        Misfit{"out.h265", {"b frames=17"}, "--set \"b frames=16\"", {"b frames=16"}},
        Misfit{"out.h264",
               {"resize=65x49", "chroma format=4:4:4"},
               "--set \"h.264 profile=high444\"",
               {"h.264 profile=high444"}},
        Misfit{"out.h264", {"resize=64x50"}, "multiples of 4: change \"resize\"", {"resize=64x52"}, 't'},
        Misfit{"out.m2v",
               {"frame rate limit=2"},
               "--set \"buffer size=3000000\" --set \"min bitrate=0\"",
               {"buffer size=3000000", "min bitrate=0"}},
        Misfit{"out.m2v",
               {"max bitrate=5000000"},
               "\"max bitrate\" is below \"bitrate\"",
               {"max bitrate=7000000"}},
        Misfit{"out.m2v",
               {"minimum quant=20", "maximum quant=10"},
               "\"minimum quant\" is above \"maximum quant\"",
               {"minimum quant=5"}}));

TEST_F(EncodeCommand, FailsWhenTheCodecLosesPictures) {
    // At so high a constant rate a small picture is mostly stuffing: more than the codec has room for in a
    // packet, so that it gives the picture up.
    const ProgramResult result =
        run({"encode", y4m({.rate = {50, 1}}, 26), directory / "out.m2v", "--set", "frame rate limit=2",
             "--set", "buffer size=3000000", "--report", "json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_GT(report_of(result)["pictures"]["lost"], 0);
    EXPECT_THAT(result.err, HasSubstr("went into the codec and never came out"));
    EXPECT_THAT(result.err, HasSubstr("--set \"min bitrate=0\""));
}

TEST_F(EncodeCommand, FailsWhenItsReportCannotBeWritten) {
    for (const char* report : {"text", "json"}) {
        const ProgramResult result =
            Program({"encode", y4m({}), directory / "out.ts", "-y", "-q", "--report", report}, "/dev/full")
                .wait();
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("gsve: cannot write the results to standard output: No space left "
                                          "on device"));
    }
}

TEST_F(EncodeCommand, KeepsWhatLibrariesReportToItselfUnlessAsked) {
    const std::string in = y4m({});
    const std::string out = directory / "out.h265";
    for (const char* loudness : {"", "--quiet"}) {
        std::vector<std::string> command = {"encode", in, out, "-y"};
        if (*loudness) command.emplace_back(loudness);
        const ProgramResult result = run(command);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "") << loudness;
    }
    const std::string all = run({"encode", in, out, "-y", "--verbose"}).err;
    for (const char* of_library : {"x265 [info]", "Source frame rate", "codec delay"})
        EXPECT_THAT(all, HasSubstr(of_library));
    EXPECT_THAT(run({"encode", in, directory / "out.ts", "--verbose"}).err, HasSubstr("[libx264"));
}

TEST_F(EncodeCommand, ShowsWhatLibrariesReportedWhereItFails) {
    const ProgramResult result =
        run({"encode", y4m({}), directory / "out.ts", "--quiet", "--set", "h.264 level=none such"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Error parsing option 'level' with value 'none such'"));
    EXPECT_LT(result.err.find("Unable to open encoder\n"), result.err.find("gsve: the h.264 encoder"))
        << "what led to the failure comes before it";
}

TEST_F(EncodeCommand, ShowsWhatLibrariesReportedWhereTheProcessAbortsAndLeavesNoFile) {
    const std::string in = noise(directory / "noise.y4m", 320, 240, 4);
    const ProgramResult result =
        run({"encode", in, directory / "out.m2v", "--set", "bitrate=200000", "--quiet"});
    EXPECT_EQ(result.status, 128 + SIGABRT);
    EXPECT_THAT(result.err, HasSubstr("Source frame rate"));
    EXPECT_THAT(result.err, HasSubstr("Assertion"));
    EXPECT_THAT(files_in(directory), testing::ElementsAre("noise.y4m"));
}

TEST_F(EncodeCommand, LeavesNoFileAndTheOldOneWhereItFails) {
    const std::string in = y4m({}, 100), out = directory / "out.mp4";
    std::ofstream(out) << "old";
    const ProgramResult result = run({"encode", in, out, "-y", "--set", "constant bitrate per frame=1",
                                      "--set", "h.264 preset=placebo", "--set", "b frames=16"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(read_file(out), "old");
    EXPECT_THAT(files_in(directory), testing::ElementsAre("in.y4m", "out.mp4"));
}

TEST_F(EncodeCommand, ShowsTheFileOnceItIsComplete) {
    const std::string in = directory / "in.y4m", out = directory / "out.ts";
    ASSERT_EQ(mkfifo(in.c_str(), 0600), 0);
    std::ofstream(out) << "old";
    const Program program({"encode", in, out, "-y"});
    {
        const PictureFeed feed(in, {}, kPictures);
        feed.wait_until_read();
        EXPECT_EQ(read_file(out), "old") << "while it is being written";
    }
    EXPECT_EQ(program.wait().status, 0);
    EXPECT_EQ(decode_clip(out).pictures.size(), kPictures);
    EXPECT_THAT(files_in(directory), testing::ElementsAre("in.y4m", "out.ts"));
}

TEST_F(EncodeCommand, ReplacesTheFileThatALinkLeadsToAndKeepsItsMode) {
    const std::string file = directory / "file.ts", link = directory / "link.ts";
    std::ofstream(file) << "old";
    std::filesystem::permissions(file, std::filesystem::perms(0640));
    std::filesystem::create_symlink("file.ts", link);
    ASSERT_EQ(run({"encode", y4m({}), link, "-y"}).status, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(decode_clip(file).pictures.size(), kPictures);
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0640));
}

TEST_F(EncodeCommand, WritesPipesAsTheyAre) {
    const std::string out = directory / "out.m2v", in = y4m({});
    ASSERT_EQ(mkfifo(out.c_str(), 0600), 0);
    const Program program({"encode", in, out});
    const std::string bytes = read_file(out);
    EXPECT_EQ(program.wait().status, 0);
    const std::string file = directory / "file.m2v";
    ASSERT_EQ(run({"encode", in, file}).status, 0);
    EXPECT_TRUE(bytes == read_file(file)) << bytes.size() << " bytes came through the pipe";
    EXPECT_TRUE(std::filesystem::is_fifo(out));
}

TEST_F(EncodeCommand, TakesFileNamesWithColons) {
    const std::string in = directory / "a:b.y4m";
    write_y4m(in, {}, kPictures);
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory / "");
    for (const char* name : {"12:30.ts", "12:30.mp4", "12:30.h264"}) {
        const ProgramResult result = run({"encode", "a:b.y4m", name});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_TRUE(std::filesystem::exists(directory / name)) << name;
        EXPECT_EQ(run({"inspect", name}).status, 0) << name;
    }
    std::filesystem::current_path(before);
}

TEST_F(EncodeCommand, TakesExtensionsInCapitals) {
    const std::string out = directory / "OUT.M2V";
    ASSERT_EQ(run({"encode", y4m({}), out}).status, 0);
    EXPECT_EQ(decode_clip(out).codec, AV_CODEC_ID_MPEG2VIDEO);
}

TEST_F(EncodeCommand, GivesTheSameBytesWhateverTheLoadUnlessItIsToAdapt) {
    // A picture of this size takes more than the tenth of a frame's time that "cpu threshhold" then grants.
    const std::string in = y4m({.width = 1280, .height = 720, .rate = {60, 1}}, 20);
    const std::string out = directory / "out.m2v";
    const auto encode_with = [&](std::vector<std::string> more) {
        std::vector<std::string> arguments = {"encode",   in,    out, "-y", "--set", "maximum threads=1",
                                              "--report", "json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.status, 0) << result.err;
        return std::pair(read_file(out), report_of(result)["adapts_to_load"].get<bool>());
    };
    const auto patient = encode_with({"--set", "cpu threshhold=0.95", "--set", "s_tune_cpu=0"});
    const std::vector<std::string> hurried = {"--set", "cpu threshhold=0.1", "--set", "s_tune_cpu=10000"};
    EXPECT_TRUE(encode_with(hurried) == patient) << "the load has changed the stream";
    EXPECT_FALSE(patient.second);

    std::vector<std::string> adapting = hurried;
    adapting.push_back("--adapt");
    const auto adapted = encode_with(adapting);
    EXPECT_FALSE(adapted.first == patient.first) << "the load has changed nothing";
    EXPECT_TRUE(adapted.second);
}

TEST_F(EncodeCommand, SaysWhetherTheLoadMattersAndOnHowManyThreads) {
    const std::string in = y4m({}), out = directory / "out.m2v";
    EXPECT_THAT(run({"encode", in, out, "--set", "maximum threads=1"}).out,
                HasSubstr("  threads   1, the same bytes each time\n"));
    EXPECT_THAT(run({"encode", in, out, "-y", "--set", "maximum threads=1", "--adapt"}).out,
                HasSubstr("  threads   1, quality follows the processor's load\n"));
    // Only MPEG-2 adapts.
    const std::string h264 = directory / "out.h264";
    EXPECT_THAT(run({"encode", in, h264, "--set", "maximum threads=1", "--adapt"}).out,
                HasSubstr("  threads   1, the same bytes each time\n"));
    EXPECT_THAT(
        run({"encode", in, h264, "-y", "--set", "maximum threads=2"}).out,
        AnyOf(HasSubstr("  threads   2, other bytes each time"), HasSubstr("  threads   1, the same")));
}

TEST_F(EncodeCommand, RefusesToRunDisabled) {
    EXPECT_EQ(run({"encode", y4m({}), directory / "out.ts", "--set", "enable=0"}).status, 2);
}

TEST_F(EncodeCommand, ReportsAMissingInput) {
    const ProgramResult result = run({"encode", directory / "none.mpg", directory / "out.ts"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("none.mpg: No such file or directory; check the name"));
}

TEST_F(EncodeCommand, ReportsAnInputThatIsNoMedia) {
    const std::string in = directory / "t.txt";
    std::ofstream(in) << "text\n";
    const ProgramResult result = run({"encode", in, directory / "out.ts"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("name a media file"));
}

TEST_F(EncodeCommand, ReportsAnInputWithoutPictures) {
    const std::string in = directory / "in.y4m";
    write_y4m(in, {}, 0);
    EXPECT_EQ(run({"encode", in, directory / "out.ts"}).status, 1);
}

TEST_F(EncodeCommand, ReportsAnOutputThatCannotBeWritten) {
    for (const char* name : {"no such directory/out.ts", "no such directory/out.m2v"}) {
        const ProgramResult result = run({"encode", directory / "not looked at", directory / name});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("out."));
        EXPECT_THAT(result.err, HasSubstr("no such directory; create it or name another"));
    }
}

TEST_F(EncodeCommand, ReportsAnOutputThatIsADirectory) {
    std::filesystem::create_directory(directory / "out.ts");
    const ProgramResult result = run({"encode", directory / "not looked at", directory / "out.ts", "-y"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("out.ts: it is a directory; name a file"));
}

TEST_F(EncodeCommand, ReportsAFullDisk) {
    for (const char* name : {"out.ts", "out.h264"}) {
        std::filesystem::create_symlink("/dev/full", directory / name);
        const ProgramResult result = run({"encode", y4m({}), directory / name});
        EXPECT_EQ(result.status, 1) << name;
        EXPECT_THAT(result.err, HasSubstr("No space left on device; make room")) << name;
    }
}

TEST_F(EncodeCommand, OverwritesOnlyOnRequestAndNeverItsInput) {
    const std::string in = directory / "in.mkv";
    const std::string out = directory / "out.mkv";
    write_mkv(in, {}, regular_times(kPictures, 40));
    const std::string input_bytes = read_file(in);
    ASSERT_EQ(run({"encode", in, out}).status, 0);
    const ProgramResult refused = run({"encode", in, out});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("exists: give -y to overwrite it"));
    EXPECT_EQ(run({"encode", in, out, "-y"}).status, 0);
    EXPECT_EQ(run({"encode", in, in, "-y"}).status, 2);
    EXPECT_EQ(read_file(in), input_bytes);
}

TEST_F(EncodeCommand, FinishesTheFileWhenTheSourceChangesItsSize) {
    const std::string first = directory / "first.h264";
    const std::string second = directory / "second.h264";
    const std::string joined = directory / "joined.h264";
    const std::string out = directory / "out.mp4";
    ASSERT_EQ(run({"encode", y4m({}, 20), first}).status, 0);
    ASSERT_EQ(run({"encode", y4m({.width = 192}, 20), second}).status, 0);
    std::ofstream(joined, std::ios::binary) << read_file(first) << read_file(second);
    const ProgramResult result = run({"encode", joined, out});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("changes from 128x96 to 192x96 (yuv420p) after 20 pictures"));
    EXPECT_EQ(decode_clip(out).pictures.size(), 20u);
}

class EncodeStopped : public EncodeCommand, public testing::WithParamInterface<int> {};

TEST_P(EncodeStopped, LeavesACompleteFile) {
    const int signal = GetParam();
    constexpr unsigned kWritten = 60;
    const ClipFormat format;
    const std::string in = directory / "in.y4m";
    const std::string out = directory / "out.mp4";
    ASSERT_EQ(mkfifo(in.c_str(), 0600), 0);
    const Program program({"encode", in, out, "--report", "json"});
    // The program has asked for more than there is: all but a few pictures in its buffers have been encoded.
    const PictureFeed feed(in, format, kWritten);
    feed.wait_until_read();
    program.wait_until_idle();
    program.send(signal);
    const ProgramResult result = program.wait();

    EXPECT_EQ(result.status, 128 + signal) << result.err;
    const json report = report_of(result);
    EXPECT_EQ(report["stopped_by"], signal);
    const DecodedClip clip = decode_clip(out);
    EXPECT_GE(clip.pictures.size(), kWritten - 10);
    EXPECT_EQ(clip.pictures.size(), report["pictures"]["out"]);
    expect_pictures(clip, format, every(1, static_cast<unsigned>(clip.pictures.size())), kWritten);
    expect_times(clip, format, every(1, static_cast<unsigned>(clip.pictures.size())));
}

TEST_P(EncodeStopped, EndsAtOnceWithoutAFileOnTheSecondSignal) {
    // The codec holds pictures that take it a while: the first signal has them encoded, the second does not
    // wait.
    const int signal = GetParam();
    const ClipFormat format{.width = 480, .height = 272};
    const std::string in = directory / "in.y4m";
    ASSERT_EQ(mkfifo(in.c_str(), 0600), 0);
    const Program program({"encode", in, directory / "out.mp4", "--set", "h.264 preset=veryslow", "--set",
                           "maximum threads=1"});
    const PictureFeed feed(in, format, 60);
    feed.wait_until_read();
    for (int n = 0; n < 2; n++) {
        program.send(signal);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(program.wait().status, 128 + signal);
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(in).parent_path()))
        files.push_back(entry.path().filename());
    EXPECT_THAT(files, testing::ElementsAre("in.y4m"));
}

INSTANTIATE_TEST_SUITE_P(Signals, EncodeStopped, testing::Values(SIGINT, SIGTERM, SIGHUP));

}  // namespace
