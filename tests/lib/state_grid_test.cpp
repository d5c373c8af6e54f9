// Every public operation in every state of the encoder: its result, and the state that it leaves behind.

#include <unistd.h>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/io.h>

#include "support/subject.h"
#include "support/test_picture.h"

// The host's status packet: this test only wants the activity.
struct comm_socket_v4_packet {
    std::string activity;
};

extern "C" {

bool comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value) {
    if (std::strstr(name, ", active")) packet->activity = value;
    return true;
}

bool comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet*, const char*, const char*, ...) {
    return true;
}

}  // extern "C"

namespace gsve::test {
namespace {

constexpr int kWidth = 128, kHeight = 96;
constexpr int kBitrate = 300000;  // what pictures of this size can fill

/// Configured and never opened, at 30000/1001 pictures per second, scaled so that working planes are made.
std::unique_ptr<Subject> make_new(int codec) {
    auto host = std::make_unique<Subject>(codec, kWidth, kHeight, 30000, 1001);
    host->resize_width = 112;
    host->resize_height = 80;
    host->maximum_threads = 1;
    host->bitrate = kBitrate;
    return host;
}

bool write_picture(GeneralStreamingVideoEncoder& host, unsigned n) {
    const TestPicture p(kWidth, kHeight, 1, 1, n);
    return host.write_video(p.y.data(), p.width, p.u.data(), p.chroma_width, p.v.data(), p.chroma_width, -1,
                            n);
}

std::unique_ptr<Subject> make_open(int codec) {
    auto host = make_new(codec);
    EXPECT_TRUE(host->client_addref()) << host->last_error;
    return host;
}

std::unique_ptr<Subject> make_encoding(int codec) {
    auto host = make_open(codec);
    for (unsigned n = 0; n < 6; n++) EXPECT_TRUE(write_picture(*host, n));
    return host;
}

std::unique_ptr<Subject> make_drained(int codec) {
    auto host = make_encoding(codec);
    while (host->flush_delayed_video()) {
    }
    EXPECT_EQ(host->units.size(), 6u);
    return host;
}

std::unique_ptr<Subject> make_failed(int codec) {
    auto host = make_new(codec);
    host->bitrate = 9999;
    EXPECT_FALSE(host->client_addref());
    host->bitrate = kBitrate;
    return host;
}

std::unique_ptr<Subject> make_closed(int codec) {
    auto host = make_encoding(codec);
    host->client_unref();
    return host;
}

struct State {
    const char* name;
    std::unique_ptr<Subject> (*make)(int codec);
    bool open, window;
    int clients;
};

const State kStates[] = {
    {"new", make_new, false, false, 0},         {"open", make_open, true, false, 1},
    {"encoding", make_encoding, true, true, 1}, {"drained", make_drained, true, true, 1},
    {"failed", make_failed, false, false, 1},   {"closed", make_closed, false, false, 0},
};
constexpr size_t kStateCount = std::size(kStates);

/// What an operation does in one state, as "RESULT -> STATE CLIENTS": the state is "open" or "closed", a "+"
/// after it tells that there is an output window.
using Outcomes = std::array<std::string, kStateCount>;

std::string summary(const Subject& host) {
    return std::string(host.encoder_open ? "open" : "closed") + (host.output_window ? "+ " : " ") +
           std::to_string(host.refcount);
}

std::string truth(bool value) { return value ? "true" : "false"; }

struct Operation {
    const char* name;
    std::function<std::string(Subject&)> run;
    Outcomes outcomes;
};

std::string plain(const std::function<void()>& work) {
    work();
    return "";
}

/// Scales an 8 by 8 plane to 4 by 4 through one of the plane operations; the result tells what was written.
template <typename Scale>
std::string scale_plane(const Scale& scale) {
    const std::vector<uint8_t> source(64, 77);
    std::vector<uint8_t> scaled(4 * 16, 0);
    scale(scaled.data(), source.data());
    for (int row = 0; row < 4; row++)
        for (int column = 0; column < 4; column++)
            if (scaled[row * 16 + column] != 77) return "wrong";
    return "scaled";
}

constexpr unsigned kHalf = 2 << 16;

/// The state stays as it is; closed and open ones have results of their own.
Outcomes by_openness(const std::string& closed, const std::string& open) {
    return {closed + " -> closed 0", open + " -> open 1",     open + " -> open+ 1",
            open + " -> open+ 1",    closed + " -> closed 1", closed + " -> closed 0"};
}

Outcomes unchanged(const std::string& result) { return by_openness(result, result); }

/// Tried in a process of its own: see AScalingOfAClosedEncoderDoesNothing.
const char* const kApart = "apart";

Outcomes scaling() {
    Outcomes outcomes = unchanged("");
    outcomes.back() = kApart;
    return outcomes;
}

const TestPicture& picture() {
    static const TestPicture p(kWidth, kHeight, 1, 1, 0);
    return p;
}

const Operation kOperations[] = {
    {"default_config", [](Subject& h) { return plain([&] { h.default_config(); }); }, unchanged("")},
    {"emit_data_out",
     [](Subject& h) {
         const uint8_t unit[3] = {1, 2, 3};
         AVPacket* packet = av_packet_alloc();
         h.units.clear();
         h.emit_data_out(unit, sizeof unit, packet);
         av_packet_free(&packet);
         return std::to_string(h.units.size()) + " unit";
     },
     unchanged("1 unit")},
    {"host_emit_data_out",
     [](Subject& h) {
         return plain([&] { h.GeneralStreamingVideoEncoder::host_emit_data_out(nullptr, 0, nullptr); });
     },
     unchanged("")},
    {"output_name", [](Subject& h) { return h.GeneralStreamingVideoEncoder::output_name(); },
     unchanged("(unknown)")},
    {"begin_output",
     [](Subject& h) {
         h.begin_output();
         const sliding_window_v4* w = h.output_window;
         return w ? truth(w->data == w->base && w->end == w->base) : "none";
     },
     {"none -> closed 0", "none -> open 1", "true -> open+ 1", "true -> open+ 1", "none -> closed 1",
      "none -> closed 0"}},
    {"write_video",
     [](Subject& h) { return truth(write_picture(h, 6)); },
     {"true -> closed 0", "true -> open+ 1", "true -> open+ 1", "true -> open+ 1", "true -> closed 1",
      "true -> closed 0"}},
    {"flush_delayed_video",
     [](Subject& h) { return truth(h.flush_delayed_video()); },
     {"false -> closed 0", "false -> open 1", "true -> open+ 1", "false -> open+ 1", "false -> closed 1",
      "false -> closed 0"}},
    {"free_encoder",
     [](Subject& h) { return plain([&] { h.free_encoder(); }); },
     {" -> closed 0", " -> closed 1", " -> closed 1", " -> closed 1", " -> closed 1", " -> closed 0"}},
    {"init_encoder",
     [](Subject& h) { return truth(h.init_encoder()); },
     {"false -> closed 0", "true -> open 1", "true -> open+ 1", "true -> open+ 1", "true -> open 1",
      "false -> closed 0"}},
    {"client_addref",
     [](Subject& h) { return truth(h.client_addref()); },
     {"true -> open 1", "true -> open 2", "true -> open+ 2", "true -> open+ 2", "true -> open 2",
      "true -> open 1"}},
    {"client_unref",
     [](Subject& h) { return plain([&] { h.client_unref(); }); },
     {" -> closed -1", " -> closed 0", " -> closed 0", " -> closed 0", " -> closed 0", " -> closed -1"}},
    {"on_set",
     [](Subject& h) { return plain([&] { h.on_set("bitrate", "400000", false); }); },
     {" -> closed 0", " -> closed 1", " -> closed 1", " -> closed 1", " -> closed 1", " -> closed 0"}},
    {"on_set with restart",
     [](Subject& h) { return plain([&] { h.on_set("bitrate", "400000", true); }); },
     {" -> closed 0", " -> open 1", " -> open 1", " -> open 1", " -> open 1", " -> closed 0"}},
    {"on_set at once", [](Subject& h) { return plain([&] { h.on_set("name", "n", true); }); }, unchanged("")},
    {"on_set of an unknown key", [](Subject& h) { return plain([&] { h.on_set("nothing", "1", true); }); },
     unchanged("")},
    {"on_set disabling with restart",
     [](Subject& h) { return plain([&] { h.on_set("enable", "0", true); }); },
     {" -> closed 0", " -> closed 1", " -> closed 1", " -> closed 1", " -> closed 1", " -> closed 0"}},
    {"on_report",
     [](Subject& h) {
         comm_socket_v4_packet packet;
         common_pkt_parsing parsing;
         const bool written = h.on_report(&packet, "e", nullptr, &parsing);
         return truth(written) + " " + packet.activity.substr(0, 1);
     },
     by_openness("true 0", "true 1")},
    {"transmit", [](Subject& h) { return plain([&] { h.transmit(); }); }, unchanged("")},
    {"write_scte20",
     [](Subject& h) {
         uint8_t body[5] = {1, 2, 3, 4, 5};
         h.write_scte20(body, sizeof body);
         return std::to_string(h.scte20_length) + " bytes";
     },
     unchanged("5 bytes")},
    {"write_cea708",
     [](Subject& h) {
         zeph_cea708_word words[2] = {{0xFF, 1}, {0xFE, 2}};
         h.write_cea708(2, words);
         return std::to_string(h.cea708_queue.size()) + " words";
     },
     by_openness("0 words", "2 words")},
    {"write_eia608",
     [](Subject& h) {
         h.write_eia608(0, 0x1420);
         h.write_eia608(1, 0x1520);
         h.write_eia608(2, 0x1620);
         return std::to_string(h.eia608_field1_queue.size() + h.eia608_field2_queue.size()) + " words";
     },
     by_openness("0 words", "2 words")},
    {"write_mpeg2_gop_timecode",
     [](Subject& h) {
         mpeg2_gop_timecode_t tc;
         tc.valid = 1;
         tc.hours = 10;
         tc.text = "a text that does not fit into a short string";
         h.write_mpeg2_gop_timecode(tc);
         return std::to_string(h.pending_gop_timecode.hours) + " " + h.pending_gop_timecode.text;
     },
     unchanged("10 a text that does not fit into a short string")},
    {"mpeg_insert_output outside the unit",
     [](Subject& h) {
         uint8_t elsewhere = 0;
         uint8_t* out = &elsewhere;
         const bool inserted = h.mpeg_insert_output(out, 1);
         return truth(inserted || out != &elsewhere);
     },
     unchanged("false")},
    {"mpeg_insert_eia608_cc", [](Subject& h) { return plain([&] { h.mpeg_insert_eia608_cc(); }); },
     unchanged("")},
    {"mpeg_insert_cea708_cc", [](Subject& h) { return plain([&] { h.mpeg_insert_cea708_cc(2); }); },
     unchanged("")},
    {"h264_insert_cea708_cc", [](Subject& h) { return plain([&] { h.h264_insert_cea708_cc(2); }); },
     unchanged("")},
    {"mpeg_insert_scte20", [](Subject& h) { return plain([&] { h.mpeg_insert_scte20(2); }); }, unchanged("")},
    {"mpeg_insert_gop_timecode",
     [](Subject& h) {
         mpeg2_gop_timecode_t tc;
         tc.valid = 1;
         return plain([&] { h.mpeg_insert_gop_timecode(tc); });
     },
     unchanged("")},
    {"do_resize_yuv_plane",
     [](Subject& h) {
         return scale_plane([&](uint8_t* d, const uint8_t* s) {
             h.do_resize_yuv_plane(d, 16, s, 8, 4, 4, kHalf, kHalf, 8, 8, -1);
         });
     },
     unchanged("scaled")},
    {"do_resize_yuv_plane_deinterlace_basic_mode3",
     [](Subject& h) {
         return scale_plane([&](uint8_t* d, const uint8_t* s) {
             h.do_resize_yuv_plane_deinterlace_basic_mode3(d, 16, s, 8, 4, 4, kHalf, kHalf, 8, 8, 0);
         });
     },
     unchanged("scaled")},
    {"do_resize_yuv_plane_deinterlace_adaptive_mode4",
     [](Subject& h) {
         uint8_t map[1] = {1};
         return scale_plane([&](uint8_t* d, const uint8_t* s) {
             h.do_resize_yuv_plane_deinterlace_adaptive_mode4(d, 16, s, 8, 4, 4, kHalf, kHalf, 8, 8, 0, map,
                                                              1, 0, 0);
         });
     },
     unchanged("scaled")},
    {"resize_input_to_output",
     [](Subject& h) {
         const TestPicture& p = picture();
         return plain([&] {
             h.resize_input_to_output(p.y.data(), kWidth, p.u.data(), kWidth / 2, p.v.data(), kWidth / 2,
                                      kWidth, kHeight, -1);
         });
     },
     scaling()},
    {"resize_input_to_output_deinterlace_basic_mode3",
     [](Subject& h) {
         const TestPicture& p = picture();
         return plain([&] {
             h.resize_input_to_output_deinterlace_basic_mode3(p.y.data(), kWidth, p.u.data(), kWidth / 2,
                                                              p.v.data(), kWidth / 2, kWidth, kHeight, 0);
         });
     },
     scaling()},
    {"resize_input_to_output_deinterlace_adaptive_mode4",
     [](Subject& h) {
         const TestPicture& p = picture();
         return plain([&] {
             h.resize_input_to_output_deinterlace_adaptive_mode4(p.y.data(), kWidth, p.u.data(), kWidth / 2,
                                                                 p.v.data(), kWidth / 2, kWidth, kHeight, 0);
         });
     },
     scaling()},
    {"enabled_eia608", [](Subject& h) { return truth(h.enabled_eia608()); }, unchanged("true")},
    {"enabled_cea708", [](Subject& h) { return truth(h.enabled_cea708()); }, unchanged("true")},
    {"do_eia608_on_p_frames", [](Subject& h) { return truth(h.do_eia608_on_p_frames()); }, unchanged("true")},
};

class StateGrid : public testing::TestWithParam<int> {};

TEST_P(StateGrid, EachOperationInEachState) {
    for (size_t at = 0; at < kStateCount; at++)
        for (const Operation& operation : kOperations) {
            if (operation.outcomes[at] == kApart) continue;
            SCOPED_TRACE(std::string(operation.name) + " when " + kStates[at].name);
            std::string outcome;
            stderr_of([&] {
                const std::unique_ptr<Subject> host = kStates[at].make(GetParam());
                ASSERT_EQ(summary(*host), std::string(kStates[at].open ? "open" : "closed") +
                                              (kStates[at].window ? "+ " : " ") +
                                              std::to_string(kStates[at].clients));
                outcome = operation.run(*host);
                outcome += " -> " + summary(*host);
            });
            EXPECT_EQ(outcome, operation.outcomes[at]);
        }
}

/// Whatever was done before, the encoder closes, opens, and encodes as many pictures as it is given.
TEST_P(StateGrid, AnyOperationLeavesTheEncoderUsable) {
    for (size_t at = 0; at < kStateCount; at++)
        for (const Operation& operation : kOperations) {
            if (operation.outcomes[at] == kApart) continue;
            SCOPED_TRACE(std::string(operation.name) + " when " + kStates[at].name);
            stderr_of([&] {
                const std::unique_ptr<Subject> host = kStates[at].make(GetParam());
                operation.run(*host);
                host->free_encoder();
                host->refcount = 0;
                host->units.clear();
                host->codec_id = GetParam();
                host->bitrate = kBitrate;
                host->enabled = true;
                ASSERT_TRUE(host->client_addref()) << host->last_error;
                for (unsigned n = 0; n < 3; n++) ASSERT_TRUE(write_picture(*host, n));
                while (host->flush_delayed_video()) {
                }
                EXPECT_EQ(host->units.size(), 3u);
                host->client_unref();
                EXPECT_EQ(summary(*host), "closed 0");
            });
        }
}

/// The output size outlives the working planes, so that only their absence can tell.
TEST(StateGridDeathTest, AScalingOfAClosedEncoderDoesNothing) {
    for (const Operation& operation : kOperations) {
        if (operation.outcomes.back() != kApart) continue;
        SCOPED_TRACE(operation.name);
        std::unique_ptr<Subject> host;
        stderr_of([&] { host = make_closed(kMpeg2); });
        EXPECT_EXIT(
            {
                operation.run(*host);
                _exit(0);
            },
            testing::ExitedWithCode(0), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, StateGrid, testing::ValuesIn(kAllCodecs),
                         [](const testing::TestParamInfo<int>& info) {
                             return "Codec" + std::to_string(info.param);
                         });

}  // namespace
}  // namespace gsve::test
