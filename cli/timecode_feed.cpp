#include "timecode_feed.h"

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

/// The same time of day, counted at another rate.
Timecode at_rate(const Timecode& timecode, FrameRate from, FrameRate to) {
    Timecode result = timecode;
    result.frames = timecode.frames * nominal_rate(to) / nominal_rate(from);
    result.drop_frame = timecode.drop_frame && has_drop_frame(to);
    return result;
}

/// Of the first picture: at the input's own rate for kSourceTimecode, else at the encoded one.
Timecode given_timecode(const std::string& text, const Source& source, FrameRate own, FrameRate encoded) try {
    if (text != kSourceTimecode) return captions::parse_timecode(text, encoded);
    if (source.timecode().empty())
        throw UsageError("--timecode source: the input has no time code; give one as HH:MM:SS:FF");
    return captions::parse_timecode(source.timecode(), own);
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
    : own_rate_(to_rate(source.own_rate())),
      source_rate_{host.frame_rate_num, host.frame_rate_den},
      encoded_rate_(to_rate(host.encoded_rate())),
      first_(given_timecode(timecode, source, own_rate_, encoded_rate_)) {
    if (timecode == kSourceTimecode) {
        anchor_ = {0, first_};
        first_ = at_rate(first_, own_rate_, encoded_rate_);
    }
    counters_.emplace(0, captions::TimecodeCounter(first_, encoded_rate_));
}

/// The time code of another picture by the anchor's.
Timecode TimecodeFeed::counted_on(const Anchor& anchor, int64_t number) const {
    const int64_t own_pictures = av_rescale_q(number - anchor.number, {source_rate_.den, source_rate_.num},
                                              {own_rate_.den, own_rate_.num});
    const int64_t frame = timecode_to_frame(anchor.timecode, own_rate_) + own_pictures;
    return captions::frame_to_timecode(frame, own_rate_, anchor.timecode.drop_frame);
}

/// Takes note of a time code that is not the one counted on.
void TimecodeFeed::follow(const Host& host, const Picture& picture) {
    constexpr int64_t kRounding = 1;  // of numbers, where the frame rate is changed
    const std::optional<PictureTimecode> found = timecode_of(*picture.frame, own_rate_);
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
    const Timecode expected = counted_on(*anchor_, anchor.number);
    const int64_t off =
        timecode_to_frame(anchor.timecode, own_rate_) - timecode_to_frame(expected, own_rate_);
    if (expected.drop_frame == anchor.timecode.drop_frame && std::abs(off) <= kRounding) return;
    anchor_ = anchor;
    const int64_t divider = host.frame_rate_divider;
    const int64_t encoded = (anchor.number + divider - 1) / divider;
    const Timecode begin = at_rate(counted_on(anchor, encoded * divider), own_rate_, encoded_rate_);
    counters_.insert_or_assign(encoded, captions::TimecodeCounter(begin, encoded_rate_));
}

/// The record of picture `number`, which goes along as its text.
mpeg2_gop_timecode_t TimecodeFeed::record(int64_t number) const {
    auto next = counters_.upper_bound(number);
    const auto& [begin, counter] = next == counters_.begin() ? *next : *std::prev(next);
    const captions::GopTimecode header = captions::gop_timecode(counter.at(number - begin));
    return {1,
            header.drop_frame_flag,
            header.hours,
            header.minutes,
            header.seconds,
            header.pictures,
            std::to_string(number)};
}

void TimecodeFeed::before(Host& host, const Picture& picture) {
    if (anchor_) follow(host, picture);
    host.write_mpeg2_gop_timecode(record(static_cast<int64_t>(picture.number / host.frame_rate_divider)));
}

void TimecodeFeed::attach(Host& host) const {
    host.say_in_gop_headers([this](const mpeg2_gop_timecode_t& tc, int pictures_before) {
        return record(std::stoll(tc.text) - pictures_before);
    });
}

}  // namespace gsve::cli
