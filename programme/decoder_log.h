#pragma once

// What libraries log of damage while they read and decode. Decoders conceal most of it: the picture comes
// out, and only the log tells.

#include <array>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "programme/av.h"

namespace gsve::programme {

class DecoderLog {
public:
    enum class Lines { kPrinted, kSwallowed };

    /// As long as any log lives that swallows lines, none is printed.
    explicit DecoderLog(Lines lines);
    ~DecoderLog();
    DecoderLog(const DecoderLog&) = delete;
    DecoderLog& operator=(const DecoderLog&) = delete;

    /// What `decoder` logs of the packet that it is given next is about this unit, also where its threads
    /// get to it later. The log is to outlive the decoder.
    void expect(AVCodecContext& decoder, int64_t unit);

    /// Units that were complained of since the last call, with DamageFinder's complaints.
    std::vector<std::pair<int64_t, unsigned>> take();

    /// Counts the errors of a container's reader from now on.
    void watch(const AVFormatContext& container);
    uint64_t container_errors() const;

private:
    static void hear(void* object, int level, const char* format, va_list arguments);
    void hear_decoder(const AVCodecContext& decoder, int level, const char* format);

    Lines lines_;
    mutable std::mutex mutex_;
    const AVFormatContext* container_ = nullptr;
    uint64_t container_errors_ = 0;
    int64_t latest_ = -1;
    std::vector<std::pair<int64_t, unsigned>> complaints_;
    // A decoder's threads work on copies of its context, which are made anew for each packet. The copies'
    // `opaque` points to the place of the packet's unit here, modulo the size.
    std::array<char, 1024> places_{};
};

}  // namespace gsve::programme
