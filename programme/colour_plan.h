#pragma once

// What becomes of a source's colours.
//
// High definition is BT.709 and standard definition BT.601, and decoders that are told nothing take it so:
// where a picture goes from one to the other, its sample values are converted.

#include <string>

#include "encoding/colour.h"
#include "encoding/picture_shape.h"
#include "programme/av.h"

namespace gsve::programme {

/// What decides about it beside the source.
struct ColourWish {
    encoding::PictureSize output;    ///< as it is encoded
    bool narrow_range_only = false;  ///< the codec knows no other, as MPEG-2
    bool keep = false;               ///< leave sample values as they are
    bool interlaced = false;         ///< each field has its own chroma
};

struct ColourPlan {
    encoding::Colour encoded;  ///< what the encoded samples mean
    AVColorSpace from =
        AVCOL_SPC_UNSPECIFIED;  ///< with `to`: sample values are converted between these matrices
    AVColorSpace to = AVCOL_SPC_UNSPECIFIED;
    bool by_fields = false;        ///< ... of each field by itself
    bool to_narrow_range = false;  ///< they are brought from the full range into the narrow one
    std::string notes;             ///< a line each

    bool converts_matrix() const { return to != AVCOL_SPC_UNSPECIFIED; }
};

/// What a decoded picture says of its samples.
encoding::Colour colour_of(const AVFrame& frame);

/// The name of a picture's high dynamic range; null: it has none.
const char* high_dynamic_range(const AVFrame& frame);

/// For a source whose first picture is this. Throws UsageError for high dynamic range, which 8 bits do not
/// hold.
ColourPlan plan_colour(const AVFrame& first, const ColourWish& wish);

}  // namespace gsve::programme
