#pragma once

// An inspected stream in words and as JSON.

#include <string>

#include "programme/caption_inventory.h"
#include "programme/stream_inspection.h"

namespace gsve::report {

/// `list_pictures` adds every GOP and picture to the text, and the pictures to the JSON, the
/// course of the buffer included.
std::string inspection_text(const std::string& input, const programme::InspectedStream& stream,
                            const programme::CaptionInventory& captions, bool list_pictures);
std::string inspection_json(const std::string& input, const programme::InspectedStream& stream,
                            const programme::CaptionInventory& captions, bool list_pictures);

}  // namespace gsve::report
