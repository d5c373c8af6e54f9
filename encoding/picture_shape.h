#pragma once

// Which part of a picture is picture: the active format description and the bars of ATSC A/53 Part 4
// (6.2.3, 6.2.4) and ETSI TS 101 154 (annex B), by which receivers and converters fit it to another screen.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace gsve::encoding {

/// Lines and columns of the coded picture, from 0. A picture has bars above and below, or at its sides.
struct Bars {
    std::optional<int> top_end;       ///< the last line of the bar above
    std::optional<int> bottom_begin;  ///< the first line of the bar below
    std::optional<int> left_end;      ///< the last column of the bar at the left
    std::optional<int> right_begin;   ///< the first column of the bar at the right

    friend bool operator==(const Bars&, const Bars&) = default;
};

struct PictureShape {
    std::optional<int> afd;  ///< active_format, 0 to 15
    std::optional<Bars> bars;

    bool empty() const { return !afd && !bars; }
    friend bool operator==(const PictureShape&, const PictureShape&) = default;
};

/// A size in samples.
struct PictureSize {
    int width = 0;
    int height = 0;
};

/// The bars of a picture that was brought from one size to another, without the lines and columns that are
/// bar in part. Bars come in pairs, of which one may be of no size: below, such a one begins where the
/// picture ends.
Bars scaled(const Bars& bars, PictureSize from, PictureSize to);

/// What a coded unit says of its picture, in MPEG-2 user data or a T.35 SEI message of H.264 or H.265, in a
/// byte stream or behind lengths. Any bytes may be given.
PictureShape read_shape(AVCodecID codec, std::span<const uint8_t> unit);

/// As user data has it after its start code, and a T.35 SEI message behind the country and the provider:
///
///     afd_identifier "DTG1", zero_bit 1, active_format_flag 1, reserved 6 (1), reserved 4 (15),
///     active_format 4
///
///     ATSC_identifier "GA94", user_data_type_code 8 (6), top_bar_flag 1, bottom_bar_flag 1, left_bar_flag 1,
///     right_bar_flag 1, reserved 4 (15), then for each flag: marker_bits 2 (3), its number 14
std::vector<uint8_t> afd_data(int active_format);
std::vector<uint8_t> bar_data(const Bars& bars);

}  // namespace gsve::encoding
