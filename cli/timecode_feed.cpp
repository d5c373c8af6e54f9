#include "timecode_feed.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

extern "C" {
#include <libavutil/timecode.h>
}

#include "error.h"

namespace gsve::cli {
namespace {

using captions::FrameRate;
using captions::Timecode;

FrameRate to_rate(AVRational rate) { return {rate.num, rate.den}; }

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

/// That of the first picture, at the counting rate.
Timecode given_timecode(const std::string& text, const Source& source, FrameRate rate) try {
    if (text != kSourceTimecode) return captions::parse_timecode(text, rate);
    if (source.timecode().empty())
        throw UsageError("--timecode source: the input has no time code; give one as HH:MM:SS:FF");
    return captions::parse_timecode(source.timecode(), rate);
} catch (const std::invalid_argument& error) {
    throw UsageError(fmt::format("--timecode: {}", error.what()));
}

/// A time code that came with a picture.
struct PictureTimecode {
    Timecode timecode;
    bool of_gop = false;  ///< it is that of a GOP, for the picture displayed first
};

/// Nothing for a picture without one, and for one that is impossible at the rate.
std::optional<PictureTimecode> timecode_of(const AVFrame& frame, FrameRate rate) try {
    char text[AV_TIMECODE_STR_SIZE] = {};
    if (const AVFrameSideData* gop = av_frame_get_side_data(&frame, AV_FRAME_DATA_GOP_TIMECODE)) {
        int64_t bits = 0;
        std::memcpy(&bits, gop->data, sizeof bits);
        av_timecode_make_mpeg_tc_string(text, static_cast<uint32_t>(bits));
        return PictureTimecode{captions::parse_timecode(text, rate), true};
    }
    if (const AVFrameSideData* smpte = av_frame_get_side_data(&frame, AV_FRAME_DATA_S12M_TIMECODE)) {
        uint32_t words[2] = {};  // their number, and the first
        std::memcpy(words, smpte->data, sizeof words);
        if (words[0] == 0) return std::nullopt;
        av_timecode_make_smpte_tc_string2(text, {rate.num, rate.den}, words[1], 0, 0);
        return PictureTimecode{captions::parse_timecode(text, rate), false};
    }
    return std::nullopt;
} catch (const std::invalid_argument&) {
    return std::nullopt;
}

}  // namespace

void check_timecode_option(const std::string& timecode, const std::string& codec) {
    if (!timecode.empty() && codec != "mpeg-2")
        throw UsageError(fmt::format("--timecode is for MPEG-2's GOP headers, not {}: leave it out", codec));
}

TimecodeFeed::TimecodeFeed(const std::string& timecode, const Source& source, const Host& host)
    : follows_(timecode == kSourceTimecode),
      counting_rate_(to_rate(follows_ ? source.own_rate() : host.encoded_rate())),
      source_rate_{host.frame_rate_num, host.frame_rate_den},
      encoded_rate_(to_rate(host.encoded_rate())),
      divider_(host.frame_rate_divider),
      anchors_{{0, {0, given_timecode(timecode, source, counting_rate_)}}},
      first_(encoded(0)) {}

/// The time code of a picture that the encoder is offered.
Timecode TimecodeFeed::counted_on(const Anchor& anchor, int64_t number) const {
    const int64_t frames = av_rescale_q(number - anchor.number, {source_rate_.den, source_rate_.num},
                                        {counting_rate_.den, counting_rate_.num});
    return captions::TimecodeCounter(anchor.timecode, counting_rate_).at(frames);
}

/// The time code of an encoded picture. Each one's is taken from the input's: to count on at the encoded rate
/// would leave the input's codes where the two count in different ways, drop-frame and not for example.
Timecode TimecodeFeed::encoded(int64_t number) const {
    constexpr double kAlmostZero = 1e-6;
    const auto next = anchors_.upper_bound(number);
    const Anchor& anchor = next == anchors_.begin() ? next->second : std::prev(next)->second;
    const double frames = static_cast<double>(number * divider_ - anchor.number) *
                          counting_rate_.per_second() / source_rate_.per_second();
    const double whole = std::floor(frames + kAlmostZero);
    const captions::TimecodeCounter counter(anchor.timecode, counting_rate_);
    return at_rate(counter.at(static_cast<int64_t>(whole)), frames - whole, counting_rate_, encoded_rate_);
}

/// Takes note of a time code that is not the one counted on.
void TimecodeFeed::follow(const Picture& picture) {
    constexpr int64_t kRounding = 1;  // of numbers, where the frame rate is changed
    const std::optional<PictureTimecode> found = timecode_of(*picture.frame, counting_rate_);
    const bool previous_had_one = std::exchange(had_timecode_, found.has_value());
    if (!found) return;

    // The decoder adds a GOP's time code to the picture that it gives out when it meets the GOP: that is the
    // one displayed before the GOP, of any type. Where it gives out none, at the beginning, and where it does
    // not reorder, the I-picture itself has it.
    const bool i_picture = picture.frame->pict_type == AV_PICTURE_TYPE_I;
    const bool later = found->of_gop && picture.number > 0;
    decoder_reorders_ |= later && (!i_picture || previous_had_one);
    const bool of_next = later && decoder_reorders_;
    const Anchor anchor{static_cast<int64_t>(picture.number) + of_next, found->timecode};
    const Timecode expected = counted_on(anchors_.rbegin()->second, anchor.number);
    const int64_t off =
        timecode_to_frame(anchor.timecode, counting_rate_) - timecode_to_frame(expected, counting_rate_);
    if (expected.drop_frame == anchor.timecode.drop_frame && std::abs(off) <= kRounding) return;
    anchors_.insert_or_assign((anchor.number + divider_ - 1) / divider_, anchor);
}

/// The record of picture `number`, which goes along as its text.
mpeg2_gop_timecode_t TimecodeFeed::record(int64_t number) const {
    const captions::GopTimecode header = captions::gop_timecode(encoded(number));
    return {1,
            header.drop_frame_flag,
            header.hours,
            header.minutes,
            header.seconds,
            header.pictures,
            std::to_string(number)};
}

void TimecodeFeed::before(Host& host, const Picture& picture) {
    if (follows_) follow(picture);
    host.write_mpeg2_gop_timecode(record(static_cast<int64_t>(picture.number) / divider_));
}

void TimecodeFeed::attach(Host& host) const {
    host.say_in_gop_headers([this](const mpeg2_gop_timecode_t& tc, int pictures_before) {
        return record(std::stoll(tc.text) - pictures_before);
    });
}

}  // namespace gsve::cli
