#pragma once

// What became of a programme's captions.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "captions/parity.h"

namespace gsve::encoding {

/// A file's or an input's captions, counted in EIA-608 byte pairs (idle ones not counted) and CEA-708
/// constructs.
struct CaptionCount {
    uint64_t pairs = 0;
    uint64_t constructs = 0;

    uint64_t all() const { return pairs + constructs; }
    CaptionCount& operator+=(const CaptionCount& other) {
        pairs += other.pairs;
        constructs += other.constructs;
        return *this;
    }
};

/// A caption that is not in the stream, or not with all its text, because the stream ended.
struct LostCaption {
    enum class Reason { kDidNotFit, kCutShort, kAfterTheEnd };

    double time = 0;  ///< seconds from the first picture, at which it was to be seen
    int channel = 1;  ///< 1 to 4, as in CC1 to CC4
    Reason reason = Reason::kDidNotFit;
    std::string text;  ///< UTF-8; rows are separated by '\n'
};

/// What became of the captions. Each pair and construct is counted once.
struct CaptionAccount {
    std::string source;      ///< "input", "file" or "none"
    CaptionCount carried;    ///< went into the stream
    CaptionCount left_over;  ///< waited when the last picture went in: late, or meant for later pictures
    std::vector<LostCaption> lost;  ///< the captions among them
    uint64_t repetitions_left_out =
        0;  ///< of the input's control pairs, to make up for a delay; nothing is lost with them
    CaptionCount without_form;         ///< the stream has no form for them, by its codec or settings
    CaptionCount expired;              ///< their pictures stayed in the codec for too long, or never left it
    uint64_t pairs_after_last_cc = 0;  ///< "CC" user data ends before the last pictures: pairs not in it
    uint64_t delayed_pairs = 0;     ///< of those carried: not on the first picture that could have had them
    double largest_delay = 0;       ///< seconds after that picture, of the latest pair or construct
    captions::ParityDamage parity;  ///< byte pairs of the input with an error, as receivers take them
    std::map<std::string, size_t> warnings;  ///< about files, by kind: how many captions or places
};

}  // namespace gsve::encoding
