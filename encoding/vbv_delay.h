#pragma once

// What MPEG-2 at a constant bit rate cannot carry. vbv_delay (ISO/IEC 13818-2, 6.3.9) tells in 16 bits of a
// 90 kHz clock how long a picture's data takes to arrive: 0.728 s. Where libavcodec's encoder fills it in,
// which is at equal bounds of the rate and a buffer that fits those 16 bits, a picture that takes longer ends
// the process by an assertion.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <gsve.h>

namespace gsve::encoding {

inline constexpr double kLongestVbvDelay = 65535 / 90000.0;  ///< seconds

/// The most bits of a coded sample, which samples that are black or white at random take: as measured, 3.75
/// at the coarsest quantiser, and 9.3, 12.2 and 15.9 where "maximum quant" is 8, 4 and 2. Noise of full range
/// takes 2.2.
inline double hardest_bits_per_sample(int maximum_quant) {
    constexpr int kCoarsest = 31;
    const bool limited = maximum_quant > 0 && maximum_quant < kCoarsest;
    return 3.8 + (limited ? 3.1 * std::log2(static_cast<double>(kCoarsest) / maximum_quant) : 0);
}

/// The most bits that one picture may take.
inline double hardest_picture(const GeneralStreamingVideoEncoder& encoder) {
    const bool resized = encoder.resize_width > 0 && encoder.resize_height > 0;
    const double luma = resized ? static_cast<double>(encoder.resize_width) * encoder.resize_height
                                : static_cast<double>(encoder.input_width) * encoder.input_height;
    const double chroma = 2 * luma / (1 << (encoder.input_chroma_shift_x + encoder.input_chroma_shift_y));
    return (luma + chroma) * hardest_bits_per_sample(encoder.maximum_quant);
}

/// Either of these lets any picture pass, where the settings do not.
struct VbvDelayAdvice {
    bool needed = false;
    int64_t bitrate = 0;      ///< bits/s from which on a picture fits
    int64_t buffer_size = 0;  ///< bits from which on libavcodec leaves vbv_delay out
};

/// For an encoder that is described and set, and not opened yet. How much of the bit rate captions will take
/// is not known then, so rates count as equal when they differ by no more than that.
inline VbvDelayAdvice vbv_delay_advice(const GeneralStreamingVideoEncoder& encoder) {
    constexpr int kCodecMpeg2 = 2, kDefaultBuffer = 1835008, kMostCaptionRate = 16016;
    const int64_t lowest = encoder.min_bitrate >= 0 ? encoder.min_bitrate : encoder.bitrate;
    const int64_t highest = encoder.max_bitrate >= 0 ? encoder.max_bitrate : encoder.bitrate;
    const int64_t buffer =
        encoder.buffer_size > 0 ? encoder.buffer_size : std::min(encoder.bitrate / 4, kDefaultBuffer);
    VbvDelayAdvice advice;
    advice.bitrate =
        static_cast<int64_t>(std::ceil(hardest_picture(encoder) / kLongestVbvDelay)) + kMostCaptionRate;
    advice.buffer_size = highest * 65535 / 90000 + 2;
    advice.needed = encoder.codec_id == kCodecMpeg2 && highest > 0 &&
                    std::abs(lowest - highest) <= kMostCaptionRate && buffer < advice.buffer_size &&
                    highest < advice.bitrate;
    return advice;
}

}  // namespace gsve::encoding
