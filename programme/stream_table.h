#pragma once

// What becomes of a stream in a container.

#include <string_view>

#include "programme/av.h"
#include "programme/treatments.h"

namespace gsve::programme {

/// What becomes of a stream that is no picture. Sound of a kind that the table lacks is converted where it
/// can be decoded; everything else that it lacks is named.
Treatment treatment_of(const AVCodecParameters& stream, Container container);

/// The form that a stream is converted to, as FFmpeg's encoder is called.
std::string_view conversion_of(AVMediaType type, Container container);

}  // namespace gsve::programme
