#pragma once

/// The cc_data constructs of ATSC A/53 Part 4 (CTA-708 4.4): a sequence of three-byte triples, as decoders
/// deliver them, and the user data around it.
///
/// Example: a decoded picture's A/53 side data in, an encoded picture's user data out
///     CcData cc = parse_cc_data({side_data->data, side_data->size});
///     repacer.push(frame, cc.captions);
///     ...
///     compose_atsc1_data(compose_cc_data(pairs, writes.cea708, cc_count(rate)));

#include <cstdint>
#include <span>
#include <vector>

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

/// The most constructs that a picture's cc_data can have: cc_count has five bits.
inline constexpr int kMaximumCcCount = 31;

/// A picture's triples: the byte pairs in their order, with parity, then the DTVCC constructs, then padding
/// (0xFA 0x00 0x00) up to `count`, of which there can be 31. A pair of 0 is a null pair. Constructs of other
/// kinds, and what is more than `count`, are left out: the picture's budget is the caller's to keep.
std::vector<std::uint8_t> compose_cc_data(std::span<const FieldPair> pairs,
                                          std::span<const Cea708Construct> cea708, int count);

/// ATSC1_data() with these triples (A/53 Part 4, 6.2.2 and 6.2.3), for MPEG-2 picture user data after its
/// start code, or a T.35 SEI message after country and provider:
///
///     user_identifier           32  "GA94"
///     user_data_type_code        8  0x03
///     reserved                   1  1
///     process_cc_data_flag       1  1
///     zero_bit                   1  0
///     cc_count                   5
///     reserved                   8  0xFF
///     cc_count triples
///     marker_bits                8  0xFF
std::vector<std::uint8_t> compose_atsc1_data(std::span<const std::uint8_t> triples);

}  // namespace gsve::captions
