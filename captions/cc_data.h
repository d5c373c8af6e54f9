#pragma once

/// The cc_data constructs of ATSC A/53 Part 4 (CTA-708 4.4), as decoders deliver them: a sequence of
/// three-byte triples without the user-data header around it.
///
/// Example: a decoded picture's A/53 side data
///     CcData cc = parse_cc_data({side_data->data, side_data->size});
///     repacer.push(frame, cc.captions);

#include <cstdint>
#include <span>

#include "schedule.h"

namespace gsve::captions {

struct CcData {
    /// Valid byte pairs of both fields, as they came (null pairs included), and the DTVCC constructs, with
    /// their marker bits set. Constructs without cc_valid are padding and left out.
    PictureCaptions captions;

    /// Byte pairs in which a byte has even parity.
    int parity_errors = 0;

    /// One or two bytes follow the last whole triple.
    bool truncated = false;
};

CcData parse_cc_data(std::span<const std::uint8_t> triples);

}  // namespace gsve::captions
