// The program's table of settings, and what it refuses.

#include <map>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/program.h"

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

TEST(SettingsCommand, ShowsEveryKeyWithSyntaxAndMeaningAsText) {
    const ProgramResult shown = run({"settings"});
    EXPECT_EQ(shown.status, 0);
    for (const auto& setting : listed_settings()) {
        EXPECT_THAT(shown.out, HasSubstr("  " + setting["key"].get<std::string>() + " "));
        EXPECT_THAT(shown.out, HasSubstr(setting["meaning"].get<std::string>()));
        EXPECT_FALSE(setting["syntax"].get<std::string>().empty());
    }
}

TEST(SettingsCommand, AcceptsEveryDefaultThatItShows) {
    for (const auto& setting : listed_settings()) {
        const std::string value = setting["default"];
        const std::string text = setting["key"].get<std::string>() + "=" + value;
        if (setting["key"] == "encoder") continue;  // has none
        const ProgramResult result = run({"encode", "none.mpg", "out.ts", "--set", text});
        EXPECT_EQ(result.status, 1) << result.err;  // for want of the input
    }
}

TEST(SettingsCommand, SaysWhatAnEmptyValueSets) {
    std::map<std::string, std::string> defaults, emptied;
    for (const auto& setting : listed_settings()) {
        defaults[setting["key"]] = setting["default"];
        emptied[setting["key"]] = setting["empty"];
    }
    EXPECT_EQ(defaults["noise reduction"], "5");
    EXPECT_EQ(emptied["noise reduction"], "15");
    EXPECT_EQ(defaults["b frames"], "2");
    EXPECT_EQ(emptied["b frames"], "2");
    EXPECT_EQ(emptied["encoder"], "none");
    EXPECT_THAT(run({"settings"}).out, HasSubstr("2147483647; empty: 15 ("));
}

TEST(SettingsCommand, NamesTheCodecsThatASettingIsFor) {
    std::map<std::string, std::string> codecs;
    for (const auto& setting : listed_settings()) codecs[setting["key"]] = setting["codecs"];
    EXPECT_EQ(codecs["bitrate"], "mpeg-2, h.264, h.265");
    EXPECT_EQ(codecs["h.264 aud"], "h.264");
    EXPECT_EQ(codecs["noise reduction"], "mpeg-2, h.264");
    EXPECT_EQ(codecs["p masking"], "mpeg-2");
    EXPECT_THAT(run({"settings"}).out, HasSubstr("0 or 1 (h.264)"));
}

TEST(Tables, AreThoseOfTheReadme) {
    const std::string readme = read_file(GSVE_SOURCE_DIR "/README.md");
    for (const std::string table : {"settings", "streams"}) {
        const std::string begin = "<!-- gsve " + table + " --markdown -->\n", end = "<!-- end -->\n";
        const size_t from = readme.find(begin);
        ASSERT_NE(from, std::string::npos) << table;
        const size_t to = readme.find(end, from);
        ASSERT_NE(to, std::string::npos) << table;
        EXPECT_EQ(readme.substr(from + begin.size(), to - from - begin.size()),
                  run({table, "--markdown"}).out)
            << "./dev readme writes them";
    }
}

TEST(SettingsCommand, PrintsOneFormAtATime) {
    EXPECT_EQ(run({"settings", "--markdown", "--json"}).status, 2);
}

TEST(SettingsCommand, FailsWhenItCannotBeWritten) {
    const ProgramResult result = Program({"settings"}, "/dev/full").wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, StartsWith("gsve: cannot write the results to standard output"));
}

TEST(Program, PrintsItsVersion) {
    const ProgramResult shown = Program(gsve_program(), {"--version"}).wait();
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.out, StartsWith("gsve 4."));
    EXPECT_THAT(shown.out, HasSubstr("libavcodec"));
}

TEST(Program, ExplainsItsCommands) {
    EXPECT_THAT(run({"help"}).out, HasSubstr("settings"));
    const ProgramResult shown = run({"help", "encode"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_THAT(shown.out, HasSubstr("--report"));
    // With "Usage: " in front, before CLI11 2.6.
    EXPECT_THAT(shown.out, HasSubstr("gsve encode [OPTIONS] INPUT OUTPUT\n"));
    EXPECT_EQ(run({"encode", "--help"}).out, shown.out);
    EXPECT_THAT(run({"help", "farm", "submit"}).out, HasSubstr("gsve farm submit [OPTIONS]"));
    EXPECT_EQ(run({"farm", "submit", "--help"}).out, run({"help", "farm", "submit"}).out);
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
        Refusal{{}, "gsve help"}, Refusal{{"transcode"}, "transcode (gsve help explains)"},
        Refusal{{"--bogus"}, "--bogus (gsve help explains)"},
        Refusal{{"encode", "a", "b.ts", "--bogus"}, "--bogus (gsve help encode explains)"},
        Refusal{{"farm", "submit", "--bogus"}, "--bogus (gsve help farm submit explains)"},
        Refusal{{"help", "farm", "transcode"}, "no command \"farm transcode\""},
        Refusal{{"help", "transcode"}, "gsve help"}, Refusal{{"encode", "in.mpg"}, "OUTPUT"},
        Refusal{{"encode", "in.mpg", "out.avi"}, ".m2v .h264 .264 .h265 .265 .hevc .ts .mp4 .mov .mkv"},
        Refusal{{"encode", "in.mpg", "out"}, ".mp4"},
        Refusal{{"encode", "in.mpg", "out.ts", "--report", "xml"}, "--report"},
        Refusal{{"encode", "in.mpg", "out.ts", "--rate", "fast"}, "--rate"},
        Refusal{{"encode", "in.mpg", "out.ts", "--codec", "vp9"}, "--codec"},
        Refusal{{"encode", "in.mpg", "out.m2v", "--codec", "h.264"}, "out.m2v is for mpeg-2, not h.264"},
        Refusal{{"encode", "in.mpg", "out.m2v", "--set", "encoder=h.265"},
                "out.m2v is for mpeg-2, not h.265"},
        Refusal{{"encode", "in.mpg", "out.ts", "--codec", "h.264", "--set", "encoder=mpeg-2"}, "two codecs"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "encoder=none"}, "encodes nothing"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "encoder=H.264"}, "mpeg-2, h.264, h.265, none"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "bitrate"}, "KEY=VALUE"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "bit rate=1000000"}, "did you mean \"bitrate\"?"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "cpu threshold=0.5"},
                "did you mean \"cpu threshhold\"?"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "Bitrate=1000000"}, "did you mean \"bitrate\"?"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "bitrate=6M"},
                "whole number from 10000 to 2147483647; not \"6M\""},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "resize=1280X720"}, "WIDTHxHEIGHT"},
        Refusal{{"encode", "in.mpg", "out.ts", "--set", "h.264 aud=yes"}, "0 or 1"},
        Refusal{{"encode", "in.mpg", "out.ts", "--rate", "0.5"}, "1 to 1000 pictures/s"},
        Refusal{{"encode", "in.mpg", "out.ts", "--rate", "1001"}, "1 to 1000 pictures/s"}));

struct RefusedValue {
    const char* setting;
    const char* advice;
};

class RefusedSetting : public testing::TestWithParam<RefusedValue> {};

TEST_P(RefusedSetting, NamesWhatIsAllowed) {
    const ProgramResult result = run({"encode", "in.mpg", "out.ts", "--set", GetParam().setting});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, StartsWith("gsve: \""));
    EXPECT_THAT(result.err, HasSubstr(GetParam().advice));
}

INSTANTIATE_TEST_SUITE_P(Values, RefusedSetting,
                         testing::Values(RefusedValue{"gop size=5000", "from -1 to 1000; not \"5000\""},
                                         RefusedValue{"resize deinterlace=9", "from -1 to 4"},
                                         RefusedValue{"resize deinterlace=-2", "from -1 to 4"},
                                         RefusedValue{"s_tune_cpu=20000", "from 0 to 10000"},
                                         RefusedValue{"cpu threshhold=0.05", "from 0.1 to 0.95"},
                                         RefusedValue{"cpu threshhold=0.96", "from 0.1 to 0.95"},
                                         RefusedValue{"motion estimation range=0", "from 1 to 256"},
                                         RefusedValue{"b frames=101", "from 0 to 100"},
                                         RefusedValue{"bitrate=99999999999", "from 10000 to 2147483647"},
                                         RefusedValue{"bitrate=9999", "from 10000 to 2147483647"},
                                         RefusedValue{"frame rate limit=025", "whole number"},
                                         RefusedValue{"frame rate limit=0x19", "whole number"},
                                         RefusedValue{"reference frames=010", "whole number"},
                                         RefusedValue{"resize=641x480", "even"},
                                         RefusedValue{"resize=640x481", "even"},
                                         RefusedValue{"resize=16386x480", "16384x16384"},
                                         RefusedValue{"resize=640x99999999999", "16384x16384"},
                                         RefusedValue{"h.264 profile=extended", "high422"},
                                         RefusedValue{"h.264 preset=superslow", "veryslow"},
                                         RefusedValue{"chroma format=420", "4:2:0, 4:2:2, 4:4:4"},
                                         RefusedValue{"drop frame for bitrate limit=yes", "on, off, auto"}));

class AcceptedSetting : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(AcceptedSetting, IsNotRefused) {
    std::vector<std::string> arguments = {"encode", "none.mpg", "out.ts"};
    for (const std::string& setting : GetParam()) arguments.insert(arguments.end(), {"--set", setting});
    const ProgramResult result = run(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot open none.mpg")) << "the input is missed first";
}

INSTANTIATE_TEST_SUITE_P(Values, AcceptedSetting,
                         testing::Values(std::vector<std::string>{"gop size=1000"},
                                         std::vector<std::string>{"bitrate=10000"},
                                         std::vector<std::string>{"bitrate=2147483647"},
                                         std::vector<std::string>{"frame rate limit=0"},
                                         std::vector<std::string>{"cpu threshhold=0.1"},
                                         std::vector<std::string>{"motion estimation range=256"},
                                         std::vector<std::string>{"resize=16384x2"},
                                         std::vector<std::string>{"resize=641x481", "chroma format=4:4:4"},
                                         std::vector<std::string>{"resize=640x481", "chroma format=4:2:2"},
                                         std::vector<std::string>{"h.264 preset=ultrafast+deblock"}));

}  // namespace
