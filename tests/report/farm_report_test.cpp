// How far a farm is, in words: columns, what failed, and names that are no words.

#include "report/farm_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace gsve::report {
namespace {

using testing::HasSubstr;
using testing::Not;

FarmWork work(const std::string& name, std::vector<TaskState> states) {
    FarmWork work{.name = name, .output = "film.mp4", .tasks = {}, .seconds_left = {}};
    for (size_t n = 0; n < states.size(); n++)
        work.tasks.push_back({.name = "chunk " + std::to_string(n),
                              .state = states[n],
                              .job = "7_" + std::to_string(n),
                              .node = "",
                              .why = states[n] == TaskState::kFailed ? "gsve: disk full" : "",
                              .log = "film/log"});
    return work;
}

using enum TaskState;

TEST(FarmText, CountsTasksByTheirStates) {
    FarmWork half = work("film.json", {kDone, kRunning, kWaiting, kBlocked});
    half.seconds_left = 3723.2;
    EXPECT_EQ(farm_text({half}),
              "NAME                DONE         RUNNING  WAITING  FAILED      LEFT\n"
              "film.json         1 of 4   25 %        1        2       0  01:02:04\n");
}

TEST(FarmText, KeepsColumnsWhereNamesAreLongOrHaveLettersOfSeveralBytes) {
    const std::string text = farm_text({work("größer.json", {kDone}), work("a", {kDone})});
    EXPECT_THAT(text, HasSubstr("\ngrößer.json         1 of 1  100 %"));
    EXPECT_THAT(text, HasSubstr("\na                   1 of 1  100 %"));
}

TEST(FarmText, TellsWhatFailedWithItsLog) {
    EXPECT_THAT(farm_text({work("film.json", {kDone, kFailed})}),
                HasSubstr("\nfilm.json, chunk 1: gsve: disk full\n    film/log\n"));
}

TEST(FarmText, TellsTwentyFailuresAndCountsTheRest) {
    const std::string text = farm_text({work("film.json", std::vector<TaskState>(23, kFailed))});
    EXPECT_THAT(text, HasSubstr("chunk 19: "));
    EXPECT_THAT(text, Not(HasSubstr("chunk 20: ")));
    EXPECT_THAT(text, HasSubstr("\nand 3 more; --json has all\n"));
    EXPECT_THAT(farm_text({work("film.json", std::vector<TaskState>(20, kFailed))}), Not(HasSubstr(" more")));
}

TEST(FarmText, HasNoCommandsForTerminals) {
    FarmWork odd = work("a\n\x1b[2Jb", {kFailed});
    odd.tasks[0].why = "c\rd\x7f";
    const std::string text = farm_text({odd});
    EXPECT_THAT(text, HasSubstr("a??[2Jb"));
    EXPECT_THAT(text, HasSubstr("c?d?"));
    EXPECT_EQ(text.find_first_of("\x1b\r\x7f"), text.npos);
}

TEST(FarmJson, HasEachTask) {
    FarmWork some = work("film.json", {kDone, kRunning, kWaiting, kBlocked, kFailed});
    const auto json = nlohmann::json::parse(farm_json({some}))["works"][0];
    EXPECT_EQ(json["done"], 1);
    EXPECT_EQ(json["waiting"], 2);
    EXPECT_EQ(json["failed"], 1);
    EXPECT_TRUE(json["seconds_left"].is_null());
    std::vector<std::string> states;
    for (const auto& task : json["tasks"]) states.push_back(task["state"]);
    EXPECT_THAT(states, testing::ElementsAre("done", "running", "waiting", "blocked", "failed"));
    EXPECT_EQ(json["tasks"][4]["why"], "gsve: disk full");
}

TEST(FarmJson, TakesNamesThatAreNoText) {
    EXPECT_EQ(nlohmann::json::parse(farm_json({work("a\xff", {kDone})}))["works"][0]["name"], "a\uFFFD");
}

TEST(FarmPage, IsOneFileThatTakesNamesAsText) {
    const std::string page = farm_page({work("<script>&\"\xff", {kDone, kFailed})}, "now");
    EXPECT_THAT(page, HasSubstr("&lt;script&gt;&amp;&quot;\uFFFD"));
    EXPECT_THAT(page, Not(HasSubstr("<script")));
    EXPECT_THAT(page, Not(HasSubstr("http://")));
    for (const char* part : {"@PAGE_CSS@", "@FARM_CSS@", "@TIME@", "@VERDICT@", "@TABLES@"})
        EXPECT_THAT(page, Not(HasSubstr(part)));
    EXPECT_THAT(page, HasSubstr("1 of 2 tasks failed"));
    EXPECT_THAT(page, HasSubstr("gsve: disk full"));
}

TEST(FarmPage, SaysWhenAllIsDone) {
    EXPECT_THAT(farm_page({work("film.json", {kDone, kDone})}, "now"), HasSubstr("All 2 tasks are done"));
    EXPECT_THAT(farm_page({work("film.json", {kDone, kWaiting})}, "now"),
                HasSubstr("1 of 2 tasks are done, none failed"));
}

}  // namespace
}  // namespace gsve::report
