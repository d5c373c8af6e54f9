#pragma once

// A host as its developer would write it: a subclass that keeps what the encoder emits and counts the calls
// that go through its virtual operations.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gsve.h>

namespace gsve::test {

/// One emitted unit, copied inside host_emit_data_out().
struct Unit {
    std::vector<uint8_t> bytes;
    int64_t pts = 0;
    int64_t dts = 0;
    bool key = false;
    uint64_t tag = 0;
};

/// Records units and calls; behaves as the base class otherwise.
class RecordingHost : public GeneralStreamingVideoEncoder {
public:
    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        units.push_back({{data, data + len},
                         pkt->pts,
                         pkt->dts,
                         (pkt->flags & AV_PKT_FLAG_KEY) != 0,
                         current_output_tag});
    }
    const char* output_name() override { return "recording"; }
    bool init_encoder() override {
        init_calls++;
        return GeneralStreamingVideoEncoder::init_encoder();
    }
    void free_encoder() override {
        free_calls++;
        GeneralStreamingVideoEncoder::free_encoder();
    }

    std::vector<Unit> units;
    int init_calls = 0;
    int free_calls = 0;
};

/// Describes a progressive 4:2:0 source.
inline void describe_source(GeneralStreamingVideoEncoder& encoder, int width, int height, int rate_num,
                            int rate_den) {
    encoder.input_width = width;
    encoder.input_height = height;
    encoder.frame_rate_num = rate_num;
    encoder.frame_rate_den = rate_den;
}

/// Applies settings without restarting.
inline void configure(GeneralStreamingVideoEncoder& encoder,
                      const std::vector<std::pair<const char*, const char*>>& settings) {
    for (const auto& [key, value] : settings) encoder.on_set(key, value, false);
}

}  // namespace gsve::test
