// A host's hooks had better not throw. Those that do end the operation that called them, which then says so
// as it can, and the next one works.

#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/mpeg2_units.h"
#include "support/scripted_encoder.h"

namespace gsve::test {
namespace {

/// A host whose hooks throw while it is told to.
class Throwing : public CallLogHost {
public:
    bool init_encoder() override {
        if (throws_in_init) throw std::runtime_error("init_encoder");
        return CallLogHost::init_encoder();
    }
    const char* output_name() override {
        if (throws_in_name) throw std::runtime_error("output_name");
        return CallLogHost::output_name();
    }
    void free_encoder() override {
        CallLogHost::free_encoder();
        if (throws_in_free) throw std::runtime_error("free_encoder");
    }
    void resize_input_to_output(const uint8_t*, size_t, const uint8_t*, size_t, const uint8_t*, size_t,
                                unsigned, unsigned, int) override {
        if (throws_in_resizer) throw std::length_error("resize_input_to_output");
    }

    bool throws_in_init = false, throws_in_name = false, throws_in_free = false, throws_in_resizer = false;
};

class HookExceptions : public ScriptedEncoder {
protected:
    void open(const char* codec, const Settings& settings = {}) {
        open_encoder(throwing, codec, settings);
        surroundings().scripted = true;
    }
    bool write(uint64_t timestamp) { return write_to(throwing, timestamp); }

    Throwing throwing;
};

TEST_F(HookExceptions, EndThePictureWhoseUnitTheHostReceives) {
    open("h.265");
    throwing.on_emit = [](auto...) { throw std::bad_alloc(); };
    script({packet(filler(20)), packet(filler(30))});
    EXPECT_FALSE(write(0));
    throwing.on_emit = nullptr;
    EXPECT_TRUE(write(1));
    ASSERT_EQ(throwing.units.size(), 2u);
    EXPECT_EQ(hex(throwing.units[1].bytes), hex(filler(30)));
}

TEST_F(HookExceptions, EndThePictureThatTheHostResizes) {
    open("mpeg-2", {{"resize", "32x32"}});
    throwing.throws_in_resizer = true;
    script({packet(filler(20))});
    EXPECT_FALSE(write(0));
    EXPECT_TRUE(throwing.units.empty());
    throwing.throws_in_resizer = false;
    EXPECT_TRUE(write(1));
    EXPECT_EQ(throwing.units.size(), 1u);
}

TEST_F(HookExceptions, LeaveWhatWasTakenForAPictureToNoOther) {
    open("mpeg-2");
    uint8_t block[] = {1, 2, 3};
    throwing.write_scte20(block, sizeof(block));
    throwing.requested_picture_type = 'I';
    throwing.gop_sync_frame_number = 3;
    throwing.on_emit = [](auto...) { throw std::bad_alloc(); };
    script({packet(filler(20)), packet(filler(30))});
    EXPECT_FALSE(write(0));
    EXPECT_EQ(throwing.scte20_length, 0u);
    EXPECT_EQ(throwing.requested_picture_type, -1);
    EXPECT_EQ(throwing.gop_sync_frame_number, -1);
    EXPECT_EQ(throwing.input_frame_count, 1u);
}

TEST_F(HookExceptions, LeaveWhatWaitsForAPictureToTheNextAndKeepNoRecord) {
    open("mpeg-2", {{"resize", "32x32"}, {"constant bitrate per frame", "0"}});
    uint8_t block[] = {1, 2, 3};
    throwing.write_scte20(block, sizeof(block));
    throwing.throws_in_resizer = true;
    for (uint64_t n = 0; n < 2000; n++) EXPECT_FALSE(write(n));
    EXPECT_EQ(throwing.scte20_length, sizeof(block));
    EXPECT_EQ(throwing.input_frame_count, 2000u);
    EXPECT_TRUE(throwing.aux_data_map.empty());
}

TEST_F(HookExceptions, DoNotComeOutOfTheOperationsForClients) {
    Throwing host;
    describe_source(host, 64, 64, 25, 1);
    configure(host, {{"encoder", "mpeg-2"}, {"bitrate", "1000000"}, {"enable", "1"}});
    host.throws_in_init = true;
    EXPECT_FALSE(host.client_addref());
    host.throws_in_init = false;
    host.throws_in_free = true;
    EXPECT_NO_THROW(host.client_unref());
    EXPECT_EQ(host.refcount, 0);
    host.throws_in_free = false;
}

TEST_F(HookExceptions, EndTheDrain) {
    open("h.265");
    script({held_back(), packet(filler(20)), packet(filler(30))});
    stderr_of([&] { EXPECT_TRUE(write(0)); });
    throwing.on_emit = [](auto...) { throw std::runtime_error("host_emit_data_out"); };
    EXPECT_FALSE(throwing.flush_delayed_video());
    throwing.on_emit = nullptr;
    EXPECT_TRUE(throwing.flush_delayed_video());
    ASSERT_EQ(throwing.units.size(), 2u);
    EXPECT_EQ(hex(throwing.units[1].bytes), hex(filler(30)));
}

TEST_F(HookExceptions, EndTheOpeningAndLeaveNothingBehind) {
    describe_source(throwing, 64, 48, 25, 1);
    configure(throwing,
              {{"encoder", "mpeg-2"}, {"bitrate", "1000000"}, {"enable", "1"}, {"debug file", "1"}});
    throwing.throws_in_name = true;
    stderr_of([&] { EXPECT_FALSE(throwing.client_addref()); });
    EXPECT_FALSE(throwing.encoder_open);
    EXPECT_EQ(throwing.mpeg_context, nullptr);
    EXPECT_EQ(throwing.last_error, "Out of memory");
    throwing.throws_in_name = false;
    stderr_of([&] { EXPECT_TRUE(throwing.init_encoder()); });
    EXPECT_TRUE(throwing.encoder_open);
    EXPECT_EQ(throwing.last_error, "");
}

TEST_F(HookExceptions, EndTheReopeningAfterASettingThatIsKept) {
    open("mpeg-2");
    throwing.throws_in_init = true;
    EXPECT_NO_THROW(throwing.on_set("gop size", "7", true));
    EXPECT_EQ(throwing.gop_size, 7);
    EXPECT_FALSE(throwing.encoder_open);
    throwing.throws_in_init = false;
    stderr_of([&] { throwing.on_set("gop size", "8", true); });
    EXPECT_TRUE(throwing.encoder_open);
}

}  // namespace
}  // namespace gsve::test
