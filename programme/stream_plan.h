#pragma once

// What becomes of each stream of an input.

#include <string>
#include <string_view>
#include <vector>

#include "programme/stream_choice.h"
#include "programme/stream_table.h"

namespace gsve::programme {

/// A stream beside the picture that is not left out.
struct PlannedStream {
    int index = 0;  ///< in the input
    Treatment treatment = Treatment::kCarried;
};

/// A stream that the output has no room for.
struct LeftOutStream {
    int index = 0;
    std::string why;
};

struct StreamPlan {
    int video = -1;                  ///< index of the picture that is encoded
    const AVCodec* codec = nullptr;  ///< which decodes it
    const AVProgram* program = nullptr;
    std::vector<PlannedStream> others;  ///< in the input's order
    std::vector<LeftOutStream> left_out;
    std::string notes;  ///< a line for each stream that is left out
};

/// "picture", "sound", "subtitles", ...
std::string_view kind_of(const AVStream& stream);

/// As FFmpeg calls it; "unknown codec" where it knows none.
std::string codec_name(const AVStream& stream);

/// As the container tells it: "deu"; empty: it does not.
std::string language_of(const AVStream& stream);

/// As users know a stream: "stream 2 (sound, aac, deu)".
std::string describe(const AVStream& stream);

/// Throws UsageError where the choice does not fit the input, and Failure where there is no picture in it
/// that can be decoded. `path` is the input's, for messages.
StreamPlan plan_streams(AVFormatContext& input, const std::string& path, const StreamChoice& choice,
                        Container container);

}  // namespace gsve::programme
