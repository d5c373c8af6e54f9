// The program's table of settings, and what it refuses.

#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/program.h"
#include "support/recording_host.h"

namespace {

using namespace gsve::test;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

nlohmann::json listed_settings() { return nlohmann::json::parse(run({"settings", "--json"}).out); }

TEST(SettingsCommand, ListsFortyFourDistinctKeys) {
    std::set<std::string> keys;
    for (const auto& setting : listed_settings()) keys.insert(setting["key"]);
    EXPECT_EQ(listed_settings().size(), 44u);
    EXPECT_EQ(keys.size(), 44u);
}

TEST(SettingsCommand, ListsOnlyKeysThatTheEncoderAccepts) {
    const std::set<std::string> applied_on_the_fly = {"name", "gop synchronization", "remove trailing zeros"};
    for (const auto& setting : listed_settings()) {
        const std::string key = setting["key"];
        RecordingHost host;
        host.on_set(key.c_str(), key == "encoder" ? "h.264" : "1", false);
        EXPECT_EQ(host.free_calls > 0, !applied_on_the_fly.contains(key)) << key;
    }
    RecordingHost host;
    host.on_set("name", "main", false);
    host.on_set("gop synchronization", "1", false);
    host.on_set("remove trailing zeros", "1", false);
    EXPECT_EQ(host.encoder_name, "main");
    EXPECT_TRUE(host.gop_synchronization);
    EXPECT_TRUE(host.remove_trailing_zeros);
}

TEST(SettingsCommand, ShowsEveryKeyWithSyntaxAndMeaningAsText) {
    const ProgramResult shown = run({"settings"});
    EXPECT_EQ(shown.status, 0);
    for (const auto& setting : listed_settings()) {
        EXPECT_THAT(shown.out, HasSubstr("  " + setting["key"].get<std::string>() + " "));
        EXPECT_THAT(shown.out, HasSubstr(setting["meaning"].get<std::string>()));
        EXPECT_FALSE(setting["syntax"].get<std::string>().empty());
    }
}

TEST(Program, PrintsItsVersion) {
    const ProgramResult shown = run({"--version"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.out, StartsWith("gsve 4."));
    EXPECT_THAT(shown.out, HasSubstr("libavcodec"));
}

TEST(Program, ExplainsItsCommands) {
    EXPECT_THAT(run({"help"}).out, HasSubstr("settings"));
    const ProgramResult shown = run({"help", "encode"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.out, HasSubstr("--report"));
}

struct Refusal {
    std::vector<std::string> arguments;
    std::string advice;  ///< part of the line
};

class UsageError : public testing::TestWithParam<Refusal> {};

TEST_P(UsageError, IsOneLineAndExitStatusTwo) {
    const ProgramResult result = run(GetParam().arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, StartsWith("gsve: "));
    EXPECT_THAT(result.err, HasSubstr(GetParam().advice));
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, UsageError,
    testing::Values(
        Refusal{{}, "subcommand"}, Refusal{{"transcode"}, "gsve help"},
        Refusal{{"help", "transcode"}, "gsve help"}, Refusal{{"encode", "in.mpg"}, "OUTPUT"},
        Refusal{{"encode", "in.mpg", "out.avi"}, ".m2v .h264 .264 .h265 .265 .hevc .ts .mp4 .mkv"},
        Refusal{{"encode", "in.mpg", "out"}, ".mp4"},
        Refusal{{"encode", "in.mpg", "out.ts", "--report", "xml"}, "--report"},
        Refusal{{"encode", "in.mpg", "out.ts", "--rate", "fast"}, "--rate"},
        Refusal{{"encode", "in.mpg", "out.ts", "--codec", "vp9"}, "--codec"},
        Refusal{{"encode", "in.mpg", "out.m2v", "--codec", "h.264"}, "out.m2v is for mpeg-2, not h.264"},
        Refusal{{"encode", "in.mpg", "out.m2v", "--set", "encoder=h.265"},
                "out.m2v is for mpeg-2, not h.265"},
        Refusal{{"encode", "in.mpg", "out.ts", "--codec", "h.264", "--set", "encoder=mpeg-2"}, "two codecs"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "encoder=none"}, "encodes nothing"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "encoder=H.264"}, "mpeg-2, h.264 or h.265"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "bitrate"}, "KEY=VALUE"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "bit rate=1000000"}, "did you mean \"bitrate\"?"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "cpu threshold=0.5"},
                "did you mean \"cpu threshhold\"?"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "Bitrate=1000000"}, "did you mean \"bitrate\"?"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "bitrate=6M"}, "whole number, not \"6M\""},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "resize=1280X720"}, "WIDTHxHEIGHT"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "h.264 aud=yes"}, "0 or 1"}));

}  // namespace
