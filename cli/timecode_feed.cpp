#include "timecode_feed.h"

#include <stdexcept>

#include <fmt/format.h>

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

Timecode first_timecode(const std::string& text, const Source& source, const Host& host) try {
    const FrameRate encoded = to_rate(host.encoded_rate());
    if (text != kSourceTimecode) return captions::parse_timecode(text, encoded);
    if (source.timecode().empty())
        throw UsageError("--timecode source: the input has no time code; give one as HH:MM:SS:FF");
    const FrameRate own = to_rate(source.own_rate());
    return at_rate(captions::parse_timecode(source.timecode(), own), own, encoded);
} catch (const std::invalid_argument& error) {
    throw UsageError(fmt::format("--timecode: {}", error.what()));
}

}  // namespace

void check_timecode_option(const std::string& timecode, const std::string& codec) {
    if (!timecode.empty() && codec != "mpeg-2")
        throw UsageError(fmt::format("--timecode is for MPEG-2's GOP headers, not {}: leave it out", codec));
}

TimecodeFeed::TimecodeFeed(const std::string& timecode, const Source& source, const Host& host)
    : first_(first_timecode(timecode, source, host)), counter_(first_, to_rate(host.encoded_rate())) {}

/// The record of picture `number`, which goes along as its text.
mpeg2_gop_timecode_t TimecodeFeed::record(int64_t number) const {
    const captions::GopTimecode header = captions::gop_timecode(counter_.at(number));
    return {1,
            header.drop_frame_flag,
            header.hours,
            header.minutes,
            header.seconds,
            header.pictures,
            std::to_string(number)};
}

void TimecodeFeed::before(Host& host, const Picture& picture) const {
    host.write_mpeg2_gop_timecode(record(static_cast<int64_t>(picture.number / host.frame_rate_divider)));
}

void TimecodeFeed::attach(Host& host) const {
    host.say_in_gop_headers([this](const mpeg2_gop_timecode_t& tc, int pictures_before) {
        return record(std::stoll(tc.text) - pictures_before);
    });
}

}  // namespace gsve::cli
