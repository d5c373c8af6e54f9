#pragma once

/// The user-data body of ANSI/SCTE 20: line-21 byte pairs in MPEG-2 picture user data, for receivers that
/// do not read A/53. The body begins after user_data_type_code 0x03:
///
///     reserved                      7   1000 000
///     vbi_data_flag                 1   1
///     cc_count                      5
///     cc_count times
///         cc_priority               2   0 is the highest
///         field_number              2   1, 2, 3: first, second, third (repeated) field in display order
///         line_offset               5   lines from line 10 (field 1) or 273 (field 2)
///         cc_data_1, cc_data_2      8   each with the bits in the order of transmission, lowest first
///         marker_bit                1   1
///     non_real_time_video_count     4   0
///     zero bits up to a whole byte
///
/// Example: what one picture's writes carry, for the encoder's SCTE-20 intake
///     auto body = compose_scte20(scte20_constructs(writes.words[0], writes.words[1], top_field_first));
///     if (!body.empty()) encoder.write_scte20(body.data(), body.size());

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "line21.h"

namespace gsve::captions {

inline constexpr std::uint8_t kScte20UserDataTypeCode = 0x03;

/// Line 21 and line 284, counted from lines 10 and 273.
inline constexpr std::uint8_t kScte20Line21 = 11;

inline constexpr std::size_t kScte20MaximumConstructs = 31;

struct Scte20Construct {
    std::uint8_t priority = 0;      ///< 0 to 3
    std::uint8_t field_number = 1;  ///< 1 to 3; 0 is forbidden
    std::uint8_t line_offset = kScte20Line21;
    Word word = kNullPair;  ///< with parity

    friend bool operator==(const Scte20Construct&, const Scte20Construct&) = default;
};

/// The constructs for a picture's pairs of field 1 and field 2; a null pair gives none. The field number
/// counts in display order, so that field 1 (the top field) is the second one of a picture whose bottom
/// field comes first.
std::vector<Scte20Construct> scte20_constructs(Word field_1, Word field_2, bool top_field_first);

/// The body; empty when there are no constructs. At most 31 constructs are written, of 26 bits each.
std::vector<std::uint8_t> compose_scte20(std::span<const Scte20Construct> constructs);

/// Reads a body (without the type code); nothing when it is not one: another reserved or vbi_data_flag
/// bit, a forbidden field number, a missing marker bit or too few bytes.
std::optional<std::vector<Scte20Construct>> parse_scte20(std::span<const std::uint8_t> body);

}  // namespace gsve::captions
