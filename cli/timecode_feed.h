#pragma once

// GOP time codes on their way into the encoder.

#include <optional>
#include <string>

#include "captions/timecode.h"
#include "host.h"

namespace gsve::cli {

/// What `--timecode` takes to mean the input's own time code.
inline constexpr const char* kSourceTimecode = "source";

/// Throws UsageError when the codec has no GOP header.
void check_timecode_option(const std::string& timecode, const std::string& codec);

class TimecodeFeed {
public:
    /// `timecode`: that of the first picture, at the encoded rate, or kSourceTimecode. For an opened encoder.
    /// Throws UsageError for an impossible time code, and where the input has none.
    TimecodeFeed(const std::string& timecode, const Source& source, const Host& host);

    const captions::Timecode& first() const { return first_; }

    /// Has the encoder's GOP headers say the time code of the picture displayed first. Outlives the encoding.
    void attach(Host& host) const;

    /// Gives the time code of a picture that encode() will be given next.
    void before(Host& host, const Picture& picture) const;

private:
    mpeg2_gop_timecode_t record(int64_t number) const;

    captions::Timecode first_;
    captions::TimecodeCounter counter_;
};

}  // namespace gsve::cli
