#pragma once

// The closing account of an encoding, for a reader and as JSON.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "caption_feed.h"
#include "tally.h"

namespace gsve::cli {

struct Summary {
    std::string input;
    std::string output;
    std::string codec;
    int width = 0;  ///< as encoded
    int height = 0;
    AVRational frame_rate = {25, 1};          ///< as encoded
    int threads = 1;                          ///< of the codec; other numbers give other bytes
    bool adapts_to_load = false;              ///< the same input may give other bytes on a busier machine
    double elapsed = 0;                       ///< seconds of work
    std::optional<uint64_t> source_pictures;  ///< decoded, where repeating or leaving out changed the number
    int stopped_by = 0;                       ///< the signal that ended the encoding early, or 0
    CaptionAccount captions;
    std::string timecode;  ///< of the first picture; empty: none was written
    std::vector<std::pair<std::string, std::string>> status;
};

/// What did not come through of the captions, and what to do about it: a line each.
std::string caption_losses(const CaptionAccount& account, std::string_view codec);

std::string summary_text(const Summary& summary, const Tally& tally);
std::string status_text(const Summary& summary);
std::string report_json(const Summary& summary, const Tally& tally);

}  // namespace gsve::cli
