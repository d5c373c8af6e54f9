// Which samples of H.264 and H.265 go on with the picture before them.

#include <initializer_list>

#include <gtest/gtest.h>

#include "programme/unit_joiner.h"

namespace gsve::programme {
namespace {

using Bytes = std::vector<uint8_t>;

struct Configured {
    Configured(AVCodecID codec, Bytes configuration) : parameters(avcodec_parameters_alloc()) {
        parameters->codec_id = codec;
        parameters->extradata =
            static_cast<uint8_t*>(av_mallocz(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        parameters->extradata_size = static_cast<int>(configuration.size());
        std::copy(configuration.begin(), configuration.end(), parameters->extradata);
    }
    ParametersPtr parameters;
};

UnitJoiner h264(uint8_t length_byte = 0xFF) {
    return UnitJoiner(*Configured(AV_CODEC_ID_H264, {1, 100, 0, 31, length_byte, 0xE0, 0}).parameters);
}

UnitJoiner h265() {
    Bytes record(23);
    record[0] = 1;
    record[21] = 0xFF;
    return UnitJoiner(*Configured(AV_CODEC_ID_HEVC, record).parameters);
}

/// With a length of four bytes in front of each.
Bytes sample(std::initializer_list<Bytes> nals) {
    Bytes bytes;
    for (const Bytes& nal : nals) {
        for (int n = 0; n < 3; n++) bytes.push_back(0);
        bytes.push_back(static_cast<uint8_t>(nal.size()));
        for (const uint8_t byte : nal) bytes.push_back(byte);
    }
    return bytes;
}

TEST(UnitJoiner, IsForNalUnitsWithLengths) {
    EXPECT_TRUE(h264().active());
    EXPECT_TRUE(h265().active());
    EXPECT_FALSE(UnitJoiner().active());
    EXPECT_FALSE(UnitJoiner(*Configured(AV_CODEC_ID_H264, {0, 0, 0, 1, 0x67, 0, 0, 0}).parameters).active());
    EXPECT_FALSE(UnitJoiner(*Configured(AV_CODEC_ID_H264, {}).parameters).active());
    EXPECT_FALSE(
        UnitJoiner(*Configured(AV_CODEC_ID_MPEG4, {1, 100, 0, 31, 0xFF, 0xE0, 0}).parameters).active());
}

TEST(UnitJoiner, KnowsWhatOfH264BelongsToAPicture) {
    // first_mb_in_slice is the first code of a slice's header: 1 is 0, 010 is 1.
    const Bytes idr = {0x65, 0x88}, slice = {0x41, 0x9A}, later_slice = {0x41, 0x40}, sps = {0x67, 0},
                pps = {0x68, 0}, sei = {0x06, 4}, delimiter = {0x09, 0xF0}, filler = {0x0C, 0xFF},
                end = {0x0A};
    const UnitJoiner joiner = h264();
    for (const Bytes& head : {delimiter, sps, pps, sei, filler})
        for (const Bytes& next : {idr, slice, later_slice, sps, sei})
            EXPECT_TRUE(joiner.continues(sample({head}), sample({next})))
                << int(head[0]) << " " << int(next[0]);
    for (const Bytes& picture : {idr, slice, later_slice}) {
        const Bytes unit = sample({sps, pps, sei, picture});
        for (const Bytes& next : {later_slice, filler, end})
            EXPECT_TRUE(joiner.continues(unit, sample({next})));
        for (const Bytes& next : {idr, slice, sps, pps, sei, delimiter}) {
            EXPECT_FALSE(joiner.continues(unit, sample({next}))) << int(next[0]);
            EXPECT_FALSE(joiner.continues(unit, sample({next, later_slice}))) << int(next[0]);
        }
    }
}

TEST(UnitJoiner, KnowsWhatOfH265BelongsToAPicture) {
    const auto nal = [](int type, uint8_t first = 0x80) {
        return Bytes{static_cast<uint8_t>(type << 1), 1, first};
    };
    const UnitJoiner joiner = h265();
    constexpr int kTrail = 1, kIdr = 19, kVps = 32, kDelimiter = 35, kEnd = 36, kFiller = 38, kPrefixSei = 39,
                  kSuffixSei = 40;
    for (const int head : {kVps, kDelimiter, kPrefixSei})
        EXPECT_TRUE(joiner.continues(sample({nal(head)}), sample({nal(kIdr)}))) << head;
    for (const int picture : {kTrail, kIdr}) {
        const Bytes unit = sample({nal(kPrefixSei), nal(picture)});
        EXPECT_TRUE(joiner.continues(unit, sample({nal(picture, 0x40)})));
        for (const int next : {kSuffixSei, kEnd, kFiller})
            EXPECT_TRUE(joiner.continues(unit, sample({nal(next)}))) << next;
        for (const int next : {kTrail, kIdr, kVps, kDelimiter, kPrefixSei})
            EXPECT_FALSE(joiner.continues(unit, sample({nal(next)}))) << next;
    }
}

TEST(UnitJoiner, LeavesBrokenSamplesAlone) {
    const UnitJoiner joiner = h264();
    const Bytes slice = sample({{0x41, 0x9A}}), later = sample({{0x41, 0x40}});
    const Bytes too_long = {0, 0, 1, 0, 0x67, 0}, short_length = {0, 0, 0}, empty_nal = {0, 0, 0, 0};
    for (const Bytes& broken : {too_long, short_length, empty_nal}) {
        EXPECT_FALSE(joiner.continues(broken, slice));
        EXPECT_FALSE(joiner.continues(slice, broken));
    }
    EXPECT_FALSE(joiner.continues(slice, {}));
    EXPECT_TRUE(joiner.continues(slice, later));
}

TEST(UnitJoiner, ReadsLengthsOfEverySize) {
    const Bytes two_bytes = {0, 2, 0x41, 0x9A, 0, 2, 0x41, 0x40}, next = {0, 2, 0x41, 0x40};
    EXPECT_TRUE(h264(0xFD).continues(two_bytes, next));
    const Bytes one_byte = {2, 0x41, 0x9A}, begin = {2, 0x41, 0x9A};
    EXPECT_FALSE(h264(0xFC).continues(one_byte, begin));
}

TEST(UnitJoiner, AppendsBytesAndDuration) {
    const auto packet = [](const Bytes& bytes, int64_t pts, int flags) {
        PacketPtr packet(av_packet_alloc());
        EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(bytes.size())), 0);
        std::copy(bytes.begin(), bytes.end(), packet->data);
        packet->pts = packet->dts = pts;
        packet->duration = 5;
        packet->flags = flags;
        return packet;
    };
    const Bytes delimiter = sample({{0x09, 0xF0}}), slice = sample({{0x41, 0x9A}});
    const PacketPtr unit = packet(delimiter, 10, 0), next = packet(slice, 11, AV_PKT_FLAG_CORRUPT);
    h264().append(*unit, *next);
    const std::span<const uint8_t> joined = bytes_of(*unit);
    EXPECT_EQ(Bytes(joined.begin(), joined.end()), sample({{0x09, 0xF0}, {0x41, 0x9A}}));
    EXPECT_EQ(unit->pts, 10);
    EXPECT_EQ(unit->dts, 10);
    EXPECT_EQ(unit->duration, 10);
    EXPECT_EQ(unit->flags, AV_PKT_FLAG_CORRUPT);
    const PacketPtr recovery_point = packet(sample({{0x06, 6, 1, 0xC4, 0x80}}), 20, 0);
    h264().append(*recovery_point, *next);
    EXPECT_TRUE(recovery_point->flags & AV_PKT_FLAG_KEY);
    const PacketPtr captions = packet(sample({{0x06, 4, 1, 0, 0x80}}), 20, 0);
    h264().append(*captions, *packet(sample({{0x65, 0x88}}), 21, 0));
    EXPECT_TRUE(captions->flags & AV_PKT_FLAG_KEY);
}

TEST(UnitJoiner, TakesPartitionsAndReservedUnitsAsTheStandardHasThem) {
    // H.264: a picture's first slice data partition A, then B and C; 14 to 18 begin another access unit.
    const Bytes unit = sample({{0x42, 0x9A}});
    const std::vector<std::pair<int, bool>> types = {{3, true},  {4, true},   {10, true},
                                                     {13, true}, {14, false}, {18, false},
                                                     {19, true}, {24, true},  {9, false}};
    for (const auto& [type, follows] : types)
        EXPECT_EQ(h264().continues(unit, sample({{static_cast<uint8_t>(0x40 | type), 0x80}})), follows)
            << type;
    // H.265: 45 to 47 are reserved suffixes, 48 to 55 reserved, 56 and more belong to whoever sends them.
    const Bytes picture = sample({{1 << 1, 1, 0x80}});
    const std::vector<std::pair<int, bool>> h265_types = {{44, false}, {45, true}, {47, true}, {48, false},
                                                          {55, false}, {56, true}, {63, true}};
    for (const auto& [type, follows] : h265_types)
        EXPECT_EQ(h265().continues(picture, sample({{static_cast<uint8_t>(type << 1), 1, 0}})), follows)
            << type;
    EXPECT_FALSE(h264().continues(unit, sample({{0x41}}))) << "a slice without a header";
    EXPECT_FALSE(h265().continues(picture, sample({{1 << 1, 1}})));
    EXPECT_FALSE(h265().continues(picture, sample({{0x02}}))) << "half a NAL unit header";
}

TEST(UnitJoiner, TakesTheTimesOfTheFirstPartThatHasThem) {
    const auto packet = [](const Bytes& bytes, int64_t pts, int64_t dts) {
        PacketPtr packet = new_packet();
        EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(bytes.size())), 0);
        std::copy(bytes.begin(), bytes.end(), packet->data);
        packet->pts = pts;
        packet->dts = dts;
        return packet;
    };
    const PacketPtr unit = packet(sample({{0x09, 0xF0}}), AV_NOPTS_VALUE, AV_NOPTS_VALUE);
    h264().append(*unit, *packet(sample({{0x41, 0x9A}}), 12, 11));
    h264().append(*unit, *packet(sample({{0x41, 0x40}}), 22, 21));
    EXPECT_EQ(unit->pts, 12);
    EXPECT_EQ(unit->dts, 11);
    EXPECT_FALSE(unit->flags & AV_PKT_FLAG_KEY);
    // A recovery point, and a random access picture of H.265, are where decoding may begin.
    const PacketPtr recovery = packet(sample({{0x09, 0xF0}}), 0, 0);
    h264().append(*recovery, *packet(sample({{0x06, 6, 1, 0x80}}), 0, 0));
    EXPECT_TRUE(recovery->flags & AV_PKT_FLAG_KEY);
    for (const auto& [type, key] : {std::pair(15, false), {16, true}, {21, true}, {23, true}, {24, false}}) {
        const PacketPtr access = packet(sample({{35 << 1, 1, 0x50}}), 0, 0);
        h265().append(*access, *packet(sample({{static_cast<uint8_t>(type << 1), 1, 0x80}}), 0, 0));
        EXPECT_EQ((access->flags & AV_PKT_FLAG_KEY) != 0, key) << type;
    }
}

}  // namespace
}  // namespace gsve::programme
