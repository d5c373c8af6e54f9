#pragma once

// A script between the encoder and its surroundings: what the codec answers, how long it takes, whether the
// output window can be made and whether it is sane.
//
// Include from the one source file of a test program only. The functions at the end stand in for those of
// FFmpeg and of the host libraries in the whole process; while `scripted` is off they pass the calls on.

#include <dlfcn.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gsve.h>
#include <orb_utils_v4/io.h>
#include <orb_utils_v4/misc.h>

#include "support/bytes.h"
#include "support/frame_marks.h"

namespace gsve::test {

/// Stands for the pts of the picture that was sent.
inline constexpr int64_t kPicturePts = INT64_MIN + 1;

/// What the codec makes of one picture.
struct Outcome {
    int send = 0;
    int receive = 0;
    Bytes bytes = {};
    int flags = AV_PKT_FLAG_KEY;
    int64_t pts = kPicturePts;
    int64_t dts = kPicturePts;
    uint64_t encode_us = 0;
};

inline Outcome packet(Bytes bytes, int flags = AV_PKT_FLAG_KEY, int64_t pts = kPicturePts,
                      int64_t dts = kPicturePts) {
    Outcome outcome;
    outcome.bytes = std::move(bytes);
    outcome.flags = flags;
    outcome.pts = pts;
    outcome.dts = dts;
    return outcome;
}
inline Outcome held_back() {
    Outcome outcome;
    outcome.receive = AVERROR(EAGAIN);
    return outcome;
}
inline Outcome receive_error(int error) {
    Outcome outcome;
    outcome.receive = error;
    return outcome;
}
inline Outcome send_error(int error) {
    Outcome outcome;
    outcome.send = error;
    return outcome;
}
inline Outcome taking(uint64_t encode_us, Outcome outcome) {
    outcome.encode_us = encode_us;
    return outcome;
}

/// The picture as the codec saw it.
struct SentPicture {
    const uint8_t* data[3] = {};
    int linesize[3] = {};
    int width = 0;
    int height = 0;
    int format = -1;
    bool key_frame = false;
    AVPictureType pict_type = AV_PICTURE_TYPE_NONE;
    AVRational sample_aspect_ratio = {0, 0};
    int64_t pts = 0;
    bool interlaced = false;
    bool top_field_first = false;
};

inline SentPicture describe(const AVFrame& frame) {
    SentPicture picture;
    for (int plane = 0; plane < 3; plane++) {
        picture.data[plane] = frame.data[plane];
        picture.linesize[plane] = frame.linesize[plane];
    }
    picture.width = frame.width;
    picture.height = frame.height;
    picture.format = frame.format;
    picture.pict_type = frame.pict_type;
    picture.sample_aspect_ratio = frame.sample_aspect_ratio;
    picture.pts = frame.pts;
    const FrameMarks marks = marks_of(frame);
    picture.key_frame = marks.key_frame;
    picture.interlaced = marks.interlaced;
    picture.top_field_first = marks.top_field_first;
    return picture;
}

struct Surroundings {
    bool scripted = false;
    std::deque<Outcome> outcomes;       ///< one per send; where there is none, the picture is held back
    std::function<void()> during_send;  ///< runs inside every scripted send
    std::vector<SentPicture> pictures;  ///< sent so far, drains left out
    int drains = 0;
    int receives = 0;
    uint64_t now_us = 1000000;
    std::vector<size_t> window_sizes;  ///< asked for so far
    bool refuse_window = false;
    bool window_insane = false;

    Outcome current;
    int64_t current_pts = 0;
};

inline Surroundings& surroundings() {
    static Surroundings instance;
    return instance;
}

template <typename Function>
Function* next_definition(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace gsve::test

extern "C" {

int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
    auto& around = gsve::test::surroundings();
    if (!around.scripted)
        return gsve::test::next_definition<decltype(avcodec_send_frame)>("avcodec_send_frame")(context,
                                                                                               frame);
    if (frame)
        around.pictures.push_back(gsve::test::describe(*frame));
    else
        around.drains++;
    around.current_pts = frame ? frame->pts : 0;
    around.current = gsve::test::held_back();
    if (!around.outcomes.empty()) {
        around.current = around.outcomes.front();
        around.outcomes.pop_front();
    }
    if (around.during_send) around.during_send();
    around.now_us += around.current.encode_us;
    return around.current.send;
}

int avcodec_receive_packet(AVCodecContext* context, AVPacket* packet) {
    auto& around = gsve::test::surroundings();
    if (!around.scripted)
        return gsve::test::next_definition<decltype(avcodec_receive_packet)>("avcodec_receive_packet")(
            context, packet);
    around.receives++;
    const gsve::test::Outcome& outcome = around.current;
    av_packet_unref(packet);
    if (outcome.receive != 0) return outcome.receive;
    if (!outcome.bytes.empty()) {
        if (const int error = av_new_packet(packet, static_cast<int>(outcome.bytes.size()))) return error;
        std::memcpy(packet->data, outcome.bytes.data(), outcome.bytes.size());
    }
    packet->flags = outcome.flags;
    packet->pts = outcome.pts == gsve::test::kPicturePts ? around.current_pts : outcome.pts;
    packet->dts = outcome.dts == gsve::test::kPicturePts ? around.current_pts : outcome.dts;
    return 0;
}

uint64_t monotonic_clock_us(void) {
    auto& around = gsve::test::surroundings();
    if (!around.scripted)
        return gsve::test::next_definition<decltype(monotonic_clock_us)>("monotonic_clock_us")();
    return around.now_us;
}

sliding_window_v4* sliding_window_v4_create_buffer(size_t size) {
    auto& around = gsve::test::surroundings();
    around.window_sizes.push_back(size);
    if (around.refuse_window) return nullptr;
    return gsve::test::next_definition<decltype(sliding_window_v4_create_buffer)>(
        "sliding_window_v4_create_buffer")(size);
}

bool sliding_window_v4_is_sane(const sliding_window_v4* window) {
    return !gsve::test::surroundings().window_insane &&
           gsve::test::next_definition<decltype(sliding_window_v4_is_sane)>("sliding_window_v4_is_sane")(
               window);
}

}  // extern "C"
