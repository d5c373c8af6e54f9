#pragma once

// libavcodec's encoders in front of which some pictures are refused, as they do where a picture does not fit.
// A function that the executable defines takes precedence over the shared library's own, so that each picture
// arrives here first.
//
// Defines a function with external linkage: include it from one source of a program.

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace gsve::test {

/// Pictures that encoders of the process refuse from now on, after having taken so many more.
class Refusal {
public:
    explicit Refusal(int64_t taken_before, int64_t count) {
        before_ = taken_before;
        count_ = count;
    }
    ~Refusal() { count_ = 0; }
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;

    static bool refuses() {
        if (count_ <= 0 || before_-- > 0) return false;
        return count_-- > 0;
    }

private:
    static inline std::atomic<int64_t> before_ = 0, count_ = 0;
};

}  // namespace gsve::test

extern "C" int avcodec_send_frame(AVCodecContext* encoder, const AVFrame* frame) {
    static auto* const real =
        reinterpret_cast<decltype(&avcodec_send_frame)>(dlsym(RTLD_NEXT, "avcodec_send_frame"));
    const bool video = frame != nullptr && encoder->codec_type == AVMEDIA_TYPE_VIDEO;
    return video && gsve::test::Refusal::refuses() ? AVERROR(EINVAL) : real(encoder, frame);
}
