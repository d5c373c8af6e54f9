#pragma once

// GOP time codes on their way into the encoder.

#include <map>
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

    /// Gives the time code of a picture that encode() will be given next. The input's own time code is
    /// counted on until a picture has another one, as after a splice.
    void before(Host& host, const Picture& picture);

private:
    /// A picture that the encoder is offered and its time code, from which the next ones are counted.
    struct Anchor {
        int64_t number = 0;
        captions::Timecode timecode;  ///< at the counting rate
    };

    void follow(const Picture& picture);
    captions::Timecode counted_on(const Anchor& anchor, int64_t number) const;
    captions::Timecode encoded(int64_t number) const;
    mpeg2_gop_timecode_t record(int64_t number) const;

    bool follows_;                       ///< the input's time codes
    captions::FrameRate counting_rate_;  ///< the input's own where they are followed, else the encoded one
    captions::FrameRate source_rate_;    ///< of the pictures that the encoder is offered
    captions::FrameRate encoded_rate_;   ///< of those that it takes
    int64_t divider_;                    ///< it takes one of so many
    bool decoder_reorders_ = false;      ///< it gives out a picture when it has seen a later one
    bool had_timecode_ = false;          ///< the picture before came with one
    std::map<int64_t, Anchor> anchors_;  ///< by the encoded picture that each begins with
    captions::Timecode first_;
};

}  // namespace gsve::cli
