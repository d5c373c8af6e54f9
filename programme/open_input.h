#pragma once

// Opening a media file.

#include <string>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/av.h"
#include "programme/file_name.h"

namespace gsve::programme {

/// Opens `path` and looks into its streams. Throws Failure where there is no such file, or nothing that
/// libavformat knows. `interrupt` may end a read that blocks.
inline InputPtr open_input(const std::string& path, AVIOInterruptCB interrupt = {}) {
    AVFormatContext* context = avformat_alloc_context();
    check_memory(context != nullptr);
    context->interrupt_callback = interrupt;
    context->correct_ts_overflow = 0;  // it knows of one wrap alone; the time line knows of all
    if (const int error = avformat_open_input(&context, input_url(path).c_str(), nullptr, nullptr); error < 0)
        throw Failure(
            fmt::format("cannot open {}: {}; {}", path, av_error_text(error), opening_advice(error)));
    InputPtr input(context);
    if (const int error = avformat_find_stream_info(context, nullptr); error < 0)
        throw Failure(fmt::format("cannot read {}: {}", path, av_error_text(error)));
    return input;
}

}  // namespace gsve::programme
