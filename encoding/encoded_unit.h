#pragma once

// What an encoder gives: units, and word of what became of each picture.

#include <cstdint>
#include <span>

namespace gsve::encoding {

/// One encoded unit. The bytes are the encoder's, valid during the call that delivers them.
struct EncodedUnit {
    std::span<const uint8_t> bytes;
    int64_t pts = 0;  ///< source frame number
    int64_t dts = 0;  ///< the same scale; may be negative at the start
    bool key = false;
    char type = '?';         ///< 'I', 'P' or 'B'; '?' where the unit does not tell
    bool ancillary = false;  ///< what went with the picture was still there to be inserted
};

/// What became of a picture.
enum class PictureFate {
    kEncoded,  ///< taken; its unit leaves now or later
    kSkipped,  ///< left out by the setting "frame rate limit", with its ancillary data
    kDropped,  ///< left out by the setting "drop frame for bitrate limit", with its ancillary data
};

}  // namespace gsve::encoding
