#pragma once

// An inspected stream in words and as JSON.

#include <string>

#include "inspect_captions.h"
#include "inspect_stream.h"

namespace gsve::cli {

/// `list_pictures` adds every GOP and picture to the text, and the pictures to the JSON.
std::string inspection_text(const std::string& input, const InspectedStream& stream,
                            const CaptionInventory& captions, bool list_pictures);
std::string inspection_json(const std::string& input, const InspectedStream& stream,
                            const CaptionInventory& captions, bool list_pictures);

}  // namespace gsve::cli
