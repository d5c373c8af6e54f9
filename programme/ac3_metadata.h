#pragma once

// What AC-3 and E-AC-3 tell a receiver beside the sound (ATSC A/52).

#include <cstdint>
#include <optional>
#include <span>

#include "programme/av.h"

namespace gsve::programme {

/// As in the bit stream information. Downmix levels are nothing where the channels have none.
struct Ac3Metadata {
    int dialogue_level = -31;          ///< dBFS, -31 to -1
    std::optional<double> center_mix;  ///< factor of the centre in a downmix
    std::optional<double> surround_mix;
    int surround_mode = 0;  ///< of stereo, for Dolby Surround: 0 not told, 1 no, 2 yes

    friend bool operator==(const Ac3Metadata&, const Ac3Metadata&) = default;
};

/// Of a frame that begins with the syncword; nothing where it does not. Of E-AC-3, the dialogue level alone.
std::optional<Ac3Metadata> ac3_metadata(std::span<const uint8_t> frame);

/// For FFmpeg's encoders of AC-3 and E-AC-3, before they are opened. Other encoders are left as they are.
void set_metadata(AVCodecContext& encoder, const Ac3Metadata& metadata);

}  // namespace gsve::programme
