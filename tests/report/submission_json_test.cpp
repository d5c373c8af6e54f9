// What a submission leaves: what is written comes back, and what could become an order is refused.

#include "report/submission_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/error.h"
#include "report/file_list_json.h"

namespace gsve::report {
namespace {

TEST(SubmissionJson, ComesBackAsItWas) {
    const Submission submission = {
        .work = "ab12",
        .jobs = {{.id = "17", .task = "", .first = 1000, .tasks = {1000, 1001, 1007}},
                 {.id = "18", .task = "sound", .first = 0, .tasks = {}},
                 {.id = "19", .task = "join", .first = 0, .tasks = {}}}};
    EXPECT_EQ(parse_submission(submission_json(submission)), submission);
}

TEST(SubmissionJson, RefusesWhatIsNoRecordOfJobs) {
    const auto with = [](const std::string& job) { return R"({"work": "a", "jobs": [)" + job + "]}"; };
    EXPECT_NO_THROW(parse_submission(with(R"({"id": "1", "task": "", "first": 2, "tasks": [2]})")));
    for (const std::string& text : {
             std::string(),
             std::string("[]"),
             std::string("{\"jobs\": []}"),
             with(R"({"id": "1; touch x", "task": "join", "first": 0, "tasks": []})"),
             with(R"({"id": "--all", "task": "join", "first": 0, "tasks": []})"),
             with(R"({"id": "", "task": "join", "first": 0, "tasks": []})"),
             with(R"({"id": 1, "task": "join", "first": 0, "tasks": []})"),
             with(R"({"id": "1", "task": "other", "first": 0, "tasks": []})"),
             with(R"({"id": "1", "task": "", "first": 0, "tasks": []})"),
             with(R"({"id": "1", "task": "", "first": 3, "tasks": [2]})"),
         })
        EXPECT_THROW(parse_submission(text), Failure) << text;
}

FileList two_files() {
    FileList list;
    list.job.settings = {{"enable", "1"}};
    list.job.format = "ts";
    list.files = {{"/in/a \"b\".mov", "a \"b\".ts"}, {"/in/ü\n.mov", "ü\n.ts"}};
    list.per_task = 3;
    list.processors = 2;
    list.memory = 300;
    return list;
}

TEST(FileListJson, ComesBackAsItWas) { EXPECT_EQ(parse_file_list(file_list_json(two_files())), two_files()); }

TEST(FileListJson, KnowsOtherDocuments) {
    EXPECT_EQ(parse_file_list("{}"), std::nullopt);
    EXPECT_EQ(parse_file_list(R"({"gsve_plan": 1})"), std::nullopt);
    EXPECT_EQ(parse_file_list("no JSON"), std::nullopt);
}

TEST(FileListJson, RefusesOutputsAnywhereElse) {
    for (const char* name : {"../a.ts", "/a.ts", "b/a.ts", "..", ".", ""}) {
        FileList list = two_files();
        list.files[0].output = name;
        EXPECT_THROW(parse_file_list(file_list_json(list)), UsageError) << name;
    }
}

TEST(FileListJson, RefusesNamesThatAreNoText) {
    FileList list = two_files();
    list.files[0].input = "a\xff";
    EXPECT_THROW(file_list_json(list), UsageError);
}

TEST(FileListJson, RefusesAnotherVersion) {
    EXPECT_THROW(parse_file_list(R"({"gsve_files": 2})"), UsageError);
    EXPECT_THROW(parse_file_list(R"({"gsve_files": 1})"), UsageError);
}

}  // namespace
}  // namespace gsve::report
