#pragma once

// What goes into a unit beside its picture, and where: MPEG-2 user data (ISO/IEC 13818-2, 6.2.2.2), and SEI
// messages of H.264 and H.265 (ITU-T H.264 and H.265, annex D) with registered user data as ATSC has it (A/72
// Part 1 for H.264, A/341 for H.265; SCTE 128-1 and 215-1 on cable).

#include <cstdint>
#include <span>
#include <vector>

#include "captions/repacer.h"
#include "captions/timecode.h"

namespace gsve::encoding {

/// A picture's captions as ATSC1_data() (A/53 Part 4, 6.2.2 and 6.2.3), at the standard's rate of constructs.
/// `picture` counts those that are encoded: above 39 pictures/s it tells the field.
///
/// EIA-608 runs at 59.94 byte pairs a second over both fields. GeneralStreamingVideoEncoder sends one pair of
/// each field with a picture, which is 48 a second in film: captions that were made for the full rate come
/// late. In its place goes this cc_data with two and three pairs in turn. In MPEG-2 and H.264 at all other
/// rates the encoder's own suffices; for H.265 it has none.
std::vector<uint8_t> caption_data(const captions::PictureWrites& writes, captions::FrameRate rate,
                                  uint64_t picture);

/// Picture user data with its start code.
std::vector<uint8_t> mpeg2_user_data(std::span<const uint8_t> body);

/// User data registered by ITU-T T.35 (D.1.6 of both) for ATSC, as a NAL unit with its start code. `codec_id`
/// is GeneralStreamingVideoEncoder's, for H.264 or H.265; `temporal_id` as the picture has it, in H.265.
std::vector<uint8_t> atsc_message(int codec_id, std::span<const uint8_t> body, int temporal_id = 0);

/// A picture's time code in H.265 (time_code(), D.2.27), as a NAL unit with its start code. Drop-frame
/// counting at up to 30 pictures/s leaves out two numbers a minute (counting_type 4), above that more.
std::vector<uint8_t> timecode_message(const captions::GopTimecode& timecode, captions::FrameRate rate,
                                      int temporal_id = 0);

/// Where a unit's picture user data goes, in front of its first slice, and where its SEI messages go, behind
/// its delimiter, parameter sets and other SEI. The unit's size where there is no such place.
size_t user_data_position(std::span<const uint8_t> mpeg2_unit);
size_t sei_position(int codec_id, std::span<const uint8_t> unit);

/// Of the NAL unit at `position` of a unit of H.265: messages take it over.
int temporal_id_at(std::span<const uint8_t> unit, size_t position);

}  // namespace gsve::encoding
