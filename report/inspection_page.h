#pragma once

// An inspected stream as one page of HTML that needs nothing beside it: charts, captions, and what is
// conspicuous.

#include <string>

#include "programme/caption_inventory.h"
#include "programme/stream_inspection.h"

namespace gsve::report {

/// `stream` with its buffer, where it was checked. However long the stream, the charts have a few thousand
/// points.
std::string inspection_page(const std::string& input, const programme::InspectedStream& stream,
                            const programme::CaptionInventory& captions);

}  // namespace gsve::report
