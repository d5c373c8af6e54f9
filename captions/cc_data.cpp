#include "cc_data.h"

#include <algorithm>
#include <iterator>

namespace gsve::captions {

namespace {

constexpr std::uint8_t kMarkerBits = 0xF8, kCcValid = 0x04, kCcType = 0x03;
constexpr std::size_t kTripleSize = 3;
constexpr std::uint8_t kPadding[kTripleSize] = {kMarkerBits | 0x02, 0x00, 0x00};

}  // namespace

CcData parse_cc_data(std::span<const std::uint8_t> triples) {
    CcData cc;
    cc.truncated = triples.size() % kTripleSize != 0;
    for (std::size_t at = 0; at + kTripleSize <= triples.size(); at += kTripleSize) {
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

std::vector<std::uint8_t> compose_cc_data(std::span<const FieldPair> pairs,
                                          std::span<const Cea708Construct> cea708, int count) {
    const std::size_t size = kTripleSize * static_cast<std::size_t>(std::clamp(count, 0, kMaximumCcCount));
    std::vector<std::uint8_t> triples;
    for (const FieldPair& pair : pairs) {
        const Word word = with_parity(pair.word);
        triples.insert(triples.end(),
                       {static_cast<std::uint8_t>(kMarkerBits | kCcValid | pair.field),
                        static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word & 0xFF)});
    }
    for (const Cea708Construct& construct : cea708)
        if (construct.header >= kHeaderDtvccData)
            triples.insert(triples.end(), {construct.header, construct.data_1, construct.data_2});
    while (triples.size() < size) triples.insert(triples.end(), std::begin(kPadding), std::end(kPadding));
    triples.resize(size);
    return triples;
}

std::vector<std::uint8_t> compose_atsc1_data(std::span<const std::uint8_t> triples) {
    constexpr std::uint8_t kReservedAndProcessCcData = 0xC0, kCcDataTypeCode = 0x03, kReserved = 0xFF,
                           kMarker = 0xFF;
    const std::size_t count =
        std::min(triples.size() / kTripleSize, static_cast<std::size_t>(kMaximumCcCount));
    const std::uint8_t header[] = {'G',
                                   'A',
                                   '9',
                                   '4',
                                   kCcDataTypeCode,
                                   static_cast<std::uint8_t>(kReservedAndProcessCcData | count),
                                   kReserved};
    std::vector<std::uint8_t> body;
    body.reserve(std::size(header) + count * kTripleSize + 1);
    body.insert(body.end(), std::begin(header), std::end(header));
    body.insert(body.end(), triples.begin(),
                triples.begin() + static_cast<std::ptrdiff_t>(count * kTripleSize));
    body.push_back(kMarker);
    return body;
}

}  // namespace gsve::captions
