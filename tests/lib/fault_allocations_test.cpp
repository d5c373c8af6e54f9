// Every allocation of the encoder, of the host's libraries and of libavcodec made to fail in turn, once and
// for good: no exception, the stated result, nothing left behind, and the next run as good as any.

#include "support/fault_sweep.h"

namespace gsve::test {
namespace {

INSTANTIATE_TEST_SUITE_P(Allocations, FaultSweep, testing::ValuesIn(fault_cases({FaultKind::kAllocation})),
                         fault_case_name);

/// What waits for a picture: captions, time code, tag, a change of aspect ratio and of field order.
struct Waiting {
    size_t cea708, field1, field2;
    uint64_t scte20;
    bool timecode;
    uint64_t tag;
    int picture_type;
    bool operator==(const Waiting&) const = default;
};

Waiting waiting_for(const FaultSubject& host) {
    return {host.cea708_queue.size(),   host.eia608_field1_queue.size(),      host.eia608_field2_queue.size(),
            host.scte20_length,         host.pending_gop_timecode.valid != 0, host.host_frame_tag,
            host.requested_picture_type};
}

TEST(PictureWithoutMemory, LeavesWhatWaitedForItToTheNextOne) {
    FaultInjector& faults = fault_injector();
    const mpeg2_gop_timecode_t timecode = long_timecode();
    for (const int codec : kAllCodecs)
        for (long number = 1;; number++) {
            SCOPED_TRACE("codec " + std::to_string(codec) + ", fault " + std::to_string(number));
            ASSERT_LT(number, 1000);
            FaultSubject host(codec);
            host.debug_file = false;
            host.resize_width = host.resize_height = host.resize_deinterlace = -1;
            stderr_of([&] { open_for_faults(host); });
            stderr_of([&] { EXPECT_TRUE(host.write(0)); });
            host.write_captions();
            host.write_timecode(timecode);
            host.follow_source(2);
            host.host_frame_tag = 77;
            host.current_aspect_num = 16;
            host.current_aspect_den = 9;
            host.current_field_order = 2;
            const Waiting before = waiting_for(host);
            bool written = false;
            stderr_of([&] {
                faults.arm(FaultKind::kAllocation, number, false);
                written = host.write(1);
                faults.disarm();
            });
            faults.alive.clear();
            if (faults.injected == 0) break;
            if (faults.codec_only || written) continue;
            EXPECT_EQ(waiting_for(host), before) << "lost for lack of memory in " << faults.first.operation;
            const std::string printed = stderr_of([&] { EXPECT_TRUE(host.write(1)); });
            EXPECT_NE(printed.find("gsve: a/r change, forcing I-frame\n"), printed.npos) << printed;
            EXPECT_NE(printed.find("gsve: field order change, forcing I-frame\n"), printed.npos) << printed;
        }
}

}  // namespace
}  // namespace gsve::test
