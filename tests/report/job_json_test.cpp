// Jobs as JSON: what is written comes back, and what is not a job is refused with what is wrong.

#include "report/job_json.h"

#include <functional>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "encoding/error.h"

namespace gsve::report {
namespace {

using programme::EncodeJob;
using testing::HasSubstr;
using testing::StartsWith;

EncodeJob full_job() {
    EncodeJob job;
    job.input = "a \"film\".mov";
    job.output = "süß.ts";
    job.settings = {{"enable", "1"}, {"bitrate", "4000000"}, {"bitrate", "5000000"}, {"chroma format", ""}};
    job.decided = {"bitrate", "chroma format"};
    job.frame_rate = "30000/1001";
    job.captions = {.carry_over = false,
                    .files = {"one.scc", "two.srt"},
                    .field = 2,
                    .rows = 3,
                    .start = "01:00:00:00",
                    .scte20 = true};
    job.choice = {.streams = {0, 3}, .program = 2, .sound = false};
    job.sound = {.codec = "ac3",
                 .bit_rate = 384000,
                 .layout = "5.1",
                 .sample_rate = 48000,
                 .loudness = -23.5,
                 .true_peak = -2};
    job.format = "ts";
    job.hls = {.segments = "fmp4", .seconds = 4};
    job.transport = {.rate = 5'000'000,
                     .service = "Eins",
                     .provider = "Haus",
                     .program = 7,
                     .pmt_pid = 100,
                     .pids = {101, 102}};
    job.longest_repeat = 7.5;
    job.keep_colour = true;
    job.timecode = "10:00:00;02";
    job.adapt = true;
    job.captions.planned = gsve::programme::PlannedCaptions{
        .present = true, .pictures = {{.number = 12, .writes = {}}, {.number = 4'000'000'000, .writes = {}}}};
    gsve::captions::PictureWrites& writes = job.captions.planned->pictures[1].writes;
    writes.words[1] = 0x9420;
    writes.cea708 = {{0xFE, 0x41, 0x00}, {0xFF, 0x0A, 0xF0}};
    writes.first_field = 1;
    writes.has_third = true;
    writes.third = 0x80;
    job.range = {
        .begin = 1500, .end = 3000, .warm_up = 45, .key = gsve::programme::KeyPicture{126'000, 133'200}};
    job.quality = true;
    job.threads = 2;
    job.decoder_threads = 3;
    return job;
}

/// The error with which a changed job is refused.
std::string error_after(const std::function<void(nlohmann::json&)>& change) {
    nlohmann::json json = nlohmann::json::parse(job_json(full_job()));
    change(json);
    try {
        parse_job(json.dump());
    } catch (const UsageError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(JobJson, BringsEveryMemberBack) {
    EXPECT_EQ(parse_job(job_json(full_job())), full_job());
    EXPECT_EQ(parse_job(job_json({})), EncodeJob());
}

TEST(JobJson, KeepsTheOrderOfSettingsThatRepeatAKey) {
    EXPECT_EQ(parse_job(job_json(full_job())).settings, full_job().settings);
}

TEST(JobJson, RefusesWhatIsNoJob) {
    for (const char* text : {"", "{", "[]", "7"}) EXPECT_THROW(parse_job(text), UsageError) << text;
}

TEST(JobJson, NamesEveryMemberThatIsMissing) {
    const auto whole = nlohmann::json::parse(job_json(full_job()));
    for (const auto& member : whole.items())
        EXPECT_EQ(error_after([&](nlohmann::json& job) { job.erase(member.key()); }),
                  "the job lacks \"" + member.key() + "\"");
    for (const char* part : {"captions", "streams", "sound", "transport"})
        for (const auto& member : whole[part].items())
            EXPECT_EQ(error_after([&](nlohmann::json& job) { job[part].erase(member.key()); }),
                      fmt::format("\"{}\" lacks \"{}\"", part, member.key()));
}

TEST(JobJson, NamesAMemberOfAnotherKind) {
    EXPECT_EQ(error_after([](nlohmann::json& job) { job["threads"] = "two"; }),
              "\"threads\" of the job is of another kind");
    EXPECT_EQ(error_after([](nlohmann::json& job) { job["settings"] = {{"a"}}; }),
              "\"settings\" of the job is of another kind");
    EXPECT_EQ(error_after([](nlohmann::json& job) { job["captions"]["rows"] = "x"; }),
              "\"rows\" of \"captions\" is of another kind");
}

TEST(JobJson, NamesANumberThatDoesNotFit) {
    for (const char* number : {"1.5", "2147483648", "-2147483649", "7e23", "true"})
        EXPECT_EQ(error_after([&](nlohmann::json& job) { job["threads"] = nlohmann::json::parse(number); }),
                  "\"threads\" of the job is of another kind")
            << number;
    EXPECT_EQ(error_after([](nlohmann::json& job) {
                  job["streams"]["numbers"] = {0, 1.5};
              }),
              "\"numbers\" of \"streams\" is of another kind");
}

TEST(JobJson, NamesAMemberThatNobodyKnows) {
    EXPECT_EQ(error_after([](nlohmann::json& job) { job["bitrate"] = 1; }),
              "the job has an unknown \"bitrate\"");
    EXPECT_EQ(error_after([](nlohmann::json& job) { job["captions"]["file"] = 1; }),
              "\"captions\" has an unknown \"file\"");
}

TEST(JobJson, RefusesAFileNameThatWouldNotComeBack) {
    EncodeJob job = full_job();
    job.input = "\xFF.mov";
    try {
        job_json(job);
        FAIL() << "a byte that is no text was written";
    } catch (const UsageError& error) {
        EXPECT_THAT(error.what(), HasSubstr("input's name"));
    }
}

}  // namespace
}  // namespace gsve::report
