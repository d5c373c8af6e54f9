#pragma once

// A stream as one page of HTML that needs nothing beside it: charts, captions, and what is conspicuous.

#include <string>
#include <vector>

#include "programme/caption_inventory.h"
#include "programme/encode_result.h"
#include "programme/stream_account.h"
#include "programme/stream_inspection.h"

namespace gsve::report {

/// What was found by reading a stream.
struct Findings {
    programme::InspectedStream stream;  ///< with its buffer, where it was checked
    programme::CaptionInventory captions;
    std::vector<programme::LoudnessCourse> sound;
};

/// However long the stream, the charts have a few thousand points.
std::string inspection_page(const std::string& input, const Findings& findings);

/// The same of a finished encoding, with what it lost and changed on the way. `findings`: of its output.
std::string encode_page(const programme::EncodeResult& result, const Findings& findings);

}  // namespace gsve::report
