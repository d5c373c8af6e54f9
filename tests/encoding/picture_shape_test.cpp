// Active format and bars: their bytes, how they are read, and what becomes of them at another size.

#include <gtest/gtest.h>

#include "encoding/codec_id.h"
#include "encoding/picture_shape.h"
#include "encoding/unit_messages.h"
#include "support/mpeg2_units.h"

namespace {

using namespace gsve::encoding;
using namespace gsve::test;

constexpr Bars kLetterbox = {.top_end = 69, .bottom_begin = 410, .left_end = {}, .right_begin = {}};
constexpr Bars kPillarbox = {.top_end = {}, .bottom_begin = {}, .left_end = 0, .right_begin = 16383};

TEST(PictureShape, IsWrittenAsTheStandardHasIt) {
    EXPECT_EQ(hex(afd_data(9)), hex(from_hex("44 54 47 31 41 F9")));
    EXPECT_EQ(hex(bar_data(kLetterbox)), hex(from_hex("47 41 39 34 06 CF C0 45 C1 9A")));
    EXPECT_EQ(hex(bar_data(kPillarbox)), hex(from_hex("47 41 39 34 06 3F C0 00 FF FF")));
}

TEST(PictureShape, ComesBackFromUnitsOfEveryCodec) {
    for (int afd = 0; afd < 16; afd++)
        for (const Bars& bars : {kLetterbox, kPillarbox}) {
            const PictureShape shape = {.afd = afd, .bars = bars};
            const Bytes mpeg2 = picture_header(2) + mpeg2_user_data(bar_data(bars)) +
                                mpeg2_user_data(afd_data(afd)) + kFirstSlice;
            EXPECT_EQ(read_shape(AV_CODEC_ID_MPEG2VIDEO, mpeg2), shape);
            EXPECT_TRUE(read_shape(AV_CODEC_ID_H264, mpeg2).empty());
            for (const int codec : {kH264, kH265}) {
                const Bytes unit = atsc_message(codec, afd_data(afd)) + atsc_message(codec, bar_data(bars));
                EXPECT_EQ(read_shape(codec == kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC, unit), shape);
                EXPECT_TRUE(read_shape(AV_CODEC_ID_MPEG2VIDEO, unit).empty());
                EXPECT_TRUE(read_shape(AV_CODEC_ID_VP9, unit).empty());
            }
        }
}

TEST(PictureShape, IsNotReadFromWhatIsCutShortOrSaysNothing) {
    const Bytes afd = mpeg2_user_data(afd_data(8)), bars = mpeg2_user_data(bar_data(kLetterbox));
    for (size_t size = 0; size < afd.size(); size++)
        EXPECT_TRUE(read_shape(AV_CODEC_ID_MPEG2VIDEO, std::span(afd).first(size)).empty()) << size;
    for (size_t size = 0; size < bars.size(); size++)
        EXPECT_TRUE(read_shape(AV_CODEC_ID_MPEG2VIDEO, std::span(bars).first(size)).empty()) << size;
    // No active format, no bar, and marker bits that are none.
    for (const char* data :
         {"44 54 47 31 01", "44 54 47 31 01 F8", "47 41 39 34 06 0F", "47 41 39 34 06 8F 40 45"})
        EXPECT_TRUE(read_shape(AV_CODEC_ID_MPEG2VIDEO, mpeg2_user_data(from_hex(data))).empty()) << data;
}

TEST(Bars, CoverTheSamePartOfAScaledPicture) {
    const struct {
        Bars bars;
        PictureSize from, to;
        Bars scaled;
    } rows[] = {
        {kLetterbox, {720, 480}, {720, 480}, kLetterbox},
        // 140 of 1080 lines are 62.2 of 480: the 63rd has picture in it.
        {{139, 940, {}, {}}, {1920, 1080}, {720, 480}, {61, 418, {}, {}}},
        {{{}, {}, 239, 1680}, {1920, 1080}, {720, 480}, {{}, {}, 89, 630}},
        {{{}, {}, 89, 630}, {720, 576}, {1920, 1080}, {{}, {}, 239, 1680}},
        // Of a pair, each remains.
        {{0, 1079, {}, {}}, {1920, 1080}, {720, 480}, {0, 480, {}, {}}},
        {{59, 483, {}, {}}, {720, 480}, {720, 480}, {59, 483, {}, {}}},
        {{5000, 5000, {}, {}}, {1920, 1080}, {720, 480}, {479, 480, {}, {}}},
    };
    for (const auto& row : rows) EXPECT_EQ(scaled(row.bars, row.from, row.to), row.scaled) << &row - rows;
}

}  // namespace
