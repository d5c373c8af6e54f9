#pragma once

// Row kernels for SSSE3 and SSE4.1: 16 samples at a time.

#if defined(__x86_64__)

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rows.h"

#define GSVE_SSE41 __attribute__((target("ssse3,sse4.1")))
#define GSVE_SSE41_INLINE __attribute__((target("ssse3,sse4.1"), always_inline)) inline

namespace gsve::detail::sse41 {

inline constexpr size_t kLanes = 16;

GSVE_SSE41_INLINE __m128i load(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

GSVE_SSE41_INLINE void store(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

/// floor((a + b) / 2); pavgb rounds up, which shows where the lowest bits differ.
GSVE_SSE41_INLINE __m128i average(__m128i a, __m128i b) {
    return _mm_sub_epi8(_mm_avg_epu8(a, b), _mm_and_si128(_mm_xor_si128(a, b), _mm_set1_epi8(1)));
}

template <Weighting kWeighting>
GSVE_SSE41_INLINE __m128i blend(__m128i a, __m128i b, __m128i weights) {
    if constexpr (kWeighting == Weighting::kNone) return a;
    if constexpr (kWeighting == Weighting::kHalf) return average(a, b);
    __asm__("" : "+x"(b));  // keeps the compiler from loading b once for each half
    const __m128i low = _mm_srai_epi16(_mm_maddubs_epi16(_mm_unpacklo_epi8(a, b), weights), 8);
    const __m128i high = _mm_srai_epi16(_mm_maddubs_epi16(_mm_unpackhi_epi8(a, b), weights), 8);
    return _mm_add_epi8(kWeighting == Weighting::kNear ? a : b, _mm_packs_epi16(low, high));
}

/// The offset of the last, overlapping vector: rows of no whole number of vectors end with one.
constexpr size_t last_vector(size_t i, size_t n) { return i + kLanes <= n ? i : n - kLanes; }

template <Weighting kWeighting>
GSVE_SSE41 void blend_row(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n, unsigned weight) {
    const __m128i weights = _mm_set1_epi16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        store(out + i, blend<kWeighting>(load(a + i), load(b + i), weights));
    }
}

template <Weighting kWeighting>
GSVE_SSE41 void blend_three_row(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                                unsigned weight) {
    const __m128i weights = _mm_set1_epi16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        store(out + i, average(blend<kWeighting>(load(a + i), load(c + i), weights), load(b + i)));
    }
}

/// The flags of two groups, each spread over its 8 samples.
GSVE_SSE41_INLINE __m128i spread_flags(const uint8_t* group_flags) {
    uint16_t flags;
    std::memcpy(&flags, group_flags, sizeof(flags));
    return _mm_shuffle_epi8(_mm_cvtsi32_si128(flags), _mm_set_epi64x(0x0101010101010101, 0));
}

template <Weighting kWeighting>
GSVE_SSE41 void blend_adaptive_row(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c,
                                   size_t n, unsigned weight, const uint8_t* group_flags) {
    const __m128i weights = _mm_set1_epi16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        const __m128i at_a = load(a + i), at_b = load(b + i);
        const __m128i still = blend<kWeighting>(at_a, at_b, weights);
        const __m128i combed = average(blend<kWeighting>(at_a, load(c + i), weights), at_b);
        store(out + i, _mm_blendv_epi8(still, combed, spread_flags(group_flags + i / 8)));
    }
}

// One form of each kernel per Weighting, in its order.
inline constexpr decltype(RowKernels::blend) kBlendRows[] = {
    blend_row<Weighting::kNone>, blend_row<Weighting::kNear>, blend_row<Weighting::kHalf>};
inline constexpr decltype(RowKernels::blend_three) kBlendThreeRows[] = {
    blend_three_row<Weighting::kNone>, blend_three_row<Weighting::kNear>, blend_three_row<Weighting::kHalf>};
inline constexpr decltype(RowKernels::blend_adaptive) kBlendAdaptiveRows[] = {
    blend_adaptive_row<Weighting::kNone>, blend_adaptive_row<Weighting::kNear>,
    blend_adaptive_row<Weighting::kHalf>, blend_adaptive_row<Weighting::kFar>};

inline void blend(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n, unsigned weight) {
    if (n < kLanes) return rows::blend_short(out, a, b, n, weight);
    nearer_first(a, b, weight);
    kBlendRows[index_of(weight)](out, a, b, n, weight);
}

inline void blend_three(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                        unsigned weight) {
    if (n < kLanes) return rows::blend_three_short(out, a, b, c, n, weight);
    nearer_first(a, c, weight);
    kBlendThreeRows[index_of(weight)](out, a, b, c, n, weight);
}

inline void blend_adaptive(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                           unsigned weight, const uint8_t* group_flags) {
    if (n < kLanes) return rows::blend_adaptive_short(out, a, b, c, n, weight, group_flags);
    kBlendAdaptiveRows[index_of(weight)](out, a, b, c, n, weight, group_flags);
}

// ---- Horizontal interpolation -------------------------------------------------------------------------

inline constexpr GatherShape kDense = {.outputs = 16, .window = 16, .groups = 1, .position = {0}};
inline constexpr GatherShape kSparse = {
    .outputs = 8, .window = 16, .groups = 2, .position = {0, 1}, .bias = 0x70};

/// The pairs of a group's samples. pshufb gives 0 for an index with its top bit set and goes by the lowest
/// four bits of the others: biased by 0x70, offsets below 16 find their sample in the first window, and with
/// their top bit turned, the others find theirs in the second.
template <Spread kSpread>
GSVE_SSE41_INLINE __m128i gather(const uint8_t* window, __m128i pair) {
    const __m128i near = _mm_shuffle_epi8(load(window), pair);
    if constexpr (kSpread != Spread::kTwo) return near;
    const __m128i far_pair = _mm_xor_si128(pair, _mm_set1_epi8(static_cast<int8_t>(0x80)));
    return _mm_or_si128(near, _mm_shuffle_epi8(load(window + 16), far_pair));
}

/// base + floor((base - other) * weight / 65536) in 16-bit lanes.
GSVE_SSE41_INLINE __m128i weigh(__m128i pairs, __m128i weight) {
    const __m128i difference = _mm_maddubs_epi16(pairs, _mm_set1_epi16(static_cast<int16_t>(0xff01)));
    return _mm_add_epi16(_mm_and_si128(pairs, _mm_set1_epi16(0xff)), _mm_mulhi_epi16(difference, weight));
}

/// Fetches what the next rows want from around the first window of the round from output `i` on.
/// Into the second level: the lines of two rows of 4K are too much for the first, and cost more there.
template <Spread kSpread>
GSVE_SSE41_INLINE void fetch(NextLines next, size_t i, const HorizontalPlan& plan) {
    const uint32_t column = plan.window[i / (kSpread == Spread::kDense ? kDense.outputs : kSparse.outputs)];
    _mm_prefetch(reinterpret_cast<const char*>(next.a + column), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(next.b + column), _MM_HINT_T1);
}

/// A round of 16 samples, from output `i` of the plan on.
template <Spread kSpread>
GSVE_SSE41_INLINE __m128i round(const uint8_t* row, size_t i, const HorizontalPlan& plan) {
    constexpr bool kIsDense = kSpread == Spread::kDense;
    const uint32_t* window = plan.window + i / (kIsDense ? kDense.outputs : kSparse.outputs);
    const uint8_t* left = row + window[0];
    const uint8_t* right = kIsDense ? left : row + window[1];
    const auto* pair = reinterpret_cast<const uint8_t*>(plan.pair + i);
    const auto* weight = reinterpret_cast<const __m128i*>(plan.weight + i);
    return _mm_packus_epi16(weigh(gather<kSpread>(left, load(pair)), _mm_load_si128(weight)),
                            weigh(gather<kSpread>(right, load(pair + 16)), _mm_load_si128(weight + 1)));
}

/// Stores the first `n` samples of a round.
GSVE_SSE41_INLINE void store_rest(uint8_t* out, size_t i, size_t n, __m128i samples) {
    uint8_t rest[kLanes];
    store(rest, samples);
    std::memcpy(out + i, rest, n);
}

template <Spread kSpread>
GSVE_SSE41 void interpolate_row(uint8_t* out, const uint8_t* row, size_t n, const HorizontalPlan& plan,
                                NextLines next) {
    const size_t whole = n / kLanes * kLanes;
    for (size_t i = 0; i < whole; i += kLanes) {
        fetch<kSpread>(next, i, plan);
        store(out + i, round<kSpread>(row, i, plan));
    }
    if (whole < n) store_rest(out, whole, n - whole, round<kSpread>(row, whole, plan));
}

template <Spread kSpread>
GSVE_SSE41 void interpolate_two_rows(const RowPair& rows, size_t n, const HorizontalPlan& plan) {
    const auto [upper_out, lower_out] = rows.out;
    const auto [upper_row, lower_row] = rows.row;
    const auto [upper_next, lower_next] = rows.next;
    const size_t whole = n / kLanes * kLanes;
    for (size_t i = 0; i < whole; i += kLanes) {
        fetch<kSpread>(upper_next, i, plan);
        fetch<kSpread>(lower_next, i, plan);
        const __m128i upper = round<kSpread>(upper_row, i, plan), lower = round<kSpread>(lower_row, i, plan);
        store(upper_out + i, upper);
        store(lower_out + i, lower);
    }
    if (whole == n) return;
    store_rest(upper_out, whole, n - whole, round<kSpread>(upper_row, whole, plan));
    store_rest(lower_out, whole, n - whole, round<kSpread>(lower_row, whole, plan));
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

// ---- Motion map ---------------------------------------------------------------------------------------

/// Largest minus smallest of 16 samples of each, in the lowest 16 bits. phminposuw finds the smallest of
/// eight words; the largest is the complement of the complements' smallest.
GSVE_SSE41_INLINE __m128i range_of(__m128i smallest, __m128i largest) {
    const __m128i inverse = _mm_xor_si128(largest, _mm_set1_epi8(-1));
    const __m128i low = _mm_minpos_epu16(
        _mm_min_epu8(_mm_and_si128(smallest, _mm_set1_epi16(0xff)), _mm_srli_epi16(smallest, 8)));
    const __m128i high = _mm_minpos_epu16(
        _mm_min_epu8(_mm_and_si128(inverse, _mm_set1_epi16(0xff)), _mm_srli_epi16(inverse, 8)));
    return _mm_sub_epi16(_mm_sub_epi16(_mm_set1_epi16(255), high), low);
}

GSVE_SSE41_INLINE uint32_t sum_of(__m128i sums) {
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_add_epi32(sums, _mm_srli_si128(sums, 8))));
}

GSVE_SSE41 inline void motion_row(uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines],
                                  size_t blocks) {
    for (size_t block = 0; block < blocks; ++block) {
        const size_t x = block * kMacroblock;
        __m128i line = load(lines[0] + x), below = load(lines[1] + x);
        __m128i smallest = line, largest = line;
        __m128i frame = _mm_setzero_si128(), field[2] = {frame, frame};
        for (unsigned y = 0; y < kMacroblock; ++y) {
            const __m128i after = load(lines[y + 2] + x);
            smallest = _mm_min_epu8(smallest, line);
            largest = _mm_max_epu8(largest, line);
            frame = _mm_add_epi32(frame, _mm_sad_epu8(line, below));
            field[y % 2] = _mm_add_epi32(field[y % 2], _mm_sad_epu8(line, after));
            line = below;
            below = after;
        }
        const auto range = static_cast<uint32_t>(_mm_cvtsi128_si32(range_of(smallest, largest)) & 0xff);
        const uint32_t steady = std::min(sum_of(field[0]), sum_of(field[1])) + 10 * range;
        flags[block] = range > 17 && steady < sum_of(frame) ? 1 : 0;
    }
}

inline constexpr RowKernels kRowKernels = {
    .name = "sse4.1",
    .dense = kDense,
    .sparse = kSparse,
    .blend = blend,
    .blend_three = blend_three,
    .blend_adaptive = blend_adaptive,
    .interpolate = interpolate,
    .interpolate_two = interpolate_two,
    .halve = nullptr,
    .halved = 0,
    .motion_row = motion_row,
};

}  // namespace gsve::detail::sse41

#undef GSVE_SSE41
#undef GSVE_SSE41_INLINE

#endif
