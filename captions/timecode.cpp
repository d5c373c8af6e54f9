#include "timecode.h"

#include <array>
#include <cmath>
#include <stdexcept>

#include <fmt/format.h>

namespace gsve::captions {

namespace {

// Wide enough that the product of a frame number with two rate parts never overflows.
__extension__ using Wide = __int128;

std::int64_t divide_up(Wide numerator, Wide denominator) {
    const Wide quotient = numerator / denominator;
    return static_cast<std::int64_t>(quotient + (numerator > quotient * denominator ? 1 : 0));
}

std::int64_t divide_nearest(Wide numerator, Wide denominator) {
    return divide_up(2 * numerator - denominator, 2 * denominator);
}

// Frame numbers left out at the start of a minute: two at 29.97, four at 59.94.
int dropped_per_minute(FrameRate rate) { return nominal_rate(rate) / 15; }

struct Syntax {
    std::array<int, 4> parts{};
    bool drop_frame{};
    bool valid = false;
};

bool is_digit(char c) { return c >= '0' && c <= '9'; }

Syntax split_timecode(std::string_view text) {
    constexpr std::size_t kLength = 11;
    Syntax syntax;
    if (text.size() != kLength) return syntax;
    for (std::size_t part = 0; part < 4; ++part) {
        const char tens = text[3 * part], units = text[3 * part + 1];
        if (!is_digit(tens) || !is_digit(units)) return syntax;
        syntax.parts[part] = (tens - '0') * 10 + (units - '0');
        if (part < 3 && text[3 * part + 2] != ':' && text[3 * part + 2] != ';') return syntax;
    }
    syntax.drop_frame = text[8] == ';';
    syntax.valid = text[2] == text[5] && (text[2] == ':' || syntax.drop_frame);
    return syntax;
}

}  // namespace

int nominal_rate(FrameRate rate) { return static_cast<int>(std::lround(rate.per_second())); }

bool has_drop_frame(FrameRate rate) {
    const int nominal = nominal_rate(rate);
    const double ratio = rate.per_second() / nominal;
    return (nominal == 30 || nominal == 60) && ratio > 0.9985 && ratio < 0.9995;
}

Timecode parse_timecode(std::string_view text, FrameRate rate) {
    const Syntax syntax = split_timecode(text);
    if (!syntax.valid)
        throw std::invalid_argument(
            fmt::format("\"{}\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF for drop-frame", text));

    const auto [hours, minutes, seconds, frames] = syntax.parts;
    const int nominal = nominal_rate(rate);
    if (hours > 23 || minutes > 59 || seconds > 59 || frames >= nominal)
        throw std::invalid_argument(fmt::format(
            "time code \"{}\" is out of range: hours go to 23, minutes and seconds to 59, frames to {}", text,
            nominal - 1));
    if (!syntax.drop_frame) return {hours, minutes, seconds, frames, false};

    if (!has_drop_frame(rate))
        throw std::invalid_argument(
            fmt::format("drop-frame time code \"{}\" needs 29.97 or 59.94 frames per second, not {:.6g}: "
                        "write it with ':' before the frames",
                        text, rate.per_second()));
    const Timecode timecode{hours, minutes, seconds, frames, true};
    if (!is_counted(timecode, rate))
        throw std::invalid_argument(
            fmt::format("drop-frame counting leaves out time code \"{}\": the minute begins with frame {:02}",
                        text, dropped_per_minute(rate)));
    return timecode;
}

bool is_timecode(std::string_view text) { return split_timecode(text).valid; }

bool is_counted(const Timecode& timecode, FrameRate rate) {
    return !timecode.drop_frame || timecode.seconds != 0 || timecode.minutes % 10 == 0 ||
           timecode.frames >= dropped_per_minute(rate);
}

std::string format_timecode(const Timecode& timecode) {
    return fmt::format("{:02}:{:02}:{:02}{}{:02}", timecode.hours, timecode.minutes, timecode.seconds,
                       timecode.drop_frame ? ';' : ':', timecode.frames);
}

std::int64_t timecode_to_frame(const Timecode& timecode, FrameRate rate) {
    const std::int64_t minutes = timecode.hours * 60 + timecode.minutes;
    const std::int64_t number = (minutes * 60 + timecode.seconds) * nominal_rate(rate) + timecode.frames;
    if (!timecode.drop_frame) return number;
    return number - dropped_per_minute(rate) * (minutes - minutes / 10);
}

std::int64_t frame_counted(const Timecode& timecode, FrameRate rate, bool drop_frame) {
    Timecode counted = timecode;
    counted.drop_frame = drop_frame;
    return timecode_to_frame(parse_timecode(format_timecode(counted), rate), rate);
}

std::int64_t frames_per_day(FrameRate rate, bool drop_frame) {
    const Timecode last{23, 59, 59, nominal_rate(rate) - 1, drop_frame};
    return timecode_to_frame(last, rate) + 1;
}

Timecode frame_to_timecode(std::int64_t frame, FrameRate rate, bool drop_frame) {
    const std::int64_t nominal = nominal_rate(rate);
    const std::int64_t dropped = drop_frame ? dropped_per_minute(rate) : 0;
    const std::int64_t minute = 60 * nominal - dropped;
    const std::int64_t ten_minutes = 10 * minute + dropped;  // the tenth minute keeps all its numbers
    const std::int64_t day = frames_per_day(rate, drop_frame);

    const std::int64_t in_day = ((frame % day) + day) % day;
    const std::int64_t tens = in_day / ten_minutes;
    const std::int64_t in_ten = in_day % ten_minutes;
    const std::int64_t minute_of_ten = in_ten < minute + dropped ? 0 : (in_ten - dropped) / minute;
    const std::int64_t number = in_day + dropped * (9 * tens + minute_of_ten);
    return {static_cast<int>(number / (3600 * nominal)), static_cast<int>(number / (60 * nominal) % 60),
            static_cast<int>(number / nominal % 60), static_cast<int>(number % nominal), drop_frame};
}

TimecodeCounter::TimecodeCounter(const Timecode& first, FrameRate rate)
    : first_frame_(timecode_to_frame(first, rate)), rate_(rate), drop_frame_(first.drop_frame) {}

Timecode TimecodeCounter::at(std::int64_t picture) const {
    return frame_to_timecode(first_frame_ + picture, rate_, drop_frame_);
}

GopTimecode gop_timecode(const Timecode& timecode) {
    return {static_cast<std::uint8_t>(timecode.drop_frame), static_cast<std::uint8_t>(timecode.hours),
            static_cast<std::uint8_t>(timecode.minutes), static_cast<std::uint8_t>(timecode.seconds),
            static_cast<std::uint8_t>(timecode.frames)};
}

double frame_to_seconds(std::int64_t frame, FrameRate rate) {
    return static_cast<double>(frame) * rate.den / rate.num;
}

std::int64_t seconds_to_frame(double seconds, FrameRate rate) {
    return std::llround(seconds * rate.num / rate.den);
}

std::int64_t milliseconds_to_frame(std::int64_t milliseconds, FrameRate rate) {
    return divide_nearest(static_cast<Wide>(milliseconds) * rate.num, static_cast<Wide>(1000) * rate.den);
}

std::int64_t first_frame_not_before(std::int64_t frame, FrameRate from, FrameRate to) {
    return divide_up(static_cast<Wide>(frame) * from.den * to.num, static_cast<Wide>(from.num) * to.den);
}

bool begins_by(std::int64_t a, FrameRate a_rate, std::int64_t b, FrameRate b_rate) {
    return static_cast<Wide>(a) * a_rate.den * b_rate.num <= static_cast<Wide>(b) * b_rate.den * a_rate.num;
}

}  // namespace gsve::captions
