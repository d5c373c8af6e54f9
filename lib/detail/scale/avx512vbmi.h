#pragma once

// Row kernels for AVX-512 VBMI, whose byte permutes reach across two vectors: one gathers the sample pairs of
// 32 outputs, and one takes the bytes wanted out of two vectors of words.

#if defined(__x86_64__)

#include <immintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "avx2.h"
#include "avx512.h"
#include "rows.h"

#define GSVE_SCALE_SET vbmi
#define GSVE_SCALE_TARGET "avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi"
#define GSVE_SCALE_INTRINSIC(name) _mm512_##name
#include "generic/begin.h"

using Vector = __m512i;
inline constexpr size_t kLanes = 64;
inline constexpr bool kBlendsTwoVectors = false;
namespace narrower = avx2;

using avx512::average;
using avx512::load;
using avx512::select;
using avx512::store;

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

/// Keeps the compiler from loading a vector once for each half.
GSVE_INLINE Vector at_hand(Vector v) {
    __asm__("" : "+v"(v));
    return v;
}

/// The offsets of the upper bytes of the words of two vectors, the lower and the upper halves of the 128-bit
/// lanes that they were unpacked from.
alignas(64) inline constexpr auto kUpperBytes = [] {
    std::array<uint8_t, 64> offsets{};
    for (unsigned i = 0; i < 64; ++i) {
        const unsigned lane = i / 16 * 16, vector = i % 16 < 8 ? 0 : 64;
        offsets[i] = static_cast<uint8_t>(vector + lane + 2 * (i % 8) + 1);
    }
    return offsets;
}();

/// The upper bytes of words, as the samples lay that pairs_low() and pairs_high() took.
GSVE_INLINE Vector upper_bytes(Vector low, Vector high) {
    return _mm512_permutex2var_epi8(low, _mm512_load_si512(kUpperBytes.data()), high);
}

#include "generic/blend.h"

// ---- Horizontal interpolation -------------------------------------------------------------------------

inline constexpr GatherShape kDense = {.outputs = 64, .window = 64, .groups = 1, .position = {0}};
inline constexpr GatherShape kSparse = {.outputs = 32, .window = 64, .groups = 2, .position = {0, 1}};

/// The pairs of the samples of half a round.
template <Spread kSpread>
GSVE_INLINE __m512i gather(const uint8_t* window, __m512i pair) {
    if constexpr (kSpread != Spread::kTwo) return _mm512_permutexvar_epi8(pair, _mm512_loadu_si512(window));
    return _mm512_permutex2var_epi8(_mm512_loadu_si512(window), pair, _mm512_loadu_si512(window + 64));
}

/// base + floor((base - other) * weight / 65536) in the lower bytes of 16-bit lanes; the upper ones are of no
/// meaning.
GSVE_INLINE __m512i weigh(__m512i pairs, __m512i weight) {
    const __m512i difference = _mm512_maddubs_epi16(pairs, _mm512_set1_epi16(static_cast<int16_t>(0xff01)));
    return _mm512_add_epi16(pairs, _mm512_mulhi_epi16(difference, weight));
}

/// The offsets of the lower bytes of 64 words.
alignas(64) inline constexpr auto kLowerBytes = [] {
    std::array<uint8_t, 64> offsets{};
    for (unsigned i = 0; i < 64; ++i) offsets[i] = static_cast<uint8_t>(2 * i);
    return offsets;
}();

/// Fetches what the next rows want from around the windows of the round from output `i` on.
/// Into the second level: the lines of two rows of 4K are too much for the first, and cost more there.
template <Spread kSpread>
GSVE_INLINE void fetch(NextLines next, size_t i, const HorizontalPlan& plan) {
    constexpr bool kIsDense = kSpread == Spread::kDense;
    const uint32_t* window = plan.window + i / (kIsDense ? kDense.outputs : kSparse.outputs);
    for (const uint8_t* line : {next.a, next.b}) {
        for (unsigned group = 0; group < (kIsDense ? 1 : 2); ++group) {
            const auto* samples = reinterpret_cast<const char*>(line + window[group]);
            _mm_prefetch(samples, _MM_HINT_T1);
            if constexpr (kSpread == Spread::kTwo) _mm_prefetch(samples + 64, _MM_HINT_T1);
        }
    }
}

/// The tables of a round of 64 outputs.
struct Round {
    uint32_t window[2];
    __m512i pair[2];
    __m512i weight[2];
};

/// The tables from output `i` of the plan on.
template <Spread kSpread>
GSVE_INLINE Round round_at(size_t i, const HorizontalPlan& plan) {
    constexpr bool kIsDense = kSpread == Spread::kDense;
    const uint32_t* window = plan.window + i / (kIsDense ? kDense.outputs : kSparse.outputs);
    const uint16_t* pair = plan.pair + i;
    const int16_t* weight = plan.weight + i;
    return {{window[0], kIsDense ? window[0] : window[1]},
            {_mm512_load_si512(pair), _mm512_load_si512(pair + 32)},
            {_mm512_load_si512(weight), _mm512_load_si512(weight + 32)}};
}

/// Keeps the tables of a round in registers for a second row, where the compiler would load them again.
GSVE_INLINE Round held(Round round) {
    __asm__("" : "+v"(round.pair[0]), "+v"(round.pair[1]), "+v"(round.weight[0]), "+v"(round.weight[1]));
    return round;
}

/// The 64 samples of a round.
template <Spread kSpread>
GSVE_INLINE __m512i samples_of(const uint8_t* row, const Round& round) {
    __m512i first, second;
    if constexpr (kSpread == Spread::kDense) {
        __m512i window = load(row + round.window[0]);
        __asm__("" : "+v"(window));  // loaded once for both halves
        first = _mm512_permutexvar_epi8(round.pair[0], window);
        second = _mm512_permutexvar_epi8(round.pair[1], window);
    } else {
        first = gather<kSpread>(row + round.window[0], round.pair[0]);
        second = gather<kSpread>(row + round.window[1], round.pair[1]);
    }
    return _mm512_permutex2var_epi8(weigh(first, round.weight[0]), _mm512_load_si512(kLowerBytes.data()),
                                    weigh(second, round.weight[1]));
}

/// Stores the first `n` samples of a round.
GSVE_INLINE void store_rest(uint8_t* out, size_t i, size_t n, __m512i samples) {
    _mm512_mask_storeu_epi8(out + i, (uint64_t{1} << n) - 1, samples);
}

template <Spread kSpread>
GSVE_KERNEL void interpolate_row(uint8_t* out, const uint8_t* row, size_t n, const HorizontalPlan& plan,
                                 NextLines next) {
    const size_t whole = n / kLanes * kLanes;
    for (size_t i = 0; i < whole; i += kLanes) {
        fetch<kSpread>(next, i, plan);
        store(out + i, samples_of<kSpread>(row, round_at<kSpread>(i, plan)));
    }
    if (whole == n) return;
    store_rest(out, whole, n - whole, samples_of<kSpread>(row, round_at<kSpread>(whole, plan)));
}

template <Spread kSpread>
GSVE_KERNEL void interpolate_two_rows(const RowPair& rows, size_t n, const HorizontalPlan& plan) {
    const auto [upper_out, lower_out] = rows.out;
    const auto [upper_row, lower_row] = rows.row;
    const auto [upper_next, lower_next] = rows.next;
    const size_t whole = n / kLanes * kLanes;
    for (size_t i = 0; i < whole; i += kLanes) {
        fetch<kSpread>(upper_next, i, plan);
        fetch<kSpread>(lower_next, i, plan);
        const Round round = held(round_at<kSpread>(i, plan));
        store(upper_out + i, samples_of<kSpread>(upper_row, round));
        store(lower_out + i, samples_of<kSpread>(lower_row, round));
    }
    if (whole == n) return;
    const Round round = round_at<kSpread>(whole, plan);
    store_rest(upper_out, whole, n - whole, samples_of<kSpread>(upper_row, round));
    store_rest(lower_out, whole, n - whole, samples_of<kSpread>(lower_row, round));
}

// One form per Spread up to kFar, in its order; pairs that were brought together lie as those of kOne do.
inline constexpr decltype(RowKernels::interpolate) kInterpolateRows[] = {
    interpolate_row<Spread::kDense>, interpolate_row<Spread::kOne>, interpolate_row<Spread::kTwo>,
    interpolate_row<Spread::kOne>};

inline constexpr decltype(RowKernels::interpolate_two) kInterpolateTwoRows[] = {
    interpolate_two_rows<Spread::kDense>, interpolate_two_rows<Spread::kOne>,
    interpolate_two_rows<Spread::kTwo>, interpolate_two_rows<Spread::kOne>};

inline void interpolate(uint8_t* out, const uint8_t* row, size_t n, const HorizontalPlan& plan,
                        NextLines next) {
    kInterpolateRows[static_cast<size_t>(plan.spread)](out, row, n, plan, next);
}

inline void interpolate_two(const RowPair& rows, size_t n, const HorizontalPlan& plan) {
    kInterpolateTwoRows[static_cast<size_t>(plan.spread)](rows, n, plan);
}

// ---- Half of the width --------------------------------------------------------------------------------

/// Which sample of their pairs a vector of outputs have for base.
enum class Side { kLeft, kRight, kEither };

/// `base` is where the plan says that the vector's bases begin.
constexpr Side side_of(uint32_t base) {
    if (base % (2 * kLanes) == 0) return Side::kLeft;
    return base == kLanes ? Side::kRight : Side::kEither;
}

/// 32 samples, in the lower bytes of 16-bit lanes, out of 32 pairs: left + floor((right - left) * fraction /
/// 65536). The product takes fractions from 0x8000 on for less by 65536, which is one difference too few.
template <Side kSide>
GSVE_INLINE __m512i between(__m512i pairs, __m512i fraction) {
    const __m512i difference = _mm512_maddubs_epi16(pairs, _mm512_set1_epi16(0x01ff));
    const __m512i sample = _mm512_add_epi16(pairs, _mm512_mulhi_epi16(difference, fraction));
    if constexpr (kSide == Side::kLeft) return sample;
    if constexpr (kSide == Side::kRight) return _mm512_add_epi16(sample, difference);
    return _mm512_mask_add_epi16(sample, _mm512_movepi16_mask(fraction), sample, difference);
}

/// Outputs [i, i + 64) out of their pairs.
template <Side kSide>
GSVE_INLINE __m512i halved(size_t i, __m512i low, __m512i high, const HorizontalPlan& plan) {
    const int16_t* fractions = plan.weight + i;
    return _mm512_permutex2var_epi8(between<kSide>(low, _mm512_loadu_si512(fractions)),
                                    _mm512_load_si512(kLowerBytes.data()),
                                    between<kSide>(high, _mm512_loadu_si512(fractions + 32)));
}

template <Weighting kWeighting>
GSVE_KERNEL void halve_row(uint8_t* out, const uint8_t* a, const uint8_t* b, unsigned weight, size_t n,
                           const HorizontalPlan& plan, const NextLines& next) {
    const auto [next_a, next_b] = next;
    const __m512i weights = _mm512_set1_epi16(pair_weights(weight));
    const uint32_t* base = plan.window;
    for (size_t from = 0; from < n; from += kLanes) {
        const size_t i = last_vector(from, n), low_at = 2 * i, high_at = 2 * i + kLanes;
        for (const size_t at : {low_at, high_at}) {
            _mm_prefetch(reinterpret_cast<const char*>(next_a + at), _MM_HINT_T0);
            _mm_prefetch(reinterpret_cast<const char*>(next_b + at), _MM_HINT_T0);
        }
        const __m512i low = blend<kWeighting>(load(a + low_at), load(b + low_at), weights);
        const __m512i high = blend<kWeighting>(load(a + high_at), load(b + high_at), weights);
        switch (side_of(*base++)) {
            case Side::kLeft: store(out + i, halved<Side::kLeft>(i, low, high, plan)); break;
            case Side::kRight: store(out + i, halved<Side::kRight>(i, low, high, plan)); break;
            case Side::kEither: store(out + i, halved<Side::kEither>(i, low, high, plan)); break;
        }
    }
}

inline constexpr decltype(RowKernels::halve) kHalveRows[] = {
    halve_row<Weighting::kNone>, halve_row<Weighting::kNear>, halve_row<Weighting::kHalf>};

inline void halve(uint8_t* out, const uint8_t* a, const uint8_t* b, unsigned weight, size_t n,
                  const HorizontalPlan& plan, const NextLines& next) {
    nearer_first(a, b, weight);
    kHalveRows[index_of(weight)](out, a, b, weight, n, plan, next);
}

inline constexpr RowKernels kRowKernels = {
    .name = "avx512vbmi",
    .dense = kDense,
    .sparse = kSparse,
    .blend = blend,
    .blend_three = blend_three,
    .blend_adaptive = blend_adaptive,
    .interpolate = interpolate,
    .interpolate_two = interpolate_two,
    .halve = halve,
    .halved = kLanes,
    .motion_row = avx512::motion_row,
};

#include "generic/end.h"

#endif
