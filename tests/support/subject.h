#pragma once

// The encoder under test, ready to be opened, and what it says on standard error while it works.

#include <functional>
#include <sstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "recording_host.h"

namespace gsve::test {

/// Codec ids, as the setting "encoder" numbers them.
inline constexpr int kMpeg2 = 2;
inline constexpr int kH264 = 4;
inline constexpr int kH265 = 8;

inline constexpr int kAllCodecs[] = {kMpeg2, kH264, kH265};

/// An enabled encoder with a described source. No client is attached yet.
class Subject : public RecordingHost {
public:
    explicit Subject(int codec, int width = 320, int height = 240, int rate_num = 25, int rate_den = 1) {
        describe_source(*this, width, height, rate_num, rate_den);
        codec_id = codec;
        enabled = true;
    }
    ~Subject() override { refcount = 0; }  // a test that leaves clients attached is not a host's mistake
};

/// Runs `work` and returns what it printed on standard error, without the codecs' own log lines.
inline std::string stderr_of(const std::function<void()>& work) {
    av_log_set_level(AV_LOG_QUIET);
    testing::internal::CaptureStderr();
    work();
    std::istringstream printed(testing::internal::GetCapturedStderr());
    std::string kept, line;
    while (std::getline(printed, line)) {
        if (line.starts_with("x265 [")) continue;
        kept += line;
        if (!printed.eof()) kept += '\n';
    }
    return kept;
}

/// How often `part` occurs in `text`.
inline int occurrences(std::string_view text, std::string_view part) {
    int count = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) count++;
    return count;
}

}  // namespace gsve::test
