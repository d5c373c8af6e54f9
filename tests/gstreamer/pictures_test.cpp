// Pictures in, units out: the bytes are the encoder's own, wherever a picture's samples lie and whatever its
// format, fields and shape are.

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include "encoding/caption_forms.h"
#include "encoding/caption_track.h"
#include "encoding/frame_rate.h"
#include "encoding/picture_encoder.h"
#include "gstreamer/caps.h"
#include "gstreamer/properties.h"
#include "harnessed_element.h"
#include "support/av_decoder.h"
#include "support/stderr_capture.h"

namespace gsve::test {
namespace {

using encoding::EncodedUnit;
using encoding::PictureEncoder;
using testing::HasSubstr;

/// As HarnessedElement sets it up, by the encoder's own keys.
const std::vector<std::pair<std::string, std::string>> kSettings = {
    {"enable", "1"}, {"bitrate", "1000000"}, {"maximum threads", "1"}, {"h.264 preset", "ultrafast"}};

/// What an encoder gives that is driven without GStreamer.
std::vector<ElementUnit> directly(const std::string& codec,
                                  const std::vector<std::pair<std::string, std::string>>& settings,
                                  const Source& source, uint64_t pictures) {
    std::vector<ElementUnit> units;
    stderr_of([&] {
        av_log_set_level(AV_LOG_QUIET);
        PictureEncoder encoder("direct");
        GstVideoInfo info;
        GstCaps* const caps = gst_caps_from_string(source.caps().c_str());
        gst_video_info_from_caps(&info, caps);
        gst_caps_unref(caps);
        encoder.describe_source(gstreamer::source_of(info));
        encoder.adapt_to_load(false);
        encoder.apply("encoder", codec);
        for (const auto& [key, value] : kSettings) encoder.apply(key, value);
        for (const auto& [key, value] : settings) encoder.apply(key, value);
        encoding::choose_caption_forms(encoder, {}, {});
        encoder.send_units_to([&](const EncodedUnit& unit) {
            ElementUnit kept;
            kept.bytes.assign(unit.bytes.begin(), unit.bytes.end());
            kept.pts = static_cast<GstClockTime>(unit.pts);
            kept.key = unit.key;
            units.push_back(std::move(kept));
        });
        encoding::Ancillary ancillary;
        ancillary.display_aspect = gstreamer::display_aspect(info);
        ancillary.field_order = source.more.find("top-field-first") != std::string::npos ? 1 : 0;
        EXPECT_TRUE(encoder.open(ancillary)) << encoder.last_error;
        const encoding::CaptionForms forms = encoding::caption_forms(encoder, false);
        encoder.carry_line_rate(forms.line_rate);
        const captions::FrameRate rate = {source.rate_num, source.rate_den};
        encoding::CaptionTrack captions(forms, rate, encoding::caption_rate(encoder.encoded_rate()));
        for (uint64_t n = 0; n < pictures; n++) {
            const TestPicture look(source.width, source.height, source.shift_x(), source.shift_y(),
                                   static_cast<unsigned>(n));
            encoding::PictureView view;
            view.planes[0] = look.y.data(), view.planes[1] = look.u.data(), view.planes[2] = look.v.data();
            view.strides[0] = static_cast<size_t>(look.width);
            view.strides[1] = view.strides[2] = static_cast<size_t>(look.chroma_width);
            view.number = n;
            captions.push(static_cast<int64_t>(n), {});
            if (encoder.takes(n)) ancillary.captions = captions.next(n, encoder.input_frame_count);
            encoder.push(view, ancillary);
        }
        encoder.drain();
    });
    return units;
}

struct Case {
    const char* codec;
    std::vector<std::pair<std::string, std::string>> settings;
    Source source;
};

TEST(Pictures, GiveTheBytesOfAnEncoderThatIsDrivenDirectly) {
    const std::string interlaced = ", interlace-mode=interleaved, field-order=top-field-first";
    const std::vector<Case> cases = {
        {"mpeg-2", {}, {}},
        {"mpeg-2", {{"b frames", "0"}}, {.rate_num = 25}},
        {"mpeg-2",
         {{"min bitrate", "0"}},
         {.width = 720, .height = 480, .rate_num = 30000, .rate_den = 1001}},
        {"mpeg-2", {{"resize", "48x32"}}, {}},
        {"mpeg-2", {{"chroma format", "4:2:2"}}, {.format = "Y42B"}},
        {"mpeg-2", {{"chroma format", "4:2:0"}}, {.format = "Y41B"}},
        {"mpeg-2", {{"resize deinterlace", "4"}}, {.more = interlaced}},
        {"mpeg-2", {{"frame rate limit", "30"}}, {.rate_num = 60}},
        {"mpeg-2", {}, {.more = interlaced}},
        {"mpeg-2", {}, {.more = ", pixel-aspect-ratio=16/11"}},
        {"h.264", {}, {}},
        {"h.264", {{"b frames", "0"}}, {.more = interlaced}},
        {"h.264", {{"frame rate limit", "30"}}, {.rate_num = 60}},
        {"h.264", {}, {.rate_num = 24}},
    };
    for (const Case& c : cases) {
        std::string what = std::string(c.codec) + " " + c.source.caps();
        Properties properties;
        for (const auto& [key, value] : c.settings) {
            properties.emplace_back(gstreamer::property_name(key), value);
            what += " " + key + "=" + value;
        }
        SCOPED_TRACE(what);
        constexpr uint64_t kPictures = 40;
        HarnessedElement element(c.codec, properties, c.source);
        const std::vector<ElementUnit> got = element.encode(kPictures);
        const std::vector<ElementUnit> expected = directly(c.codec, c.settings, c.source, kPictures);
        ASSERT_FALSE(expected.empty());
        ASSERT_EQ(got.size(), expected.size());
        for (size_t n = 0; n < got.size(); n++) {
            ASSERT_EQ(got[n].bytes, expected[n].bytes) << n;
            EXPECT_EQ(got[n].shown(), static_cast<int64_t>(c.source.time_of(expected[n].pts))) << n;
            EXPECT_EQ(got[n].key, expected[n].key) << n;
        }
    }
}

/// The same samples in a buffer of another layout: rows farther apart, planes in another order, all of it
/// behind a beginning that belongs to somebody else.
GstBuffer* scattered(GstBuffer* packed, const Source& source) {
    GstVideoInfo info;
    GstCaps* const caps = gst_caps_from_string(source.caps().c_str());
    gst_video_info_from_caps(&info, caps);
    gst_caps_unref(caps);
    constexpr gsize kBefore = 333;
    constexpr gint kApart = 37;
    gsize offset[GST_VIDEO_MAX_PLANES] = {};
    gint stride[GST_VIDEO_MAX_PLANES] = {};
    gsize end = kBefore;
    for (const int plane : {2, 0, 1}) {
        offset[plane] = end;
        stride[plane] = GST_VIDEO_INFO_COMP_WIDTH(&info, plane) + kApart + 2 * plane;
        end +=
            static_cast<gsize>(stride[plane]) * static_cast<gsize>(GST_VIDEO_INFO_COMP_HEIGHT(&info, plane));
    }
    GstBuffer* const wide = gst_buffer_new_allocate(nullptr, end, nullptr);
    gst_buffer_memset(wide, 0, 0xAA, end);
    gst_buffer_add_video_meta_full(wide, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   static_cast<guint>(info.width), static_cast<guint>(info.height), 3, offset,
                                   stride);
    GstVideoFrame from, to;
    gst_video_frame_map(&from, &info, packed, GST_MAP_READ);
    gst_video_frame_map(&to, &info, wide, GST_MAP_WRITE);
    gst_video_frame_copy(&to, &from);
    gst_video_frame_unmap(&from);
    gst_video_frame_unmap(&to);
    gst_buffer_copy_into(wide, packed, GST_BUFFER_COPY_TIMESTAMPS, 0, static_cast<gsize>(-1));
    gst_buffer_unref(packed);
    return wide;
}

TEST(Pictures, AreReadWhereverTheirRowsLie) {
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const char* format : {"I420", "Y42B"}) {
            SCOPED_TRACE(std::string(codec) + " " + format);
            const Source source = {.width = 80, .format = format};
            HarnessedElement packed(codec, {}, source), wide(codec, {}, source);
            const std::vector<ElementUnit> expected = packed.encode(12);
            for (uint64_t n = 0; n < 12; n++)
                gst_harness_push(wide.harness(), scattered(wide.buffer(n), source));
            wide.end();
            const std::vector<ElementUnit> got = wide.take();
            ASSERT_EQ(got.size(), 12u);
            ASSERT_EQ(got.size(), expected.size());
            for (size_t n = 0; n < got.size(); n++) EXPECT_EQ(got[n].bytes, expected[n].bytes) << n;
        }
}

TEST(Pictures, AskThoseUpstreamForNoCopies) {
    HarnessedElement element("h.264");
    GstCaps* const caps = gst_caps_from_string(element.source().caps().c_str());
    GstQuery* const query = gst_query_new_allocation(caps, TRUE);
    EXPECT_TRUE(gst_pad_peer_query(element.harness()->srcpad, query));
    EXPECT_TRUE(gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr));
    gst_query_unref(query);
    gst_caps_unref(caps);
}

std::vector<Unit> as_units(const std::vector<ElementUnit>& from) {
    std::vector<Unit> units;
    for (const ElementUnit& unit : from) units.push_back({unit.bytes, 0, 0, unit.key, 0});
    return units;
}

AVCodecID id_of(const std::string& codec) {
    return codec == "mpeg-2"  ? AV_CODEC_ID_MPEG2VIDEO
           : codec == "h.264" ? AV_CODEC_ID_H264
                              : AV_CODEC_ID_HEVC;
}

TEST(Pictures, ComeInEachFormatThatTheCapsOffer) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"})
        for (const char* format : {"I420", "Y42B", "Y444"}) {
            SCOPED_TRACE(std::string(codec) + " " + format);
            HarnessedElement element(codec,
                                     {{"h-264-profile", std::string(codec) == "h.265" ? "main" : "high444"}},
                                     {.format = format});
            const std::vector<ElementUnit> units = element.encode(6);
            ASSERT_EQ(units.size(), 6u);
            EXPECT_EQ(decode(id_of(codec), as_units(units)).size(), 6u);
            EXPECT_TRUE(element.messages(GST_MESSAGE_ERROR).empty());
        }
}

TEST(Pictures, Of411NeedAChromaFormatToBecome) {
    GstCaps* caps = nullptr;
    const auto offered = [&caps](HarnessedElement& element) {
        GstPad* const pad = gst_element_get_static_pad(element.element(), "sink");
        caps = gst_pad_query_caps(pad, nullptr);
        gst_object_unref(pad);
        gchar* const text = gst_caps_to_string(caps);
        std::string copy = text;
        g_free(text);
        gst_caps_unref(caps);
        return copy;
    };
    HarnessedElement plain("mpeg-2");
    EXPECT_THAT(offered(plain), testing::Not(HasSubstr("Y41B")));
    HarnessedElement told("mpeg-2", {{"chroma-format", "4:2:0"}});
    EXPECT_THAT(offered(told), HasSubstr("Y41B"));
}

struct Fields {
    bool interlaced, top_first;
    friend bool operator==(const Fields&, const Fields&) = default;
};

/// picture_coding_extension of MPEG-2: progressive_frame in its fifth byte, top_field_first in its fourth.
std::vector<Fields> fields_of(const std::vector<ElementUnit>& units) {
    std::map<int64_t, Fields> fields;
    for (const ElementUnit& unit : units)
        for (size_t at = 0; at + 9 < unit.bytes.size(); at++)
            if (unit.bytes[at] == 0 && unit.bytes[at + 1] == 0 && unit.bytes[at + 2] == 1 &&
                unit.bytes[at + 3] == 0xB5 && unit.bytes[at + 4] >> 4 == 8)
                fields[unit.shown()] = {(unit.bytes[at + 8] & 0x80) == 0, (unit.bytes[at + 7] & 0x80) != 0};
    std::vector<Fields> ordered;
    for (const auto& [time, found] : fields) ordered.push_back(found);
    return ordered;
}

void set_flags(GstBuffer* buffer, guint flags) { GST_BUFFER_FLAG_SET(buffer, flags); }

// libavcodec's encoder flags no frame of an interlaced sequence as progressive.
constexpr Fields kProgressive = {false, false}, kProgressiveAmongOthers = {true, false};
constexpr Fields kTopFirst = {true, true}, kBottomFirst = {true, false};

TEST(Pictures, SayTheOrderOfTheirFieldsByCapsOrByFlags) {
    const auto encoded = [](const std::string& more, guint flags) {
        HarnessedElement element("mpeg-2", {}, {.more = more});
        return fields_of(element.encode(6, [flags](GstBuffer* buffer) { set_flags(buffer, flags); }));
    };
    using Six = std::vector<Fields>;
    EXPECT_EQ(encoded(", interlace-mode=progressive", 0), Six(6, kProgressive));
    EXPECT_EQ(encoded("", 0), Six(6, kProgressive));
    EXPECT_EQ(encoded(", interlace-mode=interleaved, field-order=top-field-first", 0), Six(6, kTopFirst));
    EXPECT_EQ(encoded(", interlace-mode=interleaved, field-order=bottom-field-first", 0),
              Six(6, kBottomFirst));
    EXPECT_EQ(encoded(", interlace-mode=interleaved", GST_VIDEO_BUFFER_FLAG_TFF), Six(6, kTopFirst));
    EXPECT_EQ(encoded(", interlace-mode=interleaved", 0), Six(6, kBottomFirst));
}

TEST(Pictures, OfMixedStreamsAreEachAsTheirFlagsSay) {
    constexpr guint kTop = GST_VIDEO_BUFFER_FLAG_INTERLACED | GST_VIDEO_BUFFER_FLAG_TFF;
    constexpr guint kBottom = GST_VIDEO_BUFFER_FLAG_INTERLACED;
    constexpr guint kRepeated = kTop | GST_VIDEO_BUFFER_FLAG_RFF;
    const guint flags[] = {0, 0, kTop, kTop, kRepeated, kRepeated, kBottom, kBottom, 0, 0};
    HarnessedElement element("mpeg-2", {}, {.more = ", interlace-mode=mixed"});
    for (uint64_t n = 0; n < 10; n++)
        element.push(n, [&](GstBuffer* buffer) { set_flags(buffer, flags[n]); });
    element.end();
    const std::vector<ElementUnit> units = element.take();
    EXPECT_THAT(fields_of(units),
                testing::ElementsAre(kProgressiveAmongOthers, kProgressiveAmongOthers, kTopFirst, kTopFirst,
                                     kTopFirst, kTopFirst, kBottomFirst, kBottomFirst,
                                     kProgressiveAmongOthers, kProgressiveAmongOthers));
    EXPECT_EQ(element.caps_field("interlace-mode"), "mixed");
    std::map<int64_t, bool> key;
    for (const ElementUnit& unit : units) key[unit.shown()] = unit.key;
    for (const uint64_t change : {2, 6, 8})
        EXPECT_TRUE(key[static_cast<int64_t>(element.source().time_of(change))]) << change;
}

TEST(Pictures, OfOneFieldShowThatFieldAlone) {
    for (const bool top : {true, false}) {
        SCOPED_TRACE(top);
        HarnessedElement element("mpeg-2", {{"maximum-quant", "2"}, {"noise-reduction", "0"}},
                                 {.more = ", interlace-mode=interleaved"});
        const auto units = element.encode(3, [&](GstBuffer* buffer) {
            // One field is light, the other dark.
            GstMapInfo map;
            gst_buffer_map(buffer, &map, GST_MAP_WRITE);
            for (int row = 0; row < 48; row++) std::memset(map.data + 64 * row, row % 2 ? 40 : 200, 64);
            gst_buffer_unmap(buffer, &map);
            set_flags(buffer, GST_VIDEO_BUFFER_FLAG_ONEFIELD);
            if (top) set_flags(buffer, GST_VIDEO_BUFFER_FLAG_TFF);
        });
        const std::vector<DecodedPicture> decoded = decode(AV_CODEC_ID_MPEG2VIDEO, as_units(units));
        ASSERT_EQ(decoded.size(), 3u);
        for (const DecodedPicture& picture : decoded)
            for (const uint8_t sample : picture.planes[0]) ASSERT_NEAR(sample, top ? 200 : 40, 12);
    }
}

TEST(Pictures, SaveTheirAspectRatio) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        HarnessedElement element(codec, {}, {.width = 64, .height = 48, .more = ", pixel-aspect-ratio=4/3"});
        const std::vector<DecodedPicture> decoded = decode(id_of(codec), as_units(element.encode(4)));
        ASSERT_FALSE(decoded.empty());
        EXPECT_EQ(av_cmp_q(decoded[0].sample_aspect_ratio, {4, 3}), 0) << codec;
        EXPECT_EQ(element.caps_field("pixel-aspect-ratio"), "4/3");
    }
    HarnessedElement resized("h.264", {{"resize", "32x48"}}, {.width = 64, .height = 48});
    resized.encode(4);
    EXPECT_EQ(resized.caps_field("width"), "32");
    EXPECT_EQ(resized.caps_field("pixel-aspect-ratio"), "2/1") << "the whole is as wide as it was";
}

TEST(Caps, TellWhatTheStreamIs) {
    const std::string interlaced =
        ", interlace-mode=interleaved, field-order=top-field-first, colorimetry=bt709";
    const struct {
        const char* codec;
        Properties properties;
        std::map<std::string, std::string> fields;
    } cases[] = {
        {"mpeg-2", {}, {{"profile", "main"}, {"level", "main"}, {"mpegversion", "2"}}},
        {"mpeg-2", {{"chroma-format", "4:2:2"}}, {{"profile", "4:2:2"}, {"level", "main"}}},
        {"h.264",
         {{"h-264-profile", "high"}, {"h-264-preset", "medium"}},
         {{"profile", "high"}, {"stream-format", "byte-stream"}, {"alignment", "au"}}},
        {"h.264", {{"h-264-profile", "main"}, {"h-264-level", "4"}}, {{"profile", "main"}, {"level", "4"}}},
        {"h.265", {{"h-264-profile", "main"}}, {{"profile", "main"}, {"tier", "main"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.codec);
        HarnessedElement element(c.codec, c.properties, {.more = interlaced});
        EXPECT_EQ(element.encode(3).size(), 3u);
        for (const auto& [field, value] : c.fields) EXPECT_EQ(element.caps_field(field), value) << field;
        EXPECT_EQ(element.caps_field("interlace-mode"), "interleaved");
        EXPECT_EQ(element.caps_field("field-order"), "top-field-first");
        EXPECT_EQ(element.caps_field("colorimetry"), "bt709");
        EXPECT_EQ(element.caps_field("framerate"), "30/1");
    }
}

TEST(Caps, ChooseTheCodecWhereTheCodecPropertyDoesNot) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        HarnessedElement element(codec);
        ASSERT_FALSE(element.encode(2).empty());
        GstCaps* const caps = gst_pad_get_current_caps(element.harness()->sinkpad);
        EXPECT_TRUE(gst_structure_has_name(gst_caps_get_structure(caps, 0), media_type(codec).c_str()));
        gst_caps_unref(caps);
    }
    HarnessedElement told("", {{"codec", "h.264"}});
    EXPECT_FALSE(told.encode(2).empty());
    EXPECT_EQ(told.caps_field("alignment"), "au");
}

TEST(Caps, AreRefusedWhereNothingDownstreamTakesTheCodec) {
    HarnessedElement element("h.264", {{"codec", "mpeg-2"}});
    EXPECT_EQ(element.push(0), GST_FLOW_NOT_NEGOTIATED);
    const auto errors = element.messages(GST_MESSAGE_ERROR);
    ASSERT_FALSE(errors.empty());
    EXPECT_THAT(errors[0].name, HasSubstr("mpeg-2"));
}

TEST(Caps, OfSeveralLevelsHaveTheOneThatThePicturesNeed) {
    const auto level_of = [](const char* taken) {
        HarnessedElement element("h.264", {}, {.format = ""});
        gst_harness_set_sink_caps_str(element.harness(), taken);
        element.change_source({});
        EXPECT_FALSE(element.encode(3).empty()) << taken;
        EXPECT_EQ(element.caps_field("profile"), "main") << taken;
        return element.caps_field("level");
    };
    const std::string needed = level_of("video/x-h264");
    EXPECT_NE(needed, "");
    EXPECT_NE(needed, "4") << "small pictures need less";
    EXPECT_EQ(level_of("video/x-h264, level=(string)4"), "4");
    EXPECT_EQ(level_of(("video/x-h264, level=(string){5, " + needed +
                        ", 4}, profile=(string){baseline, constrained-baseline, main}")
                           .c_str()),
              needed);
}

TEST(Caps, AskForAProfileWhereNoPropertyDoes) {
    for (const char* profile : {"baseline", "main", "high"}) {
        HarnessedElement element("", {}, {.format = ""});
        gst_harness_set_sink_caps_str(element.harness(),
                                      (std::string("video/x-h264, profile=") + profile).c_str());
        element.change_source({});
        EXPECT_FALSE(element.encode(3).empty()) << profile;
        EXPECT_THAT(element.caps_field("profile"), HasSubstr(profile));
    }
}

}  // namespace
}  // namespace gsve::test
