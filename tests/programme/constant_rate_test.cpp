// Pictures at one rate, beside libavfilter's "fps", whose arithmetic this is.

#include "programme/constant_rate.h"

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

using namespace gsve;
using gsve::programme::ConstantRate;

/// Which picture is shown at which place.
using Shown = std::vector<std::pair<int64_t, int64_t>>;

constexpr AVRational kMilliseconds = {1, 1000};

/// A picture that is known by its number.
FramePtr numbered(int64_t number, int64_t time) {
    FramePtr frame = new_frame();
    frame->format = AV_PIX_FMT_GRAY8;
    frame->width = frame->height = 16;
    check_memory(av_frame_get_buffer(frame.get(), 0) >= 0);
    frame->pts = time;
    frame->crop_left = static_cast<size_t>(number);
    return frame;
}

Shown shown_by_us(const std::vector<int64_t>& times, int64_t end, AVRational rate) {
    ConstantRate constant(kMilliseconds, rate);
    Shown shown;
    const auto take = [&] {
        while (const FramePtr frame = constant.take())
            shown.emplace_back(frame->pts, static_cast<int64_t>(frame->crop_left));
    };
    for (size_t n = 0; n < times.size(); n++) {
        EXPECT_FALSE(constant.at_end());
        constant.put(numbered(static_cast<int64_t>(n), times[n]));
        take();
    }
    constant.finish(end);
    take();
    EXPECT_TRUE(constant.at_end());
    return shown;
}

Shown shown_by_fps(const std::vector<int64_t>& times, int64_t end, AVRational rate) {
    const FilterGraphPtr graph(avfilter_graph_alloc());
    AVFilterContext *in = nullptr, *out = nullptr, *fps = nullptr;
    const auto create = [&](AVFilterContext** filter, const char* name, const std::string& arguments) {
        EXPECT_GE(avfilter_graph_create_filter(filter, avfilter_get_by_name(name), name, arguments.c_str(),
                                               nullptr, graph.get()),
                  0);
    };
    create(&in, "buffer", "video_size=16x16:pix_fmt=gray:time_base=1/1000");
    create(&fps, "fps", fmt::format("fps={}/{}", rate.num, rate.den));
    create(&out, "buffersink", "");
    EXPECT_GE(avfilter_link(in, 0, fps, 0), 0);
    EXPECT_GE(avfilter_link(fps, 0, out, 0), 0);
    EXPECT_GE(avfilter_graph_config(graph.get(), nullptr), 0);
    Shown shown;
    const FramePtr frame = new_frame();
    const auto take = [&] {
        for (; av_buffersink_get_frame(out, frame.get()) >= 0; av_frame_unref(frame.get()))
            shown.emplace_back(frame->pts, static_cast<int64_t>(frame->crop_left));
    };
    for (size_t n = 0; n < times.size(); n++) {
        EXPECT_GE(av_buffersrc_add_frame(in, numbered(static_cast<int64_t>(n), times[n]).get()), 0);
        take();
    }
    EXPECT_GE(av_buffersrc_close(in, end, 0), 0);
    take();
    return shown;
}

TEST(ConstantRate, ShowsThePicturesThatFpsShows) {
    std::mt19937 random(7);
    const AVRational rates[] = {{25, 1}, {30'000, 1001}, {50, 1}, {10, 1}, {24'000, 1001}, {120, 1}};
    for (int run = 0; run < 400; run++) {
        SCOPED_TRACE(run);
        std::vector<int64_t> times;
        int64_t time = static_cast<int64_t>(random() % 3) * static_cast<int64_t>(random() % 100);
        const size_t count = 1 + random() % 20;
        for (size_t n = 0; n < count; n++) {
            times.push_back(time);
            // Mostly as at 25 pictures/s; at times far, at once, or a little back.
            const unsigned kind = random() % 10;
            time += kind == 0   ? static_cast<int64_t>(random() % 1000)
                    : kind == 1 ? 0
                    : kind == 2 ? -static_cast<int64_t>(random() % 30)
                                : 20 + static_cast<int64_t>(random() % 41);
        }
        const int64_t end = times.back() + static_cast<int64_t>(random() % 90);
        const AVRational rate = rates[random() % std::size(rates)];
        EXPECT_EQ(shown_by_us(times, end, rate), shown_by_fps(times, end, rate))
            << rate.num << '/' << rate.den;
    }
}

TEST(ConstantRate, RepeatsPicturesWithoutACopy) {
    ConstantRate constant(kMilliseconds, {50, 1});
    FramePtr sent = numbered(0, 0);
    const uint8_t* const samples = sent->data[0];
    constant.put(std::move(sent));
    constant.finish(60);
    for (int64_t place = 0; place < 3; place++) {
        const FramePtr frame = constant.take();
        ASSERT_NE(frame, nullptr) << place;
        EXPECT_EQ(frame->pts, place);
        EXPECT_EQ(frame->data[0], samples);
    }
    EXPECT_EQ(constant.take(), nullptr);
}

}  // namespace
