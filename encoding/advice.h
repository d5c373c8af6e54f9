#pragma once

// What to change about settings with which an encoder does not open, or could not go on.

#include <string>

#include "encoding/picture_encoder.h"

namespace gsve::encoding {

/// Why the codec may have refused, the likeliest first, and what to set instead.
std::string opening_advice(const PictureEncoder& encoder);

/// For an encoder that is described and set, and not opened yet: a warning where one noisy picture could end
/// the process, with the remedies; else empty.
std::string long_picture_warning(const PictureEncoder& encoder);

/// For an open encoder: a warning where pictures have no room for the stuffing of a constant rate, which
/// would end the process before long, with the remedies; else empty.
std::string stuffing_warning(const PictureEncoder& encoder);

}  // namespace gsve::encoding
