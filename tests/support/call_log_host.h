#pragma once

// A host that overrides the operations of a picture's road, notes each call with its arguments, and then does
// what the base class does.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/recording_host.h"

namespace gsve::test {

struct ResizeCall {
    std::string operation;
    const uint8_t* planes[3];
    size_t strides[3];
    unsigned width, height;
    int field;
};

class CallLogHost : public RecordingHost {
public:
    /// Leaves no client attached: most tests end in the middle of a stream.
    ~CallLogHost() override { refcount = 0; }

    void emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        calls.push_back("emit_data_out(" + std::to_string(len) + ")");
        RecordingHost::emit_data_out(data, len, pkt);
    }
    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        RecordingHost::host_emit_data_out(data, len, pkt);
        if (on_emit) on_emit(data, len, pkt);
    }
    void resize_input_to_output(const uint8_t* y, size_t y_stride, const uint8_t* u, size_t u_stride,
                                const uint8_t* v, size_t v_stride, unsigned width, unsigned height,
                                int field) override {
        resizes.push_back({"plain", {y, u, v}, {y_stride, u_stride, v_stride}, width, height, field});
    }
    void resize_input_to_output_deinterlace_basic_mode3(const uint8_t* y, size_t y_stride, const uint8_t* u,
                                                        size_t u_stride, const uint8_t* v, size_t v_stride,
                                                        unsigned width, unsigned height, int field) override {
        resizes.push_back({"basic", {y, u, v}, {y_stride, u_stride, v_stride}, width, height, field});
    }
    void resize_input_to_output_deinterlace_adaptive_mode4(const uint8_t* y, size_t y_stride,
                                                           const uint8_t* u, size_t u_stride,
                                                           const uint8_t* v, size_t v_stride, unsigned width,
                                                           unsigned height, int field) override {
        resizes.push_back({"adaptive", {y, u, v}, {y_stride, u_stride, v_stride}, width, height, field});
    }
    bool mpeg_insert_output(uint8_t*& out, size_t n) override {
        calls.push_back("mpeg_insert_output(" + std::to_string(n) + ")");
        return insert_output ? insert_output(out, n) : RecordingHost::mpeg_insert_output(out, n);
    }
    void mpeg_insert_eia608_cc() override {
        calls.push_back("mpeg_insert_eia608_cc()");
        if (in_eia608_inserter) in_eia608_inserter();
        RecordingHost::mpeg_insert_eia608_cc();
    }
    void mpeg_insert_cea708_cc(size_t pts) override {
        calls.push_back("mpeg_insert_cea708_cc(" + std::to_string(pts) + ")");
        RecordingHost::mpeg_insert_cea708_cc(pts);
    }
    void h264_insert_cea708_cc(size_t pts) override {
        calls.push_back("h264_insert_cea708_cc(" + std::to_string(pts) + ")");
        RecordingHost::h264_insert_cea708_cc(pts);
    }
    void mpeg_insert_scte20(size_t pts) override {
        calls.push_back("mpeg_insert_scte20(" + std::to_string(pts) + ")");
        RecordingHost::mpeg_insert_scte20(pts);
    }
    void mpeg_insert_gop_timecode(const mpeg2_gop_timecode_t& tc) override {
        calls.push_back("mpeg_insert_gop_timecode(" + std::to_string(tc.valid) + ":" +
                        std::to_string(tc.hours) + ":" + tc.text + ")");
        RecordingHost::mpeg_insert_gop_timecode(tc);
    }

    std::vector<std::string> calls;
    std::vector<ResizeCall> resizes;
    std::function<void(const uint8_t*, size_t, AVPacket*)> on_emit;
    std::function<bool(uint8_t*&, size_t)> insert_output;  ///< stands in for the base's, when set
    std::function<void()> in_eia608_inserter;
};

}  // namespace gsve::test
