// Picture scaling and deinterlacing against what else a user could pick: 8-bit 4:2:0 pictures, one thread,
// one core, every contestant on the same source picture.
//
// The scalers' peers are libyuv's I420Scale (bilinear), libswscale (fast bilinear and bilinear) and zimg
// (bilinear). The deinterlacers' peers are libavfilter's w3fdif, bwdif, yadif and kerndeint, one picture out
// per picture in, followed by libyuv's scaler where the size changes. A ratio is our time by the fastest
// peer's.

#include <cstdint>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}
#include <libyuv.h>
#include <zimg.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "detail/ffmpeg_compat.h"
#include "detail/scale/plane_scaler.h"
#include "stopwatch.h"

namespace {

using namespace gsve::detail;
using bench::Contestant;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

// ---- Pictures -----------------------------------------------------------------------------------------

struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;

/// A 4:2:0 picture with rows of a multiple of 64 bytes, which suits every contestant, and rows below the last
/// one, as the encoder's working planes have.
Frame make_frame(int width, int height) {
    Frame frame(av_frame_alloc());
    if (!frame) fail("no frame");
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 64) < 0) fail("no picture");
    return frame;
}

/// A gradient with noise; in the lower half every other line is shifted, as motion between fields does.
void draw(AVFrame& frame) {
    std::mt19937 random(7);
    for (int plane = 0; plane < 3; ++plane) {
        const int width = frame.width >> (plane != 0), height = frame.height >> (plane != 0);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const int shift = y > height / 2 && y % 2 != 0 ? 24 : 0;
                const int square = ((x + shift) / 48 + y / 48) % 2 * 90;
                frame.data[plane][y * frame.linesize[plane] + x] =
                    static_cast<uint8_t>(40 + square + x * 60 / width + static_cast<int>(random() % 6));
            }
        }
    }
}

// ---- Ours ---------------------------------------------------------------------------------------------

PictureFormat format_of(const AVFrame& frame) { return {frame.width, frame.height, 1, 1}; }

PlaneScaling plane_of(const PictureGeometry& geometry, const AVFrame& to, const AVFrame& from, int plane) {
    const PlaneGeometry& g = plane == 0 ? geometry.luma : geometry.chroma;
    return {to.data[plane],   static_cast<size_t>(to.linesize[plane]),
            from.data[plane], static_cast<size_t>(from.linesize[plane]),
            g.to_width,       g.to_height,
            g.x_step,         g.y_step,
            g.src_width,      g.src_height};
}

void map_motion(uint8_t* map, const AVFrame& from) {
    build_motion_map(map, from.data[0], static_cast<size_t>(from.linesize[0]),
                     static_cast<unsigned>(from.width), static_cast<unsigned>(from.height));
}

void scale_ours(const AVFrame& to, const AVFrame& from) {
    const auto geometry = end_point_aligned(format_of(from), format_of(to));
    for (int plane = 0; plane < 3; ++plane)
        scale_plane(plane_of(*geometry, to, from, plane), 2, -1, __func__);
}

void deinterlace_basic_ours(const AVFrame& to, const AVFrame& from) {
    const auto geometry = cell_aligned(format_of(from), format_of(to));
    for (int plane = 0; plane < 3; ++plane) deinterlace_plane_basic(plane_of(*geometry, to, from, plane));
}

void deinterlace_adaptive_ours(const AVFrame& to, const AVFrame& from) {
    const auto geometry = cell_aligned(format_of(from), format_of(to));
    const auto width = static_cast<unsigned>(from.width), height = static_cast<unsigned>(from.height);
    const std::unique_ptr<uint8_t[]> map(new uint8_t[motion_map_size(width, height)]);
    map_motion(map.get(), from);
    for (int plane = 0; plane < 3; ++plane) {
        const uint8_t shift = plane != 0;
        deinterlace_plane_adaptive(plane_of(*geometry, to, from, plane),
                                   {map.get(), macroblocks(width), shift, shift});
    }
}

struct Form {
    unsigned mask;
    const char* name;
};

constexpr Form kForms[] = {{15, "avx512vbmi"}, {7, "avx512"}, {3, "avx2"}, {1, "sse4.1"}};

/// One contestant per form that the processor has.
template <typename Run>
void add_ours(std::vector<Contestant>& contestants, Run run) {
    for (const Form& form : kForms) {
        if ((form.mask & ~detected_cpu_features()) != 0) continue;
        contestants.push_back({form.name, true, [run, mask = form.mask] {
                                   set_plane_cpu_mask(mask);
                                   run();
                               }});
    }
}

// ---- Scaling peers ------------------------------------------------------------------------------------

void scale_libyuv(const AVFrame& to, const AVFrame& from) {
    libyuv::I420Scale(from.data[0], from.linesize[0], from.data[1], from.linesize[1], from.data[2],
                      from.linesize[2], from.width, from.height, to.data[0], to.linesize[0], to.data[1],
                      to.linesize[1], to.data[2], to.linesize[2], to.width, to.height,
                      libyuv::kFilterBilinear);
}

std::function<void()> scale_swscale(const AVFrame& to, const AVFrame& from, int flags) {
    SwsContext* raw = sws_getContext(from.width, from.height, AV_PIX_FMT_YUV420P, to.width, to.height,
                                     AV_PIX_FMT_YUV420P, flags, nullptr, nullptr, nullptr);
    if (raw == nullptr) fail("no libswscale context");
    const std::shared_ptr<SwsContext> context(raw, sws_freeContext);
    return [context, &to, &from] {
        sws_scale(context.get(), from.data, from.linesize, 0, from.height, to.data, to.linesize);
    };
}

zimg_image_format zimg_format(const AVFrame& frame) {
    zimg_image_format format;
    zimg_image_format_default(&format, ZIMG_API_VERSION);
    format.width = static_cast<unsigned>(frame.width);
    format.height = static_cast<unsigned>(frame.height);
    format.pixel_type = ZIMG_PIXEL_BYTE;
    format.color_family = ZIMG_COLOR_YUV;
    format.subsample_w = format.subsample_h = 1;
    return format;
}

std::function<void()> scale_zimg(const AVFrame& to, const AVFrame& from) {
    zimg_graph_builder_params params;
    zimg_graph_builder_params_default(&params, ZIMG_API_VERSION);
    params.resample_filter = params.resample_filter_uv = ZIMG_RESIZE_BILINEAR;
    params.cpu_type = ZIMG_CPU_AUTO_64B;
    const zimg_image_format source = zimg_format(from), destination = zimg_format(to);
    zimg_filter_graph* raw = zimg_filter_graph_build(&source, &destination, &params);
    if (raw == nullptr) fail("no zimg graph");
    const std::shared_ptr<zimg_filter_graph> graph(raw, zimg_filter_graph_free);
    size_t size = 0;
    if (zimg_filter_graph_get_tmp_size(raw, &size) != ZIMG_ERROR_SUCCESS) fail("no zimg size");
    const std::shared_ptr<void> scratch(std::aligned_alloc(64, (size + 63) / 64 * 64 + 64), std::free);
    return [graph, scratch, &to, &from] {
        zimg_image_buffer_const in{};
        zimg_image_buffer out{};
        in.version = out.version = ZIMG_API_VERSION;
        for (int plane = 0; plane < 3; ++plane) {
            in.plane[plane] = {from.data[plane], from.linesize[plane], ZIMG_BUFFER_MAX};
            out.plane[plane] = {to.data[plane], to.linesize[plane], ZIMG_BUFFER_MAX};
        }
        if (zimg_filter_graph_process(graph.get(), &in, &out, scratch.get(), nullptr, nullptr, nullptr,
                                      nullptr) != ZIMG_ERROR_SUCCESS) {
            fail("zimg failed");
        }
    };
}

// ---- Deinterlacing peers ------------------------------------------------------------------------------

struct GraphDeleter {
    void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
};

/// A filter between a source and a sink, on one thread: a picture goes in by reference and one comes out.
class Filter {
public:
    Filter(const char* name, const char* options, const AVFrame& format) : graph_(avfilter_graph_alloc()) {
        if (!graph_) fail("no filter graph");
        graph_->nb_threads = 1;
        char source[128];
        std::snprintf(source, sizeof(source), "video_size=%dx%d:pix_fmt=%d:time_base=1/25:pixel_aspect=1/1",
                      format.width, format.height, AV_PIX_FMT_YUV420P);
        source_ = add("buffer", source);
        AVFilterContext* filter = add(name, options);
        sink_ = add("buffersink", nullptr);
        if (avfilter_link(source_, 0, filter, 0) < 0 || avfilter_link(filter, 0, sink_, 0) < 0 ||
            avfilter_graph_config(graph_.get(), nullptr) < 0) {
            fail(std::string("filter graph of ") + name);
        }
    }

    /// The next picture out; nothing while the filter waits for pictures to come.
    Frame operator()(AVFrame& in) {
        in.pts = pts_++;
        if (av_buffersrc_add_frame_flags(source_, &in, AV_BUFFERSRC_FLAG_KEEP_REF) < 0) fail("filter input");
        Frame out(av_frame_alloc());
        return av_buffersink_get_frame(sink_, out.get()) < 0 ? nullptr : std::move(out);
    }

private:
    AVFilterContext* add(const char* name, const char* options) {
        AVFilterContext* context = nullptr;
        const AVFilter* filter = avfilter_get_by_name(name);
        if (filter == nullptr ||
            avfilter_graph_create_filter(&context, filter, name, options, nullptr, graph_.get()) < 0) {
            fail(std::string("no filter ") + name);
        }
        return context;
    }

    std::unique_ptr<AVFilterGraph, GraphDeleter> graph_;
    AVFilterContext* source_ = nullptr;
    AVFilterContext* sink_ = nullptr;
    int64_t pts_ = 0;
};

struct FilterPeer {
    const char* name;
    const char* filter;
    const char* options;
};

constexpr FilterPeer kFilterPeers[] = {
    {"w3fdif", "w3fdif", "filter=complex:mode=frame:deint=all"},
    {"w3fdif simple", "w3fdif", "filter=simple:mode=frame:deint=all"},
    {"bwdif", "bwdif", "mode=send_frame:deint=all"},
    {"yadif", "yadif", "mode=send_frame:deint=all"},
    {"kerndeint", "kerndeint", nullptr},
};

std::function<void()> deinterlace_filter(const FilterPeer& peer, AVFrame& to, AVFrame& from) {
    set_interlacing(from, true, true);
    const auto filter = std::make_shared<Filter>(peer.filter, peer.options, from);
    for (int i = 0; i < 4; ++i) (*filter)(from);  // past the pictures that it holds back
    const bool resized = to.width != from.width || to.height != from.height;
    return [filter, resized, &to, &from] {
        const Frame out = (*filter)(from);
        if (!out) fail("the filter gave no picture");
        if (resized) scale_libyuv(to, *out);
    };
}

// ---- The table ----------------------------------------------------------------------------------------

enum class Work { kScale, kCopy, kBasic, kAdaptive, kMap };

struct Case {
    const char* name;
    Work work;
    int from_width, from_height, to_width, to_height;
    double target_vbmi, target_avx2;  ///< the ratios that are known to be within reach
};

constexpr Case kCases[] = {
    {"1920x1080 to 1280x720", Work::kScale, 1920, 1080, 1280, 720, 0.17, 0.20},
    {"1920x1080 to 720x480", Work::kScale, 1920, 1080, 720, 480, 0.17, 0.20},
    {"1280x720 to 1920x1080", Work::kScale, 1280, 720, 1920, 1080, 0.24, 0.38},
    {"720x480 to 1920x1080", Work::kScale, 720, 480, 1920, 1080, 0.30, 0.50},
    {"1920x1080 to 960x540", Work::kScale, 1920, 1080, 960, 540, 1.2, 1.3},
    {"3840x2160 to 1920x1080", Work::kScale, 3840, 2160, 1920, 1080, 0.85, 0.80},
    {"3840x2160 to 720x480", Work::kScale, 3840, 2160, 720, 480, 0.85, 0.95},
    {"1920x1080 same size", Work::kCopy, 1920, 1080, 1920, 1080, 1.1, 1.1},
    {"mode 3, 1920x1080 same size", Work::kBasic, 1920, 1080, 1920, 1080, 0.12, 0.12},
    {"mode 4, 1920x1080 same size", Work::kAdaptive, 1920, 1080, 1920, 1080, 0.24, 0.28},
    {"mode 3, 1920x1080 to 1280x720", Work::kBasic, 1920, 1080, 1280, 720, 0.08, 0.11},
    {"mode 4, 1920x1080 to 1280x720", Work::kAdaptive, 1920, 1080, 1280, 720, 0.13, 0.17},
    {"mode 3, 720x480 to 1280x720", Work::kBasic, 720, 480, 1280, 720, 0.19, 0.29},
    {"mode 4, 720x480 to 1280x720", Work::kAdaptive, 720, 480, 1280, 720, 0.25, 0.42},
    {"motion map 1920x1080", Work::kMap, 1920, 1080, 1920, 1080, 0.6, 1.0},
};

void copy_picture(const AVFrame& to, const AVFrame& from) {
    for (int plane = 0; plane < 3; ++plane) {
        const int width = from.width >> (plane != 0), height = from.height >> (plane != 0);
        if (to.linesize[plane] == from.linesize[plane]) {
            std::memcpy(to.data[plane], from.data[plane], static_cast<size_t>(from.linesize[plane]) * height);
            continue;
        }
        for (int y = 0; y < height; ++y) {
            std::memcpy(to.data[plane] + y * to.linesize[plane], from.data[plane] + y * from.linesize[plane],
                        static_cast<size_t>(width));
        }
    }
}

/// Writes to every cache line of a picture what it holds.
void rewrite(const AVFrame& frame) {
    for (int plane = 0; plane < 3; ++plane) {
        const size_t size = static_cast<size_t>(frame.linesize[plane]) * (frame.height >> (plane != 0));
        volatile uint8_t* bytes = frame.data[plane];
        for (size_t i = 0; i < size; i += 64) bytes[i] = bytes[i];
    }
}

std::vector<Contestant> contestants_of(const Case& which, AVFrame& to, AVFrame& from, uint8_t* map) {
    std::vector<Contestant> all;
    switch (which.work) {
        case Work::kCopy:
        case Work::kScale: add_ours(all, [&] { scale_ours(to, from); }); break;
        case Work::kBasic: add_ours(all, [&] { deinterlace_basic_ours(to, from); }); break;
        case Work::kAdaptive: add_ours(all, [&] { deinterlace_adaptive_ours(to, from); }); break;
        case Work::kMap: add_ours(all, [&, map] { map_motion(map, from); }); break;
    }
    switch (which.work) {
        case Work::kScale:
            all.push_back({"libyuv", false, [&] { scale_libyuv(to, from); }});
            all.push_back({"swscale fast", false, scale_swscale(to, from, SWS_FAST_BILINEAR)});
            all.push_back({"swscale", false, scale_swscale(to, from, SWS_BILINEAR)});
            all.push_back({"zimg", false, scale_zimg(to, from)});
            break;
        case Work::kCopy:
        case Work::kMap: all.push_back({"memcpy", false, [&] { copy_picture(to, from); }}); break;
        case Work::kBasic:
        case Work::kAdaptive:
            for (const FilterPeer& peer : kFilterPeers) {
                all.push_back({peer.name, false, deinterlace_filter(peer, to, from)});
            }
            break;
    }
    return all;
}

struct Options {
    double seconds = 1.0;
    const char* json = nullptr;
    const char* only = "";
};

Options read_options(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 == argc) fail("usage: scale_bench [--seconds N] [--only TEXT] [--json FILE]");
        if (option == "--seconds")
            options.seconds = std::strtod(argv[++i], nullptr);
        else if (option == "--only")
            options.only = argv[++i];
        else if (option == "--json")
            options.json = argv[++i];
        else
            fail("usage: scale_bench [--seconds N] [--only TEXT] [--json FILE]");
    }
    return options;
}

void print_text(const Case& which, std::vector<Contestant>& all, Contestant& peer) {
    std::printf("%-30s  peer %8.1f us %-13s ", which.name, peer.median(), peer.name.c_str());
    for (Contestant& contestant : all) {
        if (!contestant.ours) continue;
        std::printf("  %s %.3f (%.1f us)", contestant.name.c_str(), contestant.median() / peer.median(),
                    contestant.median());
    }
    std::printf("\n%-30s  reach vbmi %.2f, avx2 %.2f; peers:", "", which.target_vbmi, which.target_avx2);
    for (Contestant& contestant : all) {
        if (!contestant.ours) std::printf(" %s %.1f", contestant.name.c_str(), contestant.median());
    }
    std::printf("\n");
    std::fflush(stdout);
}

std::string json_of(const Case& which, std::vector<Contestant>& all, Contestant& peer) {
    char text[512];
    std::snprintf(
        text, sizeof(text),
        "  {\"case\": \"%s\", \"fastest_peer\": \"%s\", \"rounds\": %zu, \"reach\": {\"avx512vbmi\": %.2f, "
        "\"avx2\": %.2f}, \"contestants\": [",
        which.name, peer.name.c_str(), peer.microseconds.size(), which.target_vbmi, which.target_avx2);
    std::string json = text;
    for (Contestant& contestant : all) {
        std::snprintf(text, sizeof(text),
                      "%s\n    {\"name\": \"%s\", \"ours\": %s, \"median_us\": %.2f, \"ratio\": %.4f}",
                      &contestant == &all.front() ? "" : ",", contestant.name.c_str(),
                      contestant.ours ? "true" : "false", contestant.median(),
                      contestant.median() / peer.median());
        json += text;
    }
    return json + "]}";
}

void run(const Options& options) {
    std::printf("Medians of interleaved rounds on core %d, one thread; ratio to the fastest peer.\n",
                bench::pin_to_one_core());
    std::string json;
    for (const Case& which : kCases) {
        if (std::strstr(which.name, options.only) == nullptr) continue;
        const Frame from = make_frame(which.from_width, which.from_height);
        const Frame to = make_frame(which.to_width, which.to_height);
        draw(*from);
        draw(*to);
        std::vector<uint8_t> map(motion_map_size(static_cast<unsigned>(which.from_width),
                                                 static_cast<unsigned>(which.from_height)));
        std::vector<Contestant> all = contestants_of(which, *to, *from, map.data());
        // The host has just delivered the picture, the codec is done with the working planes' last content.
        const auto prepare = [&] {
            rewrite(*to);
            rewrite(*from);
        };
        bench::race(all, prepare, options.seconds, 15);
        Contestant* peer = nullptr;
        for (Contestant& contestant : all) {
            if (contestant.ours) continue;
            if (peer == nullptr || contestant.median() < peer->median()) peer = &contestant;
        }
        print_text(which, all, *peer);
        json += (json.empty() ? "" : ",\n") + json_of(which, all, *peer);
    }
    if (options.json == nullptr) return;
    std::FILE* file = std::fopen(options.json, "w");
    if (file == nullptr) fail(std::string("cannot write ") + options.json);
    std::fprintf(file, "[\n%s\n]\n", json.c_str());
    if (std::fclose(file) != 0) fail(std::string("cannot write ") + options.json);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(read_options(argc, argv));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "scale_bench: %s\n", error.what());
        return 1;
    }
}
