// The rates of broadcast, FFmpeg's words, and the texts of the status report.

#include <cerrno>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/av.h"
#include "encoding/caption_account.h"
#include "encoding/caption_forms.h"
#include "encoding/frame_rate.h"
#include "encoding/picture_encoder.h"
#include "encoding/picture_type.h"
#include "encoding/status.h"
#include "encoding/status_text.h"
#include "encoding/timecode_track.h"
#include "encoding/unit_contents.h"
#include "support/mpeg2_units.h"

namespace {

using namespace gsve::test;
using gsve::encoding::broadcast_rate;
using gsve::encoding::caption_rate;
using gsve::encoding::mpeg2_picture_header;
using gsve::encoding::one_line;
using gsve::encoding::pair_subject;
using gsve::encoding::PictureEncoder;
using gsve::encoding::PictureTypeReader;

std::string fraction(AVRational rate) { return std::to_string(rate.num) + "/" + std::to_string(rate.den); }

TEST(BroadcastRate, IsTheLowestThatLosesNoPictures) {
    const struct {
        AVRational rate;
        const char* expected;
    } rows[] = {
        {{1, 1}, "24000/1001"},
        {{10, 1}, "24000/1001"},
        {{24000, 1001}, "24000/1001"},
        {{2398, 100}, "24000/1001"},
        {{24, 1}, "24/1"},
        {{2401, 100}, "24/1"},
        {{2402, 100}, "25/1"},
        {{25, 1}, "25/1"},
        {{251, 10}, "30000/1001"},
        {{30000, 1001}, "30000/1001"},
        {{2997, 100}, "30000/1001"},
        {{30, 1}, "30/1"},
        {{31, 1}, "50/1"},
        {{50, 1}, "50/1"},
        {{51, 1}, "60000/1001"},
        {{60000, 1001}, "60000/1001"},
        {{60, 1}, "60/1"},
        {{120, 1}, "60/1"},
        {{5994, 100}, "60000/1001"},
        {{29999, 1000}, "30/1"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(fraction(broadcast_rate(row.rate)), row.expected) << fraction(row.rate);
}

TEST(CaptionRate, IsTheSameFraction) {
    const gsve::captions::FrameRate rate = caption_rate({30000, 1001});
    EXPECT_EQ(rate.num, 30000);
    EXPECT_EQ(rate.den, 1001);
}

TEST(AvErrorText, UsesTheWordsOfFFmpeg) {
    EXPECT_EQ(gsve::av_error_text(AVERROR_EOF), "End of file");
    EXPECT_EQ(gsve::av_error_text(AVERROR(ENOENT)), "No such file or directory");
}

TEST(AvErrorText, GivesTheNumberOfAnErrorWithoutWords) {
    EXPECT_EQ(gsve::av_error_text(-1234567), "error -1234567");
}

TEST(FieldOrder, IsThatOfTheDecodedPicture) {
    const gsve::FramePtr frame(av_frame_alloc());
    const auto flag = [&](bool interlaced, bool top_first) {
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(58, 7, 100)
        frame->flags =
            (interlaced ? AV_FRAME_FLAG_INTERLACED : 0) | (top_first ? AV_FRAME_FLAG_TOP_FIELD_FIRST : 0);
#else
        frame->interlaced_frame = interlaced;
        frame->top_field_first = top_first;
#endif
        return gsve::field_order(*frame);
    };
    EXPECT_EQ(flag(false, false), 0);
    EXPECT_EQ(flag(false, true), 0);
    EXPECT_EQ(flag(true, true), 1);
    EXPECT_EQ(flag(true, false), 2);
}

TEST(BytesOf, AreThePacketsData) {
    const gsve::PacketPtr packet(av_packet_alloc());
    ASSERT_EQ(av_new_packet(packet.get(), 5), 0);
    EXPECT_EQ(gsve::bytes_of(*packet).data(), packet->data);
    EXPECT_EQ(gsve::bytes_of(*packet).size(), 5u);
}

TEST(PairSubject, IsTheNameWithoutTheReport) {
    EXPECT_EQ(pair_subject("channel 1, bitrate"), "bitrate");
    EXPECT_EQ(pair_subject("a, b, c, state"), "state");
    EXPECT_EQ(pair_subject("state"), "state");
    EXPECT_EQ(pair_subject("a,b"), "a,b");
    EXPECT_EQ(pair_subject("a, "), "");
}

TEST(OneLine, PutsCommasBetweenLines) {
    EXPECT_EQ(one_line(""), "");
    EXPECT_EQ(one_line("a"), "a");
    EXPECT_EQ(one_line("a\n"), "a");
    EXPECT_EQ(one_line("a\nb\nc\n\n"), "a, b, c");
    EXPECT_EQ(one_line("\nb"), ", b");
    EXPECT_EQ(one_line("\n\n"), "");
}

TEST(StatusPairs, CarryTheReportNameAndTheEncodersState) {
    PictureEncoder encoder("name");
    const auto pairs = gsve::encoding::status_pairs(encoder, "channel, 1");
    ASSERT_FALSE(pairs.empty());
    for (const auto& [name, value] : pairs) EXPECT_THAT(name, testing::HasSubstr("channel, 1, "));
    EXPECT_THAT(pairs, testing::Contains(testing::Pair("*channel, 1, active", testing::_)));
}

TEST(Mpeg2PictureHeader, TellsTypeAndTemporalReference) {
    const char letters[] = {'?', 'I', 'P', 'B'};
    for (int type = 1; type <= 3; type++)
        for (const int reference : {0, 1, 3, 4, 511, 1020, 1023}) {
            Bytes unit = picture_unit(type);
            unit[4] = static_cast<uint8_t>(reference >> 2);
            unit[5] = static_cast<uint8_t>((reference & 3) << 6 | type << 3);
            const auto header = mpeg2_picture_header(unit);
            ASSERT_TRUE(header);
            EXPECT_EQ(header->type, letters[type]);
            EXPECT_EQ(header->temporal_reference, reference);
        }
    EXPECT_FALSE(mpeg2_picture_header({}));
    EXPECT_FALSE(mpeg2_picture_header(kSequenceHeader));
}

TEST(AvErrorText, IsFfmpegsWordsOrTheNumber) {
    EXPECT_EQ(gsve::av_error_text(AVERROR_EOF), "End of file");
    EXPECT_EQ(gsve::av_error_text(AVERROR(ENOENT)), "No such file or directory");
    EXPECT_NE(gsve::av_error_text(-123456), "");
    EXPECT_NE(gsve::av_error_text(-123456).find("123456"), std::string::npos);
}

TEST(PictureTypeReader, SaysSoWhereTheUnitDoesNotTell) {
    const gsve::CodecContextPtr context(avcodec_alloc_context3(nullptr));
    context->codec_id = AV_CODEC_ID_MPEG2VIDEO;
    PictureTypeReader reader(*context);
    EXPECT_EQ(reader.type(from_hex("00 00 01 BC 12 34")), '?');
}

TEST(PictureTypeReader, ReadsMpeg2) {
    const gsve::CodecContextPtr context(avcodec_alloc_context3(nullptr));
    context->codec_id = AV_CODEC_ID_MPEG2VIDEO;
    PictureTypeReader reader(*context);
    EXPECT_EQ(reader.type(gop_unit(kOpenGop)), 'I');
    EXPECT_EQ(reader.type(picture_unit(2)), 'P');
    EXPECT_EQ(reader.type(picture_unit(3)), 'B');
}

TEST(PictureTypeReader, RefusesACodecWithoutAParser) {
    const gsve::CodecContextPtr context(avcodec_alloc_context3(nullptr));
    context->codec_id = AV_CODEC_ID_NONE;
    EXPECT_THROW(PictureTypeReader{*context}, std::bad_alloc);
}

// What a user leaves out stands for the plain case.
TEST(Values, AreThePlainOnesWhereNothingIsGiven) {
    using namespace gsve::encoding;
    EXPECT_EQ(kMpeg2, 2);
    EXPECT_EQ(kH264, 4);
    EXPECT_EQ(kH265, 8);

    const SourceDescription source;
    EXPECT_EQ(source.width, 0);
    EXPECT_EQ(source.height, 0);
    EXPECT_EQ(source.chroma_shift_x, 1u);
    EXPECT_EQ(source.chroma_shift_y, 1u);
    EXPECT_EQ(fraction(source.frame_rate), "25/1");
    EXPECT_FALSE(source.interlaced);

    const Ancillary ancillary;
    EXPECT_EQ(fraction(ancillary.display_aspect), "4/3");
    EXPECT_EQ(ancillary.field_order, 0);
    EXPECT_EQ(PictureView{}.number, 0u);

    const EncodedUnit unit{};
    EXPECT_EQ(unit.pts, 0);
    EXPECT_EQ(unit.dts, 0);
    EXPECT_FALSE(unit.key || unit.ancillary);
    EXPECT_EQ(unit.type, '?');
    EXPECT_EQ(Mpeg2PictureHeader{}.temporal_reference, 0);

    const UnitContents contents;
    EXPECT_FALSE(GopStart{}.closed || GopStart{}.broken_link);
    EXPECT_EQ(contents.captions.damaged, 0);

    const CaptionForms forms;
    EXPECT_FALSE(forms.cc || forms.cc_data || forms.scte20 || forms.pairs());
    const CaptionWish wish;
    EXPECT_TRUE(wish.wanted);
    EXPECT_FALSE(wish.present || wish.scte20);

    EXPECT_EQ(TimecodeRates{}.divider, 1);
    EXPECT_FALSE(PictureTimecode{}.of_gop || PictureTimecode{}.on_i_picture);
}

TEST(CaptionAccount, BeginsWithNothing) {
    using namespace gsve::encoding;
    const CaptionAccount account;
    for (const CaptionCount& count :
         {account.carried, account.left_over, account.without_form, account.expired}) {
        EXPECT_EQ(count.pairs, 0u);
        EXPECT_EQ(count.constructs, 0u);
        EXPECT_EQ(count.all(), 0u);
    }
    EXPECT_EQ(account.repetitions_left_out, 0u);
    EXPECT_EQ(account.pairs_after_last_cc, 0u);
    EXPECT_EQ(account.delayed_pairs, 0u);
    EXPECT_EQ(account.largest_delay, 0);
    EXPECT_FALSE(account.parity.any());
    EXPECT_EQ(LostCaption{}.time, 0);
    EXPECT_EQ(LostCaption{}.channel, 1);
    EXPECT_EQ(LostCaption{}.reason, LostCaption::Reason::kDidNotFit);
}

TEST(CaptionCount, AddsPairsAndConstructsApart) {
    gsve::encoding::CaptionCount sum{1, 20};
    sum += {300, 4000};
    EXPECT_EQ(sum.pairs, 301u);
    EXPECT_EQ(sum.constructs, 4020u);
    EXPECT_EQ(sum.all(), 4321u);
}

}  // namespace
