// Reading a coded unit: the start of a group of pictures, and the caption data in MPEG-2 user data.

#include <random>

#include <gtest/gtest.h>

#include "encoding/coded_unit.h"
#include "support/bytes.h"
#include "support/mpeg2_units.h"

namespace {

using namespace gsve::test;
using gsve::captions::Scte20Construct;
using gsve::captions::Timecode;
using gsve::captions::Word;
using gsve::encoding::is_mpeg_video;
using gsve::encoding::read_unit;
using gsve::encoding::UnitContents;

const Bytes kUserDataCode = from_hex("00 00 01 B2");
const Bytes kGa94 = from_hex("47 41 39 34 03");
const Bytes kCc = from_hex("43 43 01 F8");

UnitContents mpeg2(const Bytes& unit) { return read_unit(AV_CODEC_ID_MPEG2VIDEO, unit, false); }

/// A P-picture with one piece of user data.
UnitContents with_user_data(const Bytes& body) {
    return mpeg2(picture_header(2) + kUserDataCode + body + kFirstSlice);
}

uint32_t gop_word(const Timecode& t, bool closed, bool broken) {
    return static_cast<uint32_t>(t.drop_frame) << 31 | static_cast<uint32_t>(t.hours) << 26 |
           static_cast<uint32_t>(t.minutes) << 20 | 1u << 19 | static_cast<uint32_t>(t.seconds) << 13 |
           static_cast<uint32_t>(t.frames) << 7 | static_cast<uint32_t>(closed) << 6 |
           static_cast<uint32_t>(broken) << 5;
}

TEST(IsMpegVideo, IsTrueOfMpeg1AndMpeg2) {
    EXPECT_TRUE(is_mpeg_video(AV_CODEC_ID_MPEG1VIDEO));
    EXPECT_TRUE(is_mpeg_video(AV_CODEC_ID_MPEG2VIDEO));
    EXPECT_FALSE(is_mpeg_video(AV_CODEC_ID_H264));
    EXPECT_FALSE(is_mpeg_video(AV_CODEC_ID_MPEG4));
}

TEST(ReadUnit, ReadsTheGroupHeaderOfMpegVideo) {
    for (const Timecode timecode :
         {Timecode{0, 0, 0, 0, false}, Timecode{23, 59, 58, 29, true}, Timecode{21, 42, 21, 42, false},
          Timecode{10, 21, 42, 21, true}, Timecode{31, 63, 63, 63, true}})
        for (const bool closed : {false, true})
            for (const bool broken : {false, true}) {
                const UnitContents contents = mpeg2(gop_unit(gop_word(timecode, closed, broken)));
                ASSERT_TRUE(contents.gop);
                EXPECT_EQ(contents.gop->closed, closed);
                EXPECT_EQ(contents.gop->broken_link, broken);
                EXPECT_EQ(contents.gop->timecode, timecode);
            }
    EXPECT_TRUE(read_unit(AV_CODEC_ID_MPEG1VIDEO, gop_unit(kClosedGop), false).gop);
}

TEST(ReadUnit, TakesAGroupHeaderThatEndsEarlyForNone) {
    const Bytes whole = from_hex("00 00 01 B8 00 08 00 40");
    EXPECT_TRUE(mpeg2(whole).gop);
    for (size_t size = 0; size < whole.size(); size++)
        EXPECT_FALSE(mpeg2(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))).gop) << size;
}

TEST(ReadUnit, FindsNoGroupInAPictureOfMpegVideoWithoutOneEvenIfItIsMarkedKey) {
    EXPECT_FALSE(read_unit(AV_CODEC_ID_MPEG2VIDEO, picture_unit(1), true).gop);
}

TEST(ReadUnit, TakesPicturesThatRefreshTheDecoderForClosedGroups) {
    const struct {
        AVCodecID codec;
        const char* nal;
        bool closed;
    } rows[] = {
        {AV_CODEC_ID_H264, "00 00 01 65 88", true},
        {AV_CODEC_ID_H264, "00 00 01 05 88", true},
        {AV_CODEC_ID_H264, "00 00 00 01 09 10 00 00 01 67 42 00 00 01 65 88", true},
        {AV_CODEC_ID_H264, "00 00 01 41 9A", false},
        {AV_CODEC_ID_H264, "00 00 01 28 01", false},  // as H.265's 20
        {AV_CODEC_ID_H264, "00 00 01 67 42", false},
        {AV_CODEC_ID_HEVC, "00 00 01 26 01", true},  // 19
        {AV_CODEC_ID_HEVC, "00 00 01 28 01", true},  // 20
        {AV_CODEC_ID_HEVC, "00 00 01 40 01 00 00 01 28 01", true},
        {AV_CODEC_ID_HEVC, "00 00 01 20 01", false},  // 16, a BLA with leading pictures that are skipped
        {AV_CODEC_ID_HEVC, "00 00 01 22 01", true},   // 17, with such as are decoded
        {AV_CODEC_ID_HEVC, "00 00 01 24 01", true},   // 18, without any
        {AV_CODEC_ID_HEVC, "00 00 01 2A 01", false},  // 21, a CRA
        {AV_CODEC_ID_HEVC, "00 00 01 65 88", false},  // as H.264's 5
        {AV_CODEC_ID_HEVC, "00 00 01 A8 01", true},   // the forbidden bit is not looked at
        {AV_CODEC_ID_H264, "", false},
        {AV_CODEC_ID_H264, "00 00 01", false},
    };
    for (const auto& row : rows)
        for (const bool key : {false, true}) {
            const UnitContents contents = read_unit(row.codec, from_hex(row.nal), key);
            ASSERT_EQ(contents.gop.has_value(), row.closed || key) << row.nal;
            if (!contents.gop) continue;
            EXPECT_EQ(contents.gop->closed, row.closed) << row.nal;
            EXPECT_FALSE(contents.gop->broken_link);
            EXPECT_FALSE(contents.gop->timecode);
        }
}

TEST(ReadUnit, GoesByTheKeyFlagForOtherCodecs) {
    const Bytes idr = from_hex("00 00 01 65 88");
    EXPECT_FALSE(read_unit(AV_CODEC_ID_MPEG4, idr, false).gop);
    const UnitContents contents = read_unit(AV_CODEC_ID_MPEG4, idr, true);
    ASSERT_TRUE(contents.gop);
    EXPECT_TRUE(contents.gop->closed);
    EXPECT_FALSE(contents.gop->broken_link);
}

TEST(ReadUnit, ReadsCcDataOfSeveralLengths) {
    for (int count = 0; count <= 31; count++) {
        const Bytes triples = filler(3 * static_cast<size_t>(count));
        const UnitContents contents =
            with_user_data(kGa94 + Bytes{static_cast<uint8_t>(0xC0 | count), 0xFF} + triples + Bytes{0xFF});
        EXPECT_EQ(contents.captions.cc_data, triples);
        EXPECT_EQ(contents.captions.damaged, 0);
        EXPECT_FALSE(contents.captions.cc || contents.captions.scte20 || contents.gop);
    }
}

TEST(ReadUnit, KeepsTheWholeTriplesOfCcDataThatEndsEarly) {
    const Bytes triples = filler(9);
    for (size_t size = 0; size <= 9; size++) {
        const auto end = triples.begin() + static_cast<ptrdiff_t>(size);
        const UnitContents contents = with_user_data(kGa94 + from_hex("43 FF") + Bytes(triples.begin(), end));
        EXPECT_EQ(contents.captions.cc_data,
                  Bytes(triples.begin(), triples.begin() + static_cast<ptrdiff_t>(size / 3 * 3)));
        EXPECT_EQ(contents.captions.damaged, size < 9);
    }
}

TEST(ReadUnit, CountsCcDataWithoutAnyAsDamaged) {
    for (const Bytes& body : {kGa94, kGa94 + from_hex("43")}) {
        const UnitContents contents = with_user_data(body);
        EXPECT_EQ(contents.captions.damaged, 1);
        EXPECT_FALSE(contents.captions.cc_data);
    }
    EXPECT_EQ(with_user_data(kGa94 + from_hex("40 FF")).captions.damaged, 0);
}

TEST(ReadUnit, LeavesOutCcDataThatIsNotToBeProcessed) {
    const UnitContents contents = with_user_data(kGa94 + from_hex("81 FF FC 94 2C FF"));
    EXPECT_FALSE(contents.captions.cc_data);
    EXPECT_EQ(contents.captions.damaged, 0);
}

TEST(ReadUnit, JoinsTheCcDataOfAUnit) {
    const Bytes first = from_hex("FC 94 2C"), second = from_hex("FD 80 80");
    const Bytes unit = picture_header(2) + kUserDataCode + kGa94 + from_hex("41 FF") + first +
                       from_hex("FF") + kUserDataCode + kGa94 + from_hex("41 FF") + second + from_hex("FF") +
                       kFirstSlice;
    EXPECT_EQ(mpeg2(unit).captions.cc_data, first + second);
}

TEST(ReadUnit, ReadsThePairsOfCcUserDataInEitherOrderOfFields) {
    using Pairs = std::vector<std::pair<Word, Word>>;
    const struct {
        const char* body;
        Pairs pairs;
        int damaged;
    } rows[] = {
        {"80", {}, 0},
        {"82 FF 94 2C FE 80 80", {{0x942C, 0x8080}}, 0},
        {"82 FE 94 2C FF 80 80", {{0x8080, 0x942C}}, 0},
        {"84 FF 94 2C FE 80 80 FF 01 02 FE 03 04", {{0x942C, 0x8080}, {0x0102, 0x0304}}, 0},
        {"83 FF 94 2C FE 80 80", {{0x942C, 0x8080}}, 0},  // bit 0 is not of the number
        {"84 FF 94 2C FE 80 80 FF 01 02 FE 03", {{0x942C, 0x8080}}, 1},
        {"84 FF 94 2C FE 80 80", {{0x942C, 0x8080}}, 1},
        {"82 FF 94 2C FF 80 80", {}, 1},
        {"82 FE 94 2C FE 80 80", {}, 1},
        {"82 FD 94 2C FC 80 80", {}, 1},
        {"82 FF 94 2C FD 80 80", {}, 1},
        {"84 FC 94 2C FD 80 80 FF 01 02 FE 03 04", {}, 1},
    };
    for (const auto& row : rows) {
        const UnitContents contents = with_user_data(kCc + from_hex(row.body));
        EXPECT_EQ(contents.captions.cc, row.pairs) << row.body;
        EXPECT_EQ(contents.captions.damaged, row.damaged) << row.body;
    }
    const UnitContents empty = with_user_data(kCc);
    EXPECT_FALSE(empty.captions.cc);
    EXPECT_EQ(empty.captions.damaged, 1);
}

TEST(ReadUnit, JoinsTheCcUserDataOfAUnit) {
    const Bytes unit = picture_header(2) + kUserDataCode + kCc + from_hex("82 FF 94 2C FE 80 80") +
                       kUserDataCode + kCc + from_hex("82 FF 01 02 FE 03 04") + kFirstSlice;
    using Pairs = std::vector<std::pair<Word, Word>>;
    EXPECT_EQ(mpeg2(unit).captions.cc, (Pairs{{0x942C, 0x8080}, {0x0102, 0x0304}}));
    EXPECT_EQ(mpeg2(unit).captions.damaged, 0);
}

TEST(ReadUnit, ReadsAllPairsThatTheNumberOfCcUserDataAllows) {
    Bytes body = Bytes{0xFE};
    std::vector<std::pair<Word, Word>> pairs;
    for (int n = 1; n <= 63; n++) {
        const auto byte = static_cast<uint8_t>(n);
        body = body + Bytes{0xFF, 0x20, byte, 0xFE, byte, 0x20};
        pairs.emplace_back(0x2000 | n, n << 8 | 0x20);
    }
    const UnitContents contents = with_user_data(kCc + body);
    EXPECT_EQ(contents.captions.cc, pairs);
    EXPECT_EQ(contents.captions.damaged, 0);
}

TEST(ReadUnit, ReadsScte20AndJoinsIt) {
    const std::vector<Scte20Construct> first = {{.field_number = 1, .word = 0x942C}};
    const std::vector<Scte20Construct> second = {{.field_number = 2, .word = 0x9120},
                                                 {.field_number = 1, .word = 0x4142}};
    const Bytes type = {0x03};
    const Bytes unit = picture_header(2) + kUserDataCode + type + compose_scte20(first) + kUserDataCode +
                       type + compose_scte20(second) + kFirstSlice;
    const UnitContents contents = mpeg2(unit);
    ASSERT_TRUE(contents.captions.scte20);
    EXPECT_EQ(*contents.captions.scte20, (std::vector<Scte20Construct>{first[0], second[0], second[1]}));
    EXPECT_EQ(contents.captions.damaged, 0);
    EXPECT_FALSE(contents.captions.cc || contents.captions.cc_data);
}

TEST(ReadUnit, CountsDamagedScte20) {
    Bytes body = compose_scte20(std::vector<Scte20Construct>{{.word = 0x942C}});
    body.pop_back();
    const UnitContents contents = with_user_data(Bytes{0x03} + body);
    EXPECT_FALSE(contents.captions.scte20);
    EXPECT_EQ(contents.captions.damaged, 1);
}

TEST(ReadUnit, AddsUpTheDamage) {
    const Bytes unit = picture_header(2) + kUserDataCode + kGa94 + kUserDataCode + kCc + kUserDataCode +
                       Bytes{0x03} + kUserDataCode + kGa94 + from_hex("42 FF FC 94 2C") + kFirstSlice;
    EXPECT_EQ(mpeg2(unit).captions.damaged, 4);
}

TEST(ReadUnit, PassesOverOtherUserData) {
    for (const char* body : {"", "47 41 39 34", "47 41 39 34 06 41 FF FC 94 2C FF", "44 54 47 31 41 F8",
                             "43 43 01", "43 43 02 F8 82", "04 81"}) {
        const UnitContents contents = with_user_data(from_hex(body));
        EXPECT_EQ(contents.captions.damaged, 0) << body;
        EXPECT_FALSE(contents.captions.cc || contents.captions.cc_data || contents.captions.scte20) << body;
    }
}

TEST(ReadUnit, SurvivesAnyBytes) {
    std::mt19937 random(3);
    const Bytes seeds[] = {
        gop_unit(kOpenGop) + kUserDataCode + kGa94 + from_hex("43 FF") + filler(9),
        picture_header(2) + kUserDataCode + kCc + from_hex("84 FF 94 2C FE 80 80 FF 01 02 FE 03 04"),
        picture_header(3) + kUserDataCode + from_hex("03 81 0D FC 94 2C")};
    for (const Bytes& seed : seeds)
        for (int round = 0; round < 200; round++) {
            Bytes unit = seed;
            for (int change = 0; change < 3; change++)
                unit[random() % unit.size()] = static_cast<uint8_t>(random());
            unit.resize(random() % (unit.size() + 1));
            for (const AVCodecID codec : {AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_H264, AV_CODEC_ID_HEVC}) {
                const UnitContents contents = read_unit(codec, unit, false);
                EXPECT_EQ(contents.captions.cc_data.value_or(Bytes{}).size() % 3, 0u);
            }
        }
}

}  // namespace
