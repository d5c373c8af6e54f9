#pragma once

// A/53 captions of film, 23.976 and 24 pictures/s, at the standard's full rate.
//
// EIA-608 runs at 59.94 byte pairs a second over both fields. GeneralStreamingVideoEncoder sends one pair of
// each field with a picture, which is 48 a second here: captions of a film that was made for the full rate
// come late. In its place goes this cc_data with two and three pairs in turn. At all other rates the
// encoder's own suffices.

#include <cstdint>
#include <span>
#include <vector>

#include "captions/repacer.h"

namespace gsve::encoding {

/// A picture's user data with cc_data, from its start code on, to stand in front of its first slice
/// (ISO/IEC 13818-2, 6.2.2.2; A/53 Part 4, 6.2).
std::vector<uint8_t> film_user_data(const captions::PictureWrites& writes);

/// A picture's caption SEI (ITU-T H.264, D.1.6), as a NAL unit with its start code.
std::vector<uint8_t> film_caption_sei(const captions::PictureWrites& writes);

/// Where a unit's picture user data goes, in front of its first slice, and where its caption SEI goes, behind
/// its delimiter, parameter sets and other SEI. The unit's end where there is no such place.
std::span<uint8_t>::iterator user_data_position(std::span<uint8_t> mpeg2_unit);
std::span<uint8_t>::iterator caption_sei_position(std::span<uint8_t> h264_unit);

}  // namespace gsve::encoding
