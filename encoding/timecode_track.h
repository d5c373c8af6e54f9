#pragma once

// Time codes on their way into one encoder: counted on from the first picture's, and following the input's
// own across splices and changes of the frame rate.

#include <cstdint>
#include <map>
#include <optional>

#include "captions/timecode.h"

namespace gsve::encoding {

/// A time code that came with a decoded picture.
struct PictureTimecode {
    captions::Timecode timecode;  ///< at the input's own rate
    bool of_gop = false;          ///< it is that of a GOP, for the picture displayed first
    bool on_i_picture = false;
};

/// The rates between an input's time codes and an encoder's.
struct TimecodeRates {
    captions::FrameRate counting;  ///< in which the first time code and the input's own are counted
    captions::FrameRate source;    ///< of the pictures that the encoder is offered
    captions::FrameRate encoded;   ///< of those that it takes
    int64_t divider = 1;           ///< it takes one of so many
};

class TimecodeTrack {
public:
    /// `first`: the time code of the first picture, at the counting rate.
    TimecodeTrack(const captions::Timecode& first, const TimecodeRates& rates);

    /// Notes the time code of picture `number` of those that the encoder is offered, or that it has none.
    /// Numbers ascend. The time code is counted on until a picture has another one.
    void follow(int64_t number, const std::optional<PictureTimecode>& found);

    /// The time code of the `encoded`-th picture that is encoded, at the encoded rate. It is made
    /// from the input's for each picture: counting on at the encoded rate would drift away from the input's
    /// codes where, for example, only one of the two counts drop-frame.
    captions::Timecode at(int64_t encoded) const;

private:
    /// A picture that the encoder is offered and its time code, from which the next ones are counted.
    struct Anchor {
        int64_t number = 0;
        captions::Timecode timecode;  ///< at the counting rate
    };

    captions::Timecode counted_on(const Anchor& anchor, int64_t number) const;

    TimecodeRates rates_;
    bool decoder_reorders_ = false;      ///< it gives out a picture when it has seen a later one
    bool had_timecode_ = false;          ///< the picture before came with one
    std::map<int64_t, Anchor> anchors_;  ///< by the encoded picture that each begins with
};

}  // namespace gsve::encoding
