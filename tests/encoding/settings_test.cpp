// The settings as a user writes them: what each takes, and what the refusals say.

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/error.h"
#include "encoding/settings.h"
#include "support/failure_of.h"

namespace {

using gsve::UsageError;
using gsve::encoding::check_together;
using gsve::encoding::codecs_text;
using gsve::encoding::KeyValue;
using gsve::encoding::parse_setting;
using gsve::encoding::Setting;
using gsve::encoding::settings;
using gsve::encoding::Syntax;
using gsve::encoding::syntax_text;
using testing::HasSubstr;

std::string refusal_of(const std::string& text) {
    return gsve::test::refusal_of([&] { parse_setting(text); });
}

const Setting& setting(std::string_view key) {
    const auto all = settings();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Setting& s) { return s.key == key; });
    if (found == all.end()) throw std::out_of_range(std::string(key));
    return *found;
}

const std::vector<std::string> kOnOff = {"0", "1"};
const std::vector<std::string> kNotOnOff = {"-1", "2", "on", "00", "1.0"};
const std::vector<std::string> kOnOffAuto = {"0", "1", "-1"};
const std::vector<std::string> kNotOnOffAuto = {"-2", "2", "auto", "+1"};

struct Taken {
    std::string key;
    std::vector<std::string> taken;
    std::vector<std::string> refused;
};

const std::vector<Taken> kTaken = {
    {"encoder", {"mpeg-2", "h.264", "h.265", "none"}, {"h264", "mpeg-2 h.264", "MPEG-2", "h.26"}},
    {"enable", kOnOff, kNotOnOff},
    {"name", {"x", "two words", "0"}, {}},
    {"debug file", kOnOff, kNotOnOff},
    {"bitrate", {"10000", "2147483647"}, {"9999", "2147483648", "-10000", "1e6", "10000.5", "6M"}},
    {"min bitrate", {"-1", "0", "2147483647"}, {"-2", "2147483648", "-0x1"}},
    {"max bitrate", {"-1", "0", "2147483647"}, {"-2", "2147483648"}},
    {"bitrate tolerance", {"-1", "2147483647"}, {"-2", "2147483648"}},
    {"buffer size", {"-1", "0", "2147483647"}, {"-2", "2147483648"}},
    {"minimum quant", {"-1", "0", "63"}, {"-2", "64"}},
    {"maximum quant", {"-1", "0", "63"}, {"-2", "64"}},
    {"constant bitrate per frame", kOnOffAuto, kNotOnOffAuto},
    {"drop frame for bitrate limit", {"on", "off", "auto"}, {"0", "1", "On", ""}},
    {"remove trailing zeros", kOnOff, kNotOnOff},
    {"frame rate limit", {"-1", "0", "30", "2147483647"}, {"-2", "29.97"}},
    {"gop size", {"-1", "0", "1000"}, {"-2", "1001"}},
    {"closed gop", kOnOff, kNotOnOff},
    {"gop synchronization", kOnOff, kNotOnOff},
    {"b frames", {"0", "100"}, {"-1", "101"}},
    {"reference frames", {"0", "16"}, {"-1", "17"}},
    {"chroma format", {"4:2:0", "4:2:2", "4:4:4"}, {"4:1:1", "420"}},
    {"resize",
     {"2x2", "1920x1080", "16384x16384", "1x9", "10000x2"},
     {"0x2", "2x0", "16385x2", "2x16385", "720", "720x", "x576", "720X576", "720x576x1", "0720x576", "-2x2",
      "123456x2", "2x123456"}},
    {"resize deinterlace", {"-1", "0", "4"}, {"-2", "5"}},
    {"noise reduction", {"0", "2147483647"}, {"-1"}},
    {"motion estimation range", {"1", "256"}, {"0", "257"}},
    {"interlaced motion estimation", kOnOffAuto, kNotOnOffAuto},
    {"temporal complexity masking", {"0", "0.005", "1.", "1000000"}, {"-0.001", "-1", ".5", "1e3", "00.5"}},
    {"spatial complexity masking", {"0", "0.02"}, {"-0.001", "-1", "nan"}},
    {"p masking", {"0", "0.8", "2"}, {"-0.001", "-1", "inf"}},
    {"s_tune_cpu", {"0", "10000"}, {"-0.001", "10000.1", "-1", "10001"}},
    {"s_tune_bitrate", {"0", "10000"}, {"-0.001", "10000.1", "-1", "10001"}},
    {"s_tune_recovery", {"0", "10000"}, {"-0.001", "10000.1", "-1", "10001"}},
    {"cpu threshhold", {"0.1", "0.6", "0.95"}, {"0", "0.0999", "0.9501", "1"}},
    {"maximum threads", {"0", "64", "2147483647"}, {"-1"}},
    {"h.264 profile", {"baseline", "main", "high", "high10", "high422", "high444"}, {"extended", "high "}},
    {"h.264 preset",
     {"ultrafast", "ultrafast+deblock", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower",
      "veryslow", "placebo"},
     {"fastest", "+deblock"}},
    {"h.264 level", {"4.1", "anything"}, {}},
    {"h.264 aud", kOnOff, kNotOnOff},
    {"enable h.264 nal hrd", kOnOff, kNotOnOff},
    {"h.264 b-slice multithreading", kOnOff, kNotOnOff},
    {"enable eia-608", kOnOffAuto, kNotOnOffAuto},
    {"enable eia-608 gop delay", {"-1", "0", "2147483647"}, {"-2"}},
    {"eia-608 on p-frames", kOnOffAuto, kNotOnOffAuto},
    {"enable cea-708", kOnOffAuto, kNotOnOffAuto},
};

TEST(Settings, OfTheTestAreAllThereAre) {
    std::vector<std::string> tested, all;
    for (const Taken& row : kTaken) tested.push_back(row.key);
    for (const Setting& s : settings()) all.emplace_back(s.key);
    EXPECT_EQ(tested, all);
}

TEST(ParseSetting, TakesEachValueUpToItsBounds) {
    for (const Taken& row : kTaken)
        for (const std::string& value : row.taken)
            EXPECT_EQ(parse_setting(row.key + "=" + value), KeyValue(row.key, value));
}

TEST(ParseSetting, RefusesWhatIsBehindTheBoundsWithTheSyntax) {
    for (const Taken& row : kTaken)
        for (const std::string& value : row.refused) {
            if (value.empty() || value.ends_with(' ')) continue;  // trimmed away
            EXPECT_EQ(refusal_of(row.key + "=" + value),
                      "\"" + row.key + "\" takes: " + syntax_text(setting(row.key).values) + "; not \"" +
                          value + "\"");
        }
}

TEST(ParseSetting, TakesAnEmptyValueForEveryKey) {
    for (const Setting& s : settings())
        EXPECT_EQ(parse_setting(std::string(s.key) + "="), KeyValue(s.key, ""));
}

TEST(ParseSetting, TrimsSpacesAroundKeyAndValue) {
    const struct {
        const char* text;
        KeyValue expected;
    } rows[] = {
        {" bitrate = 10000 ", {"bitrate", "10000"}},
        {"   gop size   =   -1", {"gop size", "-1"}},
        {"name=  two  words  ", {"name", "two  words"}},
        {"name=   ", {"name", ""}},
        {"name=x=y", {"name", "x=y"}},
    };
    for (const auto& row : rows) EXPECT_EQ(parse_setting(row.text), row.expected) << row.text;
}

TEST(ParseSetting, AsksForAnEqualsSign) {
    EXPECT_EQ(refusal_of("bitrate 10000"), "--set takes \"KEY=VALUE\", not \"bitrate 10000\"");
}

/// Levenshtein's distance by its definition.
size_t edits(const std::string& a, const std::string& b) {
    std::map<std::pair<size_t, size_t>, size_t> known;
    const std::function<size_t(size_t, size_t)> from = [&](size_t i, size_t j) -> size_t {
        if (i == a.size()) return b.size() - j;
        if (j == b.size()) return a.size() - i;
        const auto at = std::pair(i, j);
        if (const auto found = known.find(at); found != known.end()) return found->second;
        const size_t least =
            std::min({from(i + 1, j) + 1, from(i, j + 1) + 1, from(i + 1, j + 1) + (a[i] != b[j])});
        return known[at] = least;
    };
    return from(0, 0);
}

TEST(ParseSetting, NamesTheKeyThatIsTheFewestEditsAway) {
    std::mt19937 random(7);
    const auto any = [&](size_t count) { return static_cast<size_t>(random() % count); };
    const std::string letters = "abemnrst -.2";
    for (int round = 0; round < 150; round++) {
        std::string key(settings()[any(settings().size())].key);
        for (size_t edit = 0; edit <= any(6); edit++) {
            const size_t at = any(key.size() + 1);
            switch (any(3)) {
                case 0: key.insert(at, 1, letters[any(letters.size())]); break;
                case 1: key.erase(std::min(at, key.size()), 1 + any(3)); break;
                default: key.replace(std::min(at, key.size()), 1, 1, letters[any(letters.size())]);
            }
        }
        while (key.starts_with(' ')) key.erase(0, 1);
        while (key.ends_with(' ')) key.pop_back();
        const Setting* nearest = nullptr;
        size_t fewest = SIZE_MAX;
        for (const Setting& s : settings()) {
            const size_t needed = edits(key, std::string(s.key));
            if (needed < fewest) nearest = &s;
            fewest = std::min(fewest, needed);
        }
        if (nearest->key == key) continue;
        EXPECT_EQ(refusal_of(key + "=1"), "--set: there is no setting \"" + key + "\"; did you mean \"" +
                                              std::string(nearest->key) + "\"? (gsve settings lists all)");
    }
}

TEST(SyntaxText, TellsHowAValueIsWritten) {
    const struct {
        const char* key;
        const char* text;
    } rows[] = {
        {"enable", "0 or 1"},
        {"enable cea-708", "0, 1 or -1 (automatic)"},
        {"gop size", "whole number from -1 to 1000"},
        {"bitrate", "whole number from 10000 to 2147483647"},
        {"cpu threshhold", "number from 0.1 to 0.95"},
        {"p masking", "number from 0"},
        {"resize", "WIDTHxHEIGHT up to 16384x16384, even where chroma is subsampled"},
        {"drop frame for bitrate limit", "on, off, auto"},
        {"encoder", "mpeg-2, h.264, h.265, none"},
        {"name", "text"},
    };
    for (const auto& row : rows) EXPECT_EQ(syntax_text(setting(row.key).values), row.text);
}

TEST(CodecsText, ListsTheNamesOfASet) {
    EXPECT_EQ(codecs_text(2), "mpeg-2");
    EXPECT_EQ(codecs_text(4), "h.264");
    EXPECT_EQ(codecs_text(8), "h.265");
    EXPECT_EQ(codecs_text(2 | 8), "mpeg-2, h.265");
    EXPECT_EQ(codecs_text(gsve::encoding::kAllCodecs), "mpeg-2, h.264, h.265");
    EXPECT_EQ(codecs_text(0), "");
}

TEST(Settings, NameTheCodecsForWhichTheyDoSomething) {
    const struct {
        const char* key;
        const char* codecs;
    } rows[] = {
        {"bitrate", "mpeg-2, h.264, h.265"},        {"p masking", "mpeg-2"},
        {"h.264 preset", "h.264, h.265"},           {"h.264 aud", "h.264"},
        {"noise reduction", "mpeg-2, h.264"},       {"enable eia-608", "mpeg-2"},
        {"enable cea-708", "mpeg-2, h.264, h.265"},
    };
    for (const auto& row : rows) EXPECT_EQ(codecs_text(setting(row.key).codecs), row.codecs) << row.key;
}

TEST(CheckTogether, RefusesOddSizesThatTheChromaCannotHave) {
    struct Row {
        std::vector<KeyValue> given;
        const char* chroma;  ///< that the refusal names; null: accepted
    };
    const Row rows[] = {
        {{}, nullptr},
        {{{"resize", ""}}, nullptr},
        {{{"resize", "720x576"}}, nullptr},
        {{{"resize", "721x576"}}, "4:2:0"},
        {{{"resize", "720x577"}}, "4:2:0"},
        {{{"resize", "721x577"}, {"chroma format", "4:2:0"}}, "4:2:0"},
        {{{"resize", "720x577"}, {"chroma format", "4:2:2"}}, nullptr},
        {{{"resize", "721x576"}, {"chroma format", "4:2:2"}}, "4:2:2"},
        {{{"resize", "721x577"}, {"chroma format", "4:4:4"}}, nullptr},
        {{{"encoder", "h.264"}, {"resize", "721x577"}, {"chroma format", "4:4:4"}}, nullptr},
        {{{"encoder", "mpeg-2"}, {"resize", "720x577"}, {"chroma format", "4:4:4"}}, nullptr},
        {{{"encoder", "mpeg-2"}, {"resize", "721x576"}, {"chroma format", "4:4:4"}}, "4:2:2"},
        {{{"encoder", "mpeg-2"}, {"resize", "721x576"}, {"chroma format", "4:2:0"}}, "4:2:0"},
        // The last of a key counts.
        {{{"resize", "721x576"}, {"resize", "720x576"}}, nullptr},
        {{{"resize", "720x576"}, {"resize", "721x576"}}, "4:2:0"},
    };
    for (const Row& row : rows) {
        const std::string said = gsve::test::refusal_of([&] { check_together(row.given); });
        if (!row.chroma) {
            EXPECT_EQ(said, "") << testing::PrintToString(row.given);
            continue;
        }
        EXPECT_THAT(said, HasSubstr("\"resize\" takes even sizes, as " + std::string(row.chroma) +
                                    " chroma needs them; not \"72"))
            << testing::PrintToString(row.given);
    }
}

}  // namespace
