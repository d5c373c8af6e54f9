#pragma once

// The closing account of an encoding, for a reader and as JSON.

#include <string>
#include <vector>

#include "programme/encode_result.h"

namespace gsve::report {

/// What did not come through of the captions, and what to do about it: a line each.
std::string caption_losses(const programme::EncodeResult& result);

/// How many times as fast as it plays.
double speed_of(const programme::EncodeResult& result);

/// "-23.0 LUFS, true peak -1.0 dBTP".
std::string loudness_text(const programme::Loudness& loudness);

/// Without their line feeds.
std::vector<std::string> lines_of(const std::string& text);

std::string summary_text(const programme::EncodeResult& result);

/// The encoder's status pairs, a line each.
std::string status_text(const programme::EncodeResult& result);

std::string encode_json(const programme::EncodeResult& result);

}  // namespace gsve::report
