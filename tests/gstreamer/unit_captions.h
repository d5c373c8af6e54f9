#pragma once

// The A/53 captions of one coded unit, as a receiver finds them.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "captions/cc_data.h"
#include "captions/line21.h"
#include "encoding/start_codes.h"
#include "support/bytes.h"

namespace gsve::test {

/// ATSC_identifier, user_data_type_code, process_em_data_flag and the like with cc_count, em_data, then
/// triples.
inline std::vector<uint8_t> triples_in(const std::vector<uint8_t>& payload) {
    constexpr std::string_view kCaptions = "GA94\x03";
    const auto found = std::search(payload.begin(), payload.end(), kCaptions.begin(), kCaptions.end());
    if (payload.end() - found < 7) return {};
    const auto count = static_cast<ptrdiff_t>(found[5] & 0x1F);
    return {found + 7, std::min(found + 7 + 3 * count, payload.end())};
}

/// What is no null pair and no padding.
inline captions::PictureCaptions unit_captions(const std::string& codec, const Bytes& unit) {
    std::vector<uint8_t> triples;
    for (const encoding::Section& section : encoding::sections(unit)) {
        const size_t header = codec == "h.265" ? 2 : 1;
        const auto more =
            codec == "mpeg-2"
                ? triples_in({section.bytes.begin() + 1, section.bytes.end()})
                : triples_in(encoding::rbsp_of(section.bytes, std::min(header, section.bytes.size())));
        triples.insert(triples.end(), more.begin(), more.end());
    }
    captions::PictureCaptions found = captions::parse_cc_data(triples).captions;
    for (auto& field : found.fields) std::erase_if(field, captions::is_null);
    return found;
}

}  // namespace gsve::test
