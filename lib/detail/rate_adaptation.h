#pragma once

// Rate statistics, frame dropping, and the adaptation of MPEG-2 complexity to bit rate and processor load.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace gsve::detail {

/// Marks a smoothed statistic that has no value yet.
inline constexpr double kNoValueYet = -666.0;

/// The weights of the value so far and of a new one.
struct Smoothing {
    double old_weight;
    double new_weight;
};

/// The weighted sum of the two values; the new one alone while there is none so far. Anything at or below
/// `no_value` counts as none, a bound that differs: docs/contract.md, "Fields".
inline double smooth(double old_value, double new_value, Smoothing weights, double no_value) {
    if (old_value <= no_value) return new_value;
    return old_value * weights.old_weight + new_value * weights.new_weight;
}

/// How far the stream runs over its bit rate, moved by one picture; 0 to 4.
inline double next_drop_level(double drop_level, double smoothed_bitrate, int32_t bitrate) {
    constexpr double kLow = std::numeric_limits<int32_t>::min(), kHigh = std::numeric_limits<int32_t>::max();
    const auto whole = static_cast<int32_t>(std::clamp(smoothed_bitrate, kLow, kHigh));
    return std::clamp(drop_level + (static_cast<double>(whole) - bitrate) / bitrate, 0.0, 4.0);
}

/// Decides one picture's fate and moves the credit: true drops it. At a level of 2 two of three are dropped.
inline bool drops_picture(double drop_level, double& drop_credit) {
    if (drop_level >= 1.5 && std::floor(drop_level + 0.5) >= drop_credit) {
        drop_credit += 1.0;
        return true;
    }
    if (drop_credit >= drop_level) drop_credit -= drop_level;
    return false;
}

/// What the complexity adaptation looks at.
struct ComplexityInput {
    double rate;           ///< smoothed bit rate, bits/s
    double target;         ///< set bit rate, bits/s
    double encode_time;    ///< smoothed, seconds
    double period;         ///< seconds from one encoded picture to the next
    double cpu_threshold;  ///< share of the period that encoding may take
    double masking_floor;  ///< spatial complexity masking as set
    double tune_recovery, tune_bitrate, tune_cpu;
    double drop_level;
    bool per_frame_rate_control;
    bool widens_motion_search;  ///< this picture may widen a narrowed search again
    int motion_range_limit;     ///< motion estimation range as set
};

/// What it moves.
struct ComplexityState {
    double masking;  ///< live spatial complexity masking
    int motion_range;
};

/// Raises spatial complexity masking while the stream runs over its rate or encoding over its time, lowers
/// it while neither does, and narrows or widens the motion search with the time at hand. Returns the masking
/// to give to the codec, at most 1.
inline float adapt_complexity(const ComplexityInput& in, ComplexityState& state) {
    const bool in_time = in.encode_time < in.cpu_threshold * in.period;
    double& masking = state.masking;

    if (in.rate < 1.33 * in.target) {
        if (in_time) {
            if (masking > in.masking_floor)
                masking = std::max(masking - 1.1 * in.period * in.tune_recovery, in.masking_floor);
            if (in.widens_motion_search && state.motion_range < in.motion_range_limit) state.motion_range++;
        }
    } else if (!in.per_frame_rate_control) {
        if (masking < 1.0) masking += (in.rate - in.target) / (8 * in.target) * in.period * in.tune_bitrate;
        masking = std::min(masking, 1.0);
    }

    if (!in_time) {
        const double overrun = in.encode_time - in.cpu_threshold * in.period;
        const double rate_weight = 4e6 / in.target;
        if (masking < 1.0) masking += overrun / (0.5 * in.period) * (rate_weight * rate_weight) * in.tune_cpu;
        masking = std::min(masking, 1.0);
        state.motion_range = state.motion_range < 4 ? 2 : state.motion_range - 1;
    }

    const double excess = in.drop_level - 0.3;
    return static_cast<float>(std::min(excess > 0 ? excess * 4 + masking : masking, 1.0));
}

}  // namespace gsve::detail
