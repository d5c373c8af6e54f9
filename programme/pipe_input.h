#pragma once

// Reading what arrives in its own time: standard input and named pipes.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "programme/av.h"
#include "programme/file_name.h"

namespace gsve::programme {

/// libavformat's own reader waits in the system, where only a signal to the very thread that reads ends it.
/// This one looks now and then whether it is to end.
class PipeInput {
public:
    /// error() tells whether that failed. A named pipe need not have a writer yet: reading waits for one.
    PipeInput(const std::string& path, AVIOInterruptCB interrupt)
        : file_(is_standard_stream(path) ? dup(STDIN_FILENO)
                                         : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)),
          error_(file_ < 0 ? AVERROR(errno) : 0),
          interrupt_(interrupt) {
        constexpr int kBuffer = 32'768;
        auto* buffer = static_cast<unsigned char*>(av_malloc(kBuffer));
        if (buffer) io_.reset(avio_alloc_context(buffer, kBuffer, 0, this, read, nullptr, nullptr));
        if (!io_) av_free(buffer);
        if (!io_ && file_ >= 0) ::close(file_);
        check_memory(io_ != nullptr);
    }

    ~PipeInput() {
        if (file_ >= 0) ::close(file_);
    }

    PipeInput(const PipeInput&) = delete;
    PipeInput& operator=(const PipeInput&) = delete;

    int error() const { return error_; }  ///< 0, or FFmpeg's
    AVIOContext* io() { return io_.get(); }

private:
    struct Free {
        void operator()(AVIOContext* io) const {
            av_freep(&io->buffer);
            avio_context_free(&io);
        }
    };

    static int read(void* self, uint8_t* to, int size) {
        return static_cast<PipeInput*>(self)->read(to, size);
    }

    int read(uint8_t* to, int size) const {
        constexpr int kMillisecondsBetweenLooks = 50;
        for (;;) {
            if (interrupt_.callback && interrupt_.callback(interrupt_.opaque)) return AVERROR_EXIT;
            pollfd readable = {.fd = file_, .events = POLLIN, .revents = 0};
            const int ready = poll(&readable, 1, kMillisecondsBetweenLooks);
            if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
            const ssize_t count = ::read(file_, to, static_cast<size_t>(size));
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            return count > 0 ? static_cast<int>(count) : count == 0 ? AVERROR_EOF : AVERROR(errno);
        }
    }

    int file_;
    int error_;
    AVIOInterruptCB interrupt_;
    std::unique_ptr<AVIOContext, Free> io_;
};

}  // namespace gsve::programme
