#pragma once

// What sample values mean, in the code points that ISO/IEC 13818-2, ITU-T H.264 and H.265 share (ITU-T
// H.273).

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace gsve::encoding {

struct Colour {
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;                 ///< MPEG-2 has the narrow one alone
    AVChromaLocation chroma_location = AVCHROMA_LOC_UNSPECIFIED;  ///< of 4:2:0; MPEG-2 has its own

    bool is_described() const {
        return primaries != AVCOL_PRI_UNSPECIFIED || transfer != AVCOL_TRC_UNSPECIFIED ||
               matrix != AVCOL_SPC_UNSPECIFIED;
    }
    friend bool operator==(const Colour&, const Colour&) = default;
};

}  // namespace gsve::encoding
