// Headers that say what really leaves, and units that cannot be read.

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "captions/bits.h"
#include "encoding/buffer_delays.h"
#include "encoding/codec_id.h"
#include "encoding/stream_headers.h"
#include "support/mpeg2_units.h"

namespace {

using namespace gsve::encoding;
using namespace gsve::test;

// 4 Mbit/s, 10000 units of 400, into 62 units of 16384 bits; main profile at main level; 25 pictures/s.
const Bytes kSequence = from_hex("00 00 01 B3 2D 02 40 23 09 C4 21 F0 00 00 01 B5 14 8A 00 01 00 00");
constexpr Colour kColour = {AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG,
                            AVCHROMA_LOC_LEFT};

const Bytes kPicture = picture_header(1) + kFirstSlice;

TEST(StreamHeaders, RaiseMpeg2sRateByWhatIsInserted) {
    StreamHeaders headers(kMpeg2, {.colour = {}, .inserted_rate = 17'200, .codec_rate = 4'000'000});
    // 4017200 are 10043 units; 62 * 1.0043 are 63.
    EXPECT_EQ(hex(headers.rewritten(kSequence + kPicture)),
              hex(from_hex("00 00 01 B3 2D 02 40 23 09 CE E1 F8 00 00 01 B5 14 8A 00 01 00 00") + kPicture));
    EXPECT_DOUBLE_EQ(*headers.raised_by(), 17'200);
    EXPECT_DOUBLE_EQ(headers.declared_rate(), 4'017'200);
    EXPECT_EQ(headers.unreadable(), 0u);
}

TEST(StreamHeaders, RoundTheRateUpToItsUnitAndUseItsExtension) {
    StreamHeaders headers(kMpeg2, {.colour = {}, .inserted_rate = 1, .codec_rate = 400 * 0x3FFFF});
    const Bytes unit = headers.rewritten(kSequence + kPicture);
    EXPECT_EQ(gsve::captions::get_bits(std::span(unit).subspan(3), 40, 18), 0u);
    EXPECT_EQ(gsve::captions::get_bits(std::span(unit).subspan(15), 27, 12), 1u);
    EXPECT_DOUBLE_EQ(*headers.raised_by(), 400);
}

TEST(StreamHeaders, LeaveTheBufferOfTheLevelAsItIs) {
    Bytes sequence = kSequence;
    gsve::captions::put_bits(std::span(sequence).subspan(3), 59, 10, 112);
    StreamHeaders headers(kMpeg2, {.colour = {}, .inserted_rate = 17'200, .codec_rate = 4'000'000});
    const Bytes unit = headers.rewritten(sequence + kPicture);
    EXPECT_EQ(gsve::captions::get_bits(std::span(unit).subspan(3), 59, 10), 112u);
    gsve::captions::put_bits(std::span(sequence).subspan(15), 12, 8, 0x44);  // main profile at high level
    const Bytes high = headers.rewritten(sequence + kPicture);
    EXPECT_EQ(gsve::captions::get_bits(std::span(high).subspan(3), 59, 10), 113u);
}

TEST(StreamHeaders, StayWhereThereIsNothingToSay) {
    StreamHeaders none(kMpeg2, {.colour = {}, .inserted_rate = 0, .codec_rate = 4'000'000});
    EXPECT_EQ(hex(none.rewritten(kSequence + kPicture)), hex(kSequence + kPicture));
    EXPECT_FALSE(none.raised_by());
    StreamHeaders any(kMpeg2, {.colour = kColour, .inserted_rate = 9000, .codec_rate = 4'000'000});
    EXPECT_TRUE(any.rewritten(kPicture).empty()) << "no headers";
    // A rate without bound.
    Bytes unbounded = kSequence;
    gsve::captions::put_bits(std::span(unbounded).subspan(3), 40, 18, 0x3FFFF);
    StreamHeaders variable(kMpeg2, {.colour = {}, .inserted_rate = 9000, .codec_rate = 0});
    EXPECT_EQ(hex(variable.rewritten(unbounded + kPicture)), hex(unbounded + kPicture));
    EXPECT_FALSE(variable.raised_by());
}

// ISO/IEC 13818-2, 6.2.2.4: extension 2, video_format 5, colour_description 1, the three codes, the sizes
// with a marker.
TEST(StreamHeaders, DescribeTheColourOfMpeg2InADisplayExtension) {
    StreamHeaders headers(kMpeg2, {.colour = kColour, .inserted_rate = 0, .codec_rate = 4'000'000});
    const Bytes unit = headers.rewritten(kSequence + kPicture);
    EXPECT_EQ(hex(unit), hex(kSequence + from_hex("00 00 01 B5 2B 01 01 06 0B 42 12 00") + kPicture));
}

TEST(StreamHeaders, ThatCannotBeReadLeaveAsTheyCameAndAreCounted) {
    const struct {
        int codec;
        Bytes unit;
    } rows[] = {
        {kMpeg2, from_hex("00 00 01 B3 2D 02") + kPicture},
        {kH264, from_hex("00 00 00 01 67 42 00 00 00 01 68 00 00 01 65 88")},
        {kH265, from_hex("00 00 00 01 42 01 01 00 00 00 01 26 01 88")},
    };
    for (const auto& row : rows) {
        StreamHeaders headers(row.codec, {.colour = kColour, .inserted_rate = 9000, .codec_rate = 4'000'000});
        av_log_set_level(AV_LOG_QUIET);
        EXPECT_EQ(hex(headers.rewritten(row.unit)), hex(row.unit)) << row.codec;
        EXPECT_GT(headers.unreadable(), 0u) << row.codec;
    }
}

// vbv_delay follows the temporal reference and the type.
Bytes picture_with_delay(unsigned delay, size_t size) {
    Bytes unit = picture_header(1) + kFirstSlice;
    gsve::captions::put_bits(std::span(unit).subspan(3), 21, 16, delay);
    unit.resize(size, 0x55);
    return unit;
}

unsigned delay_of(const Bytes& unit) { return gsve::captions::get_bits(std::span(unit).subspan(3), 21, 16); }

// 800000 bits/s are 4000 bytes each 40 ms: a unit of 5000 bytes takes 50 ms, 900 ticks more than its period.
TEST(BufferDelays, FollowFromTheFirstOne) {
    BufferDelays delays(kMpeg2, 800'000, 0.04);
    const struct {
        size_t size;
        unsigned expected;
    } units[] = {{5000, 18'000}, {3000, 17'100}, {4000, 18'000}, {20'000, 18'000}, {100, 3600}, {100, 7110}};
    for (const auto& row : units) {
        Bytes unit = picture_with_delay(18'000, row.size);
        delays.restate(unit);
        EXPECT_EQ(delay_of(unit), row.expected);
        delays.left(unit.size());
    }
}

TEST(BufferDelays, AreTakenBackWhereNoRateIsConstant) {
    Bytes unit = kSequence + picture_with_delay(18'000, 100);
    state_variable_rate(unit);
    EXPECT_EQ(hex(unit), hex(kSequence + picture_with_delay(0xFFFF, 100)));
}

TEST(BufferDelays, LeaveAVariableRateAsItIs) {
    BufferDelays delays(kMpeg2, 800'000, 0.04);
    Bytes unit = picture_with_delay(0xFFFF, 5000);
    delays.restate(unit);
    EXPECT_EQ(delay_of(unit), 0xFFFFu);
}

}  // namespace
