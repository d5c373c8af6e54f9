// Properties in PLAYING, what the element does about settings that could end the process, and what it tells.

#include <gst/video/video.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/settings.h"
#include "gstreamer/properties.h"
#include "harnessed_element.h"
#include "support/refusing_codec.h"
#include "support/stderr_capture.h"

namespace gsve::test {
namespace {

using encoding::Setting;
using testing::HasSubstr;

std::set<int64_t> shown(const std::vector<ElementUnit>& units) {
    std::set<int64_t> times;
    for (const ElementUnit& unit : units) times.insert(unit.shown());
    return times;
}

/// A value that opens, and another one than the default.
std::string other_value(const Setting& setting) {
    const std::pair<std::string_view, const char*> values[] = {{"encoder", "mpeg-2"},
                                                               {"enable", "true"},
                                                               {"name", "other"},
                                                               {"debug file", "false"},
                                                               {"bitrate", "900000"},
                                                               {"min bitrate", "0"},
                                                               {"max bitrate", "2000000"},
                                                               {"bitrate tolerance", "500000"},
                                                               {"buffer size", "1000000"},
                                                               {"minimum quant", "3"},
                                                               {"maximum quant", "20"},
                                                               {"frame rate limit", "60"},
                                                               {"gop size", "9"},
                                                               {"b frames", "1"},
                                                               {"reference frames", "1"},
                                                               {"chroma format", "4:2:0"},
                                                               {"resize", "96x64"},
                                                               {"resize deinterlace", "2"},
                                                               {"h.264 level", "4"},
                                                               {"h.264 preset", "veryfast"},
                                                               {"h.264 profile", "main"},
                                                               {"drop frame for bitrate limit", "auto"},
                                                               {"temporal complexity masking", "0.1"},
                                                               {"spatial complexity masking", "0.1"},
                                                               {"p masking", "0.5"},
                                                               {"cpu threshhold", "0.5"},
                                                               {"maximum threads", "2"}};
    for (const auto& [key, value] : values)
        if (setting.key == key) return value;
    return "1";
}

TEST(SettingsInPlaying, ReopenAtTheNextPictureOrApplyAtOnceAndLoseNothing) {
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const Setting& setting : encoding::settings()) {
            if (setting.key == "encoder" && std::string(codec) != "mpeg-2") continue;
            SCOPED_TRACE(std::string(codec) + " " + std::string(setting.key));
            HarnessedElement element(codec, {{"gop-size", "100"}});
            element.push_range(0, 20);
            element.set(gstreamer::property_name(setting.key), other_value(setting));
            element.push_range(20, 40);
            element.end();
            const std::vector<ElementUnit> units = element.take();
            ASSERT_EQ(units.size(), 40u);
            EXPECT_EQ(shown(units).size(), 40u);
            EXPECT_TRUE(element.messages(GST_MESSAGE_ERROR).empty());
            for (size_t n = 1; n < units.size(); n++) {
                EXPECT_LE(units[n].dts, units[n].pts);
                EXPECT_LE(units[n - 1].dts, units[n].dts);
            }
            const auto at_20 = std::ranges::find_if(units, [&](const ElementUnit& unit) {
                return unit.shown() == static_cast<int64_t>(element.source().time_of(20));
            });
            EXPECT_EQ(at_20->key, !encoding::works_on_open_encoder(setting.key));
        }
}

TEST(SettingsInPlaying, ThatApplyAtOnceDoAtTheNextPicture) {
    // Much more than still pictures need, which is filled up with zeros.
    HarnessedElement element("mpeg-2", {{"b-frames", "0"}, {"bitrate", "4000000"}},
                             {.width = 352, .height = 288});
    element.push_range(0, 20);
    const auto filled = [](const std::vector<ElementUnit>& units) {
        // Four zeros stay in any case.
        const Bytes zeros(5, 0);
        return std::ranges::count_if(units, [&](const ElementUnit& unit) {
            return std::equal(zeros.begin(), zeros.end(), unit.bytes.end() - 5);
        });
    };
    std::vector<ElementUnit> before = element.take();
    ASSERT_GT(filled(before), 0);
    element.set("remove-trailing-zeros", "true");
    element.push_range(20, 40);
    element.end();
    const std::vector<ElementUnit> after = element.take();
    ASSERT_EQ(before.size() + after.size(), 40u);
    EXPECT_EQ(filled(after), 0);
}

TEST(SettingsInPlaying, KeepDecodingInOrderHoweverManyPicturesAreReordered) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"b-frames", "0"}, {"h-264-profile", "main"}});
        element.push_range(0, 10);
        element.set("b-frames", "4");
        element.push_range(10, 30);
        element.set("b-frames", "1");
        element.push_range(30, 40);
        element.end();
        const std::vector<ElementUnit> units = element.take();
        ASSERT_EQ(units.size(), 40u);
        for (size_t n = 0; n < units.size(); n++) {
            EXPECT_LE(units[n].dts, units[n].pts) << n;
            if (n > 0) {
                EXPECT_LT(units[n - 1].dts, units[n].dts) << n;
            }
        }
    }
}

TEST(SettingsInPlaying, ChangeTheCodecOnTheWayWhereDownstreamTakesIt) {
    HarnessedElement element("", {{"codec", "mpeg-2"}});
    element.push_range(0, 10);
    element.set("codec", "h.264");
    element.push_range(10, 20);
    element.end();
    EXPECT_EQ(shown(element.take()).size(), 20u);
    EXPECT_EQ(element.caps_field("alignment"), "au");
}

TEST(SettingsInPlaying, TurnTheEncoderOffAndOn) {
    HarnessedElement element("h.264");
    element.push_range(0, 10);
    element.set("enable", "false");
    element.push_range(10, 20);
    element.set("enable", "true");
    element.push_range(20, 30);
    element.end();
    std::set<int64_t> expected;
    for (const uint64_t n : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29})
        expected.insert(static_cast<int64_t>(element.source().time_of(n)));
    EXPECT_EQ(shown(element.take()), expected);
}

TEST(Settings, ThatDoNotOpenAreAnErrorThatSaysWhatToSet) {
    HarnessedElement element("mpeg-2", {{"minimum-quant", "20"}, {"maximum-quant", "10"}});
    EXPECT_EQ(element.push(0), GST_FLOW_ERROR);
    const auto errors = element.messages(GST_MESSAGE_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0].name, HasSubstr("\"minimum quant\" is above \"maximum quant\""));
}

TEST(Settings, OfRatesThatMpeg2DoesNotHaveAreAnErrorThatNamesVideorate) {
    HarnessedElement element("mpeg-2", {}, {.rate_num = 7});
    EXPECT_NE(element.push(0), GST_FLOW_OK);
    const auto errors = element.messages(GST_MESSAGE_ERROR);
    ASSERT_FALSE(errors.empty());
    EXPECT_THAT(errors[0].name, HasSubstr("videorate"));
}

TEST(Settings, ThatLibx265WouldSpoilMemoryWithAreAnError) {
    HarnessedElement element("h.265", {{"resize", "48x32"}});
    EXPECT_EQ(element.push(0), GST_FLOW_ERROR);
    const auto errors = element.messages(GST_MESSAGE_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0].name, HasSubstr("from 64 samples"));
}

/// Black and white dots, as hard to encode as any picture.
void make_noisy(GstBuffer* buffer) {
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    uint32_t state = 1;
    for (gsize at = 0; at < map.size; at++) {
        state = state * 1664525 + 1013904223;
        map.data[at] = state >> 31 ? 235 : 16;
    }
    gst_buffer_unmap(buffer, &map);
}

TEST(ConstantRate, ThatANoisyPictureWouldEndTheProcessAtIsRemediedAndTold) {
    const Source large = {.width = 720, .height = 576, .rate_num = 25};
    for (const char* bitrate : {"400000", "15000"}) {
        SCOPED_TRACE(bitrate);
        HarnessedElement element(
            "mpeg-2", {{"bitrate", bitrate}, {"min-bitrate", bitrate}, {"max-bitrate", bitrate}}, large);
        for (uint64_t n = 0; n < 4; n++) EXPECT_EQ(element.push(n, make_noisy), GST_FLOW_OK);
        element.end();
        EXPECT_EQ(element.take().size(), 4u);
        const auto messages = element.messages(
            static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ELEMENT | GST_MESSAGE_ERROR));
        const auto of = [&](GstMessageType type) {
            return std::ranges::count_if(messages,
                                         [type](const ElementMessage& m) { return m.type == type; });
        };
        EXPECT_EQ(of(GST_MESSAGE_ERROR), 0);
        EXPECT_GE(of(GST_MESSAGE_WARNING), 1);
        const auto remedy = std::ranges::find_if(
            messages, [](const ElementMessage& m) { return m.name == "gsveenc-remedy"; });
        ASSERT_NE(remedy, messages.end());
        EXPECT_STREQ(gst_structure_get_string(remedy->structure.get(), "setting"), "min bitrate");
        EXPECT_STREQ(gst_structure_get_string(remedy->structure.get(), "value"), "0");
    }
}

TEST(ConstantRate, ThatSmallPicturesHaveNoRoomForIsRemediedAndTold) {
    HarnessedElement element("mpeg-2", {{"bitrate", "3000000"}, {"b-frames", "0"}, {"maximum-threads", "1"}});
    EXPECT_EQ(element.encode(100).size(), 100u);
    const auto remedies = element.messages_named("gsveenc-remedy");
    ASSERT_EQ(remedies.size(), 1u);
    const GstStructure* const remedy = remedies[0].structure.get();
    EXPECT_STREQ(gst_structure_get_string(remedy, "setting"), "min bitrate");
    EXPECT_STREQ(gst_structure_get_string(remedy, "value"), "0");
    EXPECT_THAT(gst_structure_get_string(remedy, "reason"),
                HasSubstr("min-bitrate=0, or give at most 2572080 bits/s"));
}

TEST(Codec, ThatRefusesPicturesIsOpenedAnewAndTold) {
    const Refusal refusal(30, 40);
    HarnessedElement element("mpeg-2", {{"bitrate", "1000000"}, {"b-frames", "0"}});
    EXPECT_EQ(element.encode(100).size(), 60u) << "it goes on where pictures are taken again";
    size_t without_unit = 0, told = 0;
    for (const ElementMessage& message :
         element.messages(static_cast<GstMessageType>(GST_MESSAGE_QOS | GST_MESSAGE_WARNING))) {
        without_unit += message.type == GST_MESSAGE_QOS;
        told += message.name.find("refused pictures") != message.name.npos;
    }
    EXPECT_EQ(without_unit, 40u) << "each is known to have none";
    EXPECT_EQ(told, 1u);
}

TEST(ConstantRate, ThatAnyPictureFitsIntoIsLeftAsItIs) {
    HarnessedElement element("mpeg-2", {{"bitrate", "4000000"}},
                             {.width = 720, .height = 576, .rate_num = 25});
    for (uint64_t n = 0; n < 4; n++) element.push(n, make_noisy);
    element.end();
    EXPECT_EQ(element.take().size(), 4u);
    EXPECT_TRUE(element.messages_named("gsveenc-remedy").empty());
}

TEST(Status, IsThatOfTheOpenEncoder) {
    HarnessedElement element("h.264");
    const auto status = [&] {
        GstStructure* structure = nullptr;
        g_object_get(element.element(), "status", &structure, nullptr);
        return StructurePtr(structure);
    };
    gboolean open = TRUE;
    ASSERT_TRUE(gst_structure_get_boolean(status().get(), "open", &open));
    EXPECT_FALSE(open);
    element.push_range(0, 20);
    const StructurePtr while_open = status();
    ASSERT_TRUE(gst_structure_get_boolean(while_open.get(), "open", &open));
    EXPECT_TRUE(open);
    for (const char* field : {"debug-status", "active", "last-error", "last-notes"})
        EXPECT_TRUE(gst_structure_has_field_typed(while_open.get(), field, G_TYPE_STRING)) << field;
    EXPECT_THAT(gst_structure_get_string(while_open.get(), "last-notes"),
                HasSubstr("Encoding to pixel format"));
}

TEST(Adaptation, IsOnUnlessItIsTurnedOff) {
    gboolean on = FALSE;
    GstElement* const element = gst_element_factory_make("gsveenc", nullptr);
    g_object_get(element, "adapt", &on, nullptr);
    EXPECT_TRUE(on);
    gst_object_unref(gst_object_ref_sink(element));
}

TEST(Adaptation, CoarsensPicturesUnderLoadAndTellsOfIt) {
    // No processor encodes noise of this size in a tenth of a sixtieth of a second.
    const Source hurried = {.width = 720, .height = 576, .rate_num = 60};
    const Properties tuned = {{"adapt", "true"},       {"cpu-threshhold", "0.1"},
                              {"s-tune-cpu", "10000"}, {"bitrate", "20000000"},
                              {"min-bitrate", "0"},    {"motion-estimation-range", "256"},
                              {"b-frames", "16"}};
    HarnessedElement element("mpeg-2", tuned, hurried);
    for (uint64_t n = 0; n < 60; n++) element.push(n, make_noisy);
    const auto told = element.messages_named("gsveenc-adaptation");
    ASSERT_FALSE(told.empty());
    gboolean active = FALSE;
    double set = 0, now = 0;
    EXPECT_TRUE(gst_structure_get(told[0].structure.get(), "active", G_TYPE_BOOLEAN, &active,
                                  "spatial-complexity-masking", G_TYPE_DOUBLE, &now, "as-set", G_TYPE_DOUBLE,
                                  &set, nullptr));
    EXPECT_TRUE(active);
    EXPECT_GT(now, set);
}

TEST(Diagnostics, StayOffStandardError) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"})
        EXPECT_EQ(stderr_of([&] {
                      HarnessedElement element(codec, {{"frame-rate-limit", "30"}, {"resize", "96x64"}},
                                               {.rate_num = 60, .more = ", interlace-mode=mixed"});
                      for (uint64_t n = 0; n < 20; n++)
                          element.push(n, [&](GstBuffer* buffer) {
                              if (n > 10)
                                  GST_BUFFER_FLAG_SET(
                                      buffer, GST_VIDEO_BUFFER_FLAG_INTERLACED | GST_VIDEO_BUFFER_FLAG_TFF);
                          });
                      element.end();
                      EXPECT_FALSE(element.take().empty());
                  }),
                  "")
            << codec;
}

std::string* logged = nullptr;

void keep(GstDebugCategory* category, GstDebugLevel, const gchar*, const gchar*, gint, GObject* object,
          GstDebugMessage* message, gpointer) {
    const std::string name = gst_debug_category_get_name(category);
    // Where another plugin on libavcodec has been loaded meanwhile, it has libavcodec's lines.
    if (logged && ((name == "gsveenc" && object) || name == "libav"))
        *logged += std::string(gst_debug_message_get(message)) + "\n";
}

TEST(Diagnostics, GoToTheElementsCategory) {
    std::string lines;
    logged = &lines;
    gst_debug_add_log_function(keep, nullptr, nullptr);
    gst_debug_remove_log_function(gst_debug_log_default);
    gst_debug_set_active(TRUE);
    for (const char* name : {"gsveenc", "libav"}) gst_debug_set_threshold_for_name(name, GST_LEVEL_INFO);
    {
        HarnessedElement element("h.264");
        element.encode(10);
    }
    for (const char* name : {"gsveenc", "libav"}) gst_debug_unset_threshold_for_name(name);
    logged = nullptr;
    gst_debug_remove_log_function(keep);
    gst_debug_add_log_function(gst_debug_log_default, nullptr, nullptr);
    EXPECT_THAT(lines, HasSubstr("MPEG video init"));
    EXPECT_THAT(lines, HasSubstr("using cpu capabilities")) << "libavcodec's lines, too";
}

}  // namespace
}  // namespace gsve::test
