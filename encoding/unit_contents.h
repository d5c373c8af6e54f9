#pragma once

// What a coded unit holds beside its picture.

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "captions/line21.h"
#include "captions/scte20.h"
#include "captions/timecode.h"

namespace gsve::encoding {

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

}  // namespace gsve::encoding
