// What AC-3 tells beside the sound, from its own header and back into an encoder's.

#include <algorithm>
#include <bitset>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "programme/ac3_metadata.h"

namespace gsve::programme {
namespace {

/// Bytes of a header, field by field, with zeros behind.
std::vector<uint8_t> header(const std::string& fields) {
    std::string bits;
    for (const char c : fields)
        if (c != ' ') bits += c;
    bits.resize(64 * 8, '0');
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < bits.size(); at += 8)
        bytes.push_back(static_cast<uint8_t>(std::bitset<8>(bits.substr(at, 8)).to_ulong()));
    return bytes;
}

const std::string kSyncAndSum = "0000101101110111 1010101010101010";

// fscod, frmsizecod, bsid 8, bsmod
const std::string kMain = kSyncAndSum + "00 011100 01000 000";

TEST(Ac3Metadata, IsReadByTheModeOfTheChannels) {
    const struct {
        std::string fields;  ///< acmod, mix levels or surround mode, lfeon, dialnorm
        Ac3Metadata expected;
    } rows[] = {
        {"001 0 11000", {-24, {}, {}, 0}},           {"010 10 0 11111", {-31, {}, {}, 2}},
        {"010 01 0 00001", {-1, {}, {}, 1}},         {"011 01 0 11011", {-27, 0.595, {}, 0}},
        {"100 01 0 10111", {-23, {}, 0.5, 0}},       {"111 00 10 1 10100", {-20, 0.707, 0.0, 0}},
        {"111 10 00 1 00000", {-31, 0.5, 0.707, 0}},
    };
    for (const auto& row : rows) {
        const auto metadata = ac3_metadata(header(kMain + row.fields));
        ASSERT_TRUE(metadata) << row.fields;
        EXPECT_TRUE(*metadata == row.expected) << row.fields << ": " << metadata->dialogue_level;
    }
}

TEST(Ac3Metadata, HasTheDialogueLevelOfEAc3) {
    // strmtyp, substreamid, frmsiz, fscod, numblkscod, acmod, lfeon, bsid 16, dialnorm
    const auto metadata = ac3_metadata(header("0000101101110111 00 000 00101111111 00 11 111 1 10000 10110"));
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->dialogue_level, -22);
    EXPECT_FALSE(metadata->center_mix);
}

TEST(Ac3Metadata, IsNotReadFromAnythingElse) {
    EXPECT_FALSE(ac3_metadata({}));
    EXPECT_FALSE(ac3_metadata(std::vector<uint8_t>(7, 0x0B)));
    EXPECT_FALSE(ac3_metadata(header("1111111111110001")));
}

TEST(Ac3Metadata, ComesBackOutOfTheEncoder) {
    const Ac3Metadata metadata = {-19, 0.5, 0.0, 0};
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AC3);
    const CodecContextPtr encoder(avcodec_alloc_context3(codec));
    av_channel_layout_from_string(&encoder->ch_layout, "5.1(side)");
    encoder->sample_rate = 48000;
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->bit_rate = 448000;
    encoder->time_base = {1, 48000};
    set_metadata(*encoder, metadata);
    ASSERT_EQ(avcodec_open2(encoder.get(), codec, nullptr), 0);
    const FramePtr frame = new_frame();
    frame->nb_samples = encoder->frame_size;
    frame->format = encoder->sample_fmt;
    frame->sample_rate = 48000;
    av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout);
    ASSERT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (int channel = 0; channel < 6; channel++)
        std::fill_n(reinterpret_cast<float*>(frame->extended_data[channel]), frame->nb_samples, 0.0F);
    const PacketPtr packet = new_packet();
    ASSERT_EQ(avcodec_send_frame(encoder.get(), frame.get()), 0);
    ASSERT_EQ(avcodec_send_frame(encoder.get(), nullptr), 0);
    ASSERT_EQ(avcodec_receive_packet(encoder.get(), packet.get()), 0);
    const auto read = ac3_metadata(bytes_of(*packet));
    ASSERT_TRUE(read);
    EXPECT_TRUE(*read == metadata) << read->dialogue_level;
}

TEST(Ac3Metadata, IsNotForOtherEncoders) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    const CodecContextPtr encoder(avcodec_alloc_context3(codec));
    set_metadata(*encoder, {-19, 0.5, 0.0, 2});
    EXPECT_EQ(encoder->codec_id, AV_CODEC_ID_AAC);
}

}  // namespace
}  // namespace gsve::programme
