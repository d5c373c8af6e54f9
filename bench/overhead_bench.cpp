// What write_video() costs beside the codec: the time of a call less the time that it spends inside
// avcodec_send_frame() and avcodec_receive_packet(), which are timed where the library calls them. The
// bare exchange and the overhead thus come from the same calls of the same run.
//
// `overhead_us` is the overhead of one picture in microseconds, `percent` its share of the bare exchange.

#include <dlfcn.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>

#include "support/recording_host.h"
#include "support/test_picture.h"

namespace {

using Clock = std::chrono::steady_clock;

Clock::duration g_codec_time{};

/// Adds the time until it goes out of scope to the codec's.
struct CodecTimer {
    Clock::time_point begin = Clock::now();
    ~CodecTimer() { g_codec_time += Clock::now() - begin; }
};

template <class Function>
Function* next_symbol(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
    static const auto real = next_symbol<decltype(avcodec_send_frame)>("avcodec_send_frame");
    const CodecTimer timer;
    return real(context, frame);
}

extern "C" int avcodec_receive_packet(AVCodecContext* context, AVPacket* packet) {
    static const auto real = next_symbol<decltype(avcodec_receive_packet)>("avcodec_receive_packet");
    const CodecTimer timer;
    return real(context, packet);
}

namespace {

using gsve::test::TestPicture;

/// A host that throws its units away.
struct DiscardingHost : GeneralStreamingVideoEncoder {
    void host_emit_data_out(const uint8_t* data, size_t, AVPacket*) override {
        benchmark::DoNotOptimize(data);
    }
};

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr unsigned kPictures = 16;

void overhead(benchmark::State& state, const char* codec, bool captions) {
    std::vector<TestPicture> pictures;
    for (unsigned number = 0; number < kPictures; number++)
        pictures.emplace_back(kWidth, kHeight, 1, 1, number);

    DiscardingHost host;
    gsve::test::describe_source(host, kWidth, kHeight, 30000, 1001);
    gsve::test::configure(host, {{"encoder", codec},
                                 {"bitrate", "12000000"},
                                 {"enable", "1"},
                                 {"enable cea-708", captions ? "1" : "0"}});
    if (!host.client_addref()) {
        state.SkipWithError(host.last_error.c_str());
        return;
    }

    Clock::duration total{};
    Clock::duration codec_total{};
    uint64_t timestamp = 0;
    for (auto _ : state) {
        const TestPicture& picture = pictures[timestamp % kPictures];
        if (captions) {
            host.write_eia608(0, static_cast<uint16_t>(0x2020 + timestamp % 64));
            host.write_eia608(1, 0x8080);
        }
        g_codec_time = {};
        const Clock::time_point begin = Clock::now();
        host.write_video(picture.y.data(), kWidth, picture.u.data(), kWidth / 2, picture.v.data(), kWidth / 2,
                         -1, timestamp++);
        const Clock::duration elapsed = Clock::now() - begin;
        total += elapsed;
        codec_total += g_codec_time;
        state.SetIterationTime(std::chrono::duration<double>(elapsed - g_codec_time).count());
    }
    const auto microseconds = [](Clock::duration d) {
        return std::chrono::duration<double, std::micro>(d).count();
    };
    const auto calls = static_cast<double>(state.iterations());
    state.counters["overhead_us"] = microseconds(total - codec_total) / calls;
    state.counters["bare_us"] = microseconds(codec_total) / calls;
    state.counters["percent"] = 100.0 * microseconds(total - codec_total) / microseconds(codec_total);
}

BENCHMARK_CAPTURE(overhead, h264_1080_lines, "h.264", false)->UseManualTime()->Iterations(300);
BENCHMARK_CAPTURE(overhead, h264_1080_lines_captions, "h.264", true)->UseManualTime()->Iterations(300);
BENCHMARK_CAPTURE(overhead, mpeg2_1080_lines, "mpeg-2", false)->UseManualTime()->Iterations(300);
BENCHMARK_CAPTURE(overhead, mpeg2_1080_lines_captions, "mpeg-2", true)->UseManualTime()->Iterations(300);
BENCHMARK_CAPTURE(overhead, h265_1080_lines, "h.265", false)->UseManualTime()->Iterations(100);

}  // namespace

BENCHMARK_MAIN();
