// The status report: pairs, order, texts, and the result.

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orb_utils_v4/comm.h>

#include "support/subject.h"

// The host's status packet, as this test keeps it. `accepts` answers the appends in order; true after its
// end.
struct comm_socket_v4_packet {
    struct Pair {
        std::string name, value;
        bool formatted;
    };
    std::vector<Pair> pairs;
    std::vector<bool> accepts;

    bool append(const char* name, const std::string& value, bool formatted) {
        pairs.push_back({name, value, formatted});
        return pairs.size() > accepts.size() || accepts[pairs.size() - 1];
    }
};

extern "C" {

bool comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value) {
    return packet->append(name, value, false);
}

bool comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* packet, const char* name, const char* format,
                                          ...) {
    char value[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(value, sizeof value, format, arguments);
    va_end(arguments);
    return packet->append(name, value, true);
}

}  // extern "C"

namespace gsve::test {
namespace {

/// Ready to report as active, without a codec.
class Active : public Subject {
public:
    Active() : Subject(kMpeg2) {
        refcount = 1;
        encoder_open = true;
        output_width = 720;
        output_height = 480;
    }
    void make_context(int num, int den, unsigned flags, int me_range) {
        mpeg_context = avcodec_alloc_context3(nullptr);
        mpeg_context->time_base = {num, den};
        mpeg_context->flags = static_cast<int>(flags);
        mpeg_context->me_range = me_range;
    }
};

comm_socket_v4_packet report(GeneralStreamingVideoEncoder& encoder, const char* name = "enc",
                             uint8_t omit_debug = 0) {
    comm_socket_v4_packet packet;
    common_pkt_parsing parsing;
    parsing.omit_debug = omit_debug;
    EXPECT_TRUE(encoder.on_report(&packet, name, nullptr, &parsing));
    return packet;
}

std::string activity(GeneralStreamingVideoEncoder& encoder) {
    const comm_socket_v4_packet packet = report(encoder);
    EXPECT_EQ(packet.pairs.size(), 4u);
    EXPECT_EQ(packet.pairs[1].name, "*enc, active");
    return packet.pairs[1].value;
}

TEST(Report, WritesFourPairsInOrderUnderTheReportName) {
    GeneralStreamingVideoEncoder encoder;
    const comm_socket_v4_packet packet = report(encoder, "Channel 5");
    ASSERT_EQ(packet.pairs.size(), 4u);
    EXPECT_EQ(packet.pairs[0].name, "*Channel 5, debug status");
    EXPECT_EQ(packet.pairs[1].name, "*Channel 5, active");
    EXPECT_EQ(packet.pairs[2].name, "*Channel 5, last error");
    EXPECT_EQ(packet.pairs[3].name, "*Channel 5, last notes");
    EXPECT_TRUE(packet.pairs[0].formatted);
    for (int pair : {1, 2, 3}) EXPECT_FALSE(packet.pairs[pair].formatted) << pair;
}

TEST(Report, BeforeOpeningSaysInactiveWithEmptyTexts) {
    GeneralStreamingVideoEncoder encoder;
    const comm_socket_v4_packet packet = report(encoder);
    ASSERT_EQ(packet.pairs.size(), 4u);
    EXPECT_EQ(packet.pairs[0].value, "scplx=0.000 me_range=-1");
    EXPECT_EQ(packet.pairs[1].value, "0");
    EXPECT_EQ(packet.pairs[2].value, "");
    EXPECT_EQ(packet.pairs[3].value, "");
}

TEST(Report, LeavesTheDebugPairOutForAnyNonZeroFlag) {
    GeneralStreamingVideoEncoder encoder;
    for (int flag : {1, 2, 0x80, 0xFF}) {
        const comm_socket_v4_packet packet = report(encoder, "e", static_cast<uint8_t>(flag));
        ASSERT_EQ(packet.pairs.size(), 3u) << "flag " << flag;
        EXPECT_EQ(packet.pairs[0].name, "*e, active");
        EXPECT_EQ(packet.pairs[1].name, "*e, last error");
        EXPECT_EQ(packet.pairs[2].name, "*e, last notes");
    }
}

TEST(Report, DebugPairShowsMaskingAndMotionRange) {
    Active host;
    host.saved_spatial_masking = 0.0204;
    EXPECT_EQ(report(host).pairs.at(0).value, "scplx=0.020 me_range=-1");
    host.make_context(1, 25, 0, 16);
    EXPECT_EQ(report(host).pairs.at(0).value, "scplx=0.020 me_range=16");
    host.saved_spatial_masking = 1.0;
    host.mpeg_context->me_range = 0;
    EXPECT_EQ(report(host).pairs.at(0).value, "scplx=1.000 me_range=0");
}

TEST(Report, DebugPairIsWrittenWhenInactiveToo) {
    Active host;
    host.make_context(1, 25, 0, 9);
    host.encoder_open = false;
    const comm_socket_v4_packet packet = report(host);
    EXPECT_EQ(packet.pairs.at(0).value, "scplx=0.000 me_range=9");
    EXPECT_EQ(packet.pairs.at(1).value, "0");
}

TEST(Report, CarriesErrorAndNotesAsTheyAre) {
    GeneralStreamingVideoEncoder encoder;
    encoder.last_error = "100% wrong %s";
    encoder.last_notes = "first\nsecond %d\n" + std::string(5000, 'n');
    const comm_socket_v4_packet packet = report(encoder);
    EXPECT_EQ(packet.pairs.at(2).value, encoder.last_error);
    EXPECT_EQ(packet.pairs.at(3).value, encoder.last_notes);
}

TEST(Report, IsInactiveUnlessOpenWithAClient) {
    Active host;
    EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0");
    host.refcount = 0;
    EXPECT_EQ(activity(host), "0");
    host.refcount = 1;
    host.encoder_open = false;
    EXPECT_EQ(activity(host), "0");
    host.refcount = -1;
    host.encoder_open = true;
    EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0") << "only a count of zero is inactive";
}

TEST(Report, ResolutionIsTheOutputs) {
    Active host;
    host.input_width = 1920;
    host.input_height = 1080;
    host.output_width = 1280;
    host.output_height = 720;
    EXPECT_EQ(activity(host), "1,res=1280x720,ar=4:3,efc=0");
}

TEST(Report, FrameRateNeedsACodecContext) {
    struct RateCase {
        int num, den;
        unsigned flags;
        const char* text;
    };
    for (const RateCase& c :
         {RateCase{1001, 60000, 0, ",vrate=59.940"},
          {1, 25, 0, ",vrate=25.000"},
          {2, 50, 0, ",vrate=25.000"},
          {1001, 24000, AV_CODEC_FLAG_CLOSED_GOP, ",vrate=23.976"},
          {1001, 30000, AV_CODEC_FLAG_INTERLACED_DCT, "i,vrate=29.970"},
          {1001, 30000, AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_CLOSED_GOP, "i,vrate=29.970"},
          {1001, 30000, AV_CODEC_FLAG_INTERLACED_ME, ",vrate=29.970"}}) {
        Active host;
        host.make_context(c.num, c.den, c.flags, 16);
        EXPECT_EQ(activity(host), std::string("1,res=720x480") + c.text + ",ar=4:3,efc=0");
    }
}

TEST(Report, AspectRatioIsTheCurrentOneOnlyWhenBothPartsArePositive) {
    struct AspectCase {
        int num, den;
        const char* text;
    };
    for (const AspectCase& c : {AspectCase{16, 9, "16:9"},
                                {1, 1, "1:1"},
                                {-1, -1, "4:3"},
                                {16, 0, "4:3"},
                                {0, 9, "4:3"},
                                {16, -1, "4:3"},
                                {-1, 9, "4:3"}}) {
        Active host;
        host.current_aspect_num = c.num;
        host.current_aspect_den = c.den;
        EXPECT_EQ(activity(host), std::string("1,res=720x480,ar=") + c.text + ",efc=0");
    }
    Active host;
    host.default_aspect_num = 221;
    host.default_aspect_den = 100;
    EXPECT_EQ(activity(host), "1,res=720x480,ar=221:100,efc=0");
}

TEST(Report, FrameCountIsUnsigned64Bit) {
    Active host;
    host.encoded_frame_count = UINT64_MAX;
    EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=18446744073709551615");
}

TEST(Report, BitRateOnlyWhenPositive) {
    for (int value : {0, -1, -6000000}) {
        Active host;
        host.vbr_value = value;
        EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0") << value;
    }
    for (int value : {1, 6000000, 2147483647}) {
        Active host;
        host.vbr_value = value;
        EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0,vbr=" + std::to_string(value));
    }
}

TEST(Report, GopTextsOnlyWhenNotEmpty) {
    Active host;
    host.dgop_text = "IBBPBBP as-source";
    EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0,dgop=IBBPBBP as-source");
    host.bgop_text = "open-gop IPBB";
    EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0,dgop=IBBPBBP as-source,bgop=open-gop IPBB");
    host.dgop_text.clear();
    host.dgop_building_text = "not reported";
    host.bgop_building_text = "not reported";
    EXPECT_EQ(activity(host), "1,res=720x480,ar=4:3,efc=0,bgop=open-gop IPBB");
}

TEST(Report, PutsEverythingInOrder) {
    Active host;
    host.make_context(1001, 30000, AV_CODEC_FLAG_INTERLACED_DCT, 12);
    host.current_aspect_num = 16;
    host.current_aspect_den = 9;
    host.encoded_frame_count = 1234567890123;
    host.vbr_value = 6000000;
    host.dgop_text = "IPP";
    host.bgop_text = "IBB%s";
    EXPECT_EQ(activity(host),
              "1,res=720x480i,vrate=29.970,ar=16:9,efc=1234567890123,vbr=6000000,dgop=IPP,bgop=IBB%s");
}

TEST(Report, ResultIsThatOfTheLastAppend) {
    for (int refused = 0; refused < 16; refused++) {
        GeneralStreamingVideoEncoder encoder;
        comm_socket_v4_packet packet;
        for (int pair = 0; pair < 4; pair++) packet.accepts.push_back(!(refused >> pair & 1));
        common_pkt_parsing parsing;
        EXPECT_EQ(encoder.on_report(&packet, "e", "", &parsing), !(refused & 8))
            << "refused mask " << refused;
        EXPECT_EQ(packet.pairs.size(), 4u) << "a refused pair does not end the report";
    }
}

TEST(Report, DoesNotReadTheSecondText) {
    GeneralStreamingVideoEncoder encoder;
    comm_socket_v4_packet with_null, with_text;
    common_pkt_parsing parsing;
    encoder.on_report(&with_null, "e", nullptr, &parsing);
    encoder.on_report(&with_text, "e", "anything", &parsing);
    ASSERT_EQ(with_null.pairs.size(), with_text.pairs.size());
    for (size_t pair = 0; pair < with_null.pairs.size(); pair++) {
        EXPECT_EQ(with_null.pairs[pair].name, with_text.pairs[pair].name);
        EXPECT_EQ(with_null.pairs[pair].value, with_text.pairs[pair].value);
    }
}

TEST(Report, SurvivesAnEndlessReportName) {
    Active host;
    const std::string name(10000, 'x');
    const comm_socket_v4_packet packet = report(host, name.c_str());
    ASSERT_EQ(packet.pairs.size(), 4u);
    for (const auto& pair : packet.pairs) EXPECT_EQ(pair.name.substr(0, 32), "*" + std::string(31, 'x'));
}

TEST(Report, OfAnOpenEncoderReadsItsCodec) {
    Subject host(kMpeg2, 720, 480, 30000, 1001);
    host.input_interlaced = 1;
    stderr_of([&] { ASSERT_TRUE(host.client_addref()); });
    EXPECT_EQ(activity(host), "1,res=720x480i,vrate=29.970,ar=4:3,efc=0,vbr=6000000");
    const comm_socket_v4_packet packet = report(host);
    EXPECT_EQ(packet.pairs.at(0).value, "scplx=0.020 me_range=16");
    EXPECT_EQ(packet.pairs.at(2).value, "");
    EXPECT_EQ(packet.pairs.at(3).value,
              "Encoding to pixel format 4:2:0\n"
              "Making room for 608 CC data in bitrate, 1504 bits/sec\n"
              "Making room for 708 CC data in bitrate, 14512 bits/sec\n");
    host.client_unref();
    EXPECT_EQ(activity(host), "0");
}

}  // namespace
}  // namespace gsve::test
