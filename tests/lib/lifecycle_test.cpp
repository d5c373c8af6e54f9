// Construction, reference counting, closing and destruction.

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orb_utils_v4/io.h>

#include "support/interposed_codec.h"
#include "support/setting_fields.h"
#include "support/subject.h"
#include "support/test_picture.h"

namespace gsve::test {

/// operator new, counted, and made to fail on demand.
struct HeapListener {
    bool armed = false;
    int failing_allocation = -1;  ///< counted from 0 since it was armed; -1 none
    int allocations = 0;
    long alive = 0;
    std::vector<size_t> sizes;

    void arm(int failing) {
        sizes.clear();
        sizes.reserve(1024);
        failing_allocation = failing;
        allocations = 0;
        alive = 0;
        armed = true;
    }
};
HeapListener heap;

void* listened_new(size_t size) {
    if (heap.armed) {
        heap.sizes.push_back(size);
        if (heap.allocations++ == heap.failing_allocation) throw std::bad_alloc();
        heap.alive++;
    }
    if (void* memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}

void listened_delete(void* memory) noexcept {
    if (heap.armed && memory) heap.alive--;
    std::free(memory);
}

}  // namespace gsve::test

// Inlined, they would look to the compiler like a new that is given to free.
[[gnu::noinline]] void* operator new(size_t size) { return gsve::test::listened_new(size); }
[[gnu::noinline]] void* operator new[](size_t size) { return gsve::test::listened_new(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { gsve::test::listened_delete(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { gsve::test::listened_delete(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { gsve::test::listened_delete(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept {
    gsve::test::listened_delete(memory);
}

namespace gsve::test {
namespace {

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

int open_null() { return ::open("/dev/null", O_WRONLY); }

/// Gives the encoder `count` pictures of its input size.
void encode(GeneralStreamingVideoEncoder& encoder, unsigned count, unsigned first = 0) {
    for (unsigned n = first; n < first + count; n++) {
        const TestPicture p(encoder.input_width, encoder.input_height, encoder.input_chroma_shift_x,
                            encoder.input_chroma_shift_y, n);
        ASSERT_TRUE(encoder.write_video(p.y.data(), p.width, p.u.data(), p.chroma_width, p.v.data(),
                                        p.chroma_width, -1, n));
    }
}

TEST(EncoderNames, AreIndexedByCodecId) {
    const char* const expected[9] = {"none", "", "mpeg-2", "", "h.264", "", "", "", "h.265"};
    for (int id = 0; id < 9; id++) EXPECT_STREQ(gsve_encoder_str[id], expected[id]) << "codec id " << id;
}

TEST(Constructor, GivesEveryFieldItsValue) {
    GeneralStreamingVideoEncoder e;
    EXPECT_EQ(e.mpeg_codec, nullptr);
    EXPECT_EQ(e.mpeg_context, nullptr);
    EXPECT_EQ(e.mpeg_packet, nullptr);
    EXPECT_EQ(e.mpeg_frame, nullptr);
    EXPECT_EQ(e.output_window, nullptr);
    EXPECT_EQ(e.codec_delay_count, 0u);
    EXPECT_EQ(e.codec_delay_ms, 0u);
    EXPECT_TRUE(e.eia608_field1_queue.empty());
    EXPECT_TRUE(e.eia608_field2_queue.empty());
    EXPECT_TRUE(e.cea708_queue.empty());
    EXPECT_TRUE(e.aux_data_map.empty());
    EXPECT_TRUE(e.pts_map.empty());
    EXPECT_EQ(e.frame_counter, 0u);
    EXPECT_FALSE(e.enabled_default);
    EXPECT_EQ(e.encoder_index, 0u);
    EXPECT_EQ(e.refcount, 0);
    EXPECT_FALSE(e.encoder_open);
    EXPECT_FALSE(e.codec_changed);
    EXPECT_EQ(e.debug_fd, -1);
    EXPECT_EQ(e.input_chroma_shift_x, 1u);
    EXPECT_EQ(e.input_chroma_shift_y, 1u);
    for (int plane = 0; plane < 4; plane++) {
        EXPECT_EQ(e.resize_buffer[plane], nullptr) << plane;
        EXPECT_EQ(e.resize_buffer_stride[plane], 0u) << plane;
    }
    EXPECT_EQ(e.default_aspect_num, 4u);
    EXPECT_EQ(e.default_aspect_den, 3u);
    EXPECT_EQ(e.current_aspect_num, -1);
    EXPECT_EQ(e.current_aspect_den, -1);
    EXPECT_EQ(e.current_field_order, -1);
    EXPECT_EQ(e.vbr_value, -1);
    EXPECT_EQ(e.encoded_frame_count, 0u);
    EXPECT_EQ(e.last_error, "");
    EXPECT_EQ(e.last_notes, "");
    EXPECT_EQ(e.dgop_text, "");
    EXPECT_EQ(e.bgop_text, "");
    EXPECT_EQ(e.dgop_building_text, "");
    EXPECT_EQ(e.bgop_building_text, "");
    EXPECT_EQ(e.input_width, 0);
    EXPECT_EQ(e.input_height, 0);
    EXPECT_EQ(e.frame_rate_num, -1);
    EXPECT_EQ(e.frame_rate_den, -1);
    EXPECT_EQ(e.input_interlaced, 0u);
    EXPECT_EQ(e.requested_picture_type, -1);
    EXPECT_EQ(e.gop_sync_frame_number, -1);
    EXPECT_EQ(e.effective_gop_size, -1);
    EXPECT_EQ(e.scte20_length, 0u);
    EXPECT_EQ(e.host_frame_tag, UINT64_MAX);
    EXPECT_EQ(e.current_output_tag, UINT64_MAX);
    EXPECT_FALSE(e.global_header);
    EXPECT_EQ(e.pending_gop_timecode.valid, 0);
    EXPECT_EQ(e.pending_gop_timecode.drop_frame_flag, 0);
    EXPECT_EQ(e.pending_gop_timecode.hours, 0);
    EXPECT_EQ(e.pending_gop_timecode.minutes, 0);
    EXPECT_EQ(e.pending_gop_timecode.seconds, 0);
    EXPECT_EQ(e.pending_gop_timecode.pictures, 0);
    EXPECT_EQ(e.pending_gop_timecode.text, "");
}

TEST(Constructor, AllocatesTheFirstNodeOfTheCea708Queue) {
    heap.arm(-1);
    auto encoder = std::make_unique<GeneralStreamingVideoEncoder>();
    heap.armed = false;
    const size_t node = 170 * sizeof(zeph_cea708_word);
    EXPECT_EQ(std::count(heap.sizes.begin(), heap.sizes.end(), node), 1) << "nodes of 170 constructs";
}

TEST(Constructor, PropagatesEveryFailedAllocationWithoutLeaking) {
    int failures = 0;
    for (;; failures++) {
        ASSERT_LT(failures, 100) << "construction never succeeds";
        heap.arm(failures);
        bool threw = false;
        try {
            GeneralStreamingVideoEncoder encoder;
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        heap.armed = false;
        EXPECT_EQ(heap.alive, 0) << "allocations left after failing number " << failures;
        if (!threw) break;
    }
    EXPECT_GE(failures, 6) << "three deques with a map and a node each";
}

TEST(SideData, ConstructsEmptyAndUntagged) {
    const GeneralStreamingVideoEncoderAuxData record;
    EXPECT_EQ(record.eia608_word_field1, 0);
    EXPECT_EQ(record.eia608_word_field2, 0);
    EXPECT_EQ(record.cea708_count, 0u);
    for (const zeph_cea708_word& word : record.cea708_words) {
        EXPECT_EQ(word.header, 0);
        EXPECT_EQ(uint16_t{word.value}, 0);
    }
    EXPECT_EQ(std::size(record.cea708_words), 32u);
    EXPECT_EQ(std::size(record.scte20_data), 1024u);
    EXPECT_EQ(record.scte20_data_length, 0u);
    EXPECT_EQ(record.host_frame_tag, UINT64_MAX);
    EXPECT_EQ(record.gop_timecode.valid, 0);
    EXPECT_EQ(record.gop_timecode.drop_frame_flag, 0);
    EXPECT_EQ(record.gop_timecode.hours, 0);
    EXPECT_EQ(record.gop_timecode.minutes, 0);
    EXPECT_EQ(record.gop_timecode.seconds, 0);
    EXPECT_EQ(record.gop_timecode.pictures, 0);
    EXPECT_EQ(record.gop_timecode.text, "");
}

TEST(Hooks, HaveHarmlessBases) {
    GeneralStreamingVideoEncoder encoder;
    const std::string printed = stderr_of([&] {
        encoder.host_emit_data_out(nullptr, 0, nullptr);
        EXPECT_STREQ(encoder.output_name(), "(unknown)");
        encoder.transmit();
    });
    EXPECT_EQ(printed, "");
    EXPECT_EQ(encoder.output_window, nullptr);
}

TEST(BeginOutput, DoesNothingWithoutAWindow) {
    GeneralStreamingVideoEncoder encoder;
    encoder.begin_output();
    EXPECT_EQ(encoder.output_window, nullptr);
}

TEST(BeginOutput, EmptiesTheWindowAtItsBase) {
    GeneralStreamingVideoEncoder encoder;
    encoder.output_window = sliding_window_v4_create_buffer(4096);
    ASSERT_NE(encoder.output_window, nullptr);
    uint8_t* const base = encoder.output_window->base;
    uint8_t* const limit = encoder.output_window->limit;
    encoder.output_window->data = base + 100;
    encoder.output_window->end = base + 300;
    encoder.begin_output();
    EXPECT_EQ(encoder.output_window->base, base);
    EXPECT_EQ(encoder.output_window->limit, limit);
    EXPECT_EQ(encoder.output_window->data, base);
    EXPECT_EQ(encoder.output_window->end, base);
}

TEST(ClientUnref, OnAFreshObjectWarnsAndLeavesTheCountNegative) {
    RecordingHost host;
    EXPECT_EQ(stderr_of([&] { host.client_unref(); }), "WARNING: encoder[0] negative refcount -1\n");
    EXPECT_EQ(host.refcount, -1);
    EXPECT_EQ(host.free_calls, 0);
    EXPECT_TRUE(host.client_addref());  // "enable" is off: succeeds without opening
    EXPECT_EQ(host.refcount, 0);
    EXPECT_EQ(host.init_calls, 1);
    EXPECT_EQ(host.free_calls, 0);
}

TEST(ClientUnref, NamesTheEncoderAndTheCountInTheWarning) {
    RecordingHost host;
    host.encoder_index = 4294967295u;
    EXPECT_EQ(stderr_of([&] {
                  host.client_unref();
                  host.client_unref();
              }),
              "WARNING: encoder[4294967295] negative refcount -1\n"
              "WARNING: encoder[4294967295] negative refcount -2\n");
    EXPECT_EQ(host.refcount, -2);
    EXPECT_EQ(host.free_calls, 0);
    host.refcount = 0;
}

TEST(ClientReferences, OpenOnEveryArrivalAndCloseOnTheLastDeparture) {
    RecordingHost host;
    host.client_addref();
    EXPECT_EQ(host.refcount, 1);
    host.client_addref();
    EXPECT_EQ(host.refcount, 2);
    EXPECT_EQ(host.init_calls, 2);
    EXPECT_EQ(stderr_of([&] { host.client_unref(); }), "");
    EXPECT_EQ(host.refcount, 1);
    EXPECT_EQ(host.free_calls, 0);
    EXPECT_EQ(stderr_of([&] { host.client_unref(); }), "");
    EXPECT_EQ(host.refcount, 0);
    EXPECT_EQ(host.free_calls, 1);
    EXPECT_EQ(host.init_calls, 2);
}

TEST(ClientAddref, ReturnsWhatTheOverriddenOpeningReturns) {
    struct Answering : GeneralStreamingVideoEncoder {
        bool init_encoder() override {
            count_seen = refcount;
            return answer;
        }
        bool answer = false;
        int count_seen = -1;
    };
    Answering host;
    EXPECT_FALSE(host.client_addref());
    EXPECT_EQ(host.count_seen, 1) << "the count rises before the encoder is opened";
    host.answer = true;
    EXPECT_TRUE(host.client_addref());
    EXPECT_EQ(host.refcount, 2) << "a failed opening keeps the client";
    host.refcount = 0;
}

TEST(FreeEncoder, TwiceInARowIsHarmless) {
    for (int codec : kAllCodecs) {
        codec_listener.reset();
        Subject host(codec);
        stderr_of([&] { ASSERT_TRUE(host.client_addref()); });
        host.free_encoder();
        host.free_encoder();
        EXPECT_FALSE(host.encoder_open) << "codec " << codec;
        EXPECT_EQ(codec_listener.alive(), 0u) << "codec " << codec;
        EXPECT_EQ(codec_listener.releases, (std::vector<std::string>{"context", "frame", "packet"}));
    }
}

TEST(FreeEncoder, ClosesAndResetsWhatBelongsToTheRun) {
    codec_listener.reset();
    Subject host(kMpeg2);
    stderr_of([&] {
        ASSERT_TRUE(host.client_addref());
        encode(host, 4);
    });
    ASSERT_NE(host.output_window, nullptr);
    ASSERT_FALSE(host.aux_data_map.empty());
    host.current_field_order = 2;
    host.current_aspect_num = 16;
    host.current_aspect_den = 9;
    host.host_frame_tag = 5;
    const int fd = host.debug_fd = open_null();
    ASSERT_GE(fd, 0);
    for (int plane = 0; plane < 4; plane++) {
        host.resize_buffer[plane] = static_cast<uint8_t*>(std::malloc(64));
        host.resize_buffer_stride[plane] = 8;
    }
    host.codec_delay_count = 3;
    host.codec_delay_ms = 120;
    host.pts_map[4] = 8;

    host.free_encoder();

    EXPECT_EQ(host.current_field_order, -1);
    EXPECT_EQ(host.current_aspect_num, -1);
    EXPECT_EQ(host.current_aspect_den, -1);
    EXPECT_EQ(host.host_frame_tag, UINT64_MAX);
    EXPECT_EQ(host.mpeg_codec, nullptr);
    EXPECT_EQ(host.mpeg_context, nullptr);
    EXPECT_EQ(host.mpeg_frame, nullptr);
    EXPECT_EQ(host.mpeg_packet, nullptr);
    EXPECT_EQ(host.debug_fd, -1);
    EXPECT_FALSE(is_open(fd));
    for (int plane = 0; plane < 4; plane++) {
        EXPECT_EQ(host.resize_buffer[plane], nullptr) << plane;
        EXPECT_EQ(host.resize_buffer_stride[plane], 0u) << plane;
    }
    EXPECT_EQ(host.codec_delay_count, 0u);
    EXPECT_EQ(host.codec_delay_ms, 0u);
    EXPECT_EQ(host.frame_counter, 0u);
    EXPECT_TRUE(host.pts_map.empty());
    EXPECT_TRUE(host.aux_data_map.empty());
    EXPECT_FALSE(host.encoder_open);
    EXPECT_EQ(host.output_window, nullptr);
    EXPECT_EQ(codec_listener.alive(), 0u);
}

TEST(FreeEncoder, LeavesSettingsQueuesTextsAndClientsAlone) {
    RecordingHost host;
    soil_settings(host, 1);
    const FieldTexts settings = setting_values(host);
    host.eia608_field1_queue = {0x1420};
    host.eia608_field2_queue = {0x1520};
    host.cea708_queue = {{0xFF, 0x0102}};
    host.last_error = "error";
    host.last_notes = "notes";
    host.dgop_text = "IBBP";
    host.bgop_text = "IPPP";
    host.refcount = 2;
    host.codec_changed = true;
    host.free_encoder();
    EXPECT_EQ(setting_values(host), settings);
    EXPECT_EQ(host.eia608_field1_queue.size(), 1u);
    EXPECT_EQ(host.eia608_field2_queue.size(), 1u);
    EXPECT_EQ(host.cea708_queue.size(), 1u);
    EXPECT_EQ(host.last_error, "error");
    EXPECT_EQ(host.last_notes, "notes");
    EXPECT_EQ(host.dgop_text, "IBBP");
    EXPECT_EQ(host.bgop_text, "IPPP");
    EXPECT_EQ(host.refcount, 2);
    EXPECT_TRUE(host.codec_changed);
    host.refcount = 0;
}

TEST(FreeEncoder, ClosesDescriptorZero) {
    const int saved = dup(STDIN_FILENO);
    const int null = open_null();
    ASSERT_EQ(dup2(null, STDIN_FILENO), STDIN_FILENO);
    {
        GeneralStreamingVideoEncoder encoder;
        encoder.debug_fd = STDIN_FILENO;
        encoder.free_encoder();
        EXPECT_EQ(encoder.debug_fd, -1);
        EXPECT_FALSE(is_open(STDIN_FILENO));
    }
    if (saved >= 0) {
        dup2(saved, STDIN_FILENO);
        close(saved);
    }
    close(null);
}

TEST(FreeEncoder, ReleasesAnyHalfBuiltState) {
    for (int made = 0; made < 8; made++) {
        codec_listener.reset();
        GeneralStreamingVideoEncoder encoder;
        if (made & 1) encoder.mpeg_context = avcodec_alloc_context3(nullptr);
        if (made & 2) encoder.mpeg_frame = av_frame_alloc();
        if (made & 4) encoder.mpeg_packet = av_packet_alloc();
        encoder.free_encoder();
        EXPECT_EQ(codec_listener.alive(), 0u) << "made " << made;
        EXPECT_EQ(encoder.mpeg_context, nullptr);
        EXPECT_EQ(encoder.mpeg_frame, nullptr);
        EXPECT_EQ(encoder.mpeg_packet, nullptr);
    }
}

TEST(FreeEncoderDeathTest, AbortsWhenFFmpegKeepsAFreedFrame) {
    GeneralStreamingVideoEncoder encoder;
    encoder.mpeg_frame = av_frame_alloc();
    EXPECT_DEATH(
        {
            codec_listener.frame_free_keeps_pointer = true;
            encoder.free_encoder();
        },
        "lib/gsve:[0-9]+: virtual void GeneralStreamingVideoEncoder::free_encoder\\(\\): "
        "Assertion `mpeg_frame == NULL' failed");
}

TEST(FreeEncoderDeathTest, AbortsWhenFFmpegKeepsAFreedPacket) {
    GeneralStreamingVideoEncoder encoder;
    encoder.mpeg_packet = av_packet_alloc();
    EXPECT_DEATH(
        {
            codec_listener.packet_free_keeps_pointer = true;
            encoder.free_encoder();
        },
        "lib/gsve:[0-9]+: virtual void GeneralStreamingVideoEncoder::free_encoder\\(\\): "
        "Assertion `mpeg_packet == NULL' failed");
}

TEST(Destructor, WithClientsLeftComplainsAndReleasesEverything) {
    codec_listener.reset();
    auto host = std::make_unique<RecordingHost>();
    describe_source(*host, 320, 240, 25, 1);
    host->codec_id = kMpeg2;
    host->enabled = true;
    stderr_of([&] {
        ASSERT_TRUE(host->client_addref());
        ASSERT_TRUE(host->client_addref());
        encode(*host, 2);
    });
    const int fd = host->debug_fd = open_null();
    // Context, picture and packet; libavcodec 61 has pictures of its own besides.
    ASSERT_GE(codec_listener.alive(), 3u);
    EXPECT_EQ(stderr_of([&] { host.reset(); }), "GVSE: encoder refcount 2 on destruct\n");
    EXPECT_EQ(codec_listener.alive(), 0u);
    EXPECT_FALSE(is_open(fd));
}

TEST(Destructor, ReportsANegativeCountToo) {
    auto host = std::make_unique<RecordingHost>();
    host->refcount = -3;
    EXPECT_EQ(stderr_of([&] { host.reset(); }), "GVSE: encoder refcount -3 on destruct\n");
}

TEST(Destructor, IsSilentWithoutClients) {
    auto host = std::make_unique<RecordingHost>();
    EXPECT_EQ(stderr_of([&] { host.reset(); }), "");
}

TEST(Lifecycle, OpensAndClosesAnyNumberOfTimes) {
    for (int codec : kAllCodecs) {
        codec_listener.reset();
        Subject host(codec);
        for (int round = 0; round < 3; round++) {
            SCOPED_TRACE("codec " + std::to_string(codec) + " round " + std::to_string(round));
            stderr_of([&] {
                ASSERT_TRUE(host.client_addref());
                EXPECT_TRUE(host.encoder_open);
                EXPECT_EQ(codec_listener.alive(), 3u);
                encode(host, 3);
                host.client_unref();
            });
            EXPECT_FALSE(host.encoder_open);
            EXPECT_EQ(codec_listener.alive(), 0u);
        }
        EXPECT_EQ(codec_listener.opened.size(), 3u);
    }
}

TEST(Lifecycle, FurtherClientsDoNotReopen) {
    codec_listener.reset();
    Subject host(kMpeg2);
    stderr_of([&] {
        ASSERT_TRUE(host.client_addref());
        const AVCodecContext* context = host.mpeg_context;
        EXPECT_TRUE(host.client_addref());
        EXPECT_EQ(host.mpeg_context, context);
    });
    EXPECT_EQ(codec_listener.opened.size(), 1u);
    EXPECT_EQ(host.init_calls, 2);
    host.client_unref();
    EXPECT_TRUE(host.encoder_open) << "one client is left";
    host.client_unref();
    EXPECT_FALSE(host.encoder_open);
}

TEST(Lifecycle, ASettingClosesAtOnceAndTheNextClientReopens) {
    codec_listener.reset();
    codec_listener.opening = Opening::kPretend;
    Subject host(kMpeg2);
    stderr_of([&] {
        ASSERT_TRUE(host.client_addref());
        host.on_set("bitrate", "5000000", false);
        EXPECT_FALSE(host.encoder_open);
        EXPECT_EQ(host.mpeg_context, nullptr);
        EXPECT_EQ(host.refcount, 1);
        ASSERT_TRUE(host.client_addref());
        EXPECT_TRUE(host.encoder_open);
    });
    ASSERT_EQ(codec_listener.opened.size(), 2u);
    EXPECT_EQ(codec_listener.opened[1].context.bit_rate, 5000000);
    codec_listener.reset();
}

TEST(Lifecycle, ARestartingSettingReopensWithTheNewSettings) {
    codec_listener.reset();
    Subject host(kMpeg2);
    stderr_of([&] {
        ASSERT_TRUE(host.client_addref());
        host.on_set("encoder", "h.264", true);
        EXPECT_TRUE(host.encoder_open);
        EXPECT_EQ(host.mpeg_context->codec_id, AV_CODEC_ID_H264);
        EXPECT_FALSE(host.codec_changed) << "opening consumes the change";
    });
    EXPECT_EQ(codec_listener.opened.size(), 2u);
    host.client_unref();
    EXPECT_EQ(codec_listener.alive(), 0u);
}

TEST(Lifecycle, ImmediateSettingsKeepTheEncoderOpen) {
    codec_listener.reset();
    Subject host(kMpeg2);
    stderr_of([&] { ASSERT_TRUE(host.client_addref()); });
    const AVCodecContext* context = host.mpeg_context;
    host.on_set("name", "one", true);
    host.on_set("gop synchronization", "1", true);
    host.on_set("remove trailing zeros", "1", true);
    host.on_set("encoder", "mpeg-2", true);
    host.on_set("encoder", "nonsense", true);
    host.on_set("no such key", "1", true);
    EXPECT_TRUE(host.encoder_open);
    EXPECT_EQ(host.mpeg_context, context);
    EXPECT_EQ(host.encoder_name, "one");
    EXPECT_TRUE(host.gop_synchronization);
    EXPECT_TRUE(host.remove_trailing_zeros);
    EXPECT_EQ(codec_listener.opened.size(), 1u);
    EXPECT_EQ(host.free_calls, 0);
}

}  // namespace
}  // namespace gsve::test
