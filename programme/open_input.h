#pragma once

// Opening a media file for its picture.

#include <string>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/av.h"
#include "programme/file_name.h"

namespace gsve::programme {

/// An opened input and the video stream in it; its other streams are discarded.
struct VideoInput {
    InputPtr format;
    AVStream* stream = nullptr;
    const AVCodec* codec = nullptr;  ///< decodes the stream
};

/// Throws Failure where there is no such file, or no video in it. `interrupt` may end a read that blocks.
inline VideoInput open_video_input(const std::string& path, AVIOInterruptCB interrupt = {}) {
    AVFormatContext* context = avformat_alloc_context();
    check_memory(context != nullptr);
    context->interrupt_callback = interrupt;
    if (const int error = avformat_open_input(&context, input_url(path).c_str(), nullptr, nullptr); error < 0)
        throw Failure(
            fmt::format("cannot open {}: {}; {}", path, av_error_text(error), opening_advice(error)));
    VideoInput input;
    input.format.reset(context);
    if (const int error = avformat_find_stream_info(context, nullptr); error < 0)
        throw Failure(fmt::format("cannot read {}: {}", path, av_error_text(error)));
    const int index = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, &input.codec, 0);
    if (index < 0) throw Failure(fmt::format("{} has no video stream that can be decoded", path));
    for (unsigned other = 0; other < context->nb_streams; other++)
        if (static_cast<int>(other) != index) context->streams[other]->discard = AVDISCARD_ALL;
    input.stream = context->streams[index];
    return input;
}

}  // namespace gsve::programme
