// The reference host's MPEG-2 picture parser: handmade headers (ISO/IEC 13818-2, 6.2.2.6 and 6.2.3), and the
// units of a real encoder compared with what another parser says about them.

#include <cstdint>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/opt.h>
}

#include <orb_utils_v4/mpeg12_video.h>

#include "support/guarded_bytes.h"
#include "support/mpeg2_units.h"
#include "support/plain_encode.h"

namespace gsve::test {
namespace {

constexpr ptrdiff_t kNone = -1;

/// Everything that both parsers say about one buffer.
struct Answer {
    int type;
    ptrdiff_t picture;  ///< offset of the picture start code, or kNone
    bool gop_seen, open_gop;
    bool operator==(const Answer&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Answer& answer) {
    return out << "type " << answer.type << " at " << answer.picture << (answer.gop_seen ? ", GOP" : "")
               << (answer.open_gop ? ", open" : "");
}

/// Asks both parsers about bytes that end at a guard page. The results hold other values before.
Answer ask(const Bytes& bytes) {
    const GuardedBytes unit(bytes);
    const uint8_t* picture = unit.data() + 999;
    bool open_gop = true, gop_seen = true;
    const int type = mpeg2_get_frame_type(unit.data(), unit.size(), &picture);
    EXPECT_EQ(mpeg2_get_frame_type_and_gop(unit.data(), unit.size(), &open_gop, &gop_seen), type);
    EXPECT_EQ(mpeg2_get_frame_type(unit.data(), unit.size(), nullptr), type);
    EXPECT_EQ(mpeg2_get_frame_type_and_gop(unit.data(), unit.size(), nullptr, nullptr), type);
    EXPECT_EQ(unit.bytes(), bytes);
    return {type, picture ? picture - unit.data() : kNone, gop_seen, open_gop};
}

constexpr Answer kNoPicture{0, kNone, false, false};

TEST(FrameType, IsTheCodingTypeOfThePictureHeader) {
    for (const int type : {1, 2, 3}) EXPECT_EQ(ask(picture_unit(type)), (Answer{type, 0, false, false}));
}

TEST(FrameType, IsNoneForForbiddenAndReservedCodingTypes) {
    for (const int type : {0, 4, 5, 6, 7})
        EXPECT_EQ(ask(picture_unit(type)), (Answer{0, 0, false, false})) << type;
}

TEST(FrameType, ReadsNoOtherBitOfThePictureHeader) {
    for (const int type : {1, 2, 3}) {
        const auto field = static_cast<uint8_t>(type << 3);
        // temporal_reference and vbv_delay all zeros, then all ones.
        EXPECT_EQ(ask(from_hex("00 00 01 00 00") + Bytes{field}), (Answer{type, 0, false, false}));
        EXPECT_EQ(ask(from_hex("00 00 01 00 FF") + Bytes{static_cast<uint8_t>(0xC7 | field), 0xFF}),
                  (Answer{type, 0, false, false}));
    }
}

TEST(FrameType, IsThatOfTheFirstOfSeveralPictures) {
    EXPECT_EQ(ask(picture_unit(3) + picture_unit(1)), (Answer{3, 0, false, false}));
    const Bytes stream = kSequenceHeader + picture_unit(2) + gop_unit(kOpenGop);
    EXPECT_EQ(ask(stream), (Answer{2, 12, false, false}));
}

TEST(FrameType, LooksBehindSlicesThatNoPictureHeaderPrecedes) {
    EXPECT_EQ(ask(kFirstSlice), kNoPicture);
    EXPECT_EQ(ask(kFirstSlice + picture_unit(2)), (Answer{2, 8, false, false}));
}

TEST(FrameType, FindsTheStartCodeAfterAnyZeroStuffing) {
    for (size_t zeros = 0; zeros <= 9; zeros++) {
        const auto offset = static_cast<ptrdiff_t>(zeros);
        EXPECT_EQ(ask(Bytes(zeros) + picture_unit(2)), (Answer{2, offset, false, false})) << zeros;
        EXPECT_EQ(ask(filler(5) + Bytes(zeros) + picture_unit(3)), (Answer{3, offset + 5, false, false}))
            << zeros;
    }
}

TEST(FrameType, IsNoneWithoutAWholePictureHeader) {
    EXPECT_EQ(ask({}), kNoPicture);
    EXPECT_EQ(ask(Bytes(100)), kNoPicture);
    EXPECT_EQ(ask(filler(100)), kNoPicture);
    EXPECT_EQ(ask(kSequenceHeader + gop_header(kOpenGop)), kNoPicture);
    EXPECT_EQ(ask(from_hex("00 01 00 00 0F 00 00 02 00 00 0F")), kNoPicture);
    const Bytes unit = gop_unit(kOpenGop);
    const size_t type_byte = kSequenceHeader.size() + 8 + 5;
    for (size_t size = 0; size <= unit.size(); size++) {
        const Bytes cut(unit.begin(), unit.begin() + size);
        EXPECT_EQ(ask(cut), size > type_byte ? (Answer{1, 20, true, true}) : kNoPicture) << size;
    }
}

TEST(FrameType, IsNoneWithoutBytes) {
    uint8_t byte = 0;
    const uint8_t* picture = &byte;
    bool open_gop = true, gop_seen = true;
    EXPECT_EQ(mpeg2_get_frame_type(nullptr, 100, &picture), 0);
    EXPECT_EQ(picture, nullptr);
    EXPECT_EQ(mpeg2_get_frame_type_and_gop(nullptr, 100, &open_gop, &gop_seen), 0);
    EXPECT_FALSE(open_gop);
    EXPECT_FALSE(gop_seen);
    EXPECT_EQ(mpeg2_get_frame_type(nullptr, 0, nullptr), 0);
    EXPECT_EQ(mpeg2_get_frame_type_and_gop(&byte, 0, nullptr, nullptr), 0);
}

TEST(FrameType, IsFoundWithoutReadingThePictureItself) {
    // Behind the header's page lie 64 MiB that the parser is told of and must not need.
    constexpr size_t kPictureSize = 64 << 20;
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const mapped =
        mmap(nullptr, kPictureSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    ASSERT_EQ(mprotect(mapped, page, PROT_READ | PROT_WRITE), 0);
    const Bytes unit = gop_unit(kOpenGop);
    std::copy(unit.begin(), unit.end(), static_cast<uint8_t*>(mapped));
    const auto* const data = static_cast<const uint8_t*>(mapped);
    bool open_gop = false, gop_seen = false;
    EXPECT_EQ(mpeg2_get_frame_type(data, kPictureSize, nullptr), 1);
    EXPECT_EQ(mpeg2_get_frame_type_and_gop(data, kPictureSize, &open_gop, &gop_seen), 1);
    EXPECT_TRUE(open_gop && gop_seen);
    munmap(mapped, kPictureSize);
}

TEST(GopHeader, TellsOpenFromClosedByOneBit) {
    EXPECT_EQ(ask(gop_unit(kClosedGop)), (Answer{1, 20, true, false}));
    EXPECT_EQ(ask(gop_unit(kOpenGop)), (Answer{1, 20, true, true}));
    // All bits set but closed_gop, then closed_gop alone.
    EXPECT_EQ(ask(gop_header(0xFFFFFFBF) + picture_unit(1)), (Answer{1, 8, true, true}));
    EXPECT_EQ(ask(gop_header(0x00000040) + picture_unit(1)), (Answer{1, 8, true, false}));
}

TEST(GopHeader, IsSeenInFrontOfAPictureOfAnyType) {
    for (const int type : {1, 2, 3})
        EXPECT_EQ(ask(gop_header(kOpenGop) + picture_unit(type)), (Answer{type, 8, true, true}));
}

TEST(GopHeader, IsNotSeenBehindTheFirstPicture) {
    EXPECT_EQ(ask(picture_unit(2) + gop_unit(kOpenGop)), (Answer{2, 0, false, false}));
}

TEST(GopHeader, IsNotSeenWhenThePictureCutsItShort) {
    const Bytes header = gop_header(kOpenGop);
    for (size_t size = 4; size <= header.size(); size++) {
        const Bytes cut(header.begin(), header.begin() + size);
        const Bytes unit = cut + picture_unit(1);
        EXPECT_EQ(ask(unit).type, 1) << size;
        EXPECT_EQ(ask(unit).gop_seen, size == header.size()) << size;
    }
}

struct FreeParser {
    void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
};

/// The picture types that libavcodec's own parser reads from `units`.
std::vector<int> parsed_types(const std::vector<Bytes>& units) {
    const std::unique_ptr<AVCodecParserContext, FreeParser> parser(av_parser_init(AV_CODEC_ID_MPEG2VIDEO));
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    const ContextOwner context(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_MPEG2VIDEO)));
    std::vector<int> types;
    for (Bytes unit : units) {
        const size_t size = unit.size();
        unit.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
        uint8_t* out = nullptr;
        int out_size = 0;
        av_parser_parse2(parser.get(), context.get(), &out, &out_size, unit.data(), static_cast<int>(size),
                         AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        types.push_back(parser->pict_type);
    }
    return types;
}

std::vector<Bytes> mpeg2_stream(int b_pictures, bool closed_gops, int pictures) {
    const auto configure = [&](AVCodecContext& context) {
        context.bit_rate = 1'000'000;
        context.gop_size = 9;
        context.max_b_frames = b_pictures;
        if (!closed_gops) return;
        context.flags |= AV_CODEC_FLAG_CLOSED_GOP;
        av_opt_set(context.priv_data, "sc_threshold", "1000000000", 0);
    };
    return plain_encode("mpeg2video", 176, 144, pictures, configure, paint_gradient);
}

class EncodedMpeg2 : public testing::TestWithParam<std::tuple<int, bool>> {};

TEST_P(EncodedMpeg2, GivesTheTypesThatAnotherParserGives) {
    const auto [b_pictures, closed_gops] = GetParam();
    const std::vector<Bytes> units = mpeg2_stream(b_pictures, closed_gops, 40);
    ASSERT_EQ(units.size(), 40U);
    const std::vector<int> types = parsed_types(units);
    for (size_t i = 0; i < units.size(); i++) EXPECT_EQ(ask(units[i]).type, types[i]) << i;
    const std::set<int> kinds(types.begin(), types.end());
    EXPECT_EQ(kinds, b_pictures > 0 ? (std::set{1, 2, 3}) : (std::set{1, 2}));
}

/// A GOP is open when B-pictures that refer to the one before it follow its I-picture in coding order.
TEST_P(EncodedMpeg2, GivesOpenGopsWhereBPicturesFollowTheFirstIPicture) {
    const auto [b_pictures, closed_gops] = GetParam();
    const std::vector<Bytes> units = mpeg2_stream(b_pictures, closed_gops, 40);
    const std::vector<int> types = parsed_types(units);
    int gops = 0, open_gops = 0;
    for (size_t i = 0; i + 1 < units.size(); i++) {
        const Answer answer = ask(units[i]);
        EXPECT_EQ(answer.gop_seen, types[i] == 1) << i;
        if (b_pictures > 0) {
            EXPECT_EQ(answer.open_gop, answer.gop_seen && types[i + 1] == 3) << i;
        }
        gops += answer.gop_seen;
        open_gops += answer.open_gop;
    }
    EXPECT_GE(gops, 4);
    EXPECT_EQ(open_gops, closed_gops ? 0 : gops - 1) << "the first has nothing in front of it";
}

INSTANTIATE_TEST_SUITE_P(Gops, EncodedMpeg2, testing::Combine(testing::Values(0, 2), testing::Bool()));

}  // namespace
}  // namespace gsve::test
