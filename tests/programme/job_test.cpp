// What a job may say: its outputs, its captions, its rate.

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captions/report.h"
#include "encoding/error.h"
#include "programme/caption_files.h"
#include "programme/encode_job.h"
#include "programme/file_name.h"
#include "programme/output.h"
#include "programme/picture_rate.h"
#include "support/failure_of.h"
#include "support/scratch.h"

namespace {

using namespace gsve::programme;
using gsve::Failure;
using gsve::UsageError;
using gsve::captions::FrameRate;
using gsve::test::failure_of;
using gsve::test::refusal_of;
using gsve::test::ScratchDirectory;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

TEST(EncodeJob, LeavesTheCodecItsThreads) {
    EXPECT_EQ(EncodeJob().threads, 0);
    EXPECT_FALSE(EncodeJob().adapt);
}

TEST(SettingOf, IsTheLastValueOfTheKey) {
    EncodeJob job;
    EXPECT_EQ(setting_of(job, "bitrate"), "");
    job.settings = {{"bitrate", "1"}, {"gop size", "5"}, {"bitrate", "2"}};
    EXPECT_EQ(setting_of(job, "bitrate"), "2");
    EXPECT_EQ(setting_of(job, "gop size"), "5");
    EXPECT_EQ(setting_of(job, "gop"), "");
}

TEST(JobFrameRate, TakesFractionsAndNamesUpTo1000) {
    const struct {
        const char* text;
        int num, den;
    } rows[] = {{"25", 25, 1},          {"30000/1001", 30000, 1001},
                {"ntsc", 30000, 1001},  {"1", 1, 1},
                {"1000", 1000, 1},      {"12.5", 25, 2},
                {"29.97", 30000, 1001}, {"59.94", 60000, 1001},
                {"23.98", 24000, 1001}, {"30", 30, 1}};
    EncodeJob job;
    EXPECT_FALSE(job_frame_rate(job));
    for (const auto& row : rows) {
        job.frame_rate = row.text;
        const auto rate = job_frame_rate(job);
        ASSERT_TRUE(rate) << row.text;
        EXPECT_EQ(rate->num, row.num) << row.text;
        EXPECT_EQ(rate->den, row.den) << row.text;
    }
    for (const char* text : {"fast", "-25", "0"}) {
        job.frame_rate = text;
        EXPECT_THAT(refusal_of([&] { job_frame_rate(job); }), HasSubstr("--rate takes")) << text;
    }
    for (const char* text : {"1/2", "999/1000", "1001", "10001/10"}) {
        job.frame_rate = text;
        EXPECT_EQ(refusal_of([&] { job_frame_rate(job); }),
                  "--rate takes 1 to 1000 pictures/s, not \"" + std::string(text) + "\"");
    }
}

TEST(CheckCaptionChoice, AcceptsAndRefuses) {
    struct Row {
        CaptionChoice choice;
        const char* codec;
        const char* refusal;  ///< part of it; null: accepted
    };
    const auto files = [](std::vector<std::string> names) {
        CaptionChoice choice;
        choice.files = std::move(names);
        return choice;
    };
    CaptionChoice scte20, rows_alone, scc_rows = files({"a.scc"}), srt_rows = files({"a.srt"}),
                                      vtt_rows = files({"a.scc", "b.vtt"});
    scte20.scte20 = true;
    rows_alone.rows = scc_rows.rows = srt_rows.rows = vtt_rows.rows = 3;
    CaptionChoice mcc_field = files({"a.mcc"}), scc_field = files({"a.scc"});
    mcc_field.field = scc_field.field = 2;
    const Row rows[] = {
        {{}, "h.265", nullptr},
        {scte20, "mpeg-2", nullptr},
        {scte20, "h.264", "--scte20 is for MPEG-2 streams, not h.264"},
        {rows_alone, "mpeg-2", nullptr},
        {files({"a.scc"}), "mpeg-2", nullptr},
        {files({"a.scc"}), "h.264", nullptr},
        {files({"a.scc"}), "h.265", nullptr},
        {files({"a.scc", "b.srt"}), "h.264", nullptr},
        {files({"a.scc", "b.scc", "c.scc"}), "h.264", "two files at most"},
        {files({"a.mcc"}), "h.264", nullptr},
        {files({"a.mcc", "b.scc"}), "h.264", "a.mcc has both fields"},
        {files({"a.scc", "b.mcc"}), "h.264", "b.mcc has both fields"},
        {mcc_field, "h.264", "a.mcc has both fields"},
        {scc_field, "h.264", nullptr},
        {scc_rows, "h.264", "--caption-rows is for SRT and WebVTT files"},
        {srt_rows, "h.264", nullptr},
        {vtt_rows, "h.264", nullptr},
    };
    int number = 0;
    for (const Row& row : rows) {
        const std::string said = refusal_of([&] { check_caption_choice(row.choice, row.codec); });
        if (row.refusal)
            EXPECT_THAT(said, HasSubstr(row.refusal)) << "row " << number;
        else
            EXPECT_EQ(said, "") << "row " << number;
        number++;
    }
}

TEST(Check, LooksAtAllPartsOfAJob) {
    ScratchDirectory directory;
    EncodeJob good;
    good.input = directory / "in.y4m";
    good.output = directory / "out.ts";
    good.settings = {{"encoder", "h.264"}};
    EXPECT_NO_THROW(check(good));
    EncodeJob job = good;
    job.settings.emplace_back("resize", "33x32");
    EXPECT_THROW(check(job), UsageError);
    job = good;
    job.captions.scte20 = true;
    EXPECT_THROW(check(job), UsageError);
    job = good;
    job.timecode = "00:00:00:00";
    EXPECT_THAT(refusal_of([&] { check(job); }), HasSubstr("--timecode: h.264 has no place for one in "));
    for (const char* name : {"out.mov", "out.mp4", "out.mkv"}) {
        job.output = directory / name;
        EXPECT_NO_THROW(check(job)) << name;
    }
    job.output = good.output;
    job.settings = {{"encoder", "mpeg-2"}};
    EXPECT_NO_THROW(check(job));
    job.frame_rate = "fast";
    EXPECT_THROW(check(job), UsageError);
    job = good;
    job.output = directory / "out.avi";
    EXPECT_THROW(check(job), UsageError);
}

TEST(OutputFormat, FollowsTheExtension) {
    const struct {
        const char* path;
        const char* codec;
        const char* muxer;
        bool global_header;
    } rows[] = {
        {"a.m2v", "mpeg-2", "", false},        {"a.h264", "h.264", "", false},
        {"a.264", "h.264", "", false},         {"a.h265", "h.265", "", false},
        {"a.265", "h.265", "", false},         {"a.hevc", "h.265", "", false},
        {"dir.mkv/a.ts", "", "mpegts", false}, {"A.MP4", "", "mp4", true},
        {"a.b.mkv", "", "matroska", true},
    };
    for (const auto& row : rows) {
        const OutputFormat format = output_format(row.path);
        EXPECT_EQ(format.codec, row.codec) << row.path;
        EXPECT_EQ(format.muxer, row.muxer) << row.path;
        EXPECT_EQ(format.wants_global_header(), row.global_header) << row.path;
    }
    for (const char* path : {"a", "a.avi", "ts", "a.ts.x"})
        EXPECT_THAT(refusal_of([&] { output_format(path); }),
                    HasSubstr(std::string(path) + ": the output's name must end in one of .m2v .h264"));
}

TEST(CheckOutput, RefusesWhereNothingCanBeWritten) {
    ScratchDirectory directory;
    std::ofstream(directory / "in.ts") << "x";
    std::filesystem::create_directory(directory / "folder.ts");
    EXPECT_NO_THROW(check_output(directory / "out.ts", "", directory / "in.ts"));
    EXPECT_NO_THROW(check_output("out.ts", "", directory / "in.ts"));
    EXPECT_THAT(failure_of([&] { check_output(directory / "absent/out.ts", "", "in"); }),
                HasSubstr("there is no directory"));
    EXPECT_THAT(failure_of([&] { check_output(directory / "folder.ts", "", "in"); }),
                HasSubstr("it is a directory"));
    EXPECT_THAT(refusal_of([&] { check_output(directory / "in.ts", "", directory / "in.ts"); }),
                HasSubstr("same file"));
    EXPECT_THAT(refusal_of([&] { check_output(directory / "folder.ts/../in.ts", "", directory / "in.ts"); }),
                HasSubstr("same file"));
}

TEST(InputUrl, MarksFilesWhoseNamesLookLikeProtocols) {
    ScratchDirectory directory;
    const std::string colon = directory / "a:b.ts", plain = directory / "a.ts";
    std::ofstream(colon) << "x";
    std::ofstream(plain) << "x";
    EXPECT_EQ(input_url(colon), "file:" + colon);
    EXPECT_EQ(input_url(plain), plain);
    EXPECT_EQ(input_url("http://example.com/a.ts"), "http://example.com/a.ts");
    EXPECT_EQ(file_url("a"), "file:a");
}

TEST(OpeningAdvice, SaysWhatToChange) {
    EXPECT_EQ(opening_advice(AVERROR(ENOENT)), "check the name");
    EXPECT_EQ(opening_advice(AVERROR(EISDIR)), "name a file in it");
    EXPECT_EQ(opening_advice(AVERROR(EMFILE)), "name another file");
    EXPECT_EQ(writing_advice(AVERROR(ENOSPC)), "make room, or name another disk");
    EXPECT_EQ(writing_advice(AVERROR(ENOTDIR)), "create its directory");
    EXPECT_EQ(writing_advice(AVERROR(EMFILE)), "name another file");
}

TEST(CountWarnings, CountsByKindWithoutDelays) {
    using gsve::captions::WarningKind;
    const std::pair<WarningKind, const char*> names[] = {
        {WarningKind::kReplacedCharacter, "replaced_characters"},
        {WarningKind::kBrokenWord, "broken_words"},
        {WarningKind::kSplitCue, "split_cues"},
        {WarningKind::kShortenedCue, "shortened_cues"},
        {WarningKind::kLateCue, "late_cues"},
        {WarningKind::kDroppedCue, "dropped_cues"},
        {WarningKind::kParity, "parity"},
        {WarningKind::kBeforeStart, "before_start"},
        {WarningKind::kIgnoredData, "ignored_data"},
        {WarningKind::kTimeCodes, "time_codes"},
        {WarningKind::kOtherField, "other_field"},
        {WarningKind::kRewrappedCues, "rewrapped_cues"},
        {WarningKind::kNoCaptions, "no_captions"},
        {WarningKind::kFaultyLine, "faulty_lines"},
        {WarningKind::kUnknownReference, "unknown_references"},
    };
    gsve::captions::Report report;
    EXPECT_TRUE(count_warnings(report).empty());
    size_t times = 0;
    std::map<std::string, size_t> expected;
    for (const auto& [kind, name] : names) {
        times++;
        for (size_t n = 0; n < times; n++) report.add(kind, "f", 1, "t");
        expected[name] = times;
    }
    report.add(WarningKind::kDelayedPairs, "f", 1, "t");
    EXPECT_EQ(count_warnings(report), expected);
}

TEST(LoadCaptionFiles, GivesTheFirstFileTheFieldAndTheSecondTheOther) {
    const std::string srt = GSVE_SOURCE_DIR "/tests/captions/data/sample.srt";
    const FrameRate rate = gsve::captions::kRate25;
    const auto fields = [&](const CaptionChoice& choice) {
        gsve::captions::Report report;
        const gsve::captions::Schedule all =
            load_caption_files(choice, rate, rate, gsve::captions::LineRate::kPairOfEachField, report);
        EXPECT_TRUE(all.rate == rate);
        std::map<int, size_t> pairs;
        for (const auto& event : all.eia608) pairs[event.field]++;
        return pairs;
    };
    CaptionChoice choice;
    EXPECT_TRUE(fields(choice).empty());
    choice.files = {srt};
    const auto one = fields(choice);
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one.begin()->first, 0);
    choice.field = 1;
    EXPECT_EQ(fields(choice), one);
    choice.field = 2;
    EXPECT_THAT(fields(choice), UnorderedElementsAre(Pair(1, one.at(0))));
    choice.files = {srt, srt};
    EXPECT_THAT(fields(choice), UnorderedElementsAre(Pair(0, one.at(0)), Pair(1, one.at(0))));
    choice.start = "soon";
    gsve::captions::Report report;
    EXPECT_THAT(refusal_of([&] {
                    load_caption_files(choice, rate, rate, gsve::captions::LineRate::kPairOfEachField,
                                       report);
                }),
                testing::StartsWith("--captions-start: "));
}

TEST(HasConstantRate, ComparesTheContainersTwoEstimates) {
    const struct {
        AVRational times, average;
        bool constant;
    } rows[] = {
        {{25, 1}, {25, 1}, true},      {{50, 1}, {25, 1}, true},      {{25, 1}, {24, 1}, false},
        {{75, 1}, {25, 1}, false},     {{0, 1}, {25, 1}, true},       {{25, 1}, {0, 1}, true},
        {{25, 1}, {2501, 100}, true},  {{25, 1}, {2504, 100}, false}, {{5004, 100}, {25, 1}, true},
        {{5010, 100}, {25, 1}, false}, {{25, 0}, {25, 1}, true},      {{1, 1}, {1, 1}, true},
    };
    for (const auto& row : rows) {
        AVStream stream{};
        stream.r_frame_rate = row.times, stream.avg_frame_rate = row.average;
        EXPECT_EQ(has_constant_rate(stream), row.constant) << av_q2d(row.times) << " " << av_q2d(row.average);
    }
}

TEST(PictureRate, IsThatOfWholePicturesAsFarAsTheContainerTells) {
    const struct {
        const char* container;
        AVRational times, average, rate;
    } rows[] = {
        {"matroska", {25, 1}, {25, 1}, {25, 1}}, {"matroska", {50, 1}, {25, 1}, {25, 1}},  // fields
        {"matroska", {0, 1}, {30, 1}, {30, 1}},  {"matroska", {24, 1}, {0, 1}, {24, 1}},
        {"matroska", {0, 0}, {0, 0}, {25, 1}},   {"matroska", {1000, 1}, {30, 1}, {30, 1}},  // ticks
        {"rawvideo", {30, 1}, {15, 1}, {15, 1}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.container) + " " + std::to_string(av_q2d(row.times)));
        gsve::InputPtr input(avformat_alloc_context());
        input->iformat = av_find_input_format(row.container);
        AVStream* stream = avformat_new_stream(input.get(), nullptr);
        stream->r_frame_rate = row.times;
        stream->avg_frame_rate = row.average;
        EXPECT_EQ(av_cmp_q(picture_rate(input.get(), stream), row.rate), 0);
        input->iformat = nullptr;  // there is nothing to close
    }
}

}  // namespace
