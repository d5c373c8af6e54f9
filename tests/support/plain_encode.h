#pragma once

// Streams made by libavcodec alone: what the host's parsers and writers are compared with.

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
}

#include "support/bytes.h"

namespace gsve::test {

struct FreeContext {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using ContextOwner = std::unique_ptr<AVCodecContext, FreeContext>;
using FrameOwner = std::unique_ptr<AVFrame, FreeFrame>;
using PacketOwner = std::unique_ptr<AVPacket, FreePacket>;

/// What libavcodec's encoder `name` makes of `pictures` 4:2:0 pictures at 25 pictures/s, one unit per packet.
/// `configure` sets up the context before it is opened, `paint` fills each picture.
inline std::vector<Bytes> plain_encode(const char* name, int width, int height, int pictures,
                                       const std::function<void(AVCodecContext&)>& configure,
                                       const std::function<void(AVFrame&, int)>& paint) {
    av_log_set_level(AV_LOG_ERROR);
    const AVCodec* const codec = avcodec_find_encoder_by_name(name);
    if (!codec) throw std::runtime_error(std::string("libavcodec has no encoder ") + name);
    const ContextOwner context(avcodec_alloc_context3(codec));
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->time_base = {1, 25};
    context->framerate = {25, 1};
    context->thread_count = 1;
    configure(*context);
    if (avcodec_open2(context.get(), codec, nullptr) < 0) throw std::runtime_error("encoder does not open");

    const FrameOwner frame(av_frame_alloc());
    frame->width = width;
    frame->height = height;
    frame->format = context->pix_fmt;
    if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();

    const PacketOwner packet(av_packet_alloc());
    std::vector<Bytes> units;
    for (int number = 0; number <= pictures; number++) {
        if (number < pictures) {
            if (av_frame_make_writable(frame.get()) < 0) throw std::bad_alloc();
            paint(*frame, number);
            frame->pts = number;
        }
        if (avcodec_send_frame(context.get(), number < pictures ? frame.get() : nullptr) < 0)
            throw std::runtime_error("encoder refuses a picture");
        while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
            units.emplace_back(packet->data, packet->data + packet->size);
            av_packet_unref(packet.get());
        }
    }
    return units;
}

/// A gradient that drifts with the picture number, on grey chroma.
inline void paint_gradient(AVFrame& frame, int number) {
    for (int y = 0; y < frame.height; y++)
        for (int x = 0; x < frame.width; x++)
            frame.data[0][y * frame.linesize[0] + x] = static_cast<uint8_t>(x + 2 * y + 5 * number);
    for (int plane = 1; plane <= 2; plane++)
        for (int y = 0; y < frame.height / 2; y++)
            for (int x = 0; x < frame.width / 2; x++) frame.data[plane][y * frame.linesize[plane] + x] = 128;
}

}  // namespace gsve::test
