// What the element says of itself, to programs and to people.

#include <gst/gst.h>

#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/settings.h"
#include "gstreamer/properties.h"

namespace gsve::test {
namespace {

using encoding::Setting;
using encoding::settings;
using encoding::Syntax;
using gstreamer::property_name;
using testing::ContainsRegex;
using testing::HasSubstr;

struct UnrefObject {
    void operator()(void* object) const { gst_object_unref(object); }
};
using ElementPtr = std::unique_ptr<GstElement, UnrefObject>;

ElementPtr make_element() {
    ElementPtr element(gst_element_factory_make("gsveenc", nullptr));
    if (element) gst_object_ref_sink(element.get());
    return element;
}

GParamSpec* spec_of(const ElementPtr& element, const std::string& name) {
    return g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), name.c_str());
}

TEST(Inspection, EverySettingIsAPropertyWithItsKeyRangeAndMeaning) {
    const ElementPtr element = make_element();
    ASSERT_TRUE(element);
    for (const Setting& setting : settings()) {
        SCOPED_TRACE(std::string(setting.key));
        GParamSpec* const spec = spec_of(element, property_name(setting.key));
        ASSERT_NE(spec, nullptr);
        EXPECT_STREQ(g_param_spec_get_nick(spec), std::string(setting.key).c_str());
        EXPECT_THAT(g_param_spec_get_blurb(spec), HasSubstr(std::string(setting.meaning)));
        EXPECT_TRUE(spec->flags & GST_PARAM_MUTABLE_PLAYING);
        switch (setting.values.syntax) {
            case Syntax::kSwitch: EXPECT_TRUE(G_IS_PARAM_SPEC_BOOLEAN(spec)); break;
            case Syntax::kAutomatic:
            case Syntax::kWhole: {
                ASSERT_TRUE(G_IS_PARAM_SPEC_INT(spec));
                const bool automatic = setting.values.syntax == Syntax::kAutomatic;
                EXPECT_EQ(G_PARAM_SPEC_INT(spec)->minimum, automatic ? -1 : setting.values.lowest);
                EXPECT_EQ(G_PARAM_SPEC_INT(spec)->maximum, automatic ? 1 : setting.values.highest);
                EXPECT_EQ(std::to_string(G_PARAM_SPEC_INT(spec)->default_value), setting.default_value);
                break;
            }
            case Syntax::kReal:
                ASSERT_TRUE(G_IS_PARAM_SPEC_DOUBLE(spec));
                EXPECT_EQ(G_PARAM_SPEC_DOUBLE(spec)->minimum, setting.values.lowest);
                EXPECT_EQ(G_PARAM_SPEC_DOUBLE(spec)->default_value,
                          std::stod(std::string(setting.default_value)));
                break;
            case Syntax::kChoice: {
                ASSERT_TRUE(G_IS_PARAM_SPEC_ENUM(spec));
                std::string choices;
                const GEnumClass* const type = G_PARAM_SPEC_ENUM(spec)->enum_class;
                for (guint n = 1; n < type->n_values; n++)
                    choices += (n > 1 ? " " : "") + std::string(type->values[n].value_nick);
                EXPECT_EQ(choices, setting.values.choices);
                break;
            }
            case Syntax::kText:
            case Syntax::kSize: EXPECT_TRUE(G_IS_PARAM_SPEC_STRING(spec)); break;
        }
    }
}

TEST(Inspection, PropertiesKeepWhatTheyAreGiven) {
    const ElementPtr element = make_element();
    ASSERT_TRUE(element);
    for (const Setting& setting : settings()) {
        SCOPED_TRACE(std::string(setting.key));
        const std::string name = property_name(setting.key);
        const std::string value =
            setting.values.syntax == Syntax::kSize ? "640x480"
            : setting.values.syntax == Syntax::kChoice
                ? std::string(setting.values.choices.substr(0, setting.values.choices.find(' ')))
            : setting.values.syntax == Syntax::kReal                               ? "0.5"
            : setting.values.syntax == Syntax::kText                               ? "4.1"
            : setting.values.syntax == Syntax::kWhole && setting.values.lowest > 1 ? "20000"
                                                                                   : "1";
        gst_util_set_object_arg(G_OBJECT(element.get()), name.c_str(), value.c_str());
        GValue read = G_VALUE_INIT;
        g_value_init(&read, spec_of(element, name)->value_type);
        g_object_get_property(G_OBJECT(element.get()), name.c_str(), &read);
        GValue given = G_VALUE_INIT;
        g_value_init(&given, spec_of(element, name)->value_type);
        EXPECT_TRUE(gst_value_deserialize(&given, value.c_str()));
        EXPECT_EQ(gst_value_compare(&read, &given), GST_VALUE_EQUAL);
        g_value_unset(&read);
        g_value_unset(&given);
    }
    gst_util_set_object_arg(G_OBJECT(element.get()), "resize", "big");
    gchar* size = nullptr;
    g_object_get(element.get(), "resize", &size, nullptr);
    EXPECT_STREQ(size, "640x480") << "what no size is, is not taken";
    g_free(size);
}

TEST(Inspection, RanksBelowTheEncodersThatPipelinesChooseToday) {
    GstElementFactory* const factory = gst_element_factory_find("gsveenc");
    ASSERT_TRUE(factory);
    EXPECT_EQ(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory)), guint{GST_RANK_SECONDARY});
    gst_object_unref(factory);
    GstElementFactory* const usual = gst_element_factory_find("x264enc");
    ASSERT_TRUE(usual) << "install gstreamer1.0-plugins-ugly";
    EXPECT_GT(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(usual)), guint{GST_RANK_SECONDARY});
    gst_object_unref(usual);
}

TEST(Inspection, NothingBeyondThePluginsEntryIsExported) {
    FILE* const pipe = popen("nm -D --defined-only '" GSVE_PLUGIN_DIRECTORY "/libgstgsve.so'", "r");
    ASSERT_TRUE(pipe);
    std::set<std::string> names;
    char line[300];
    while (std::fgets(line, sizeof line, pipe)) {
        const std::string text(line);
        names.insert(text.substr(text.rfind(' ') + 1, text.size() - text.rfind(' ') - 2));
    }
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_EQ(names, (std::set<std::string>{"gst_plugin_gsve_get_desc", "gst_plugin_gsve_register"}));
}

TEST(Inspection, ShowsPadsPropertiesAndRankToPeople) {
    FILE* const pipe = popen("gst-inspect-1.0 gsveenc", "r");
    ASSERT_TRUE(pipe);
    std::string text;
    std::array<char, 4096> part{};
    for (size_t size; (size = std::fread(part.data(), 1, part.size(), pipe)) > 0;)
        text.append(part.data(), size);
    ASSERT_EQ(pclose(pipe), 0);
    EXPECT_THAT(text, ContainsRegex("Rank +secondary"));
    EXPECT_THAT(text, ContainsRegex("Klass +Codec/Encoder/Video"));
    EXPECT_THAT(text, HasSubstr("SINK template: 'sink'"));
    EXPECT_THAT(text, HasSubstr("{ (string)I420, (string)Y42B, (string)Y444, (string)Y41B }"));
    EXPECT_THAT(text, HasSubstr("SRC template: 'src'"));
    for (const char* media : {"video/mpeg", "video/x-h264", "video/x-h265", "byte-stream"})
        EXPECT_THAT(text, HasSubstr(media));
    for (const Setting& setting : settings())
        EXPECT_THAT(text, ContainsRegex("\n  " + property_name(setting.key) + " *:"));
    for (const char* property : {"adapt", "status", "longest-repeat", "qos", "min-force-key-unit-interval"})
        EXPECT_THAT(text, ContainsRegex(std::string("\n  ") + property + " *:"));
}

TEST(Inspection, AdviceNamesProperties) {
    EXPECT_EQ(gstreamer::in_properties("choose --set \"min bitrate=0\", or --set \"buffer size=9\"!"),
              "choose min-bitrate=0, or buffer-size=9!");
    EXPECT_EQ(gstreamer::in_properties("--rate 25/1"), "videorate ! video/x-raw,framerate=25/1");
}

}  // namespace
}  // namespace gsve::test
