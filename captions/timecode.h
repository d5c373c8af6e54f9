#pragma once

/// Time codes of SMPTE ST 12-1, frame numbers and seconds.
///
/// A frame number counts pictures from 00:00:00:00. Non-drop codes count every picture at the nominal
/// (rounded) rate; drop-frame codes, for 29.97 and 59.94 only, leave out the first two (four) numbers of
/// each minute but every tenth, so that the code keeps to the clock. No picture is dropped.
///
/// Example: the GOP header's time code of picture n of a programme that begins at one hour
///     TimecodeCounter counter(parse_timecode("01:00:00;00", kRate29_97), kRate29_97);
///     GopTimecode header = gop_timecode(counter.at(n));

#include <cstdint>
#include <string>
#include <string_view>

namespace gsve::captions {

/// Pictures per second as a fraction; both parts positive.
struct FrameRate {
    int num;
    int den;

    double per_second() const { return static_cast<double>(num) / den; }
};

/// Equal as fractions: 30/1 and 60/2 are the same rate.
constexpr bool operator==(FrameRate a, FrameRate b) {
    return static_cast<std::int64_t>(a.num) * b.den == static_cast<std::int64_t>(b.num) * a.den;
}

inline constexpr FrameRate kRate23_976{24000, 1001};
inline constexpr FrameRate kRate24{24, 1};
inline constexpr FrameRate kRate25{25, 1};
inline constexpr FrameRate kRate29_97{30000, 1001};
inline constexpr FrameRate kRate30{30, 1};
inline constexpr FrameRate kRate50{50, 1};
inline constexpr FrameRate kRate59_94{60000, 1001};
inline constexpr FrameRate kRate60{60, 1};

/// The number of frame numbers in a second of non-drop time code: 24, 24, 25, 30, 30, 50, 60, 60.
int nominal_rate(FrameRate rate);

/// True at 29.97 and 59.94, the rates for which drop-frame counting is defined.
bool has_drop_frame(FrameRate rate);

struct Timecode {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
    bool drop_frame = false;

    friend bool operator==(const Timecode&, const Timecode&) = default;
};

/// Reads "HH:MM:SS:FF" (non-drop) or "HH:MM:SS;FF" (drop-frame; "HH;MM;SS;FF" too). Throws
/// std::invalid_argument, with a text that names the code and says what to change, when the syntax is
/// wrong, a part is out of range at this rate, or a drop-frame code names a number that is left out.
Timecode parse_timecode(std::string_view text, FrameRate rate);

/// Whether the text has the syntax of a time code.
bool is_timecode(std::string_view text);

/// Whether drop-frame counting at the rate has this time code, of which every part is in range. True for
/// non-drop ones.
bool is_counted(const Timecode& timecode, FrameRate rate);

/// "HH:MM:SS:FF", or "HH:MM:SS;FF" for drop-frame.
std::string format_timecode(const Timecode& timecode);

/// The frame number of a valid time code.
std::int64_t timecode_to_frame(const Timecode& timecode, FrameRate rate);

/// The frame number of the parts of `timecode`, counted with or without drop-frame as `drop_frame` says.
/// Throws std::invalid_argument when there is no such time code.
std::int64_t frame_counted(const Timecode& timecode, FrameRate rate, bool drop_frame);

/// The number of frames that have a time code of their own, from midnight to midnight.
std::int64_t frames_per_day(FrameRate rate, bool drop_frame);

/// The time code of a frame number; wraps at 24 hours in both directions. `drop_frame` is to be set only
/// where has_drop_frame() holds.
Timecode frame_to_timecode(std::int64_t frame, FrameRate rate, bool drop_frame);

/// Time codes of consecutive pictures.
class TimecodeCounter {
public:
    TimecodeCounter(const Timecode& first, FrameRate rate);

    /// The time code of picture `picture`, where picture 0 has the first one.
    Timecode at(std::int64_t picture) const;

private:
    std::int64_t first_frame_;
    FrameRate rate_;
    bool drop_frame_;
};

/// The fields of the group-of-pictures header of ISO/IEC 13818-2, 6.2.2.6. time_code_pictures is a six-bit
/// number of 0 to 59, so that it holds every frame number up to 60 pictures per second unchanged. The
/// standard defines drop_frame_flag for 29.97 only; at 59.94 it is set by common practice, with four
/// numbers left out a minute.
struct GopTimecode {
    std::uint8_t drop_frame_flag;
    std::uint8_t hours;
    std::uint8_t minutes;
    std::uint8_t seconds;
    std::uint8_t pictures;

    friend bool operator==(const GopTimecode&, const GopTimecode&) = default;
};

GopTimecode gop_timecode(const Timecode& timecode);

/// The time at which frame `frame` begins.
double frame_to_seconds(std::int64_t frame, FrameRate rate);

/// The frame whose beginning is nearest.
std::int64_t seconds_to_frame(double seconds, FrameRate rate);
std::int64_t milliseconds_to_frame(std::int64_t milliseconds, FrameRate rate);

/// The first frame at rate `to` that begins no earlier than frame `frame` at rate `from`. Exact.
std::int64_t first_frame_not_before(std::int64_t frame, FrameRate from, FrameRate to);

/// Whether frame `a` at rate `a_rate` begins no later than frame `b` at rate `b_rate`. Exact.
bool begins_by(std::int64_t a, FrameRate a_rate, std::int64_t b, FrameRate b_rate);

}  // namespace gsve::captions
