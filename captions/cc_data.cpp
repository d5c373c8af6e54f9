#include "cc_data.h"

namespace gsve::captions {

CcData parse_cc_data(std::span<const std::uint8_t> triples) {
    constexpr std::uint8_t kMarkerBits = 0xF8, kCcValid = 0x04, kCcType = 0x03;
    CcData cc;
    cc.truncated = triples.size() % 3 != 0;
    for (std::size_t at = 0; at + 3 <= triples.size(); at += 3) {
        const std::uint8_t header = triples[at], data_1 = triples[at + 1], data_2 = triples[at + 2];
        if (!(header & kCcValid)) continue;
        const unsigned type = header & kCcType;
        if (type < 2) {
            const Word word = make_word(data_1, data_2);
            cc.captions.fields[type].push_back(word);
            cc.parity_errors += !has_parity(word);
        } else {
            cc.captions.cea708.push_back(
                {static_cast<std::uint8_t>(kMarkerBits | kCcValid | type), data_1, data_2});
        }
    }
    return cc;
}

}  // namespace gsve::captions
