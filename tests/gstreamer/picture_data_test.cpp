// What goes with the pictures: captions, time codes, active format and bars, from GStreamer's metadata into
// the stream.

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captions/cc_data.h"
#include "captions/cdp.h"
#include "captions/line21.h"
#include "encoding/coded_unit.h"
#include "encoding/picture_shape.h"
#include "encoding/unit_messages.h"
#include "gstreamer/picture_data.h"
#include "harnessed_element.h"
#include "unit_captions.h"

namespace gsve::test {
namespace {

using captions::Word;
using testing::IsEmpty;

AVCodecID id_of(const std::string& codec) {
    return codec == "mpeg-2"  ? AV_CODEC_ID_MPEG2VIDEO
           : codec == "h.264" ? AV_CODEC_ID_H264
                              : AV_CODEC_ID_HEVC;
}

const char* const kCodecs[] = {"mpeg-2", "h.264", "h.265"};
const Source kNtsc = {.rate_num = 30000, .rate_den = 1001};

/// Text that tells the picture and the field; no control pairs, which may be left out.
Word pair_of(uint64_t n, int field) {
    return captions::with_parity(captions::make_word(0x20 + static_cast<unsigned>(n % 90),
                                                     0x30 + static_cast<unsigned>(n / 90 % 70 + field)));
}

Bytes cc_triples(uint64_t n) {
    const Word first = pair_of(n, 0), second = pair_of(n, 1);
    return {0xFC,
            static_cast<uint8_t>(first >> 8),
            static_cast<uint8_t>(first & 0xFF),
            0xFD,
            static_cast<uint8_t>(second >> 8),
            static_cast<uint8_t>(second & 0xFF),
            0xFF,
            static_cast<uint8_t>(n),
            0x22,
            0xFA,
            0x00,
            0x00};
}

Bytes distribution_packet(uint64_t n) {
    const Bytes triples = cc_triples(n);
    Bytes packet = {0x96,
                    0x69,
                    0,
                    0x4F,
                    0x43,
                    static_cast<uint8_t>(n >> 8),
                    static_cast<uint8_t>(n),
                    0x72,
                    static_cast<uint8_t>(0xE0 | triples.size() / 3)};
    packet.insert(packet.end(), triples.begin(), triples.end());
    packet.insert(packet.end(), {0x74, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n), 0});
    packet[2] = static_cast<uint8_t>(packet.size());
    packet.back() = captions::zero_sum_checksum({packet.data(), packet.size() - 1});
    return packet;
}

Bytes meta_bytes(GstVideoCaptionType type, uint64_t n) {
    const Bytes t = cc_triples(n);
    switch (type) {
        case GST_VIDEO_CAPTION_TYPE_CEA608_RAW: return {t[1], t[2]};
        case GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A: return {0x8B, t[1], t[2], 0x0B, t[4], t[5]};
        case GST_VIDEO_CAPTION_TYPE_CEA708_RAW: return t;
        default: return distribution_packet(n);
    }
}

void add_captions(GstBuffer* buffer, GstVideoCaptionType type, uint64_t n) {
    const Bytes bytes = meta_bytes(type, n);
    gst_buffer_add_video_caption_meta(buffer, type, bytes.data(), bytes.size());
}

/// In display order.
std::vector<captions::PictureCaptions> captions_in(const std::string& codec,
                                                   const std::vector<ElementUnit>& units) {
    std::map<int64_t, captions::PictureCaptions> by_time;
    for (const ElementUnit& unit : units) by_time[unit.shown()] = unit_captions(codec, unit.bytes);
    std::vector<captions::PictureCaptions> found;
    for (auto& [time, captions] : by_time) found.push_back(std::move(captions));
    return found;
}

/// All pairs of a field, in order.
std::vector<Word> pairs_of(const std::vector<captions::PictureCaptions>& pictures, int field) {
    std::vector<Word> pairs;
    for (const auto& captions : pictures)
        pairs.insert(pairs.end(), captions.fields[field].begin(), captions.fields[field].end());
    return pairs;
}

std::vector<Word> pairs_sent(uint64_t begin, uint64_t end, int field) {
    std::vector<Word> pairs;
    for (uint64_t n = begin; n < end; n++) pairs.push_back(pair_of(n, field));
    return pairs;
}

TEST(Captions, OfEachFormGoOutWithTheirPictures) {
    for (const char* codec : kCodecs)
        for (const GstVideoCaptionType type :
             {GST_VIDEO_CAPTION_TYPE_CEA608_RAW, GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A,
              GST_VIDEO_CAPTION_TYPE_CEA708_RAW, GST_VIDEO_CAPTION_TYPE_CEA708_CDP}) {
            SCOPED_TRACE(std::string(codec) + " " + std::to_string(type));
            HarnessedElement element(codec, {{"h-264-profile", "main"}}, kNtsc);
            for (uint64_t n = 0; n < 40; n++)
                element.push(n, [&](GstBuffer* buffer) { add_captions(buffer, type, n); });
            element.end();
            const std::vector<ElementUnit> units = element.take();
            const auto found = captions_in(codec, units);
            ASSERT_EQ(found.size(), 40u);
            const bool has_field_2 = type != GST_VIDEO_CAPTION_TYPE_CEA608_RAW;
            const bool has_constructs =
                type == GST_VIDEO_CAPTION_TYPE_CEA708_RAW || type == GST_VIDEO_CAPTION_TYPE_CEA708_CDP;
            for (uint64_t n = 0; n < 40; n++) {
                EXPECT_EQ(found[n].fields[0], std::vector<Word>{pair_of(n, 0)}) << n;
                EXPECT_EQ(found[n].fields[1],
                          has_field_2 ? std::vector<Word>{pair_of(n, 1)} : std::vector<Word>{})
                    << n;
                EXPECT_EQ(found[n].cea708.size(), has_constructs ? 1u : 0u) << n;
            }
            for (const ElementUnit& unit : units)
                EXPECT_FALSE(unit.has_caption_meta) << "which may have moved";
            EXPECT_THAT(element.messages_named("gsveenc-captions-lost"), IsEmpty());
        }
}

TEST(Captions, InSeveralFormsAreTakenOnce) {
    HarnessedElement element("h.264", {}, kNtsc);
    for (uint64_t n = 0; n < 20; n++)
        element.push(n, [&](GstBuffer* buffer) {
            add_captions(buffer, GST_VIDEO_CAPTION_TYPE_CEA608_RAW, n);
            add_captions(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, n);
            add_captions(buffer, GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A, n);
        });
    element.end();
    const auto found = captions_in("h.264", element.take());
    for (const int field : {0, 1}) EXPECT_EQ(pairs_of(found, field), pairs_sent(0, 20, field));
}

TEST(Captions, AreRepacedWhereTheRateIsDivided) {
    const Source fast = {.rate_num = 60000, .rate_den = 1001};
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"frame-rate-limit", "30"}, {"h-264-profile", "main"}}, fast);
        for (uint64_t n = 0; n < 120; n++)
            element.push(n, [&](GstBuffer* buffer) {
                // Above 39 pictures a second each has the pair of one field.
                const Word pair = pair_of(n / 2, static_cast<int>(n % 2));
                const guint8 triple[] = {static_cast<guint8>(0xFC | n % 2), static_cast<guint8>(pair >> 8),
                                         static_cast<guint8>(pair & 0xFF)};
                if (n < 100)
                    gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_RAW, triple,
                                                      sizeof triple);
            });
        element.end();
        const auto found = captions_in(codec, element.take());
        EXPECT_EQ(found.size(), 60u);
        for (const int field : {0, 1}) EXPECT_EQ(pairs_of(found, field), pairs_sent(0, 50, field));
    }
}

TEST(Captions, ThatBeginLaterOpenAStreamThatHasAPlaceForThem) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"gop-size", "100"}}, {.rate_num = 25});
        for (uint64_t n = 0; n < 40; n++)
            element.push(n, [&](GstBuffer* buffer) {
                if (n >= 15) add_captions(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, n);
            });
        element.end();
        const std::vector<ElementUnit> units = element.take();
        EXPECT_EQ(units.size(), 40u);
        const auto found = captions_in(codec, units);
        for (const int field : {0, 1}) EXPECT_EQ(pairs_of(found, field), pairs_sent(15, 40, field));
        EXPECT_EQ(std::ranges::count_if(units, [](const ElementUnit& unit) { return unit.key; }), 2);
    }
}

TEST(Captions, GoOnWhereASettingReopensTheEncoder) {
    for (const char* codec : kCodecs)
        for (const Source& source : {kNtsc, Source{.rate_num = 60}, Source{.rate_num = 24}}) {
            SCOPED_TRACE(std::string(codec) + " " + source.caps());
            HarnessedElement element(codec, {{"enable-cea-708", "1"}}, source);
            // A third more than there is room for, which has to wait over the end of the first run.
            std::vector<Word> sent;
            for (uint64_t n = 0; n < 200; n++)
                element.push(n, [&](GstBuffer* buffer) {
                    if (n == 33) element.set("bitrate", "1200000");
                    if (n >= 66) return;
                    const int pairs = n % 3 == 0 ? 2 : 1;
                    for (int k = 0; k < pairs; k++) {
                        const Word pair = pair_of(sent.size(), 0);
                        const guint8 triple[] = {0xFC, static_cast<guint8>(pair >> 8),
                                                 static_cast<guint8>(pair & 0xFF)};
                        gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_RAW, triple,
                                                          sizeof triple);
                        sent.push_back(pair);
                    }
                });
            element.end();
            const std::vector<ElementUnit> units = element.take();
            EXPECT_EQ(units.size(), 200u);
            EXPECT_EQ(pairs_of(captions_in(codec, units), 0), sent);
            EXPECT_THAT(element.messages_named("gsveenc-captions-lost"), IsEmpty());
        }
}

TEST(Captions, ThatHaveNoFormOrNoTimeAreToldAsLost) {
    HarnessedElement no_form("mpeg-2", {{"enable-cea-708", "0"}, {"enable-eia-608", "0"}}, kNtsc);
    for (uint64_t n = 0; n < 101; n++)
        no_form.push(n,
                     [&](GstBuffer* buffer) { add_captions(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_RAW, n); });
    guint64 pairs = 0, constructs = 0;
    auto told = no_form.messages_named("gsveenc-captions-lost");
    ASSERT_EQ(told.size(), 1u) << "while they come";
    EXPECT_TRUE(gst_structure_get(told[0].structure.get(), "pairs", G_TYPE_UINT64, &pairs, "constructs",
                                  G_TYPE_UINT64, &constructs, nullptr));
    EXPECT_EQ(pairs, 200u);
    EXPECT_EQ(constructs, 100u);
    no_form.end();
    told = no_form.messages_named("gsveenc-captions-lost");
    ASSERT_EQ(told.size(), 1u) << "at the end, the rest";
    EXPECT_TRUE(gst_structure_get(told[0].structure.get(), "pairs", G_TYPE_UINT64, &pairs, nullptr));
    EXPECT_EQ(pairs, 2u);

    HarnessedElement no_time("h.264", {}, kNtsc);
    // A roll-up caption that comes in one picture, and needs five.
    const std::vector<Word> words = {0x9425, 0x94AD, 0x9470,
                                     captions::with_parity(captions::make_word('T', 'O')),
                                     captions::with_parity(captions::make_word('O', 'K'))};
    for (uint64_t n = 0; n < 3; n++)
        no_time.push(n, [&](GstBuffer* buffer) {
            if (n > 0) return;
            for (const Word word : words) {
                const guint8 pair[] = {static_cast<guint8>(word >> 8), static_cast<guint8>(word & 0xFF)};
                gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA608_RAW, pair,
                                                  sizeof pair);
            }
        });
    no_time.end();
    told = no_time.messages_named("gsveenc-captions-lost");
    ASSERT_EQ(told.size(), 1u);
    EXPECT_TRUE(gst_structure_get(told[0].structure.get(), "pairs", G_TYPE_UINT64, &pairs, nullptr));
    EXPECT_EQ(pairs, 2u);
    EXPECT_THAT(told[0].text, testing::HasSubstr("TOOK"));
}

TEST(Captions, InDamagedPacketsAreTakenAsFarAsTheyGo) {
    HarnessedElement element("h.264", {}, kNtsc);
    Bytes cut = distribution_packet(0), foreign = {1, 2, 3};
    cut.pop_back();
    element.push(0, [&](GstBuffer* buffer) {
        gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, cut.data(), cut.size());
    });
    element.push(1, [&](GstBuffer* buffer) {
        gst_buffer_add_video_caption_meta(buffer, GST_VIDEO_CAPTION_TYPE_CEA708_CDP, foreign.data(),
                                          foreign.size());
    });
    element.end();
    const auto found = captions_in("h.264", element.take());
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(pairs_of(found, 0), pairs_sent(0, 1, 0));
}

// Time codes

void add_timecode(GstBuffer* buffer, guint fps_n, guint fps_d, bool drop, guint frames) {
    GstVideoTimeCode* const code = gst_video_time_code_new(
        fps_n, fps_d, nullptr, drop ? GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME : GST_VIDEO_TIME_CODE_FLAGS_NONE,
        10, 0, 0, 0, 0);
    gst_video_time_code_add_frames(code, frames);
    gst_buffer_add_video_time_code_meta(buffer, code);
    gst_video_time_code_free(code);
}

captions::Timecode timecode_at(captions::FrameRate rate, bool drop, int64_t frames) {
    return captions::TimecodeCounter({10, 0, 0, 0, drop}, rate).at(frames);
}

TEST(Timecodes, StandInGopHeaders) {
    for (const bool drop : {false, true}) {
        SCOPED_TRACE(drop);
        HarnessedElement element("mpeg-2", {{"gop-size", "9"}, {"closed-gop", "true"}}, kNtsc);
        constexpr uint64_t kFirst = 1795;  // before the first minute ends
        for (uint64_t n = 0; n < 30; n++)
            element.push(n, [&](GstBuffer* buffer) {
                // Some pictures have none, and are counted on.
                if (n % 4 != 3) add_timecode(buffer, 30000, 1001, drop, static_cast<guint>(kFirst + n));
            });
        element.end();
        int groups = 0;
        for (const ElementUnit& unit : element.take()) {
            const encoding::UnitContents contents =
                encoding::read_unit(AV_CODEC_ID_MPEG2VIDEO, unit.bytes, unit.key);
            if (!contents.gop) continue;
            groups++;
            const auto number =
                gst_util_uint64_scale_round(static_cast<guint64>(unit.shown()), 30000, 1001 * GST_SECOND);
            ASSERT_TRUE(contents.gop->timecode);
            EXPECT_EQ(*contents.gop->timecode,
                      timecode_at(captions::kRate29_97, drop, static_cast<int64_t>(kFirst + number)));
        }
        EXPECT_GE(groups, 4);
    }
}

TEST(Timecodes, StandInMessagesOfEachPictureOfH265AndJumpWithTheSource) {
    HarnessedElement element("h.265", {{"b-frames", "0"}, {"h-264-profile", "main"}}, {.rate_num = 25});
    const auto frames_of = [](uint64_t n) { return n < 10 ? n : n + 1000; };
    for (uint64_t n = 0; n < 20; n++)
        element.push(n, [&](GstBuffer* buffer) {
            add_timecode(buffer, 25, 1, false, static_cast<guint>(frames_of(n)));
        });
    element.end();
    const std::vector<ElementUnit> units = element.take();
    ASSERT_EQ(units.size(), 20u);
    for (uint64_t n = 0; n < 20; n++) {
        const captions::GopTimecode code =
            captions::gop_timecode(timecode_at(captions::kRate25, false, static_cast<int64_t>(frames_of(n))));
        const Bytes message = encoding::timecode_message(code, captions::kRate25);
        EXPECT_NE(std::search(units[n].bytes.begin(), units[n].bytes.end(), message.begin(), message.end()),
                  units[n].bytes.end())
            << n;
    }
}

TEST(Timecodes, AreCountedOnAndConverted) {
    using captions::kRate30;
    using captions::kRate60;
    using gstreamer::CountedTimecode;
    using gstreamer::TimecodeFollower;
    TimecodeFollower none(kRate30, kRate30, 1);
    EXPECT_FALSE(none.next(0, std::nullopt));
    // 60 pictures of which every second is encoded, with codes that count 30.
    TimecodeFollower halved(kRate60, kRate30, 2);
    for (int64_t n = 0; n < 60; n += 2) {
        const CountedTimecode code = {timecode_at(kRate30, false, n / 2), kRate30};
        EXPECT_EQ(halved.next(n, code), captions::gop_timecode(code.timecode)) << n;
    }
    // Codes that there are not are passed over.
    TimecodeFollower strict(kRate30, kRate30, 1);
    EXPECT_FALSE(strict.next(0, CountedTimecode{{1, 2, 3, 31, false}, {}}));
    EXPECT_FALSE(strict.next(1, CountedTimecode{{25, 2, 3, 1, false}, {}}));
    EXPECT_EQ(strict.next(2, CountedTimecode{{1, 2, 3, 29, false}, {}}),
              (captions::GopTimecode{0, 1, 2, 3, 29}));
    EXPECT_EQ(strict.next(3, std::nullopt), (captions::GopTimecode{0, 1, 2, 4, 0}));
}

// Active format and bars

std::map<int64_t, encoding::PictureShape> shapes_in(const std::string& codec,
                                                    const std::vector<ElementUnit>& units) {
    std::map<int64_t, encoding::PictureShape> shapes;
    for (const ElementUnit& unit : units)
        shapes[unit.shown()] = encoding::read_shape(id_of(codec), unit.bytes);
    return shapes;
}

TEST(Shapes, GoOutWithTheirPicturesAndAgainWithKeyPictures) {
    for (const char* codec : kCodecs) {
        SCOPED_TRACE(codec);
        HarnessedElement element(codec, {{"gop-size", "12"}, {"closed-gop", "true"}});
        for (uint64_t n = 0; n < 36; n++)
            element.push(n, [&](GstBuffer* buffer) {
                if (n == 5 || n == 6)
                    gst_buffer_add_video_afd_meta(buffer, 0, GST_VIDEO_AFD_SPEC_ATSC_A53,
                                                  GST_VIDEO_AFD_4_3_FULL_16_9_FULL);
                if (n == 6) gst_buffer_add_video_bar_meta(buffer, 0, TRUE, 5, 42);
            });
        element.end();
        const std::vector<ElementUnit> units = element.take();
        ASSERT_EQ(units.size(), 36u);
        auto shapes = shapes_in(codec, units);
        const auto at = [&](uint64_t n) { return shapes[static_cast<int64_t>(element.source().time_of(n))]; };
        for (const uint64_t n : {0, 4}) EXPECT_TRUE(at(n).empty()) << n;
        EXPECT_EQ(at(5).afd, int{GST_VIDEO_AFD_4_3_FULL_16_9_FULL});
        EXPECT_FALSE(at(5).bars);
        ASSERT_TRUE(at(6).bars);
        EXPECT_EQ(at(6).bars->top_end, 5);
        EXPECT_EQ(at(6).bars->bottom_begin, 42);
        for (const ElementUnit& unit : units)
            if (unit.key && unit.shown() > static_cast<int64_t>(element.source().time_of(6))) {
                EXPECT_EQ(shapes[unit.shown()], at(6));
            }
    }
}

TEST(Shapes, AreScaledWithThePicture) {
    HarnessedElement element("h.264", {{"resize", "32x24"}});
    for (uint64_t n = 0; n < 6; n++)
        element.push(n, [&](GstBuffer* buffer) { gst_buffer_add_video_bar_meta(buffer, 0, FALSE, 7, 56); });
    element.end();
    for (const auto& [time, shape] : shapes_in("h.264", element.take())) {
        ASSERT_TRUE(shape.bars) << time;
        EXPECT_EQ(shape.bars->left_end, 3);
        EXPECT_EQ(shape.bars->right_begin, 28);
    }
}

}  // namespace
}  // namespace gsve::test
