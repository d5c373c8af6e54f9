// Memory that runs out while pictures, captions and time codes come in: every allocation is made to fail in
// turn, no exception may reach the host, and the next call must work.

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/mpeg2_units.h"
#include "support/scripted_encoder.h"

namespace {

/// Allocations of operator new until one fails; negative: none does.
long allocations_left = -1;
bool allocation_failed = false;

}  // namespace

[[gnu::noinline]] void* operator new(size_t size) {
    if (allocations_left == 0) {
        allocation_failed = true;
        throw std::bad_alloc();
    }
    if (allocations_left > 0) allocations_left--;
    if (void* memory = std::malloc(size > 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

namespace gsve::test {
namespace {

/// Counts units without an allocation of its own.
class CountingHost : public GeneralStreamingVideoEncoder {
public:
    void host_emit_data_out(const uint8_t*, size_t, AVPacket*) override { units++; }
    int units = 0;
};

class MemoryShortage : public testing::Test {
protected:
    MemoryShortage() {
        av_log_set_level(AV_LOG_QUIET);
        surroundings() = Surroundings{};
    }
    ~MemoryShortage() override { surroundings() = Surroundings{}; }

    bool write(GeneralStreamingVideoEncoder& host, uint64_t timestamp) {
        return host.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 32, -1,
                                timestamp);
    }

    /// Runs `operation` with its n-th allocation failing, for n from 0 until it needs no more. `prepare` and
    /// `inspect` run before and after with all the memory there is. Returns how many allocations it made.
    int fail_each_allocation(const std::function<void()>& prepare, const std::function<void()>& operation,
                             const std::function<void()>& inspect) {
        for (int number = 0; number < 100; number++) {
            SCOPED_TRACE("failing allocation " + std::to_string(number));
            prepare();
            bool threw = false;
            allocation_failed = false;
            allocations_left = number;
            try {
                operation();
            } catch (...) {
                threw = true;
            }
            allocations_left = -1;
            EXPECT_FALSE(threw) << "an exception reached the host";
            if (!allocation_failed) return number;
            inspect();
        }
        ADD_FAILURE() << "allocations without end";
        return 100;
    }

    TestPicture picture{64, 48, 1, 1, 0};
};

const std::string kLongText(200, 't');

TEST_F(MemoryShortage, FailsThePictureAndNotTheEncoder) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        SCOPED_TRACE(codec);
        CountingHost host;
        open_encoder(host, codec, {{"enable cea-708", "1"}, {"enable eia-608", "1"}, {"b frames", "0"}});
        stderr_of([&] { write(host, 0); });
        uint64_t timestamp = 1;
        bool result = false;
        const auto prepare = [&] {
            mpeg2_gop_timecode_t timecode;
            timecode.valid = 1;
            timecode.text = kLongText;
            host.write_mpeg2_gop_timecode(timecode);
            host.bgop_building_text.assign(90, 'P');
            host.dgop_building_text.assign(90, 'P');
            host.bgop_text.shrink_to_fit();
            host.dgop_text.shrink_to_fit();
            host.requested_picture_type = 'P';
            host.gop_sync_frame_number = 1;
        };
        const auto inspect = [&] {
            EXPECT_FALSE(result);
            const int units = host.units;
            stderr_of([&] { EXPECT_TRUE(write(host, timestamp++)); });
            EXPECT_GE(host.units, units);
            EXPECT_TRUE(host.encoder_open);
        };
        const int allocations = fail_each_allocation(
            prepare, [&] { result = write(host, timestamp++); }, inspect);
        EXPECT_GT(allocations, 1) << "a record and its text";
        const int units = host.units;
        stderr_of([&] {
            for (int i = 0; i < 5; i++) EXPECT_TRUE(write(host, timestamp++));
        });
        EXPECT_GT(host.units, units);
        host.client_unref();
    }
}

TEST_F(MemoryShortage, LosesNoDrainedUnit) {
    CountingHost host;
    open_encoder(host, "mpeg-2", {{"constant bitrate per frame", "1"}, {"b frames", "2"}});
    bool result = false;
    const auto reopen_with_delayed_pictures = [&] {
        stderr_of([&] {
            host.free_encoder();
            EXPECT_TRUE(host.init_encoder());
            for (uint64_t timestamp = 0; timestamp < 4; timestamp++) write(host, timestamp);
        });
        host.pts_map.clear();  // the drained unit's timestamps make new entries
        host.units = 0;
    };
    const auto inspect = [&] {
        EXPECT_TRUE(result);
        EXPECT_EQ(host.units, 1);
    };
    const int allocations = fail_each_allocation(
        reopen_with_delayed_pictures, [&] { result = host.flush_delayed_video(); }, inspect);
    EXPECT_GE(allocations, 1) << "entries of unknown timestamps";
    inspect();
    host.client_unref();
}

TEST_F(MemoryShortage, LosesNewCaptionsAndKeepsTheQueues) {
    CountingHost host;
    host.encoder_open = true;
    host.refcount = 1;
    std::vector<zeph_cea708_word> words(256, zeph_cea708_word{0xFE, 7});
    const auto fill = [&] {
        host.eia608_field1_queue.assign(20, 0x1420);
        host.eia608_field1_queue.shrink_to_fit();
        host.cea708_queue.assign(100, {0xFF, 1});
        host.cea708_queue.shrink_to_fit();
    };
    const int allocations = fail_each_allocation(
        fill, [&] { host.write_cea708(256, words.data()); },
        [&] { EXPECT_EQ(host.cea708_queue.size(), 100u); });
    EXPECT_GT(allocations, 0);
    EXPECT_EQ(host.cea708_queue.size(), 356u);

    fail_each_allocation(
        fill, [&] { host.write_eia608(0, 0x4142); },
        [&] { EXPECT_EQ(host.eia608_field1_queue.size(), 20u); });
    EXPECT_EQ(host.eia608_field1_queue.size(), 21u);
    host.encoder_open = false;
    host.refcount = 0;
}

TEST_F(MemoryShortage, KeepsThePendingTimecode) {
    CountingHost host;
    mpeg2_gop_timecode_t first, second;
    first.valid = second.valid = 1;
    first.hours = 1;
    first.text = "first";
    second.hours = 2;
    second.text = kLongText;
    const int allocations = fail_each_allocation(
        [&] {
            host.pending_gop_timecode.text.clear();
            host.pending_gop_timecode.text.shrink_to_fit();
            host.write_mpeg2_gop_timecode(first);
        },
        [&] { host.write_mpeg2_gop_timecode(second); },
        [&] {
            EXPECT_EQ(host.pending_gop_timecode.hours, 1);
            EXPECT_EQ(host.pending_gop_timecode.text, "first");
        });
    EXPECT_EQ(allocations, 1);
    EXPECT_EQ(host.pending_gop_timecode.hours, 2);
    EXPECT_EQ(host.pending_gop_timecode.text, kLongText);
}

}  // namespace
}  // namespace gsve::test
