#include "encoding/unit_messages.h"

#include <algorithm>
#include <array>

#include "captions/bits.h"
#include "captions/cc_data.h"
#include "encoding/codec_id.h"
#include "encoding/start_codes.h"

namespace gsve::encoding {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kPrefixSize = 3;

/// The first start code prefix from `from` on that has a byte behind it; the unit's size where there is none.
size_t next_start_code(std::span<const uint8_t> unit, size_t from) {
    constexpr std::array<uint8_t, kPrefixSize> kPrefix = {0, 0, 1};
    const auto begin = unit.begin() + static_cast<ptrdiff_t>(std::min(from, unit.size()));
    const auto found = std::search(begin, unit.end(), kPrefix.begin(), kPrefix.end());
    return unit.end() - found > 3 ? static_cast<size_t>(found - unit.begin()) : unit.size();
}

/// One message as a NAL unit. Its payload is shorter than 255 bytes.
Bytes sei_nal(int codec_id, unsigned payload_type, const Bytes& payload, int temporal_id) {
    constexpr uint8_t kH264Sei = 6, kH265PrefixSei = 39, kRbspTrailingBits = 0x80;
    Bytes rbsp;
    rbsp.reserve(payload.size() + 3);
    rbsp.push_back(static_cast<uint8_t>(payload_type));
    rbsp.push_back(static_cast<uint8_t>(payload.size()));
    rbsp.insert(rbsp.end(), payload.begin(), payload.end());
    rbsp.push_back(kRbspTrailingBits);
    const uint8_t header[] = {codec_id == kH264 ? kH264Sei : uint8_t{kH265PrefixSei << 1},
                              static_cast<uint8_t>(temporal_id + 1)};
    return make_nal({header, codec_id == kH264 ? 1u : 2u}, rbsp);
}

}  // namespace

Bytes caption_data(const captions::PictureWrites& writes, captions::FrameRate rate, uint64_t picture) {
    std::vector<captions::FieldPair> pairs = writes.pairs();
    if (captions::picture_budget(rate).alternating_fields)
        std::erase_if(pairs, [&](const captions::FieldPair& pair) { return pair.field != picture % 2; });
    return captions::compose_atsc1_data(
        captions::compose_cc_data(pairs, writes.cea708, captions::cc_count(rate)));
}

Bytes mpeg2_user_data(std::span<const uint8_t> body) {
    constexpr uint8_t kUserDataStartCode = 0xB2;
    Bytes bytes;
    bytes.reserve(4 + body.size());
    for (const uint8_t byte : {uint8_t{0}, uint8_t{0}, uint8_t{1}, kUserDataStartCode}) bytes.push_back(byte);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

Bytes atsc_message(int codec_id, std::span<const uint8_t> body, int temporal_id) {
    constexpr unsigned kRegisteredUserData = 4;
    constexpr uint8_t kCountryUnitedStates = 0xB5, kProviderAtsc[] = {0x00, 0x31};
    Bytes payload;
    payload.reserve(3 + body.size());
    payload.push_back(kCountryUnitedStates);
    payload.insert(payload.end(), std::begin(kProviderAtsc), std::end(kProviderAtsc));
    payload.insert(payload.end(), body.begin(), body.end());
    return sei_nal(codec_id, kRegisteredUserData, payload, temporal_id);
}

Bytes timecode_message(const captions::GopTimecode& timecode, captions::FrameRate rate, int temporal_id) {
    constexpr unsigned kTimeCode = 136;
    constexpr unsigned kNoDropping = 0, kTwoLowestDropped = 4, kMoreDropped = 6;
    const unsigned counting = timecode.drop_frame_flag == 0        ? kNoDropping
                              : captions::nominal_rate(rate) <= 30 ? kTwoLowestDropped
                                                                   : kMoreDropped;
    captions::BitWriter bits;
    bits.put(1, 2);  // num_clock_ts
    bits.put(1, 1);  // clock_timestamp_flag
    bits.put(0, 1);  // units_field_based_flag
    bits.put(counting, 5);
    bits.put(1, 1);  // full_timestamp_flag
    bits.put(0, 1);  // discontinuity_flag
    bits.put(timecode.drop_frame_flag, 1);
    bits.put(timecode.pictures, 9);
    bits.put(timecode.seconds, 6);
    bits.put(timecode.minutes, 6);
    bits.put(timecode.hours, 5);
    bits.put(0, 5);  // time_offset_length
    bits.put(1, 1);  // payload_bit_equal_to_one
    return sei_nal(kH265, kTimeCode, bits.take(), temporal_id);
}

size_t user_data_position(std::span<const uint8_t> unit) {
    constexpr uint8_t kPicture = 0x00, kFirstSlice = 0x01;
    bool in_picture = false;
    for (size_t at = next_start_code(unit, 0); at != unit.size();
         at = next_start_code(unit, at + kPrefixSize)) {
        in_picture |= unit[at + kPrefixSize] == kPicture;
        if (in_picture && unit[at + kPrefixSize] == kFirstSlice) return at;
    }
    return unit.size();
}

size_t sei_position(int codec_id, std::span<const uint8_t> unit) {
    // Table 7-1 of each: in H.264 SEI, parameter sets and delimiter; in H.265 all that is no slice, and
    // stands in front of the first one.
    const auto precedes = [codec_id](uint8_t header) {
        if (codec_id == kH265) return (header >> 1 & 0x3F) >= 32;
        const int type = header & 0x1F;
        return type == 0 || (type >= 6 && type <= 9);
    };
    size_t at = next_start_code(unit, 0);
    while (at != unit.size() && precedes(unit[at + kPrefixSize]))
        at = next_start_code(unit, at + kPrefixSize);
    const bool has_zero_byte = at != unit.size() && at > 0 && unit[at - 1] == 0;
    return at - has_zero_byte;
}

int temporal_id_at(std::span<const uint8_t> unit, size_t position) {
    const bool has_zero_byte = position + 2 < unit.size() && unit[position + 2] == 0;
    const size_t at = position + has_zero_byte + kPrefixSize + 1;
    return at < unit.size() ? std::max((unit[at] & 7) - 1, 0) : 0;
}

}  // namespace gsve::encoding
