#pragma once

// Frame-rate arithmetic: division of the source rate, the codec's time base, GOP length. A source rate with
// a zero in it never traps here; the codec refuses the time base that comes of it.

#include <algorithm>
#include <cstdint>
#include <limits>

namespace gsve::detail {

/// Source pictures per second as a fraction.
struct SourceRate {
    int32_t num, den;

    double value() const { return static_cast<double>(num) / den; }

    /// Pictures per second when one in `divider` is encoded.
    double divided(uint32_t divider) const { return num / (static_cast<double>(den) * divider); }

    /// divided() in integer division; 0 where the rate has no value.
    int64_t divided_whole(uint32_t divider) const {
        const int64_t denominator = static_cast<int64_t>(den) * divider;
        return denominator == 0 ? 0 : num / denominator;
    }

    /// Seconds from one encoded picture to the next.
    double period(uint32_t divider) const { return static_cast<double>(den) * divider / num; }
};

/// 32-bit product, wrapping.
inline int32_t product32(int32_t a, uint32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) * b); }

/// a / b truncated; 0 where the quotient has no 32-bit value.
inline int32_t quotient32(int32_t a, int32_t b) {
    if (b == 0 || (b == -1 && a == std::numeric_limits<int32_t>::min())) return 0;
    return a / b;
}

/// Every how many source pictures one is encoded so that the rate stays within `limit` (0 or below: none).
inline uint32_t frame_rate_divider(SourceRate rate, int32_t limit) {
    if (limit <= 0 || rate.num == 0 || rate.den == 0 || limit >= rate.value()) return 1;
    // Every divider below rate / limit fails, so the search starts just in front of it.
    uint32_t divider = std::max(2u, static_cast<uint32_t>(rate.value() / limit) - 1);
    while (static_cast<double>(rate.num) / product32(rate.den, divider) > limit) divider++;
    return divider;
}

/// The length of one encoded picture in ticks of 90 kHz, in 32-bit arithmetic.
inline int32_t frame_duration_90k(SourceRate rate, uint32_t divider) {
    return quotient32(product32(product32(rate.den, divider), 90000), rate.num);
}

/// The codec's time base in seconds, and the frame rate that it stands for.
struct TimeBase {
    int32_t num, den;
    double frame_rate;
};

/// Source rates that mean a broadcast rate. The uneven edges keep 29.97, which has no band, out of 30.
struct RateBand {
    double low;
    double high;
    bool high_included;
    int32_t rate;    ///< numerator of the exact rate
    int32_t factor;  ///< its denominator

    bool holds(double r) const { return r >= low && (high_included ? r <= high : r < high); }
};

inline constexpr RateBand kRateBands[] = {
    {59.96, 60.1, true, 60, 1},           {59.9, 59.96, false, 60000, 1001}, {49.9, 50.1, false, 50, 1},
    {29.99, 30.1, true, 30, 1},           {24.9, 25.1, false, 25, 1},        {23.999, 24.05, false, 24, 1},
    {23.975, 23.977, false, 24000, 1001},
};

/// The time base for a source rate, snapped to the exact broadcast rate where a band holds it.
inline TimeBase codec_time_base(SourceRate rate, uint32_t divider) {
    for (const RateBand& band : kRateBands)
        if (band.holds(rate.value()))
            return {product32(band.factor, divider), band.rate,
                    band.rate / (static_cast<double>(band.factor) * divider)};
    return {product32(rate.den, divider), rate.num, rate.divided(divider)};
}

/// The GOP length: as set, or the longest up to 15 that whole runs of B-frames fill; one shorter where a
/// closed GOP has to end in a P-picture.
inline int32_t effective_gop_size(int32_t gop_size, int32_t b_frames, bool closed_gop) {
    if (gop_size >= 1) return gop_size;
    const int32_t run = b_frames + 1;
    const int32_t filled = 15 - 15 % run;
    const int32_t length = b_frames < filled ? filled : run;
    return closed_gop && b_frames > 0 && length > 1 ? length - 1 : length;
}

}  // namespace gsve::detail
