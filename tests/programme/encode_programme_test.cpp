// Whole programmes, as a job and in the process of whoever gives it: what the observer hears, and what the
// result tells.

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "captions/cc_data.h"
#include "captions/scte20.h"
#include "encoding/error.h"
#include "programme/av.h"
#include "programme/caption_inventory.h"
#include "programme/encode_programme.h"
#include "programme/input.h"
#include "programme/stream_inspection.h"
#include "support/clip.h"
#include "support/flash_and_click.h"
#include "support/media_files.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;
using gsve::Failure;
using gsve::UsageError;
using testing::HasSubstr;

class Listener : public Observer {
public:
    void note(std::string_view lines) override { notes += lines; }
    void warn(std::string_view line) override { warnings += line; }
    void begin(std::optional<uint64_t> pictures) override {
        begun++;
        expected = pictures;
    }
    void progress(const Tally& tally) override { std::atomic_ref<uint64_t>{seen} = tally.pictures; }
    int stop_reason() override {
        return stop_after > 0 && std::atomic_ref<uint64_t>{seen} >= stop_after ? 15 : 0;
    }

    std::string notes, warnings;
    int begun = 0;
    std::optional<uint64_t> expected;
    uint64_t seen = 0, stop_after = 0;
};

class Programme : public testing::Test {
protected:
    Programme() { av_log_set_level(AV_LOG_QUIET); }

    EncodeJob job(const std::string& codec, const std::string& output, const ClipFormat& format,
                  unsigned pictures) {
        EncodeJob job;
        job.input = directory / "in.y4m";
        job.output = directory / output;
        job.settings = {{"encoder", codec},
                        {"enable", "1"},
                        {"bitrate", "1000000"},
                        {"min bitrate", "0"},
                        {"h.264 preset", "ultrafast"}};
        job.threads = 1;
        write_y4m(job.input, format, pictures);
        return job;
    }

    EncodeResult encode(const EncodeJob& job) {
        std::optional<EncodeResult> result;
        stderr_of([&] { result = encode_programme(job, listener); });
        return *result;
    }

    template <class Error>
    std::string refusal(const EncodeJob& job) {
        std::string said;
        stderr_of([&] {
            try {
                encode_programme(job, listener);
            } catch (const Error& error) {
                said = error.what();
            }
        });
        return said;
    }

    ScratchDirectory directory;
    Listener listener;
};

std::string sample_file(const char* name) {
    return std::string(GSVE_SOURCE_DIR "/tests/captions/data/") + name;
}

TEST_F(Programme, IsEncodedWhole) {
    const ClipFormat format = {.sample_aspect = {4, 3}};
    for (const char* codec : {"mpeg-2", "h.264"}) {
        listener = Listener();
        const EncodeResult result = encode(job(codec, "out.ts", format, 30));
        EXPECT_EQ(result.codec, codec);
        EXPECT_EQ(result.width, 128);
        EXPECT_EQ(result.height, 96);
        EXPECT_TRUE(result.frame_rate == gsve::captions::kRate25);
        EXPECT_EQ(result.tally.pictures, 30u);
        EXPECT_EQ(result.tally.units, 30u);
        EXPECT_GT(result.tally.held_back, 0u);
        EXPECT_FALSE(result.source_pictures);
        EXPECT_FALSE(result.adapts_to_load);
        EXPECT_TRUE(result.repeatable);
        EXPECT_EQ(result.stopped_by, 0);
        EXPECT_EQ(result.problem, "");
        EXPECT_EQ(result.timecode, "");
        EXPECT_EQ(result.captions.source, "none");
        EXPECT_FALSE(result.status.empty());
        EXPECT_EQ(result.job.threads, 1);
        EXPECT_EQ(listener.begun, 1);
        EXPECT_EQ(listener.seen, 30u);
        const DecodedClip clip = decode_clip(directory / "out.ts");
        ASSERT_EQ(clip.pictures.size(), 30u);
        EXPECT_EQ(clip.errors, 0);
        for (unsigned n = 0; n < 30; n++) {
            EXPECT_EQ(recognise(clip.pictures[n], format, 30), n);
            EXPECT_NEAR(clip.pictures[n].seconds - clip.pictures[0].seconds, n / 25.0, 0.001);
            EXPECT_EQ(av_cmp_q(clip.pictures[n].sample_aspect, {4, 3}), 0);
        }
    }
}

TEST_F(Programme, GoesIntoEveryKindOfFile) {
    const struct {
        const char* name;
        const char* codec;
        AVCodecID id;
    } rows[] = {{"out.m2v", "mpeg-2", AV_CODEC_ID_MPEG2VIDEO},
                {"out.h264", "h.264", AV_CODEC_ID_H264},
                {"out.mkv", "mpeg-2", AV_CODEC_ID_MPEG2VIDEO},
                {"out.mp4", "h.264", AV_CODEC_ID_H264},
                {"out.hevc", "h.265", AV_CODEC_ID_HEVC}};
    for (const auto& row : rows) {
        const EncodeResult result = encode(job(row.codec, row.name, {}, 20));
        EXPECT_EQ(result.tally.units, 20u) << row.name;
        const DecodedClip clip = decode_clip(directory / row.name);
        EXPECT_EQ(clip.codec, row.id) << row.name;
        EXPECT_EQ(clip.pictures.size(), 20u) << row.name;
        EXPECT_EQ(clip.errors, 0) << row.name;
    }
}

TEST_F(Programme, TakesAnotherRateAndALimit) {
    EncodeJob faster = job("mpeg-2", "out.ts", {}, 20);
    faster.frame_rate = "50";
    EncodeResult result = encode(faster);
    EXPECT_TRUE(result.frame_rate == gsve::captions::kRate50);
    EXPECT_EQ(result.tally.pictures, 40u);
    EXPECT_EQ(result.source_pictures, 20u);
    EncodeJob limited = job("mpeg-2", "out.ts", {.rate = {50, 1}}, 20);
    limited.settings.emplace_back("frame rate limit", "25");
    result = encode(limited);
    EXPECT_TRUE(result.frame_rate == gsve::captions::kRate25);
    EXPECT_EQ(result.tally.pictures, 20u);
    EXPECT_EQ(result.tally.skipped, 10u);
    EXPECT_EQ(result.tally.units, 10u);
}

TEST_F(Programme, IsMeasuredAgainstThePicturesThatTheCodecWasGiven) {
    struct Case {
        const char* codec;
        std::vector<std::pair<std::string, std::string>> settings;
    };
    // A codec that gives each unit at once, and ones that hold some; scaled, deinterlaced and divided.
    const Case cases[] = {
        {"mpeg-2", {{"b frames", "0"}}},
        {"mpeg-2", {}},
        {"h.264", {{"resize", "64x48"}}},
        {"h.265", {}},
        {"mpeg-2", {{"resize deinterlace", "3"}, {"resize", "96x64"}}},
        {"h.264", {{"frame rate limit", "13"}}},
    };
    const ClipFormat format;
    for (const Case& each : cases) {
        SCOPED_TRACE(std::string(each.codec) + (each.settings.empty() ? "" : ", " + each.settings[0].first));
        EncodeJob job = this->job(each.codec, "plain.ts", format, 30);
        job.settings.insert(job.settings.end(), each.settings.begin(), each.settings.end());
        encode(job);
        job.output = directory / "measured.ts";
        job.quality = true;
        const EncodeResult result = encode(job);
        EXPECT_TRUE(read_file(directory / "plain.ts") == read_file(job.output)) << "measuring changes bytes";
        ASSERT_EQ(result.quality.size(), result.tally.units);
        int64_t before = -1;
        for (const PictureQuality& picture : result.quality) {
            EXPECT_GT(picture.number, before);
            EXPECT_GT(picture.psnr, 20) << picture.number;
            EXPECT_GT(picture.ssim, 0.5) << picture.number;
            EXPECT_LE(picture.ssim, 1) << picture.number;
            before = picture.number;
        }
        EXPECT_LT(before, 30);
    }
    EXPECT_TRUE(encode(this->job("mpeg-2", "out.ts", format, 3)).quality.empty());
}

TEST_F(Programme, HasTheQualityThatFfmpegMeasures) {
    EncodeJob job = this->job("h.264", "out.mp4", {.width = 128, .height = 96}, 25);
    job.settings.emplace_back("bitrate", "200000");
    job.quality = true;
    const EncodeResult result = encode(job);
    const std::string log = directory / "psnr.log";
    ASSERT_EQ(std::system(("ffmpeg -nostdin -v error -i " + job.output + " -i " + job.input +
                           " -lavfi psnr=f=" + log + " -f null -")
                              .c_str()),
              0);
    std::ifstream lines(log);
    std::string line;
    size_t n = 0;
    for (; std::getline(lines, line); n++) {
        ASSERT_LT(n, result.quality.size());
        const size_t at = line.find("psnr_avg:");
        ASSERT_NE(at, std::string::npos) << line;
        EXPECT_NEAR(result.quality[n].psnr, std::strtod(line.c_str() + at + 9, nullptr), 0.01) << n;
    }
    EXPECT_EQ(n, 25u);
}

TEST_F(Programme, EndsWhereItsObserverAsks) {
    listener.stop_after = 12;
    const EncodeResult result = encode(job("mpeg-2", "out.ts", {}, 60));
    EXPECT_EQ(result.stopped_by, 15);
    EXPECT_EQ(result.tally.pictures, 12u);
    EXPECT_EQ(result.tally.units, 12u);
    EXPECT_FALSE(result.source_pictures);
    EXPECT_EQ(decode_clip(directory / "out.ts").pictures.size(), 12u);
}

TEST_F(Programme, EndsItsSoundWithThePictureWhereItIsStopped) {
    EncodeJob stopped = job("h.264", "out.mkv", {}, 1);
    stopped.input = directory / "in.mkv";
    ffmpeg(directory / "", flash_and_click(6) + "-c:v mpeg2video -c:a pcm_s16le in.mkv");
    listener.stop_after = 50;
    encode(stopped);
    AVFormatContext* input = nullptr;
    ASSERT_GE(avformat_open_input(&input, stopped.output.c_str(), nullptr, nullptr), 0);
    const gsve::InputPtr owned(input);
    ASSERT_EQ(input->nb_streams, 2u);
    double ends[2] = {};
    const gsve::PacketPtr packet = gsve::new_packet();
    while (av_read_frame(input, packet.get()) >= 0) {
        const double unit = av_q2d(input->streams[packet->stream_index]->time_base);
        double& end = ends[packet->stream_index];
        end = std::max(end, static_cast<double>(packet->pts + packet->duration) * unit);
        av_packet_unref(packet.get());
    }
    EXPECT_NEAR(ends[0], 2, 0.01);
    EXPECT_NEAR(ends[1], 2, 0.05);
}

TEST_F(Programme, CarriesCaptionFilesAndTimeCodes) {
    EncodeJob captioned = job("mpeg-2", "out.m2v", {}, 150);
    captioned.captions.files = {sample_file("sample.srt")};
    captioned.captions.scte20 = true;
    captioned.timecode = "10:00:00:00";
    const EncodeResult result = encode(captioned);
    EXPECT_EQ(result.captions.source, "file");
    EXPECT_GT(result.captions.carried.pairs, 50u);
    EXPECT_EQ(result.captions.without_form.all(), 0u);
    EXPECT_EQ(result.captions.expired.all(), 0u);
    EXPECT_EQ(result.timecode, "10:00:00:00");

    const InspectedStream stream = read_stream(directory / "out.m2v");
    ASSERT_EQ(stream.pictures.size(), 150u);
    EXPECT_EQ(stream.codec, "mpeg2video");
    EXPECT_TRUE(stream.mpeg_video);
    EXPECT_EQ(stream.width, 128);
    EXPECT_EQ(stream.height, 96);
    ASSERT_FALSE(stream.gops.empty());
    EXPECT_EQ(stream.gops[0].start.timecode, (gsve::captions::Timecode{10, 0, 0, 0, false}));
    const CaptionInventory inventory = take_inventory(stream);
    ASSERT_EQ(inventory.carriages.size(), 2u);
    EXPECT_EQ(inventory.carriages[0].name, "A/53");
    EXPECT_EQ(inventory.carriages[1].name, "SCTE-20");
    EXPECT_EQ(static_cast<uint64_t>(inventory.carriages[0].pairs), result.captions.carried.pairs);
    EXPECT_EQ(inventory.carriages[0].gaps, 0);
    EXPECT_FALSE(inventory.carriages[1].gaps);
    ASSERT_GE(inventory.carriages[0].texts.size(), 2u);
    EXPECT_EQ(inventory.carriages[0].texts[0].text(), "A captioned programme,\nre-encoded.");
    EXPECT_EQ(inventory.carriages[0].texts[0].begin, 50);
    EXPECT_TRUE(same_texts(inventory.carriages[0], inventory.carriages[1]));

    // Once more, from what was encoded.
    EncodeJob again = captioned;
    again.input = captioned.output;
    again.output = directory / "again.m2v";
    again.captions = {};
    again.timecode = kSourceTimecode;
    const EncodeResult second = encode(again);
    EXPECT_EQ(second.captions.source, "input");
    EXPECT_EQ(second.captions.carried.pairs, result.captions.carried.pairs);
    EXPECT_EQ(second.timecode, "10:00:00:00");
    const CaptionInventory carried = take_inventory(read_stream(again.output));
    ASSERT_EQ(carried.carriages.size(), 1u);
    EXPECT_EQ(carried.carriages[0].texts, inventory.carriages[0].texts);

    again.captions.carry_over = false;
    const EncodeResult none = encode(again);
    EXPECT_EQ(none.captions.source, "none");
    EXPECT_TRUE(take_inventory(read_stream(again.output)).carriages.empty());
}

TEST_F(Programme, SendsScte20InTheOrderInWhichTheFieldsAreShown) {
    for (const char interlacing : {'p', 't', 'b'}) {
        SCOPED_TRACE(interlacing);
        EncodeJob captioned = job("mpeg-2", "out.m2v", {.interlacing = interlacing}, 60);
        captioned.captions.files = {sample_file("sample.srt")};
        captioned.captions.scte20 = true;
        encode(captioned);
        int compared = 0;
        const InspectedStream stream = read_stream(captioned.output);
        for (const InspectedPicture& picture : stream.pictures) {
            if (!picture.captions.scte20) continue;
            const auto captions = gsve::captions::parse_cc_data(picture.captions.cc_data.value()).captions;
            EXPECT_EQ(*picture.captions.scte20,
                      gsve::captions::scte20_constructs(captions.fields[0].at(0), captions.fields[1].at(0),
                                                        interlacing == 't'));
            compared++;
        }
        EXPECT_GT(compared, 20);
    }
}

TEST_F(Programme, TellsTheContainerItsShapeFieldsAndRate) {
    for (const char* name : {"out.mkv", "out.mp4"})
        for (const char interlacing : {'p', 't', 'b'}) {
            SCOPED_TRACE(std::string(name) + " " + interlacing);
            encode(job("mpeg-2", name, {.sample_aspect = {4, 3}, .interlacing = interlacing}, 10));
            AVFormatContext* opened = nullptr;  // as its header alone tells
            ASSERT_EQ(avformat_open_input(&opened, std::string(directory / name).c_str(), nullptr, nullptr),
                      0);
            const gsve::InputPtr container(opened);
            const AVStream& stream = *opened->streams[0];
            EXPECT_EQ(av_cmp_q(stream.sample_aspect_ratio, {4, 3}), 0);
            if (name == std::string("out.mp4")) continue;  // has neither
            EXPECT_EQ(av_cmp_q(stream.avg_frame_rate, {25, 1}), 0);
            EXPECT_EQ(stream.codecpar->field_order, interlacing == 'p'   ? AV_FIELD_PROGRESSIVE
                                                    : interlacing == 't' ? AV_FIELD_TT
                                                                         : AV_FIELD_BB);
        }
}

TEST(EncodeResult, TellsOfNothingBeforeTheEncoding) {
    const EncodeResult fresh;
    EXPECT_EQ(fresh.width, 0);
    EXPECT_EQ(fresh.height, 0);
    EXPECT_EQ(fresh.stopped_by, 0);
    EXPECT_EQ(fresh.elapsed, 0);
    EXPECT_EQ(fresh.problem, "");
    EXPECT_FALSE(fresh.adapts_to_load);
    EXPECT_FALSE(fresh.repeatable);
    EXPECT_FALSE(fresh.source_pictures);
    EXPECT_FALSE(fresh.damage.any());
}

TEST_F(Programme, RefusesWhatCannotBeDone) {
    const EncodeJob good = job("mpeg-2", "out.ts", {}, 10);
    EncodeJob bad = good;
    bad.input = directory / "absent.ts";
    EXPECT_THAT(refusal<Failure>(bad), HasSubstr("check the name"));
    bad = good;
    bad.timecode = "25:00:00:00";
    EXPECT_THAT(refusal<UsageError>(bad), testing::StartsWith("--timecode: "));
    bad.timecode = kSourceTimecode;
    EXPECT_THAT(refusal<UsageError>(bad), HasSubstr("the input has no time code"));
    bad = good;
    bad.settings.emplace_back("enable", "0");
    EXPECT_THAT(refusal<UsageError>(bad), HasSubstr("\"enable\" is off"));
    bad = good;
    bad.frame_rate = "26";
    EXPECT_THAT(refusal<Failure>(bad), HasSubstr("MPEG-2 may not have 26.000 pictures/s: --rate 30000/1001"));
    bad = good;
    bad.captions.files = {sample_file("sample.srt")};
    bad.settings.emplace_back("enable cea-708", "0");
    bad.decided = {"enable cea-708"};
    bad.settings.emplace_back("enable eia-608", "0");
    bad.decided.emplace_back("enable eia-608");
    EXPECT_THAT(refusal<UsageError>(bad), HasSubstr("\"enable cea-708\" and \"enable eia-608\" are off"));
}

TEST_F(Programme, IsRefusedWhereTheCodecTakesAnotherNumberOfThreads) {
    EncodeJob many = job("h.264", "out.ts", {}, 5);
    many.threads = 60;  // more than pictures of this size are worth
    EXPECT_THAT(refusal<Failure>(many), HasSubstr("the job is for 60 threads, and here the codec takes "));
    EXPECT_FALSE(std::filesystem::exists(directory / "out.ts"));
}

TEST_F(Programme, NeedsNobodyWhoObservesIt) {
    Observer nobody;
    std::optional<EncodeResult> result;
    const EncodeJob whole = job("mpeg-2", "out.ts", {}, 8);
    stderr_of([&] { result = encode_programme(whole, nobody); });
    EXPECT_EQ(result->tally.pictures, 8u);
    EXPECT_EQ(result->stopped_by, 0);
    EncodeJob slow = whole;
    slow.settings = {{"encoder", "mpeg-2"}, {"enable", "1"}, {"bitrate", "200000"}};
    slow.output = directory / "slow.ts";
    const auto polite = std::make_unique<Observer>();
    stderr_of([&] { result = encode_programme(slow, *polite); });
    EXPECT_EQ(result->tally.pictures, 8u);
}

TEST_F(Programme, IsReadPictureByPictureWhereItsSamplesAreSingleNalUnits) {
    const EncodeJob whole = job("h.264", "whole.mp4", {}, 40);
    encode(whole);
    const std::string parts = directory / "parts.mp4";
    size_t samples = 0;
    remultiplex(whole.output, parts, nullptr, [&](AVFormatContext& output, AVPacket& packet) {
        samples += write_nal_by_nal(output, packet);
    });
    ASSERT_GT(samples, 40u);
    for (const std::string& path : {whole.output, parts}) {
        PacketSource source(path, {});
        const gsve::PacketPtr packet = gsve::new_packet();
        int packets = 0;
        while (source.next(*packet) == 0) packets++;
        EXPECT_EQ(packets, 40) << path;
        EXPECT_EQ(source.next(*packet), AVERROR_EOF);
        const InspectedStream stream = read_stream(path);
        EXPECT_EQ(stream.pictures.size(), 40u) << path;
        EXPECT_TRUE(stream.rate == gsve::captions::kRate25) << path;
        EXPECT_FALSE(stream.damage.any()) << path;
        Input input(path, {});
        EXPECT_EQ(av_cmp_q(input.format().frame_rate, {25, 1}), 0) << path;
        int pictures = 0;
        while (input.next()) pictures++;
        EXPECT_EQ(pictures, 40) << path;
        EXPECT_FALSE(input.damage().any()) << path;
    }
    EXPECT_EQ(Input(whole.output, {}).expected_pictures(), 40u);
}

TEST_F(Programme, WarnsOfPicturesThatWouldTakeTooLong) {
    EncodeJob constant = job("mpeg-2", "out.ts", {}, 5);
    constant.settings = {{"encoder", "mpeg-2"}, {"enable", "1"}, {"bitrate", "60000"}};
    try {
        encode(constant);
    } catch (const Failure&) {  // whether it opens is another matter
    }
    EXPECT_THAT(listener.warnings, HasSubstr("a noisy picture can take more than the 0.73 s"));
    listener = Listener();
    encode(job("mpeg-2", "out.ts", {}, 5));
    EXPECT_EQ(listener.warnings, "");
}

TEST_F(Programme, AdaptsToTheLoadWhereAsked) {
    EncodeJob adapting = job("mpeg-2", "out.ts", {}, 5);
    adapting.adapt = true;
    EncodeResult result = encode(adapting);
    EXPECT_TRUE(result.adapts_to_load);
    EXPECT_FALSE(result.repeatable);
    adapting = job("h.264", "out.ts", {}, 5);
    adapting.adapt = true;
    EXPECT_FALSE(encode(adapting).adapts_to_load);
}

TEST(ServiceNames, ListTheServicesInUse) {
    gsve::captions::Line21Services services;
    EXPECT_TRUE(service_names(services).empty());
    services.captions = {true, false, true, false};
    services.text = {false, true, false, true};
    services.extended_data = true;
    EXPECT_EQ(service_names(services), (std::vector<std::string>{"CC1", "CC3", "T2", "T4", "XDS"}));
}

TEST(TakeInventory, ReadsTheOrderOfScte20FieldsAndOfCc) {
    InspectedStream stream;
    stream.mpeg_video = true;
    for (int64_t n = 0; n < 4; n++) {
        InspectedPicture picture;
        picture.unit = std::vector<int64_t>{0, 2, 3, 1}[static_cast<size_t>(n)];
        picture.top_field_first = n % 2 == 0;
        picture.captions.scte20 = {{.field_number = 1, .word = 0x9420}, {.field_number = 2, .word = 0x152C}};
        if (n == 1) picture.captions.damaged = 2;
        stream.pictures.push_back(picture);
    }
    stream.pictures[3].captions.cc = {{0xC1C2, 0x8080}, {0x43C4, 0x8080}};  // second in coding order
    stream.pictures[0].captions.cc = {{0x9420, 0x8080}};
    stream.pictures[2].captions.cc_data = std::vector<uint8_t>{0xFC, 0x14, 0x20};
    const CaptionInventory inventory = take_inventory(stream);
    EXPECT_EQ(inventory.damaged_user_data, 2);
    ASSERT_EQ(inventory.carriages.size(), 3u);
    const CaptionCarriage &a53 = inventory.carriages[0], &scte20 = inventory.carriages[1],
                          &cc = inventory.carriages[2];
    EXPECT_EQ(a53.where, "picture user data");
    EXPECT_EQ(a53.units, 1);
    EXPECT_EQ(a53.first, 2);
    EXPECT_EQ(a53.last, 2);
    EXPECT_EQ(a53.pairs, 1);
    EXPECT_EQ(a53.parity_errors, 1);
    EXPECT_EQ(scte20.units, 4);
    EXPECT_EQ(scte20.pairs, 8);
    std::vector<int> fields;
    for (const auto& event : scte20.schedule.eia608)
        if (event.word == 0x9420) fields.push_back(event.field);
    EXPECT_EQ(fields, (std::vector<int>{0, 1, 0, 1}));
    EXPECT_EQ(cc.units, 2);
    EXPECT_EQ(cc.first, 0);
    EXPECT_EQ(cc.last, 3);
    std::vector<std::pair<int64_t, unsigned>> pairs;
    for (const auto& event : cc.schedule.eia608) pairs.emplace_back(event.frame, event.word & 0x7F7F);
    EXPECT_EQ(pairs, (std::vector<std::pair<int64_t, unsigned>>{{0, 0x1420}, {1, 0x4142}, {2, 0x4344}}));
}

TEST(TakeInventory, CountsTheGapsOfA53) {
    const struct {
        std::string present;
        int64_t gaps;
    } rows[] = {{"xxxxx", 0}, {"x.xxx", 1}, {"x..x.", 1}, {"..xx.", 0}, {"x.x.x", 2}};
    for (const auto& row : rows) {
        InspectedStream stream;
        for (const char c : row.present) {
            stream.pictures.emplace_back();
            if (c == 'x') stream.pictures.back().captions.cc_data.emplace();
        }
        const CaptionInventory inventory = take_inventory(stream);
        ASSERT_EQ(inventory.carriages.size(), 1u);
        EXPECT_EQ(inventory.carriages[0].gaps, row.gaps) << row.present;
        EXPECT_EQ(inventory.carriages[0].where, "SEI");
    }
}

/// Parts of a programme, one after the other, beside the whole.
class ProgrammeInParts : public Programme {
protected:
    static constexpr unsigned kPictures = 120;

    EncodeJob whole(const std::string& codec, const std::string& output,
                    const std::vector<std::pair<std::string, std::string>>& settings) {
        EncodeJob job = this->job(codec, output, format, kPictures);
        job.settings.insert(job.settings.end(), settings.begin(), settings.end());
        std::ofstream(directory / "in.srt") << "1\n00:00:00,200 --> 00:00:01,900\nOver the first join\n\n"
                                               "2\n00:00:02,400 --> 00:00:04,000\nand over the second\n";
        job.captions.files = {directory / "in.srt"};
        if (codec != "h.264") job.timecode = "09:59:58:10";
        return job;
    }

    std::string joined(EncodeJob job, const std::vector<uint64_t>& joins) {
        std::string bytes;
        for (size_t n = 0; n + 1 < joins.size(); n++) {
            job.range = {.begin = joins[n], .end = joins[n + 1], .warm_up = 30, .key = {}};
            const EncodeResult result = encode(job);
            EXPECT_EQ(result.tally.pictures, joins[n + 1] - joins[n]);
            EXPECT_EQ(result.tally.lost(), 0);
            bytes += read_file(job.output);
        }
        return bytes;
    }

    const ClipFormat format = {};
};

struct Part {
    const char* name;
    const char* codec;
    std::vector<std::pair<std::string, std::string>> settings;
    unsigned divider = 1;
};

class Joined : public ProgrammeInParts, public testing::WithParamInterface<Part> {};

TEST_P(Joined, HasThePicturesCaptionsAndTimeCodesOfTheWhole) {
    const Part& part = GetParam();
    const std::string extension = std::string(part.codec) == "mpeg-2"  ? ".m2v"
                                  : std::string(part.codec) == "h.264" ? ".h264"
                                                                       : ".hevc";
    const EncodeJob whole = this->whole(part.codec, "whole" + extension, part.settings);
    encode(whole);
    EncodeJob job = whole;
    job.output = directory / ("part" + extension);
    const std::string path = directory / ("joined" + extension);
    const std::vector<uint64_t> joins = {0, 30, 60, 90, kPictures};
    std::ofstream(path, std::ios::binary) << joined(job, joins);

    const InspectedStream one = read_stream(whole.output), parts = read_stream(path);
    EXPECT_EQ(parts.problem, "");
    EXPECT_FALSE(parts.damage.any());
    ASSERT_EQ(parts.pictures.size(), kPictures / part.divider);
    ASSERT_EQ(one.pictures.size(), parts.pictures.size());
    for (size_t n = 0; n < parts.pictures.size(); n++)
        EXPECT_TRUE(parts.pictures[n].captions.cc_data == one.pictures[n].captions.cc_data) << n;
    const std::vector<gsve::captions::TimedText> texts = take_inventory(parts).carriages.at(0).texts;
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].text(), "Over the first join");
    const DecodedClip clip = decode_clip(path);
    EXPECT_EQ(clip.errors, 0);
    ASSERT_EQ(clip.pictures.size(), kPictures / part.divider);
    for (unsigned n = 0; n < clip.pictures.size(); n++)
        EXPECT_EQ(recognise(clip.pictures[n], format, kPictures), n * part.divider);

    // Each part begins with a closed GOP, which has the time code of the picture's place.
    std::map<int64_t, const Gop*> gops;
    for (const Gop& gop : parts.gops) gops[gop.picture] = &gop;
    for (size_t n = 0; n + 1 < joins.size(); n++) {
        const auto place = static_cast<int64_t>(joins[n] / part.divider);
        ASSERT_TRUE(gops.contains(place)) << joins[n];
        EXPECT_TRUE(n == 0 || gops[place]->start.closed) << joins[n];
    }
    // That of an open GOP is the time code of the picture that is shown first, before its I-picture.
    const auto timecode = [](const Gop& gop) { return gsve::captions::format_timecode(*gop.start.timecode); };
    for (const Gop& gop : one.gops) {
        const bool both = std::string(part.codec) == "mpeg-2" && gops.contains(gop.picture);
        if (both && gops[gop.picture]->start.closed == gop.start.closed) {
            EXPECT_EQ(timecode(*gops[gop.picture]), timecode(gop)) << gop.picture;
        }
    }
    if (std::string(part.name) == "Mpeg2") {
        EXPECT_EQ(timecode(*gops[30]), "09:59:59:15");
        EXPECT_EQ(timecode(*gops[60]), "10:00:00:20");
        EXPECT_EQ(timecode(*gops[90]), "10:00:02:00");
    }
}

TEST_P(Joined, HasTheSameBytesEachTime) {
    EncodeJob job = whole(GetParam().codec,
                          std::string("part") + (std::string(GetParam().codec) == "mpeg-2"  ? ".m2v"
                                                 : std::string(GetParam().codec) == "h.264" ? ".h264"
                                                                                            : ".hevc"),
                          GetParam().settings);
    const std::vector<uint64_t> joins = {60, 90};
    EXPECT_TRUE(joined(job, joins) == joined(job, joins));
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, Joined,
    testing::Values(Part{"Mpeg2", "mpeg-2", {}}, Part{"Mpeg2WithoutBPictures", "mpeg-2", {{"b frames", "0"}}},
                    Part{"Mpeg2WithClosedGops", "mpeg-2", {{"closed gop", "1"}, {"gop size", "15"}}},
                    Part{"H264", "h.264", {}}, Part{"H265", "h.265", {}},
                    Part{"EverySecondPicture", "mpeg-2", {{"frame rate limit", "13"}}, 2}),
    [](const auto& part) { return part.param.name; });

TEST_F(ProgrammeInParts, NeedsNothingThatOnlyTheWholeTells) {
    EncodeJob job = this->job("mpeg-2", "out.ts", format, 5);
    job.range = {.begin = 3, .end = 3, .warm_up = 0, .key = {}};
    EXPECT_EQ(refusal<UsageError>(job), "the range of pictures from 3 to 3 is empty");
    job.range->end = 5;
    EXPECT_THAT(refusal<UsageError>(job), HasSubstr("goes into an elementary stream"));
    job.output = directory / "out.m2v";
    EXPECT_THAT(refusal<UsageError>(job), HasSubstr("cannot take the input's captions"));
    job.captions.carry_over = false;
    job.range = {.begin = 50, .end = 60, .warm_up = 0, .key = {}};
    EXPECT_EQ(refusal<Failure>(job), "the input has no picture 50");
}

}  // namespace
