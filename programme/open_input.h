#pragma once

// Opening a media file.

#include <filesystem>
#include <string>
#include <system_error>

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
    // A stream may be announced long before it begins. Only where one's form is not known is so much read.
    std::error_code none;
    if (std::filesystem::is_regular_file(path, none)) {
        context->probesize = 64'000'000;
        context->max_analyze_duration = 60 * int64_t{AV_TIME_BASE};
    }
    if (const int error = avformat_open_input(&context, input_url(path).c_str(), nullptr, nullptr); error < 0)
        throw Failure(
            fmt::format("cannot open {}: {}; {}", path, av_error_text(error), opening_advice(error)));
    InputPtr input(context);
    if (const int error = avformat_find_stream_info(context, nullptr); error < 0)
        throw Failure(fmt::format("cannot read {}: {}", path, av_error_text(error)));
    return input;
}

}  // namespace gsve::programme
