// What happens to a unit after the codec returned it: the drain of delayed pictures, the way to the host and
// the debug dump file, and the record of side data that travels beside it.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/mpeg2_units.h"
#include "support/scripted_encoder.h"

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FlushDelayedVideo : public ScriptedEncoder {
protected:
    /// An open encoder that has seen one picture and holds it back.
    void open_with_a_picture(const char* codec, const Settings& settings = {}) {
        open(codec, settings);
        stderr_of([&] { write(0); });
        host.calls.clear();
    }
};
using FlushDelayedVideoDeath = FlushDelayedVideo;

// Guards

TEST_F(FlushDelayedVideo, ReturnsFalseBeforeTheEncoderIsOpenWhereWriteVideoReturnsTrue) {
    CallLogHost closed;
    EXPECT_FALSE(closed.flush_delayed_video());
    EXPECT_TRUE(write_to(closed, 0));
}

TEST_F(FlushDelayedVideo, ReturnsFalseBeforeTheFirstPicture) {
    open("h.264");
    script({packet(filler(5))});
    EXPECT_FALSE(host.flush_delayed_video());
    EXPECT_EQ(surroundings().drains, 0);
    EXPECT_EQ(host.output_window, nullptr);
}

TEST_F(FlushDelayedVideo, NeedsAClientAndTheCodecObjectsButNoPicture) {
    open_with_a_picture("h.264");
    const auto drains_without = [&](auto& member) {
        surroundings().outcomes = {packet(filler(5))};
        const auto kept = std::exchange(member, {});
        const bool result = host.flush_delayed_video();
        member = kept;
        return result;
    };
    EXPECT_FALSE(drains_without(host.encoder_open)) << "closed";
    EXPECT_FALSE(drains_without(host.refcount)) << "client";
    EXPECT_FALSE(drains_without(host.mpeg_packet)) << "packet";
    EXPECT_FALSE(drains_without(host.mpeg_context)) << "context";
    EXPECT_FALSE(drains_without(host.mpeg_codec)) << "codec";
    EXPECT_FALSE(drains_without(host.output_window)) << "window";
    EXPECT_EQ(surroundings().drains, 0);
    EXPECT_TRUE(drains_without(host.mpeg_frame)) << "the drain sends no picture";
    EXPECT_EQ(surroundings().drains, 1);
}

TEST_F(FlushDelayedVideoDeath, AbortsWhenTheWindowIsBrokenBeforeTheDrain) {
    open_with_a_picture("h.264");
    surroundings().window_insane = true;
    EXPECT_DEATH(host.flush_delayed_video(),
                 "lib/gsve:605: .*GeneralStreamingVideoEncoder::flush_delayed_video\\(\\).*Assertion "
                 "`sliding_window_v4_is_sane\\(output\\)' failed");
}

TEST_F(FlushDelayedVideoDeath, AbortsWhenTheWindowIsBrokenByThePacket) {
    open_with_a_picture("h.264");
    script({packet(filler(5))});
    surroundings().during_send = [] { surroundings().window_insane = true; };
    EXPECT_DEATH(host.flush_delayed_video(),
                 "lib/gsve:624: .*GeneralStreamingVideoEncoder::flush_delayed_video\\(\\).*Assertion "
                 "`sliding_window_v4_is_sane\\(output\\)' failed");
}

// The drain

TEST_F(FlushDelayedVideo, DeliversOneUnitACallUntilTheCodecHasNoMore) {
    open_with_a_picture("h.264");
    script({packet(filler(5), 1, 3, 2), packet(filler(6), 0, 4, 4), receive_error(AVERROR_EOF)});
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_EQ(host.units.size(), 1u);
    EXPECT_EQ(host.last_key_flag, 1);
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_EQ(host.last_key_flag, 0);
    EXPECT_FALSE(host.flush_delayed_video());
    ASSERT_EQ(host.units.size(), 2u);
    EXPECT_EQ(hex(host.units[0].bytes), hex(filler(5)));
    EXPECT_EQ(hex(host.units[1].bytes), hex(filler(6)));
    EXPECT_EQ(host.units[0].pts, 3);
    EXPECT_EQ(host.units[0].dts, 2);
    EXPECT_EQ(surroundings().drains, 3);
}

TEST_F(FlushDelayedVideo, EndsOnEveryErrorAndReleasesThePacket) {
    const struct {
        Outcome outcome;
        const char* what;
    } cases[] = {
        {send_error(AVERROR(EINVAL)), "send"},
        {send_error(AVERROR(EAGAIN)), "send again"},
        {receive_error(AVERROR(EAGAIN)), "receive again"},
        {receive_error(AVERROR_EOF), "end of stream"},
        {receive_error(AVERROR_EXTERNAL), "receive"},
        {packet({}), "empty packet"},
        {packet(filler(101)), "packet larger than the window"},
    };
    open_with_a_picture("h.264");
    host.output_window->limit = host.output_window->base + 8192 + 100;
    for (const auto& row : cases) {
        script({row.outcome});
        EXPECT_EQ(stderr_of([&] { EXPECT_FALSE(host.flush_delayed_video()) << row.what; }), "") << row.what;
        EXPECT_EQ(host.mpeg_packet->size, 0) << row.what;
        EXPECT_EQ(host.mpeg_packet->buf, nullptr) << row.what;
        EXPECT_THAT(host.units, IsEmpty()) << row.what;
    }
    script({packet(filler(100))});
    EXPECT_TRUE(host.flush_delayed_video()) << "a packet that fills the window";
}

TEST_F(FlushDelayedVideo, ReceivesAfterTheCodecReportsTheEndOfItsStream) {
    open_with_a_picture("h.264");
    Outcome last = packet(filler(5));
    last.send = AVERROR_EOF;
    script({last, send_error(AVERROR(EINVAL))});
    EXPECT_TRUE(host.flush_delayed_video());
    const int receives = surroundings().receives;
    EXPECT_FALSE(host.flush_delayed_video());
    EXPECT_EQ(surroundings().receives, receives) << "no receive after another send error";
}

TEST_F(FlushDelayedVideo, ReleasesTheLastPacketAndResetsTheWindowBeforeItSends) {
    open_with_a_picture("h.264");
    script({packet(filler(5)), packet(filler(6))});
    write(1);
    bool checked = false;
    surroundings().during_send = [&] {
        checked = true;
        EXPECT_EQ(host.mpeg_packet->buf, nullptr);
        EXPECT_EQ(host.output_window->data, host.output_window->base + 8192);
        EXPECT_EQ(host.output_window->end, host.output_window->base + 8192);
    };
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_TRUE(checked);
}

TEST_F(FlushDelayedVideo, TrimsTrailingZerosOfMpeg2) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, codec, {{"remove trailing zeros", "1"}});
        surroundings().scripted = true;
        stderr_of([&] { write_to(encoder, 0); });
        surroundings().outcomes = {packet(filler(20) + Bytes(10, 0)), packet(filler(20) + Bytes(2, 0))};
        EXPECT_TRUE(encoder.flush_delayed_video());
        EXPECT_TRUE(encoder.flush_delayed_video());
        ASSERT_EQ(encoder.units.size(), 2u);
        EXPECT_EQ(encoder.units[0].bytes.size(), encoder.codec_id == 2 ? 24u : 30u) << codec;
        EXPECT_EQ(encoder.units[1].bytes.size(), 22u) << codec;
    }
}

TEST_F(FlushDelayedVideo, KeepsTrailingZerosUnlessAskedToTrim) {
    open_with_a_picture("mpeg-2");
    script({packet(filler(20) + Bytes(10, 0))});
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_EQ(host.units.at(0).bytes.size(), 30u);
}

TEST_F(FlushDelayedVideo, LeavesTimestampsAloneWhereWriteVideoMultipliesThem) {
    open("h.264");
    host.frame_rate_divider = 3;
    script(
        {packet(filler(5), 1, 4, 2), packet(filler(5), 1, 4, 2), packet(filler(5), 1, AV_NOPTS_VALUE, -2)});
    write(0);
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_TRUE(host.flush_delayed_video());
    ASSERT_EQ(host.units.size(), 3u);
    EXPECT_EQ(host.units[0].pts, 12);
    EXPECT_EQ(host.units[0].dts, 6);
    EXPECT_EQ(host.units[1].pts, 4);
    EXPECT_EQ(host.units[1].dts, 2);
    EXPECT_EQ(host.units[2].pts, AV_NOPTS_VALUE);
    EXPECT_EQ(host.units[2].dts, -2);
    EXPECT_THAT(host.pts_map, IsEmpty());
}

TEST_F(FlushDelayedVideo, MapsTimestampsUnderPerFrameRateControl) {
    open("mpeg-2", {{"constant bitrate per frame", "1"}});
    stderr_of([&] {
        for (const uint64_t timestamp : {50, 54, 61}) write(timestamp);
    });
    script({packet(picture_unit(1), 1, 2, 1), packet(picture_unit(1), 1, 9, -3)});
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_TRUE(host.flush_delayed_video());
    ASSERT_EQ(host.units.size(), 2u);
    EXPECT_EQ(host.units[0].pts, 11);
    EXPECT_EQ(host.units[0].dts, 4);
    EXPECT_EQ(host.units[1].pts, 0);
    EXPECT_EQ(host.units[1].dts, 0);
    EXPECT_EQ(host.pts_map.at(9), 0u);
    EXPECT_EQ(host.pts_map.at(static_cast<uint64_t>(-3)), 0u);
    EXPECT_EQ(host.pts_map.size(), 5u);
}

TEST_F(FlushDelayedVideo, InsertsNothingAndKeepsTagAndCounters) {
    open("mpeg-2", {{"enable eia-608", "1"}, {"enable cea-708", "1"}});
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 1;
    timecode.hours = 3;
    host.write_mpeg2_gop_timecode(timecode);
    host.host_frame_tag = 7;
    script({held_back()});
    stderr_of([&] { write(0); });
    host.current_output_tag = 41;
    const uint64_t output = host.output_frame_count, input = host.input_frame_count;
    const double level = host.drop_level, rate = host.smoothed_bitrate;
    script({packet(gop_unit(kClosedGop), 1, 0, 0)});
    EXPECT_TRUE(host.flush_delayed_video());
    ASSERT_EQ(host.units.size(), 1u);
    EXPECT_EQ(hex(host.units[0].bytes), hex(gop_unit(kClosedGop)));
    EXPECT_EQ(host.units[0].tag, 41u);
    EXPECT_THAT(host.calls, ElementsAre("emit_data_out(" + std::to_string(gop_unit(0).size()) + ")"));
    EXPECT_EQ(host.output_frame_count, output);
    EXPECT_EQ(host.input_frame_count, input);
    EXPECT_EQ(host.drop_level, level);
    EXPECT_EQ(host.smoothed_bitrate, rate);
    EXPECT_EQ(host.aux_data_map.size(), 1u);
}

TEST_F(FlushDelayedVideo, HandsOverTheCodecsOwnPacket) {
    open_with_a_picture("h.264");
    bool checked = false;
    host.on_emit = [&](const uint8_t* data, size_t len, AVPacket* pkt) {
        checked = true;
        EXPECT_EQ(data, host.output_window->base + 8192);
        EXPECT_EQ(len, 6u);
        EXPECT_EQ(pkt, host.mpeg_packet);
        EXPECT_EQ(pkt->size, 6);
        EXPECT_NE(pkt->data, data) << "the packet's own bytes, not the window's";
        EXPECT_EQ(pkt->data, pkt->buf->data);
    };
    script({packet(filler(6))});
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_TRUE(checked);
}

TEST_F(FlushDelayedVideo, LetsTheHostCloseTheEncoderWhileItReceivesTheUnit) {
    open_with_a_picture("mpeg-2");
    script({packet(picture_unit(1)), packet(picture_unit(1))});
    host.on_emit = [&](const uint8_t*, size_t, AVPacket*) { host.client_unref(); };
    EXPECT_TRUE(host.flush_delayed_video());
    EXPECT_FALSE(host.encoder_open);
    EXPECT_FALSE(host.flush_delayed_video());
}

TEST_F(FlushDelayedVideo, LetsTheHostReopenTheEncoderWhileItReceivesTheUnit) {
    open_with_a_picture("mpeg-2");
    script({packet(picture_unit(1))});
    host.on_emit = [&](const uint8_t*, size_t, AVPacket*) { host.on_set("bitrate", "2000000", true); };
    stderr_of([&] { EXPECT_TRUE(host.flush_delayed_video()); });
    EXPECT_TRUE(host.encoder_open);
    EXPECT_FALSE(host.flush_delayed_video()) << "the new run has no picture yet";
}

TEST_F(FlushDelayedVideo, ReturnsFalseAtOnceWhenNothingIsDelayed) {
    open("mpeg-2");
    script({packet(picture_unit(1)), receive_error(AVERROR_EOF)});
    write(0);
    ASSERT_EQ(host.units.size(), 1u);
    EXPECT_FALSE(host.flush_delayed_video());
    EXPECT_EQ(host.units.size(), 1u);
}

TEST_F(FlushDelayedVideo, DrainsExactlyWhatTheCodecHeldBack) {
    for (const char* b_frames : {"0", "2", "5"}) {
        CallLogHost encoder;
        open_encoder(encoder, "mpeg-2", {{"b frames", b_frames}});
        size_t delayed = 0;
        stderr_of([&] {
            for (uint64_t timestamp = 0; timestamp < 10; timestamp++) write_to(encoder, timestamp);
            delayed = 10 - encoder.units.size();
            EXPECT_EQ(encoder.codec_delay_count, delayed);
        });
        for (size_t drained = 0; drained < delayed; drained++) EXPECT_TRUE(encoder.flush_delayed_video());
        EXPECT_FALSE(encoder.flush_delayed_video()) << b_frames << " B-frames";
        EXPECT_EQ(encoder.units.size(), 10u);
    }
}

TEST_F(FlushDelayedVideo, LeavesTheCodecAtTheEndOfItsStreamUntilItIsReopened) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        SCOPED_TRACE(codec);
        CallLogHost encoder;
        open_encoder(encoder, codec, {{"b frames", "2"}});
        stderr_of([&] {
            for (uint64_t timestamp = 0; timestamp < 7; timestamp++) write_to(encoder, timestamp);
            while (encoder.flush_delayed_video()) {
            }
        });
        EXPECT_EQ(encoder.units.size(), 7u);
        EXPECT_FALSE(encoder.flush_delayed_video());
        EXPECT_EQ(stderr_of([&] { EXPECT_TRUE(write_to(encoder, 7)); }), "");
        EXPECT_EQ(encoder.units.size(), 7u) << "no unit after the end";

        stderr_of([&] {
            encoder.free_encoder();
            EXPECT_TRUE(encoder.init_encoder());
            for (uint64_t timestamp = 8; timestamp < 12; timestamp++) write_to(encoder, timestamp);
            while (encoder.flush_delayed_video()) {
            }
        });
        EXPECT_EQ(encoder.units.size(), 11u);
    }
}

TEST_F(FlushDelayedVideo, LetsSideDataGrowTooOldForItsPacket) {
    for (const uint64_t held : {60, 61}) {
        surroundings() = Surroundings{};
        CallLogHost encoder;
        open_encoder(encoder, "h.264", {{"enable cea-708", "1"}});
        surroundings().scripted = true;
        stderr_of([&] {
            encoder.host_frame_tag = 9;
            encoder.write_eia608(0, 0x4142);
            for (uint64_t timestamp = 0; timestamp < held; timestamp++) write_to(encoder, timestamp);
            surroundings().outcomes = {packet(Bytes{0, 0, 0, 1, 0x65} + filler(20), 1, 0)};
            write_to(encoder, held);
        });
        ASSERT_EQ(encoder.units.size(), 1u);
        EXPECT_EQ(encoder.units[0].tag, held == 60 ? 9u : kAllOnes) << held << " pictures held back";
        const Bytes pair = {0xFC, 0xC1, 0xC2};  // of field 1, with parity
        const Bytes& unit = encoder.units[0].bytes;
        const bool captioned = std::search(unit.begin(), unit.end(), pair.begin(), pair.end()) != unit.end();
        EXPECT_EQ(captioned, held == 60) << held << " pictures held back";
    }
}

// The way to the host

/// A file that is gone when the test is over.
class TemporaryFile {
public:
    TemporaryFile() {
        char path[] = "/tmp/gsve-emission-XXXXXX";
        descriptor = mkstemp(path);
        unlink(path);
    }
    ~TemporaryFile() { close(descriptor); }
    Bytes content() const {
        Bytes bytes(static_cast<size_t>(lseek(descriptor, 0, SEEK_END)));
        const ssize_t got = pread(descriptor, bytes.data(), bytes.size(), 0);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return bytes;
    }
    int descriptor;
};

class EmitDataOut : public ScriptedEncoder {
protected:
    AVPacket* codec_packet = av_packet_alloc();
    ~EmitDataOut() override { av_packet_free(&codec_packet); }
};

TEST_F(EmitDataOut, HandsItsArgumentsToTheHost) {
    CallLogHost closed;
    const Bytes unit = filler(12);
    bool checked = false;
    closed.on_emit = [&](const uint8_t* data, size_t len, AVPacket* pkt) {
        checked = true;
        EXPECT_EQ(data, unit.data());
        EXPECT_EQ(len, 12u);
        EXPECT_EQ(pkt, codec_packet);
    };
    closed.emit_data_out(unit.data(), unit.size(), codec_packet);
    EXPECT_TRUE(checked);
}

TEST_F(EmitDataOut, WritesTheUnitToTheDumpFileFirst) {
    CallLogHost closed;
    TemporaryFile dump;
    closed.debug_fd = dup(dump.descriptor);
    const Bytes first = filler(12), second = filler(7);
    size_t dumped = 0;
    closed.on_emit = [&](const uint8_t*, size_t, AVPacket*) { dumped = dump.content().size(); };
    closed.emit_data_out(first.data(), first.size(), codec_packet);
    EXPECT_EQ(dumped, 12u);
    closed.emit_data_out(second.data(), second.size(), codec_packet);
    EXPECT_EQ(hex(dump.content()), hex(first + second));
}

TEST_F(EmitDataOut, TakesDescriptorZeroForAFileAndMinusOneForNone) {
    const int kept = dup(0);
    for (const int descriptor : {0, -1}) {
        TemporaryFile dump;
        ASSERT_EQ(dup2(dump.descriptor, 0), 0);
        CallLogHost closed;
        closed.debug_fd = descriptor;
        const Bytes unit = filler(5);
        closed.emit_data_out(unit.data(), unit.size(), codec_packet);
        closed.debug_fd = -1;
        EXPECT_EQ(dump.content().size(), descriptor == 0 ? 5u : 0u);
        EXPECT_EQ(closed.units.size(), 1u);
    }
    dup2(kept, 0);
    close(kept);
}

TEST_F(EmitDataOut, IgnoresWriteErrors) {
    CallLogHost closed;
    closed.debug_fd = ::open("/dev/null", O_RDONLY);
    const Bytes unit = filler(5);
    EXPECT_EQ(stderr_of([&] { closed.emit_data_out(unit.data(), unit.size(), codec_packet); }), "");
    EXPECT_EQ(closed.units.size(), 1u);
}

TEST_F(EmitDataOut, DoesNothingInTheBaseHook) {
    GeneralStreamingVideoEncoder base;
    TemporaryFile dump;
    base.debug_fd = dup(dump.descriptor);
    const Bytes unit = filler(5);
    base.host_emit_data_out(unit.data(), unit.size(), codec_packet);
    EXPECT_EQ(dump.content().size(), 0u);
    base.emit_data_out(unit.data(), unit.size(), codec_packet);
    EXPECT_EQ(dump.content().size(), 5u);
}

TEST_F(EmitDataOut, DumpsTheUnitsOfBothPathsAsTheHostReceivesThem) {
    open("mpeg-2", {{"enable cea-708", "1"}});
    TemporaryFile dump;
    host.debug_fd = dup(dump.descriptor);
    script({packet(picture_unit(1)), packet(picture_unit(2))});
    write(0);
    EXPECT_TRUE(host.flush_delayed_video());
    ASSERT_EQ(host.units.size(), 2u);
    EXPECT_EQ(hex(dump.content()), hex(host.units[0].bytes + host.units[1].bytes));
    EXPECT_GT(host.units[0].bytes.size(), picture_unit(1).size()) << "captions included";
}

TEST_F(EmitDataOut, LeavesTheDumpFileOutWhenTheHostOverridesIt) {
    struct Bypass : RecordingHost {
        void emit_data_out(const uint8_t*, size_t, AVPacket*) override { emitted++; }
        int emitted = 0;
    } bypass;
    open_encoder(bypass, "h.264");
    surroundings().scripted = true;
    TemporaryFile dump;
    bypass.debug_fd = dup(dump.descriptor);
    surroundings().outcomes = {packet(filler(5)), packet(filler(5))};
    write_to(bypass, 0);
    EXPECT_TRUE(bypass.flush_delayed_video());
    EXPECT_EQ(bypass.emitted, 2);
    EXPECT_EQ(dump.content().size(), 0u);
}

// The record of side data

TEST(AuxData, StartsEmpty) {
    const GeneralStreamingVideoEncoderAuxData record;
    EXPECT_EQ(record.eia608_word_field1, 0);
    EXPECT_EQ(record.eia608_word_field2, 0);
    EXPECT_EQ(record.cea708_count, 0u);
    for (const zeph_cea708_word& word : record.cea708_words) {
        EXPECT_EQ(word.header, 0);
        EXPECT_EQ(+word.value, 0);  // + makes a value of the packed member
    }
    EXPECT_EQ(record.scte20_data_length, 0u);
    EXPECT_EQ(record.host_frame_tag, kAllOnes);
    EXPECT_EQ(record.gop_timecode.valid, 0);
    EXPECT_EQ(record.gop_timecode.drop_frame_flag, 0);
    EXPECT_EQ(record.gop_timecode.hours, 0);
    EXPECT_EQ(record.gop_timecode.minutes, 0);
    EXPECT_EQ(record.gop_timecode.seconds, 0);
    EXPECT_EQ(record.gop_timecode.pictures, 0);
    EXPECT_EQ(record.gop_timecode.text, "");
}

TEST(AuxData, LaysItsFieldsOutInOrder) {
    const GeneralStreamingVideoEncoderAuxData record;
    const auto at = [&](const auto& member) {
        return reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&record);
    };
    EXPECT_EQ(at(record.eia608_word_field1), 8) << "after the pointer to the virtual table";
    EXPECT_EQ(at(record.eia608_word_field2), 10);
    EXPECT_EQ(at(record.cea708_count), 12);
    EXPECT_EQ(at(record.cea708_words), 16);
    EXPECT_EQ(at(record.scte20_data), 16 + 32 * 3);
    EXPECT_EQ(at(record.scte20_data_length), 16 + 32 * 3 + 1024);
    EXPECT_EQ(at(record.host_frame_tag), 16 + 32 * 3 + 1024 + 8);
    EXPECT_EQ(at(record.gop_timecode), 16 + 32 * 3 + 1024 + 16);
    EXPECT_EQ(at(record.gop_timecode.text) - at(record.gop_timecode), 8);
    EXPECT_EQ(sizeof record.scte20_data, 1024u);
}

TEST(AuxData, HasAVirtualDestructorAndIsCopiedByValue) {
    using Record = GeneralStreamingVideoEncoderAuxData;
    EXPECT_TRUE(std::has_virtual_destructor_v<Record>);
    Record record;
    record.gop_timecode.text = "a text that is too long for the small string buffer";
    const Record copy = record;
    record.gop_timecode.text[0] = 'A';
    EXPECT_EQ(copy.gop_timecode.text, "a text that is too long for the small string buffer");
}

}  // namespace
}  // namespace gsve::test
