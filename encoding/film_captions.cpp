#include "encoding/film_captions.h"

#include <algorithm>
#include <array>

#include <orb_utils_v4/h264.h>

#include "captions/cc_data.h"

namespace gsve::encoding {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kCcCount = 25;  // constructs of a picture: 600 a second

Bytes atsc1_data(const captions::PictureWrites& writes) {
    return captions::compose_atsc1_data(captions::compose_cc_data(writes.pairs(), writes.cea708, kCcCount));
}

/// The first start code from `from` on, with its prefix of three bytes and the byte behind that.
std::span<uint8_t>::iterator next_start_code(std::span<uint8_t> unit, std::span<uint8_t>::iterator from) {
    constexpr std::array<uint8_t, 3> kPrefix = {0, 0, 1};
    const auto found = std::search(from, unit.end(), kPrefix.begin(), kPrefix.end());
    return unit.end() - found > 3 ? found : unit.end();
}

}  // namespace

Bytes film_user_data(const captions::PictureWrites& writes) {
    constexpr uint8_t kUserDataStartCode = 0xB2;
    Bytes bytes = {0, 0, 1, kUserDataStartCode};
    const Bytes body = atsc1_data(writes);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

Bytes film_caption_sei(const captions::PictureWrites& writes) {
    constexpr uint8_t kRegisteredUserData = 4, kCountryUnitedStates = 0xB5, kNalTypeSei = 6;
    constexpr uint8_t kProviderAtsc[] = {0x00, 0x31};
    constexpr uint8_t kRbspTrailingBits = 0x80;
    const Bytes body = atsc1_data(writes);
    Bytes rbsp = {kRegisteredUserData, static_cast<uint8_t>(3 + body.size()), kCountryUnitedStates,
                  kProviderAtsc[0], kProviderAtsc[1]};
    rbsp.insert(rbsp.end(), body.begin(), body.end());
    rbsp.push_back(kRbspTrailingBits);

    Bytes nal(2 * rbsp.size() + 8);  // emulation prevention adds a third at most
    const int size = h264_nal_write(nal.data(), nal.size(), rbsp.data(), rbsp.size(), 0, kNalTypeSei);
    nal.resize(static_cast<size_t>(std::max(size, 0)));
    return nal;
}

std::span<uint8_t>::iterator user_data_position(std::span<uint8_t> unit) {
    constexpr uint8_t kPicture = 0x00, kFirstSlice = 0x01;
    bool in_picture = false;
    for (auto at = next_start_code(unit, unit.begin()); at != unit.end();
         at = next_start_code(unit, at + 3)) {
        in_picture |= at[3] == kPicture;
        if (in_picture && at[3] == kFirstSlice) return at;
    }
    return unit.end();
}

std::span<uint8_t>::iterator caption_sei_position(std::span<uint8_t> unit) {
    // Table 7-1: SEI, parameter sets and delimiter.
    const auto precedes = [](int type) { return type == 0 || (type >= 6 && type <= 9); };
    auto at = next_start_code(unit, unit.begin());
    while (at != unit.end() && precedes(at[3] & 0x1F)) at = next_start_code(unit, at + 3);
    return at;
}

}  // namespace gsve::encoding
