// The reference host's NAL unit writer: byte stream format and emulation prevention (ITU-T
// H.264, 7.3.1, 7.4.1 and Annex B), compared with what decoders and another encoder make of the same units.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/opt.h>
}

#include <orb_utils_v4/h264.h>

#include "support/bytes.h"
#include "support/guarded_bytes.h"
#include "support/plain_encode.h"

namespace gsve::test {
namespace {

constexpr uint8_t kSei = 6;
constexpr uint8_t kIdrSlice = 5;

/// The unit as written into a buffer that ends at a guard page; empty when the writer refuses.
Bytes written(const Bytes& rbsp, size_t capacity, unsigned nal_ref_idc = 0, uint8_t nal_unit_type = kSei) {
    const GuardedBytes out(capacity, 0xEE), in(rbsp);
    const int length =
        h264_nal_write(out.data(), capacity, in.data(), rbsp.size(), nal_ref_idc, nal_unit_type);
    EXPECT_EQ(in.bytes(), rbsp) << "the input changed";
    if (length < 1) return {};
    EXPECT_LE(static_cast<size_t>(length), capacity);
    for (size_t i = length; i < capacity; i++) EXPECT_EQ(out.data()[i], 0xEE) << "written behind the unit";
    return {out.data(), out.data() + length};
}

/// What stands behind start code and header; empty when these are not as they should be.
Bytes payload(const Bytes& unit, uint8_t header = kSei) {
    const Bytes front{0, 0, 0, 1, header};
    const bool good = unit.size() >= front.size() && std::equal(front.begin(), front.end(), unit.begin());
    EXPECT_TRUE(good) << hex(unit);
    return good ? Bytes(unit.begin() + front.size(), unit.end()) : Bytes{};
}

size_t find(const Bytes& bytes, const Bytes& pattern, size_t from = 0) {
    return std::search(bytes.begin() + from, bytes.end(), pattern.begin(), pattern.end()) - bytes.begin();
}

/// nal_unit() of 7.3.1: wherever the next three bytes are 00 00 03, the third is left out.
Bytes unescaped(const Bytes& escaped) {
    const Bytes pattern{0, 0, 3};
    Bytes rbsp;
    size_t taken = 0;
    for (size_t at; (at = find(escaped, pattern, taken)) < escaped.size(); taken = at + 3)
        rbsp.insert(rbsp.end(), escaped.begin() + taken, escaped.begin() + at + 2);
    rbsp.insert(rbsp.end(), escaped.begin() + taken, escaped.end());
    return rbsp;
}

/// The constraints of 7.4.1 on the bytes of a NAL unit, header left out.
void expect_no_emulation(const Bytes& escaped) {
    for (const uint8_t last : {0, 1, 2})
        EXPECT_EQ(find(escaped, {0, 0, last}), escaped.size()) << hex(escaped);
    for (size_t i = 0; i + 3 < escaped.size(); i++) {
        if (escaped[i] == 0 && escaped[i + 1] == 0 && escaped[i + 2] == 3) {
            EXPECT_LE(escaped[i + 3], 3) << hex(escaped);
        }
    }
    EXPECT_TRUE(escaped.empty() || escaped.back() != 0) << hex(escaped);
}

TEST(NalWrite, EscapesWhatWouldEmulateAStartCode) {
    const struct {
        const char* rbsp;
        const char* expected;
    } cases[] = {
        {"80", "80"},
        {"12 34 80", "12 34 80"},
        {"00 80", "00 80"},
        {"00 00 80", "00 00 80"},
        {"00 00 00 80", "00 00 03 00 80"},
        {"00 00 01 80", "00 00 03 01 80"},
        {"00 00 02 80", "00 00 03 02 80"},
        {"00 00 03 80", "00 00 03 03 80"},
        {"00 00 04 80", "00 00 04 80"},
        {"00 00 FF 80", "00 00 FF 80"},
        {"00 01 00 00 80", "00 01 00 00 80"},
        {"41 00 00 01", "41 00 00 03 01"},
        {"41 00 00 03", "41 00 00 03 03"},
        {"41 00 00 00 00 01", "41 00 00 03 00 00 03 01"},
        {"41 00 00 00 00 00 00 80", "41 00 00 03 00 00 03 00 00 80"},
        {"41 00 00 00 01 00 00 02 80", "41 00 00 03 00 01 00 00 03 02 80"},
        {"00 00 03 00 00 03 80", "00 00 03 03 00 00 03 03 80"},
        {"00 00 01 00 00 01 80", "00 00 03 01 00 00 03 01 80"},
        {"00 00 03 00 80", "00 00 03 03 00 80"},
    };
    for (const auto& [rbsp, expected] : cases)
        EXPECT_EQ(hex(payload(written(from_hex(rbsp), 64))), expected) << rbsp;
}

TEST(NalWrite, ClosesAnRbspThatEndsInZeroBytes) {
    const struct {
        const char* rbsp;
        const char* expected;
    } cases[] = {
        {"80 00 00", "80 00 00 03"},
        {"80 00 00 00 00", "80 00 00 03 00 00 03"},
        {"80 00 00 00 00 00 00", "80 00 00 03 00 00 03 00 00 03"},
        // No RBSP of the standard ends in an odd number of zero bytes; the rule on the last byte holds.
        {"80 00", "80 00 03"},
        {"80 00 00 00", "80 00 00 03 00 03"},
        {"00", "00 03"},
    };
    for (const auto& [rbsp, expected] : cases)
        EXPECT_EQ(hex(payload(written(from_hex(rbsp), 64))), expected) << rbsp;
}

TEST(NalWrite, PutsAFourByteStartCodeAndTheHeaderInFront) {
    EXPECT_EQ(hex(written({0x80}, 64, 0, 6)), "00 00 00 01 06 80");
    EXPECT_EQ(hex(written({0x80}, 64, 3, 7)), "00 00 00 01 67 80");
    EXPECT_EQ(hex(written({0x80}, 64, 2, 1)), "00 00 00 01 41 80");
    for (unsigned ref_idc = 0; ref_idc <= 3; ref_idc++)
        for (unsigned type = 0; type <= 31; type++) {
            if (ref_idc == 0 && type == 0) continue;
            const Bytes unit = written({0x80}, 64, ref_idc, static_cast<uint8_t>(type));
            EXPECT_EQ(hex(payload(unit, static_cast<uint8_t>(ref_idc * 32 + type))), "80");
        }
}

TEST(NalWrite, WritesUnitsWithoutAnRbsp) {
    constexpr uint8_t kEndOfSequence = 10;
    EXPECT_EQ(hex(written({}, 64, 0, kEndOfSequence)), "00 00 00 01 0A");
    uint8_t out[5];
    EXPECT_EQ(h264_nal_write(out, sizeof out, nullptr, 0, 0, kEndOfSequence), 5);
}

TEST(NalWrite, RefusesArgumentsOutOfRange) {
    uint8_t out[64], rbsp[4] = {1, 2, 3, 0x80};
    EXPECT_EQ(h264_nal_write(out, sizeof out, rbsp, 4, 0, kSei), 9);
    EXPECT_LT(h264_nal_write(nullptr, sizeof out, rbsp, 4, 0, kSei), 1);
    EXPECT_LT(h264_nal_write(out, sizeof out, nullptr, 4, 0, kSei), 1);
    for (const unsigned ref_idc : {4U, 5U, 256U, UINT_MAX})
        EXPECT_LT(h264_nal_write(out, sizeof out, rbsp, 4, ref_idc, kSei), 1) << ref_idc;
    for (const unsigned type : {32, 33, 64, 128, 255})
        EXPECT_LT(h264_nal_write(out, sizeof out, rbsp, 4, 0, static_cast<uint8_t>(type)), 1) << type;
    EXPECT_LT(h264_nal_write(out, sizeof out, rbsp, 4, 0, 0), 1) << "a zero header byte";
}

TEST(NalWrite, RefusesLengthsThatCannotFitWithoutReadingOrWriting) {
    const GuardedBytes out(16, 0xEE), rbsp(Bytes{0x80});
    for (const unsigned long length : {12UL, 1UL << 31, ULONG_MAX - 4, ULONG_MAX})
        EXPECT_LT(h264_nal_write(out.data(), 16, rbsp.data(), length, 0, kSei), 1) << length;
    // The result is an int, however much room there is.
    EXPECT_LT(h264_nal_write(out.data(), ULONG_MAX, rbsp.data(), INT_MAX, 0, kSei), 1);
    EXPECT_LT(h264_nal_write(out.data(), ULONG_MAX, rbsp.data(), ULONG_MAX, 0, kSei), 1);
    EXPECT_EQ(out.bytes(), Bytes(16, 0xEE));
}

TEST(NalWrite, FitsExactlyOrRefuses) {
    for (const char* text : {"", "80", "00 00 01 80", "00 00 00 00 00 00 80", "80 00 00", "80 00 00 00 00",
                             "00 00 03 00 00 03 00 00 03 80", "41 42 43 44 45 00 00 01"}) {
        const Bytes rbsp = from_hex(text);
        const size_t needed = written(rbsp, 64).size();
        ASSERT_GE(needed, 5 + rbsp.size());
        EXPECT_EQ(written(rbsp, needed), written(rbsp, 64)) << text;
        for (size_t capacity = 0; capacity < needed; capacity++)
            EXPECT_EQ(hex(written(rbsp, capacity)), "") << text << " in " << capacity;
    }
}

/// Every RBSP over the bytes that matter, up to six of them, closed by the stop bit and zero to two
/// cabac_zero_words.
TEST(NalWrite, IsUndoneByReadingForEveryShortRbsp) {
    const Bytes alphabet{0, 1, 2, 3, 4, 0x80};
    uint8_t out[64];
    for (size_t length = 0; length <= 6; length++) {
        size_t combinations = 1;
        for (size_t i = 0; i < length; i++) combinations *= alphabet.size();
        for (size_t number = 0; number < combinations; number++) {
            Bytes rbsp;
            for (size_t rest = number; rbsp.size() < length; rest /= alphabet.size())
                rbsp.push_back(alphabet[rest % alphabet.size()]);
            rbsp.push_back(0x80);
            rbsp.resize(rbsp.size() + number % 3 * 2);
            const int size = h264_nal_write(out, sizeof out, rbsp.data(), rbsp.size(), 0, kSei);
            ASSERT_GT(size, 5);
            const Bytes escaped(out + 5, out + size);
            expect_no_emulation(escaped);
            ASSERT_EQ(hex(unescaped(escaped)), hex(rbsp));
            if (HasFailure()) return;
        }
    }
}

TEST(NalWrite, IsUndoneByReadingForLongRbsps) {
    std::mt19937 random(20);
    size_t prevented = 0;
    for (int round = 0; round < 300; round++) {
        Bytes rbsp(1 + random() % 5000);
        const unsigned zeros_in_eight = random() % 9;
        for (uint8_t& byte : rbsp)
            byte = static_cast<uint8_t>(random() % 8 < zeros_in_eight ? 0 : random() % 6);
        rbsp.push_back(0x80);
        const Bytes escaped = payload(written(rbsp, 2 * rbsp.size() + 5));
        expect_no_emulation(escaped);
        ASSERT_EQ(unescaped(escaped), rbsp);
        prevented += escaped.size() - rbsp.size();
    }
    EXPECT_GT(prevented, 10'000U);
}

/// The NAL units of a byte stream (Annex B), from their header bytes on.
std::vector<Bytes> nal_units(const Bytes& stream) {
    const Bytes prefix{0, 0, 1};
    std::vector<Bytes> units;
    for (size_t at = find(stream, prefix); at < stream.size();) {
        const size_t begin = at + prefix.size();
        at = find(stream, prefix, begin);
        size_t end = at;
        while (end > begin && stream[end - 1] == 0) end--;
        units.emplace_back(stream.begin() + begin, stream.begin() + end);
    }
    return units;
}

Bytes x264_stream(int width, int height, int pictures) {
    Bytes stream;
    const auto configure = [](AVCodecContext& context) {
        av_opt_set(context.priv_data, "qp", "1", 0);
        context.max_b_frames = 0;
        context.gop_size = 5;
    };
    for (const Bytes& unit : plain_encode("libx264", width, height, pictures, configure, paint_gradient))
        stream = stream + unit;
    return stream;
}

TEST(NalWrite, RewritesAnotherEncodersUnitsByteForByte) {
    size_t units = 0, prevented = 0;
    for (const Bytes& unit : nal_units(x264_stream(320, 240, 10))) {
        const Bytes escaped(unit.begin() + 1, unit.end());
        const Bytes rbsp = unescaped(escaped);
        const Bytes rewritten = written(rbsp, unit.size() + 4, unit[0] >> 5, unit[0] & 31);
        EXPECT_EQ(payload(rewritten, unit[0]), escaped) << "type " << (unit[0] & 31);
        prevented += escaped.size() - rbsp.size();
        units++;
    }
    EXPECT_GE(units, 10U + 2U);
    EXPECT_GE(prevented, 1U) << "nothing to escape: the stream proves little";
}

/// The caption bytes that libavcodec's decoder finds at the first picture of `stream`.
Bytes decoded_captions(const Bytes& stream) {
    const ContextOwner context(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264)));
    context->thread_count = 1;
    EXPECT_EQ(avcodec_open2(context.get(), nullptr, nullptr), 0);
    const PacketOwner packet(av_packet_alloc());
    EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(stream.size())), 0);
    std::copy(stream.begin(), stream.end(), packet->data);
    EXPECT_EQ(avcodec_send_packet(context.get(), packet.get()), 0);
    avcodec_send_packet(context.get(), nullptr);
    const FrameOwner frame(av_frame_alloc());
    EXPECT_EQ(avcodec_receive_frame(context.get(), frame.get()), 0);
    const AVFrameSideData* const captions = av_frame_get_side_data(frame.get(), AV_FRAME_DATA_A53_CC);
    return captions ? Bytes(captions->data, captions->data + captions->size) : Bytes{};
}

/// The SEI message user_data_registered_itu_t_t35 of ATSC A/53 with `cc_data`, three bytes per construct.
Bytes caption_sei_rbsp(const Bytes& cc_data) {
    const auto count = static_cast<uint8_t>(cc_data.size() / 3);
    const Bytes head = Bytes{4, static_cast<uint8_t>(11 + cc_data.size())} +
                       from_hex("B5 00 31 47 41 39 34 03") + Bytes{static_cast<uint8_t>(0x40 | count), 0x00};
    return head + cc_data + Bytes{0xFF, 0x80};
}

TEST(NalWrite, WritesSeiThatADecoderReadsBack) {
    std::mt19937 random(708);
    const std::vector<Bytes> picture = nal_units(x264_stream(64, 64, 1));
    for (int round = 0; round < 60; round++) {
        Bytes cc_data(3 * (1 + random() % 31));
        for (uint8_t& byte : cc_data) byte = static_cast<uint8_t>(random() % 8 < 5 ? 0 : random() % 5);
        Bytes stream;
        for (const Bytes& unit : picture) {
            if ((unit[0] & 31) == kIdrSlice) stream = stream + written(caption_sei_rbsp(cc_data), 4096);
            stream = stream + Bytes{0, 0, 1} + unit;
        }
        ASSERT_EQ(hex(decoded_captions(stream)), hex(cc_data));
    }
}

}  // namespace
}  // namespace gsve::test
