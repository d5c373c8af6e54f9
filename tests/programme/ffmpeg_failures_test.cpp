// Every call into FFmpeg that fails is told of: as a failure, as the reason why the input ended early, or as
// damage. A function that the executable defines takes precedence over the shared libraries' own, so the
// calls of what is tested arrive here first.

#include <dlfcn.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "encoding/error.h"
#include "programme/av.h"
#include "programme/encode_programme.h"
#include "programme/stream_inspection.h"
#include "support/clip.h"
#include "support/media_files.h"
#include "support/refusing_codec.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"

namespace {

/// The call that is to fail: the function's name, and how many calls of it come before.
struct Fault {
    std::string function;
    int before = 0;
    int error = AVERROR(EIO);
    bool met = false;
} fault;
std::mutex fault_mutex;  // calls come from several threads

bool loses_times = false;  ///< the decoder

const void* program_of(const void* address) {
    Dl_info info = {};
    return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

/// Whether this call, which returns to `caller`, is to fail. FFmpeg's own calls, and the encoder library's,
/// go on as they are.
bool fails(const char* function, const void* caller) {
    if (fault.function != function || program_of(caller) != program_of(&fault)) return false;
    const std::lock_guard lock(fault_mutex);
    if (fault.met) return false;
    fault.met = fault.before-- == 0;
    return fault.met;
}

}  // namespace

// FAILING(function, result where it fails, (parameters), (arguments))
#define FAILING(function, failure, parameters, arguments)                                             \
    extern "C" decltype(failure) function parameters {                                                \
        static auto* const real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function)); \
        return fails(#function, __builtin_return_address(0)) ? (failure) : real arguments;            \
    }

FAILING(avformat_alloc_context, (AVFormatContext*)nullptr, (), ())
FAILING(avformat_find_stream_info, fault.error + 0, (AVFormatContext * c, AVDictionary** o), (c, o))
FAILING(av_read_frame, fault.error + 0, (AVFormatContext * c, AVPacket* p), (c, p))
FAILING(avformat_new_stream, (AVStream*)nullptr, (AVFormatContext * c, const AVCodec* k), (c, k))
FAILING(avformat_write_header, fault.error + 0, (AVFormatContext * c, AVDictionary** o), (c, o))
FAILING(av_write_frame, fault.error + 0, (AVFormatContext * c, AVPacket* p), (c, p))
FAILING(av_write_trailer, fault.error + 0, (AVFormatContext * c), (c))
FAILING(avio_open, fault.error + 0, (AVIOContext * *c, const char* url, int flags), (c, url, flags))
FAILING(avcodec_alloc_context3, (AVCodecContext*)nullptr, (const AVCodec* k), (k))
FAILING(avcodec_open2, fault.error + 0, (AVCodecContext * c, const AVCodec* k, AVDictionary** o), (c, k, o))
FAILING(avcodec_parameters_to_context, fault.error + 0, (AVCodecContext * c, const AVCodecParameters* p),
        (c, p))
FAILING(avcodec_parameters_copy, fault.error + 0, (AVCodecParameters * to, const AVCodecParameters* from),
        (to, from))
FAILING(avcodec_send_packet, fault.error + 0, (AVCodecContext * c, const AVPacket* p), (c, p))
extern "C" int avcodec_receive_frame(AVCodecContext* decoder, AVFrame* frame) {
    static auto* const real =
        reinterpret_cast<decltype(&avcodec_receive_frame)>(dlsym(RTLD_NEXT, "avcodec_receive_frame"));
    if (fails("avcodec_receive_frame", __builtin_return_address(0))) return fault.error;
    const int result = real(decoder, frame);
    if (loses_times) frame->pts = AV_NOPTS_VALUE;
    return result;
}
FAILING(av_bsf_alloc, fault.error + 0, (const AVBitStreamFilter* f, AVBSFContext** c), (f, c))
FAILING(av_bsf_init, fault.error + 0, (AVBSFContext * c), (c))
FAILING(av_bsf_send_packet, fault.error + 0, (AVBSFContext * c, AVPacket* p), (c, p))
FAILING(av_bsf_receive_packet, fault.error + 0, (AVBSFContext * c, AVPacket* p), (c, p))
FAILING(avfilter_graph_alloc, (AVFilterGraph*)nullptr, (), ())
FAILING(avfilter_graph_alloc_filter, (AVFilterContext*)nullptr,
        (AVFilterGraph * g, const AVFilter* f, const char* name), (g, f, name))
FAILING(av_buffersrc_parameters_alloc, (AVBufferSrcParameters*)nullptr, (), ())
FAILING(av_buffersrc_parameters_set, fault.error + 0, (AVFilterContext * c, AVBufferSrcParameters* p), (c, p))
FAILING(avfilter_init_str, fault.error + 0, (AVFilterContext * c, const char* arguments), (c, arguments))
FAILING(avfilter_graph_create_filter, fault.error + 0,
        (AVFilterContext * *c, const AVFilter* f, const char* name, const char* arguments, void* opaque,
         AVFilterGraph* g),
        (c, f, name, arguments, opaque, g))
FAILING(avfilter_inout_alloc, (AVFilterInOut*)nullptr, (), ())
FAILING(avfilter_graph_parse_ptr, fault.error + 0,
        (AVFilterGraph * g, const char* filters, AVFilterInOut** i, AVFilterInOut** o, void* log),
        (g, filters, i, o, log))
FAILING(avfilter_graph_config, fault.error + 0, (AVFilterGraph * g, void* log), (g, log))
FAILING(av_buffersrc_add_frame, fault.error + 0, (AVFilterContext * c, AVFrame* f), (c, f))
FAILING(av_buffersrc_close, fault.error + 0, (AVFilterContext * c, int64_t pts, unsigned flags),
        (c, pts, flags))
FAILING(av_buffersink_get_frame, fault.error + 0, (AVFilterContext * c, AVFrame* f), (c, f))
FAILING(av_frame_alloc, (AVFrame*)nullptr, (), ())
FAILING(av_packet_alloc, (AVPacket*)nullptr, (), ())

namespace {

using namespace gsve::programme;
using namespace gsve::test;

constexpr const char* kFunctions[] = {
    "avformat_alloc_context",
    "avformat_find_stream_info",
    "av_read_frame",
    "avformat_new_stream",
    "avformat_write_header",
    "av_write_frame",
    "av_write_trailer",
    "avio_open",
    "avcodec_alloc_context3",
    "avcodec_open2",
    "avcodec_parameters_to_context",
    "avcodec_parameters_copy",
    "avcodec_send_packet",
    "avcodec_receive_frame",
    "av_bsf_alloc",
    "av_bsf_init",
    "av_bsf_send_packet",
    "av_bsf_receive_packet",
    "avfilter_graph_alloc",
    "avfilter_graph_alloc_filter",
    "av_buffersrc_parameters_alloc",
    "av_buffersrc_parameters_set",
    "avfilter_init_str",
    "avfilter_graph_create_filter",
    "avfilter_inout_alloc",
    "avfilter_graph_parse_ptr",
    "avfilter_graph_config",
    "av_buffersrc_add_frame",
    "av_buffersrc_close",
    "av_buffersink_get_frame",
    "av_frame_alloc",
    "av_packet_alloc",
};

class FfmpegFailures : public testing::Test {
protected:
    FfmpegFailures() {
        av_log_set_level(AV_LOG_QUIET);
        EncodeJob make = job("film.mp4");
        make.input = directory / "in.y4m";
        make.settings[0].second = "h.264";
        write_y4m(make.input, {.width = 64, .height = 48}, 5);
        fault = {};
        stderr_of([&] {
            Observer nobody;
            encode_programme(make, nobody);
        });
    }

    ~FfmpegFailures() override { fault = {}; }

    EncodeJob job(const char* output) const {
        EncodeJob job;
        job.input = directory / "film.mp4";
        job.output = directory / output;
        job.settings = {
            {"encoder", "mpeg-2"}, {"enable", "1"}, {"bitrate", "1000000"}, {"h.264 preset", "ultrafast"}};
        job.threads = 1;
        return job;
    }

    /// Lets every call of every function fail once, and gives `work`'s account of each; it returns "" where
    /// it has nothing to tell.
    template <class Work>
    void expect_all_told(Work work) {
        for (const char* function : kFunctions) {
            for (const int error : {AVERROR(EIO), AVERROR_INVALIDDATA}) {
                int calls = 0;
                for (bool more = true; more && calls < 200;) {
                    fault = {.function = function, .before = calls, .error = error, .met = false};
                    std::string told;
                    stderr_of([&] {
                        try {
                            told = work();
                        } catch (const std::bad_alloc&) {
                            told = "no memory";
                        } catch (const gsve::Failure& failure) {
                            told = failure.what();
                        }
                    });
                    more = fault.met;
                    const bool given_nothing = fault.function == "avcodec_receive_frame" &&
                                               error == AVERROR_INVALIDDATA && calls == 0;
                    fault = {};
                    EXPECT_EQ(told.empty(), !more || (given_nothing && told.empty()))
                        << function << ", call " << calls << ", " << gsve::av_error_text(error) << ": "
                        << told;
                    calls += more;
                }
                counts[function] = calls;
            }
        }
    }

    ScratchDirectory directory;
    std::map<std::string, int> counts;
};

TEST_F(FfmpegFailures, AreToldOfByAnEncoding) {
    EncodeJob job = this->job("out.ts");
    const auto encoding = [&]() -> std::string {
        std::filesystem::remove(job.output);
        Observer nobody;
        const EncodeResult result = encode_programme(job, nobody);
        EXPECT_TRUE(std::filesystem::exists(job.output));
        return !result.problem.empty() ? result.problem : result.damage.any() ? "damage" : "";
    };
    expect_all_told(encoding);
    for (const char* function : {"avcodec_send_packet", "av_write_frame"})
        EXPECT_GE(counts[function], 5) << function;
    for (const char* function : {"av_bsf_init", "av_buffersink_get_frame"})
        EXPECT_EQ(counts[function], 0) << function;

    // Pictures that have to be converted.
    job.input = directory / "grey.y4m";
    std::string grey = "YUV4MPEG2 W64 H48 F25:1 Ip A1:1 Cmono\n";
    for (int picture = 0; picture < 5; picture++)
        grey += "FRAME\n" + std::string(64 * 48, static_cast<char>(40 * picture));
    std::ofstream(job.input, std::ios::binary) << grey;
    expect_all_told(encoding);
    EXPECT_GE(counts["av_buffersink_get_frame"], 5);
}

TEST_F(FfmpegFailures, AreToldOfByAnInspection) {
    const std::string path = directory / "film.mp4";
    expect_all_told([&]() -> std::string {
        const InspectedStream stream = read_stream(path);
        return !stream.problem.empty() ? stream.problem : stream.damage.any() ? "damage" : "";
    });
    for (const char* function : {"avcodec_send_packet", "av_bsf_send_packet", "avcodec_receive_frame"})
        EXPECT_GE(counts[function], 5) << function;
}

TEST_F(FfmpegFailures, DecodersThatLoseTimesLoseNoPictures) {
    const auto pictures = [&] { return read_stream(directory / "film.mp4").pictures; };
    const std::vector<InspectedPicture> timed = pictures();
    loses_times = true;
    const std::vector<InspectedPicture> untimed = pictures();
    loses_times = false;
    ASSERT_EQ(untimed.size(), timed.size());
    for (size_t n = 0; n < timed.size(); n++) EXPECT_EQ(untimed[n].type, timed[n].type) << n;
}

TEST_F(FfmpegFailures, PicturesThatTheCodecRefusesAreToldOf) {
    for (const char* encoder : {"mpeg-2", "h.264"}) {
        SCOPED_TRACE(encoder);
        EncodeJob job = this->job("refused.mp4");
        std::filesystem::remove(job.output);
        job.settings[0].second = encoder;
        EncodeResult result;
        stderr_of([&] {
            const Refusal refusal(2, 1);
            Observer nobody;
            result = encode_programme(job, nobody);
        });
        EXPECT_EQ(result.tally.lost(), 1u);
        EXPECT_EQ(result.tally.units, 4u);
        EXPECT_EQ(read_stream(job.output).pictures.size(), 4u) << "the others stay";
        try {
            check_complete(result.tally);
            ADD_FAILURE() << "it counts as complete";
        } catch (const gsve::Failure& failure) {
            EXPECT_THAT(failure.what(),
                        testing::StartsWith("1 picture went into the codec and never came out"));
        }
    }
}

}  // namespace
