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

void TimecodeFeed::before(Host& host, const Picture& picture) const {
    const Timecode timecode = counter_.at(static_cast<int64_t>(picture.number / host.frame_rate_divider));
    const captions::GopTimecode header = captions::gop_timecode(timecode);
    host.write_mpeg2_gop_timecode({1, header.drop_frame_flag, header.hours, header.minutes, header.seconds,
                                   header.pictures, captions::format_timecode(timecode)});
}

}  // namespace gsve::cli
