#pragma once

// MPEG-2 video elementary streams (ISO/IEC 13818-2): the host framework's timecode record and parsers.

#include <cstddef>
#include <cstdint>
#include <string>

/// The time code of one picture, as the GOP header carries it (ISO/IEC 13818-2, 6.3.8).
struct mpeg2_gop_timecode_t {
    uint8_t valid = 0;            ///< 0: no time code for this picture
    uint8_t drop_frame_flag = 0;  ///< non-zero: drop-frame counting
    uint8_t hours = 0;            ///< 0 to 23
    uint8_t minutes = 0;          ///< 0 to 59
    uint8_t seconds = 0;          ///< 0 to 59
    uint8_t pictures = 0;         ///< 0 to 59
    std::string text;             ///< carried along with the time code, never written to the stream
};

extern "C" {

/// The coding type of the first picture in `data`: 1 I, 2 P, 3 B, or 0 where there is none. Stores the
/// address of that picture's start code in `*picture_header` when the pointer is not null (null where
/// there is no picture).
int mpeg2_get_frame_type(const uint8_t* data, size_t size, const uint8_t** picture_header);

/// As mpeg2_get_frame_type(), and tells whether a GOP header stands in front of that picture (`*gop_seen`)
/// and whether its closed_gop flag is clear (`*open_gop`, false without a GOP header). Both may be null.
int mpeg2_get_frame_type_and_gop(const uint8_t* data, size_t size, bool* open_gop, bool* gop_seen);

}  // extern "C"
