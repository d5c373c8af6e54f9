// The decoder's buffer in words.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "report/buffer_report.h"

namespace gsve::report {
namespace {

using programme::BufferAccount;
using programme::BufferFinding;
using programme::BufferModel;
using programme::BufferVerdict;
using testing::ElementsAre;
using Kind = BufferFinding::Kind;

BufferAccount account(BufferModel model) {
    BufferAccount account;
    account.model = model;
    account.bit_rate = 4'000'000;
    account.size = 1'835'008;
    account.initial_delay = 0.3444;
    account.least = 1234;
    account.greatest = 1'800'000;
    account.course.resize(3);
    account.course[1] = {
        .unit = 1, .seconds = 0.04, .bits = 1000, .before = 900, .arriving = true, .stated_delay = 0.5};
    return account;
}

void add(BufferAccount& account, BufferFinding finding, int64_t count, int64_t most) {
    account.findings.push_back(finding);
    account.faults[static_cast<size_t>(finding.kind)] = count;
    account.most[static_cast<size_t>(finding.kind)] = most;
}

BufferVerdict verdict_of(std::vector<BufferAccount> accounts) {
    return {.state = BufferVerdict::State::kChecked,
            .units = 5,
            .unreadable = 0,
            .accounts = std::move(accounts)};
}

TEST(BufferLines, GiveTheFiguresOfEachModel) {
    EXPECT_THAT(
        buffer_lines(verdict_of({account(BufferModel::kVbvDelay), account(BufferModel::kVbvConstantRate)})),
        ElementsAre(
            "VBV by vbv_delay, 4000000 bits/s into 1835008 bits: 3 pictures, 0.344 s initial delay, 1234 "
            "to 1800000 bits; holds",
            "VBV at the constant rate, 4000000 bits/s into 1835008 bits: 3 pictures, 0.344 s initial "
            "delay, 1234 to 1800000 bits; holds"));
    const std::pair<BufferModel, const char*> others[] = {
        {BufferModel::kVbvFilledUp, "VBV at variable rate, "},
        {BufferModel::kHrdConstantRate, "HRD at constant rate, "},
        {BufferModel::kHrdVariableRate, "HRD at variable rate, "}};
    for (const auto& [model, begin] : others)
        EXPECT_THAT(buffer_lines(verdict_of({account(model)})), ElementsAre(testing::StartsWith(begin)));
}

TEST(BufferLines, SayWhatIsWrong) {
    BufferAccount faulty = account(BufferModel::kHrdConstantRate);
    faulty.delayed = 2;
    add(faulty, {Kind::kUnderflow, 12, 0.48, 100}, 3, 812);
    add(faulty, {Kind::kOverflow, 7, 3600.28, 5}, 1, 5);
    add(faulty, {Kind::kRate, 1, 0.04, 9}, 2, 90);
    add(faulty, {Kind::kInitialDelay, 24, 0.96, 45}, 1, 45);
    BufferVerdict verdict = verdict_of({faulty});
    verdict.unreadable = 2;
    EXPECT_THAT(buffer_lines(verdict),
                ElementsAre("HRD at constant rate, 4000000 bits/s into 1835008 bits: 3 pictures, 0.344 s "
                            "initial delay, 1234 to "
                            "1800000 bits, 2 late with low delay",
                            "  3 pictures arrive too late, by up to 812 bits; the first is unit 12 at "
                            "00:00:00.480, by 100 bits",
                            "  1 overflow: unit 7 at 01:00:00.280, by 5 bits",
                            "  2 pictures arrive above the rate, by up to 90 bits; the first is unit 1 at "
                            "00:00:00.040, by 9 bits",
                            "  1 wrong initial delay: unit 24 at 00:00:00.960, by 45 bits",
                            "2 of 5 units have no place in it"));
}

TEST(BufferLines, SayWhyNothingIsChecked) {
    using State = BufferVerdict::State;
    const std::pair<State, const char*> reasons[] = {
        {State::kUndeclared, "none declared"},
        {State::kUntimed, "declared, but no unit has a buffering period; not checked"},
        {State::kUnsupported, "declared; that of H.265 is not checked"}};
    for (const auto& [state, reason] : reasons) {
        BufferVerdict verdict;
        verdict.state = state;
        EXPECT_THAT(buffer_lines(verdict), ElementsAre(reason));
    }
}

TEST(BufferJson, HoldsEveryFigure) {
    BufferAccount faulty = account(BufferModel::kVbvDelay);
    add(faulty, {Kind::kUnderflow, 1, 0.04, 100}, 1, 100);
    const auto json = buffer_json(verdict_of({faulty, account(BufferModel::kVbvConstantRate)}), true);
    EXPECT_EQ(json["state"], "checked");
    EXPECT_EQ(json["holds"], false);
    EXPECT_EQ(json["units"], 5);
    const auto& first = json["accounts"][0];
    EXPECT_EQ(first["model"], "vbv_delay");
    EXPECT_EQ(first["bit_rate"], 4'000'000);
    EXPECT_EQ(first["size"], 1'835'008);
    EXPECT_EQ(first["least"], 1234);
    EXPECT_EQ(first["faults"]["underflow"]["count"], 1);
    EXPECT_EQ(first["faults"]["overflow"]["count"], 0);
    EXPECT_EQ(first["findings"][0].dump(), R"({"kind":"underflow","unit":1,"seconds":0.04,"bits":100})");
    EXPECT_EQ(first["course"][1].dump(),
              R"({"unit":1,"seconds":0.04,"before":900,"after":-100,"stated_delay":0.5})");
    EXPECT_EQ(first["course"][0]["stated_delay"], nullptr);
    EXPECT_EQ(json["accounts"][1]["holds"], true);
    EXPECT_FALSE(buffer_json(verdict_of({faulty}), false)["accounts"][0].contains("course"));
}

TEST(BufferJson, NamesEveryStateAndModel) {
    using State = BufferVerdict::State;
    BufferVerdict verdict;
    for (const auto& [state, key] : {std::pair(State::kUndeclared, "undeclared"),
                                     {State::kUntimed, "untimed"},
                                     {State::kUnsupported, "unsupported"}}) {
        verdict.state = state;
        EXPECT_EQ(buffer_json(verdict, false)["state"], key);
    }
    for (const auto& [model, key] : {std::pair(BufferModel::kVbvConstantRate, "vbv_constant_rate"),
                                     {BufferModel::kVbvFilledUp, "vbv_variable_rate"},
                                     {BufferModel::kHrdConstantRate, "hrd_cbr"},
                                     {BufferModel::kHrdVariableRate, "hrd_vbr"}})
        EXPECT_EQ(buffer_json(verdict_of({account(model)}), false)["accounts"][0]["model"], key);
}

}  // namespace
}  // namespace gsve::report
