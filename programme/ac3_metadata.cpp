#include "programme/ac3_metadata.h"

#include <array>

extern "C" {
#include <libavutil/opt.h>
}

#include "captions/bits.h"

namespace gsve::programme {
namespace {

// A/52, tables 5.9 and 5.10; the reserved codes are taken for the middle, as decoders do.
constexpr std::array kCenterMix = {0.707, 0.595, 0.500, 0.595};
constexpr std::array kSurroundMix = {0.707, 0.500, 0.0, 0.500};

/// 0 is reserved, and taken for the lowest level.
int dialogue_level(unsigned code) { return code == 0 ? -31 : -static_cast<int>(code); }

}  // namespace

std::optional<Ac3Metadata> ac3_metadata(std::span<const uint8_t> frame) {
    constexpr size_t kShortest = 8;
    if (frame.size() < kShortest || frame[0] != 0x0B || frame[1] != 0x77) return std::nullopt;
    Ac3Metadata metadata;
    captions::BitReader bits(frame);
    const unsigned bsid = frame[5] >> 3;
    if (bsid > 10) {
        bits.get(16 + 2 + 3 + 11);
        bits.get(2 + 2 + 3 + 1 + 5);
        metadata.dialogue_level = dialogue_level(bits.get(5));
        return metadata;
    }
    bits.get(16 + 16);
    bits.get(2 + 6 + 5 + 3);
    const unsigned acmod = bits.get(3);
    if ((acmod & 1) && acmod != 1) metadata.center_mix = kCenterMix[bits.get(2)];
    if (acmod & 4) metadata.surround_mix = kSurroundMix[bits.get(2)];
    if (acmod == 2) metadata.surround_mode = static_cast<int>(bits.get(2));
    bits.get(1);
    metadata.dialogue_level = dialogue_level(bits.get(5));
    return metadata;
}

void set_metadata(AVCodecContext& encoder, const Ac3Metadata& metadata) {
    if (encoder.codec_id != AV_CODEC_ID_AC3 && encoder.codec_id != AV_CODEC_ID_EAC3) return;
    av_opt_set_int(encoder.priv_data, "dialnorm", metadata.dialogue_level, 0);
    if (metadata.center_mix) av_opt_set_double(encoder.priv_data, "center_mixlev", *metadata.center_mix, 0);
    if (metadata.surround_mix)
        av_opt_set_double(encoder.priv_data, "surround_mixlev", *metadata.surround_mix, 0);
    if (metadata.surround_mode == 1 || metadata.surround_mode == 2)
        av_opt_set_int(encoder.priv_data, "dsur_mode", metadata.surround_mode, 0);
}

}  // namespace gsve::programme
