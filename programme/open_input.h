#pragma once

// Opening a media file.

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/av.h"
#include "programme/file_name.h"
#include "programme/pipe_input.h"

namespace gsve::programme {

/// A media file, and what it is read with.
class OpenInput {
public:
    OpenInput() = default;
    OpenInput(InputPtr format, std::unique_ptr<PipeInput> pipe)
        : pipe_(std::move(pipe)), format_(std::move(format)) {}

    AVFormatContext& operator*() const { return *format_; }
    AVFormatContext* operator->() const { return format_.get(); }
    AVFormatContext* get() const { return format_.get(); }

private:
    std::unique_ptr<PipeInput> pipe_;  ///< null: libavformat reads it itself
    InputPtr format_;
};

/// Opens `path` and looks into its streams. Throws Failure where there is no such file, or nothing that
/// libavformat knows. `interrupt` may end a read that blocks.
inline OpenInput open_input(const std::string& path, AVIOInterruptCB interrupt = {}) {
    const auto check_opened = [&](int error) {
        if (error == AVERROR_EXIT)
            throw Failure(fmt::format("stopped before anything of {} could be read", path));
        if (error < 0)
            throw Failure(
                fmt::format("cannot open {}: {}; {}", path, av_error_text(error), opening_advice(error)));
    };
    std::unique_ptr<PipeInput> pipe;
    if (is_pipe(path)) {
        pipe = std::make_unique<PipeInput>(path, interrupt);
        check_opened(pipe->error());
    }
    AVFormatContext* context = avformat_alloc_context();
    check_memory(context != nullptr);
    context->interrupt_callback = interrupt;
    context->correct_ts_overflow = 0;  // it knows of one wrap alone; the time line knows of all
    if (pipe) context->pb = pipe->io();
    // A stream may be announced long before it begins. Only where one's form is not known is so much read.
    std::error_code none;
    if (std::filesystem::is_regular_file(path, none)) {
        context->probesize = 64'000'000;
        context->max_analyze_duration = 60 * int64_t{AV_TIME_BASE};
    }
    check_opened(avformat_open_input(&context, input_url(path).c_str(), nullptr, nullptr));
    InputPtr input(context);
    if (const int error = avformat_find_stream_info(context, nullptr); error < 0)
        throw Failure(fmt::format("cannot read {}: {}", path, av_error_text(error)));
    return {std::move(input), std::move(pipe)};
}

}  // namespace gsve::programme
