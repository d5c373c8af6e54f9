#include "encoding/timecode_track.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <utility>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace gsve::encoding {
namespace {

using captions::FrameRate;
using captions::Timecode;

/// The same time of day, counted at another rate: that of the moment `fraction` of a frame after `timecode`.
Timecode at_rate(const Timecode& timecode, double fraction, FrameRate from, FrameRate to) {
    constexpr double kHalfOfOneIsDown = 0.5 + 1e-6;
    const double frames = (timecode.frames + fraction) * nominal_rate(to) / nominal_rate(from);
    const int nearest = static_cast<int>(std::ceil(frames - kHalfOfOneIsDown));
    Timecode result = timecode;
    result.frames = std::max(0, std::min(nearest, nominal_rate(to) - 1));
    result.drop_frame = timecode.drop_frame && has_drop_frame(to);
    while (!is_counted(result, to)) ++result.frames;
    return result;
}

}  // namespace

TimecodeTrack::TimecodeTrack(const Timecode& first, const TimecodeRates& rates)
    : rates_(rates), anchors_{{0, {0, first}}} {}

/// The time code of a picture that the encoder is offered.
Timecode TimecodeTrack::counted_on(const Anchor& anchor, int64_t number) const {
    const int64_t frames = av_rescale_q(number - anchor.number, {rates_.source.den, rates_.source.num},
                                        {rates_.counting.den, rates_.counting.num});
    return captions::TimecodeCounter(anchor.timecode, rates_.counting).at(frames);
}

Timecode TimecodeTrack::at(int64_t encoded) const {
    constexpr double kAlmostZero = 1e-6;
    const Anchor& anchor = std::prev(anchors_.upper_bound(encoded))->second;
    const double frames = static_cast<double>(encoded * rates_.divider - anchor.number) *
                          rates_.counting.per_second() / rates_.source.per_second();
    const double whole = std::floor(frames + kAlmostZero);
    const captions::TimecodeCounter counter(anchor.timecode, rates_.counting);
    return at_rate(counter.at(static_cast<int64_t>(whole)), frames - whole, rates_.counting, rates_.encoded);
}

void TimecodeTrack::follow(int64_t number, const std::optional<PictureTimecode>& found) {
    constexpr int64_t kRounding = 1;  // of numbers, where the frame rate is changed
    const bool previous_had_one = std::exchange(had_timecode_, found.has_value());
    if (!found) return;

    // The decoder adds a GOP's time code to the picture that it gives out when it meets the GOP: that is the
    // one displayed before the GOP, of any type. Where it gives out none, at the beginning, and where it does
    // not reorder, the I-picture itself has it.
    const bool later = found->of_gop && number > 0;
    decoder_reorders_ |= later && (!found->on_i_picture || previous_had_one);
    const bool of_next = later && decoder_reorders_;
    const Anchor anchor{number + of_next, found->timecode};
    const Timecode expected = counted_on(anchors_.rbegin()->second, anchor.number);
    const int64_t off =
        timecode_to_frame(anchor.timecode, rates_.counting) - timecode_to_frame(expected, rates_.counting);
    if (expected.drop_frame == anchor.timecode.drop_frame && std::abs(off) <= kRounding) return;
    anchors_.insert_or_assign((anchor.number + rates_.divider - 1) / rates_.divider, anchor);
}

}  // namespace gsve::encoding
