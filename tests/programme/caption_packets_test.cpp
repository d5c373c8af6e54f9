// Captions in packets that are not decoded yet, and to which frames they belong.

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "programme/caption_collector.h"
#include "programme/caption_packets.h"
#include "support/bytes.h"
#include "support/mpeg2_units.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;
using gsve::captions::Word;

const Bytes kA53 = from_hex("00 00 01 B2 47 41 39 34 03 41 FF FC 94 2C FF");
const Bytes kCc = from_hex("00 00 01 B2 43 43 01 F8 82 FF 91 20 FE 80 80");
const Bytes kScte20 = from_hex("00 00 01 B2 03 81 0D FC 94 2C");
const Bytes kScte20Empty = from_hex("00 00 01 B2 03 01 00");

Bytes picture_with(const Bytes& user_data) { return picture_header(2) + user_data + kFirstSlice; }

gsve::PacketPtr packet_of(const Bytes& bytes) {
    gsve::PacketPtr packet(av_packet_alloc());
    if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) != 0) throw std::bad_alloc();
    std::copy(bytes.begin(), bytes.end(), packet->data);
    return packet;
}

TEST(MayHaveCaptions, OfTheCodecsThatCarryThem) {
    for (const AVCodecID codec :
         {AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_H264, AV_CODEC_ID_HEVC})
        EXPECT_TRUE(may_have_captions(codec));
    for (const AVCodecID codec : {AV_CODEC_ID_MPEG4, AV_CODEC_ID_FFV1, AV_CODEC_ID_RAWVIDEO})
        EXPECT_FALSE(may_have_captions(codec));
}

TEST(CaptionForm, IsTheBestInThePacket) {
    using Form = std::optional<CaptionForm>;
    const Bytes sei = from_hex("00 00 01 06 04 10 B5 00 31 47 41 39 34 03 41 FF");
    const struct {
        AVCodecID codec;
        Bytes packet;
        Form form;
    } rows[] = {
        {AV_CODEC_ID_MPEG2VIDEO, picture_with({}), {}},
        {AV_CODEC_ID_MPEG2VIDEO, picture_with(kA53), CaptionForm::kA53},
        {AV_CODEC_ID_MPEG1VIDEO, picture_with(kCc), CaptionForm::kCc},
        {AV_CODEC_ID_MPEG2VIDEO, picture_with(kScte20), CaptionForm::kScte20},
        {AV_CODEC_ID_MPEG2VIDEO, picture_with(kScte20Empty), CaptionForm::kScte20},
        {AV_CODEC_ID_MPEG2VIDEO, picture_with(kCc + kScte20), CaptionForm::kScte20},
        {AV_CODEC_ID_MPEG2VIDEO, picture_with(kCc + kScte20 + kA53), CaptionForm::kA53},
        {AV_CODEC_ID_MPEG2VIDEO, picture_with(from_hex("00 00 01 B2 47 41 39 34 06")), {}},
        {AV_CODEC_ID_MPEG2VIDEO, kCc, CaptionForm::kCc},
        {AV_CODEC_ID_MPEG2VIDEO, {}, {}},
        {AV_CODEC_ID_H264, sei, CaptionForm::kA53},
        {AV_CODEC_ID_HEVC, sei, CaptionForm::kA53},
        {AV_CODEC_ID_H264, picture_with(kA53), {}},
        {AV_CODEC_ID_H264, {}, {}},
        {AV_CODEC_ID_MPEG4, sei, {}},
    };
    int number = 0;
    for (const auto& row : rows)
        EXPECT_EQ(caption_form(row.codec, row.packet), row.form) << "row " << number++;
}

/// What filter() leaves of a packet, and whether it gave "CC" pairs.
struct Filtered {
    std::optional<CaptionForm> left;
    bool run = false;
};
Filtered pass(CaptionFormFilter& filter, const Bytes& user_data) {
    const gsve::PacketPtr packet = packet_of(picture_with(user_data));
    const auto run = filter.filter(AV_CODEC_ID_MPEG2VIDEO, *packet);
    return {caption_form(AV_CODEC_ID_MPEG2VIDEO, gsve::bytes_of(*packet)), run.has_value()};
}

TEST(CaptionFormFilter, LeavesTheDecoderTheBestForm) {
    CaptionFormFilter filter;
    EXPECT_EQ(pass(filter, kScte20).left, CaptionForm::kScte20);
    EXPECT_EQ(pass(filter, kScte20 + kA53).left, CaptionForm::kA53);
    EXPECT_FALSE(pass(filter, kScte20).left);  // A/53 came lately
    EXPECT_FALSE(pass(filter, kScte20Empty).left);
    EXPECT_EQ(pass(filter, kA53).left, CaptionForm::kA53);
    EXPECT_FALSE(pass(filter, {}).left);
}

TEST(CaptionFormFilter, TakesCcPairsItselfWhereThereIsNothingBetter) {
    CaptionFormFilter filter;
    const gsve::PacketPtr packet = packet_of(picture_with(kCc));
    const auto run = filter.filter(AV_CODEC_ID_MPEG2VIDEO, *packet);
    EXPECT_EQ(run, (CcRun{{0x9120, 0x8080}}));
    EXPECT_FALSE(caption_form(AV_CODEC_ID_MPEG2VIDEO, gsve::bytes_of(*packet)));
    EXPECT_FALSE(pass(filter, kCc + kScte20).run);
    EXPECT_FALSE(pass(filter, kCc).run);  // SCTE 20 came lately
    CaptionFormFilter other;
    EXPECT_TRUE(pass(other, kCc).run);
    EXPECT_FALSE(pass(other, kCc + kA53).run);
    EXPECT_FALSE(pass(other, kCc).run);
    EXPECT_FALSE(pass(other, kCc).left);
}

TEST(CaptionFormFilter, ForgetsAFormAfter300Packets) {
    for (const int pause : {299, 300}) {
        CaptionFormFilter filter;
        pass(filter, kA53);
        for (int n = 1; n < pause; n++) pass(filter, {});
        EXPECT_EQ(pass(filter, kScte20).left.has_value(), pause == 300);
    }
}

TEST(CaptionFormFilter, HidesEveryPieceInAPacket) {
    CaptionFormFilter filter;
    const gsve::PacketPtr packet =
        packet_of(picture_with(kCc + kCc + kScte20 + kA53 + kScte20 + kScte20Empty));
    const gsve::PacketPtr original(av_packet_clone(packet.get()));
    const Bytes before(packet->data, packet->data + packet->size);
    filter.filter(AV_CODEC_ID_MPEG2VIDEO, *packet);
    // Shared bytes stay as they were.
    EXPECT_EQ(Bytes(original->data, original->data + original->size), before);
    EXPECT_EQ(packet->size, original->size);
    int pieces = 0;
    for (const Section& section : sections(Bytes(packet->data, packet->data + packet->size)))
        if (section.code == 0xB2)
            pieces += section.payload[0] == 'G' || section.payload[0] == 3 || section.payload[0] == 'C';
    EXPECT_EQ(pieces, 1);
}

TEST(CcClock, RunsOnFromTheFirstFrame) {
    CcClock clock;
    EXPECT_EQ(clock.begin(0, 15), 0);
    EXPECT_EQ(clock.begin(13, 15), 15);
    EXPECT_EQ(clock.begin(28, 15), 30);
}

TEST(CcClock, TakesRunsThatComeAfterTheirPictures) {
    CcClock clock;
    EXPECT_EQ(clock.begin(3, 3), 0);
    EXPECT_EQ(clock.begin(6, 3), 3);
    EXPECT_EQ(clock.begin(9, 3), 6);
}

TEST(CcClock, FindsTheNearestFrameAfterAPause) {
    const struct {
        int64_t shown, pairs,
            begin;  // of a run after one of 15 pairs at 0, seen when 13 was the next to be shown
    } rows[] = {
        {34, 15, 15},  // 34 - 15 - 4 is the earliest that is taken as it is
        {35, 15, 22},  // else as far from what is shown as the run before
        {100, 15, 87}, {13, 15, 15}, {11, 15, 15}, {10, 15, 14},  // no later than four frames on
    };
    for (const auto& row : rows) {
        CcClock clock;
        ASSERT_EQ(clock.begin(13, 15), 0);
        EXPECT_EQ(clock.begin(row.shown, row.pairs), row.begin) << row.shown;
    }
    CcClock late;
    EXPECT_EQ(late.begin(100, 15), 100);  // nothing was known
    CcClock soon;
    EXPECT_EQ(soon.begin(19, 15), 0);
    CcClock later;
    EXPECT_EQ(later.begin(20, 15), 20);
}

// ---- CaptionCollector ----

gsve::FramePtr frame_at(int64_t pts, const Bytes& cc = {}, int repeat = 0, bool top_first = true) {
    gsve::FramePtr frame(av_frame_alloc());
    frame->pts = pts;
    frame->repeat_pict = repeat;
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(58, 7, 100)
    if (top_first) frame->flags |= AV_FRAME_FLAG_TOP_FIELD_FIRST;
#else
    frame->top_field_first = top_first;
#endif
    if (!cc.empty()) {
        AVFrameSideData* data = av_frame_new_side_data(frame.get(), AV_FRAME_DATA_A53_CC, cc.size());
        std::copy(cc.begin(), cc.end(), data->data);
    }
    return frame;
}

/// "frame: pairs of field 1 / of field 2" for each.
std::string shown(const std::vector<SourceCaptions>& all) {
    std::string text;
    for (const SourceCaptions& one : all) {
        text += std::to_string(one.frame) + ":";
        for (const Word word : one.captions.fields[0])
            text += hex(Bytes{static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)}) + ",";
        text += "/";
        for (const Word word : one.captions.fields[1])
            text += hex(Bytes{static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)}) + ",";
        text += " ";
    }
    return text;
}

const Bytes kBoth = from_hex("FC C1 C2 FD 43 C4");

TEST(CaptionCollector, CountsFramesByTheirTimes) {
    CaptionCollector collector(CaptionForm::kA53, AV_CODEC_ID_MPEG2VIDEO, {25, 1}, {1, 90000});
    EXPECT_EQ(collector.behind(), 1);
    collector.frame(*frame_at(0, kBoth));
    collector.frame(*frame_at(3600));
    collector.frame(*frame_at(3 * 3600, kBoth));
    EXPECT_EQ(shown(collector.take()), "0:C1 C2,/43 C4, 1:/ 3:C1 C2,/43 C4, ");
    EXPECT_TRUE(collector.take().empty());
}

TEST(CaptionCollector, SplitsThePairsOfAPictureThatBeginsInTheMiddleOfAFrame) {
    // Film in 60 Hz video: three fields, two, three, two ...
    CaptionCollector collector(CaptionForm::kA53, AV_CODEC_ID_MPEG2VIDEO, {30, 1}, {1, 60});
    collector.frame(*frame_at(0, kBoth, 1, true));
    collector.frame(*frame_at(3, kBoth, 0, false));
    collector.frame(*frame_at(5, kBoth, 1, false));
    collector.frame(*frame_at(8, kBoth, 0, true));
    EXPECT_EQ(shown(collector.take()),
              "0:C1 C2,/43 C4, 1:/43 C4, 2:C1 C2,/ 2:/43 C4, 3:C1 C2,/ 4:C1 C2,/43 C4, ");
}

TEST(CaptionCollector, GivesCcPairsFrameByFrame) {
    CaptionCollector collector(CaptionForm::kCc, AV_CODEC_ID_MPEG2VIDEO, {30, 1}, {1, 30});
    EXPECT_EQ(collector.behind(), 67);
    const gsve::PacketPtr packet =
        packet_of(picture_with(from_hex("00 00 01 B2 43 43 01 F8 84 FF 91 20 FE 80 80 FF C1 C2 FE 43 C4")));
    collector.packet(*packet);
    collector.frame(*frame_at(0));
    collector.frame(*frame_at(1));
    EXPECT_EQ(shown(collector.take()), "0:91 20,/80 80, 1:C1 C2,/43 C4, ");
    // A/53 that turns up is better.
    collector.frame(*frame_at(2, kBoth));
    collector.frame(*frame_at(3));
    EXPECT_EQ(shown(collector.take()), "2:C1 C2,/43 C4, 3:/ ");
}

TEST(CaptionCollector, GivesCcPairsOfFastPicturesForEverySecond) {
    CaptionCollector collector(CaptionForm::kCc, AV_CODEC_ID_MPEG2VIDEO, {60, 1}, {1, 60});
    const gsve::PacketPtr packet =
        packet_of(picture_with(from_hex("00 00 01 B2 43 43 01 F8 84 FF 91 20 FE 80 80 FF C1 C2 FE 43 C4")));
    collector.packet(*packet);
    EXPECT_EQ(shown(collector.take()), "0:91 20,/80 80, 2:C1 C2,/43 C4, ");
}

TEST(CaptionCollector, LeavesPacketsOfOtherCodecsAlone) {
    CaptionCollector collector(CaptionForm::kA53, AV_CODEC_ID_H264, {25, 1}, {1, 25});
    const Bytes bytes = picture_with(kCc);
    const gsve::PacketPtr packet = packet_of(bytes);
    collector.packet(*packet);
    EXPECT_EQ(Bytes(packet->data, packet->data + packet->size), bytes);
    EXPECT_TRUE(collector.take().empty());
}

TEST(CaptionCollector, NeverGoesBack) {
    CaptionCollector collector(CaptionForm::kA53, AV_CODEC_ID_MPEG2VIDEO, {25, 1}, {1, 25});
    collector.frame(*frame_at(5, kBoth));
    collector.frame(*frame_at(3, kBoth));
    EXPECT_EQ(shown(collector.take()), "5:C1 C2,/43 C4, 5:C1 C2,/43 C4, ");
}

}  // namespace
