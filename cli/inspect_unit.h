#pragma once

// One coded unit, as far as it can be read without decoding it: the start of a group of pictures, and the
// caption data in MPEG-2 user data. (Decoders merge the kinds of MPEG-2 user data into one list; only the
// unit tells them apart.)

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "av.h"
#include "captions/line21.h"
#include "captions/scte20.h"
#include "captions/timecode.h"

namespace gsve::cli {

struct GopStart {
    bool closed = false;                         ///< no picture refers to the group before
    bool broken_link = false;                    ///< MPEG-2
    std::optional<captions::Timecode> timecode;  ///< MPEG-2
};

/// Caption data by its carriage. An empty list may stand for user data with nothing in it.
struct UnitCaptions {
    std::optional<std::vector<uint8_t>> cc_data;                   ///< ATSC A/53: cc_data triples
    std::optional<std::vector<captions::Scte20Construct>> scte20;  ///< ANSI/SCTE 20
    /// "CC" user data: pairs of field 1 and field 2 of successive pictures.
    std::optional<std::vector<std::pair<captions::Word, captions::Word>>> cc;
    int damaged = 0;  ///< caption user data that ends early or contradicts itself
};

struct UnitContents {
    std::optional<GopStart> gop;
    UnitCaptions captions;
};

/// Reads a unit of any codec; of others than MPEG-1, MPEG-2, H.264 and H.265 only the key flag counts. H.264
/// and H.265 come with start codes. Any bytes may be given.
UnitContents read_unit(AVCodecID codec, std::span<const uint8_t> unit, bool key);

bool is_mpeg_video(AVCodecID codec);  ///< MPEG-1 or MPEG-2

}  // namespace gsve::cli
