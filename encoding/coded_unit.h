#pragma once

// One coded unit, as far as it can be read without decoding it: the start of a group of pictures, and the
// caption data in MPEG-2 user data. (Decoders merge the kinds of MPEG-2 user data into one list; only the
// unit tells them apart.)

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "encoding/unit_contents.h"
extern "C" {
#include <libavcodec/codec_id.h>
}

namespace gsve::encoding {

/// Reads a unit of any codec; of others than MPEG-1, MPEG-2, H.264 and H.265 only the key flag counts. H.264
/// and H.265 come with start codes. Any bytes may be given.
UnitContents read_unit(AVCodecID codec, std::span<const uint8_t> unit, bool key);

/// The cc_data triples of the ATSC A/53 captions in a unit of H.264 or H.265, in a byte stream or behind
/// lengths; empty where it has none. Any bytes may be given.
std::vector<uint8_t> nal_cc_data(std::span<const uint8_t> unit);

bool is_mpeg_video(AVCodecID codec);  ///< MPEG-1 or MPEG-2

}  // namespace gsve::encoding
