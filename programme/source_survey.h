#pragma once

// What one reading of a whole file tells before any of it is encoded: where its decoding may begin, how many
// pictures it gives, and its captions.

#include <cstdint>
#include <string>
#include <vector>

#include "programme/input.h"
#include "programme/key_index.h"

namespace gsve::programme {

struct SourceSurvey {
    KeyIndex index;
    std::string hash;                      ///< of the coded pictures, with their times
    uint64_t pictures = 0;                 ///< at the input's frame rate
    std::vector<SourceCaptions> captions;  ///< of all frames
    captions::ParityDamage parity;
    std::string decoded_since;  ///< why all pictures were decoded to know that; empty: none had to be
};

/// `input` was opened with `options` from `path`, and has not been asked for a picture yet. Where the coded
/// pictures do not tell enough, a second input is decoded to its end. Throws Failure.
SourceSurvey survey(const std::string& path, const InputOptions& options, const Input& input,
                    const StopRequest& stop);

/// The hash alone.
std::string source_hash(const std::string& path, const StreamChoice& choice);

}  // namespace gsve::programme
