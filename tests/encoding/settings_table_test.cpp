// The table of settings in words, held against the library: the keys, what the shown defaults and empty
// values set, and what becomes of the values at the shown bounds and beyond them.

#include <cmath>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/settings.h"
#include "support/recording_host.h"
#include "support/scratch.h"
#include "support/setting_fields.h"
#include "support/stderr_capture.h"

namespace {

using namespace gsve::test;
using gsve::encoding::Setting;
using gsve::encoding::Syntax;

std::set<std::string> keys_in_words() {
    std::set<std::string> keys;
    for (const Setting& setting : gsve::encoding::settings()) keys.emplace(setting.key);
    return keys;
}

/// The keys of the library's own table, which it does not export: read where they are written.
std::multiset<std::string> keys_in_library() {
    const std::string source = read_file(GSVE_SOURCE_DIR "/lib/gsve.cpp");
    const size_t begin = source.find("kSettings[] = {");
    const std::string table = source.substr(begin, source.find("};", begin) - begin);
    static const std::regex entry("\\n *\\{\"([^\"]+)\", ");
    std::multiset<std::string> keys;
    for (std::sregex_iterator match(table.begin(), table.end(), entry), end; match != end; ++match)
        keys.insert((*match)[1]);
    return keys;
}

/// The fields of an encoder after one call, over foreign values.
FieldTexts fields_after(const std::string& key, const std::string& value, int pattern = 0) {
    RecordingHost host;
    soil_settings(host, pattern);
    host.on_set(key.c_str(), value.c_str(), false);
    return setting_values(host);
}

std::string first_value(const Setting& setting) {
    if (setting.values.syntax == Syntax::kSize) return "640x480";
    const std::string_view choices = setting.values.choices;
    return choices.empty() ? "1" : std::string(choices.substr(0, choices.find(' ')));
}

/// The fields that a setting writes. Over two patterns of foreign values, each written field differs from at
/// least one.
std::set<std::string> fields_of(const Setting& setting) {
    std::set<std::string> names;
    for (const int pattern : {0, 1}) {
        RecordingHost untouched;
        soil_settings(untouched, pattern);
        const FieldTexts before = setting_values(untouched);
        for (const auto& [name, text] : fields_after(std::string(setting.key), first_value(setting), pattern))
            if (text != before.at(name)) names.insert(name);
    }
    return names;
}

FieldTexts only(const std::set<std::string>& names, const FieldTexts& fields) {
    FieldTexts some;
    for (const std::string& name : names) some[name] = fields.at(name);
    return some;
}

/// The number in the one field of a setting.
double number_after(const Setting& setting, const std::string& value) {
    const std::set<std::string> names = fields_of(setting);
    EXPECT_EQ(names.size(), 1u) << setting.key;
    return std::stod(fields_after(std::string(setting.key), value).at(*names.begin()));
}

bool is_number(const Setting& setting) {
    return setting.values.syntax == Syntax::kWhole || setting.values.syntax == Syntax::kReal;
}

std::string written(double number) {
    std::ostringstream text;
    text.precision(12);
    text << number;
    return text.str();
}

/// Values that the program refuses although the library keeps them, and why.
const std::map<std::string, const char*> kRefusedBelow = {
    {"bitrate", "opening refuses it"},
    {"gop size", "all below 1 mean the same"},
    {"enable eia-608 gop delay", "nothing reads it"},
    {"temporal complexity masking", "masking has no negative strength"},
    {"spatial complexity masking", "masking has no negative strength"},
    {"p masking", "masking has no negative strength"},
};
const std::map<std::string, const char*> kRefusedAbove = {
    {"minimum quant", "quantisers end at 63"},
    {"maximum quant", "quantisers end at 63"},
    {"reference frames", "H.264 has 16"},
    {"resize deinterlace", "there are no more modes"},
};

TEST(SettingsInWords, SayWhichAnOpenEncoderTakesAtOnce) {
    for (const Setting& setting : gsve::encoding::settings()) {
        RecordingHost host;
        describe_source(host, 64, 48, 25, 1);
        configure(host, {{"encoder", "mpeg-2"}, {"enable", "1"}});
        bool opened = false;
        stderr_of([&] { opened = host.client_addref(); });
        ASSERT_TRUE(opened);
        // The codec that it has already closes nothing.
        const std::string value = setting.key == "encoder" ? "h.264" : first_value(setting);
        host.on_set(std::string(setting.key).c_str(), value.c_str(), false);
        EXPECT_EQ(host.encoder_open, gsve::encoding::works_on_open_encoder(setting.key)) << setting.key;
        host.client_unref();
    }
}

TEST(Settings, HaveTheKeysOfTheLibrary) {
    const std::multiset<std::string> own = keys_in_library();
    EXPECT_EQ(own.size(), 44u);
    EXPECT_THAT(keys_in_words(), testing::ContainerEq(std::set<std::string>(own.begin(), own.end())));
    EXPECT_EQ(gsve::encoding::settings().size(), own.size()) << "a key stands twice";
}

TEST(Settings, ReachEachFieldByOneKey) {
    std::map<std::string, std::string> key_of;
    for (const Setting& setting : gsve::encoding::settings()) {
        EXPECT_FALSE(fields_of(setting).empty()) << setting.key << " does nothing";
        for (const std::string& field : fields_of(setting))
            EXPECT_TRUE(key_of.emplace(field, setting.key).second)
                << field << " is written by " << key_of[field] << " and " << setting.key;
    }
    for (const SettingField& field : setting_fields())
        EXPECT_TRUE(key_of.contains(field.name)) << field.name << " is written by no key";
}

TEST(Settings, CloseTheEncoderUnlessTheySayOtherwise) {
    const std::set<std::string> apply_at_once = {"name", "gop synchronization", "remove trailing zeros"};
    for (const Setting& setting : gsve::encoding::settings()) {
        RecordingHost host;
        host.on_set(std::string(setting.key).c_str(), first_value(setting).c_str(), false);
        EXPECT_EQ(host.free_calls == 0, apply_at_once.contains(std::string(setting.key))) << setting.key;
    }
}

// The maskings are given in single precision and default in double. Four settings store a given 0 as -1; both
// leave the choice to the opening.
TEST(Settings, ShowTheDefaultsOfTheLibrary) {
    const std::set<std::string> store_zero_as_not_given = {"bitrate tolerance", "buffer size",
                                                           "minimum quant", "maximum quant"};
    const FieldTexts fresh = setting_values(RecordingHost());
    for (const Setting& setting : gsve::encoding::settings()) {
        const std::string key(setting.key), shown(setting.default_value);
        const std::set<std::string> names = fields_of(setting);
        const std::string& own = fresh.at(*names.begin());
        if (setting.values.syntax == Syntax::kWhole) {
            EXPECT_EQ(own, shown) << key;
        }
        if (setting.values.syntax == Syntax::kReal) {
            EXPECT_FLOAT_EQ(number_after(setting, shown), std::stod(own)) << key;
        } else if (store_zero_as_not_given.contains(key)) {
            EXPECT_EQ(number_after(setting, shown), -1) << key;
        } else {
            EXPECT_EQ(only(names, fields_after(key, shown)), only(names, fresh)) << key;
        }
    }
}

TEST(Settings, ShowWhatAnEmptyValueSets) {
    const FieldTexts fresh = setting_values(RecordingHost());
    for (const Setting& setting : gsve::encoding::settings()) {
        const std::string key(setting.key), shown(setting.empty_value);
        const std::set<std::string> names = fields_of(setting);
        const FieldTexts emptied = only(names, fields_after(key, ""));
        if (shown == "default") {
            EXPECT_EQ(emptied, only(names, fresh)) << key;
            continue;
        }
        EXPECT_EQ(emptied, only(names, fields_after(key, shown))) << key;
        EXPECT_NE(shown, setting.default_value) << key;
        if (setting.values.syntax == Syntax::kWhole) {
            EXPECT_EQ(emptied.at(*names.begin()), shown) << key;
        }
    }
}

TEST(Settings, KeepTheValuesAtTheirBounds) {
    for (const Setting& setting : gsve::encoding::settings()) {
        if (!is_number(setting)) continue;
        for (const double bound : {setting.values.lowest, setting.values.highest})
            if (std::isfinite(bound)) {
                EXPECT_DOUBLE_EQ(number_after(setting, written(bound)), bound) << setting.key;
            }
    }
}

TEST(Settings, HaveTheBoundsOfTheLibraryOrStricterOnes) {
    for (const Setting& setting : gsve::encoding::settings()) {
        if (!is_number(setting)) continue;
        const std::string key(setting.key);
        const auto& [syntax, lowest, highest, choices] = setting.values;
        EXPECT_EQ(number_after(setting, written(lowest - 1)) < lowest, kRefusedBelow.contains(key)) << key;
        if (highest < std::numeric_limits<int32_t>::max()) {
            EXPECT_EQ(number_after(setting, written(highest + 1)) > highest, kRefusedAbove.contains(key))
                << key;
        }
    }
}

TEST(Settings, GiveEachOfTheirChoicesAMeaningOfItsOwn) {
    for (const Setting& setting : gsve::encoding::settings()) {
        std::vector<std::string> values;
        if (setting.values.syntax == Syntax::kSwitch) values = {"0", "1"};
        if (setting.values.syntax == Syntax::kAutomatic) values = {"-1", "0", "1"};
        if (setting.values.syntax == Syntax::kChoice) {
            std::istringstream list{std::string(setting.values.choices)};
            for (std::string choice; list >> choice;) values.push_back(choice);
        }
        std::set<FieldTexts> meanings;
        for (const std::string& value : values)
            meanings.insert(only(fields_of(setting), fields_after(std::string(setting.key), value)));
        EXPECT_EQ(meanings.size(), values.size()) << setting.key;
    }
}

}  // namespace
