// What inserting one picture's ancillary data costs: captions as "CC", SCTE 20 and A/53 user data and the GOP
// time code in an MPEG-2 picture of 50 kB, and the caption SEI in an H.264 one. `allocations` counts calls of
// operator new per picture.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include <benchmark/benchmark.h>

#include <orb_utils_v4/io.h>

#include "support/recording_host.h"

namespace {

uint64_t g_allocations = 0;

}  // namespace

// Out of line, or the compiler sees memory of malloc() meet operator delete.
[[gnu::noinline]] void* operator new(size_t size) {
    g_allocations++;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace {

constexpr size_t kHeadRoom = 8192;
constexpr size_t kUnitSize = 50000;
constexpr uint64_t kPts = 100;

using Bytes = std::vector<uint8_t>;

/// A unit of kUnitSize bytes that begins with `head` and goes on with slice data.
Bytes unit_with(Bytes head) {
    const size_t slice_data = head.size();
    head.resize(kUnitSize);
    for (size_t i = slice_data; i < kUnitSize; i++) head[i] = static_cast<uint8_t>(i * 7 | 1);
    return head;
}

const Bytes kMpeg2Head = {
    0, 0, 1, 0xB3, 0x2D, 0x01, 0xE0, 0x24, 0x24, 0x9F, 0x23, 0x81,  // sequence header
    0, 0, 1, 0xB5, 0x14, 0x82, 0x00, 0x01, 0x00, 0x00,              // sequence extension
    0, 0, 1, 0xB8, 0x00, 0x08, 0x00, 0x40,                          // group of pictures
    0, 0, 1, 0x00, 0x00, 0x0F, 0xFF, 0xF8,                          // picture
    0, 0, 1, 0xB5, 0x8F, 0xFF, 0xF3, 0x41, 0x80,                    // picture coding extension
    0, 0, 1, 0x01, 0x12,                                            // first slice
};
const Bytes kH264Head = {
    0, 0, 0, 1,    0x09, 0x10,                                      // access unit delimiter
    0, 0, 0, 1,    0x67, 0x42, 0x00, 0x1E, 0x95, 0xA8, 0x28, 0x0F,  // sequence parameter set
    0, 0, 0, 1,    0x68, 0xCE, 0x3C, 0x80,                          // picture parameter set
    0, 0, 1, 0x65, 0x88,                                            // IDR slice
};

/// An encoder with one unit in its window and captions waiting for it.
struct LoadedEncoder : GeneralStreamingVideoEncoder {
    explicit LoadedEncoder(Bytes picture) : unit(std::move(picture)) {
        frame_rate_num = 30000;
        frame_rate_den = 1001;
        frame_rate_divider = 1;
        output_window = sliding_window_v4_create_buffer(1 << 20);
        std::memcpy(output_window->base + kHeadRoom, unit.data(), unit.size());
        mpeg_packet = av_packet_alloc();
        mpeg_packet->pts = mpeg_packet->dts = kPts;
        for (uint64_t pts = kPts - 3; pts <= kPts; pts++) {
            GeneralStreamingVideoEncoderAuxData& aux = aux_data_map[pts];
            aux.eia608_word_field1 = 0x4865;
            aux.cea708_count = 18;
            for (uint32_t i = 0; i < aux.cea708_count; i++) aux.cea708_words[i] = {0xFE, 0x1234};
            aux.scte20_data_length = 20;
            std::memset(aux.scte20_data, 0x55, aux.scte20_data_length);
            aux.gop_timecode = {1, 0, 1, 2, 3, 4, {}};
        }
    }

    /// Puts the unit back as the codec returned it; insertion only moves its first bytes.
    void reset() {
        output_window->data = output_window->base + kHeadRoom;
        output_window->end = output_window->data + unit.size();
        std::memcpy(output_window->data, unit.data(), 64);
        eia608_next_pts = kPts - 3;
    }

    Bytes unit;
};

template <class Insert>
void insertion(benchmark::State& state, const Bytes& head, const Insert& insert) {
    LoadedEncoder encoder(unit_with(head));
    uint64_t inserted = 0;
    g_allocations = 0;
    for (auto _ : state) {
        encoder.reset();
        insert(encoder);
        inserted =
            static_cast<uint64_t>(encoder.output_window->end - encoder.output_window->data) - kUnitSize;
        benchmark::ClobberMemory();
    }
    state.counters["allocations"] =
        static_cast<double>(g_allocations) / static_cast<double>(state.iterations());
    state.counters["inserted_bytes"] = static_cast<double>(inserted);
}

void mpeg2(benchmark::State& state) {
    insertion(state, kMpeg2Head, [](LoadedEncoder& e) {
        e.mpeg_insert_eia608_cc();
        e.mpeg_insert_scte20(kPts);
        e.mpeg_insert_cea708_cc(kPts);
        e.mpeg_insert_gop_timecode(e.aux_data_map[kPts].gop_timecode);
    });
}

void h264(benchmark::State& state) {
    insertion(state, kH264Head, [](LoadedEncoder& e) { e.h264_insert_cea708_cc(kPts); });
}

BENCHMARK(mpeg2);
BENCHMARK(h264);

}  // namespace

BENCHMARK_MAIN();
