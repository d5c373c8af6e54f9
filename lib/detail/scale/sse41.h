#pragma once

// Row kernels for SSSE3 and SSE4.1: 16 samples at a time.

#if defined(__x86_64__)

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rows.h"

#define GSVE_SCALE_SET sse41
#define GSVE_SCALE_TARGET "ssse3,sse4.1"
#define GSVE_SCALE_INTRINSIC(name) _mm_##name
#include "generic/begin.h"

using Vector = __m128i;
inline constexpr size_t kLanes = 16;
inline constexpr bool kBlendsTwoVectors = false;
namespace narrower = one_by_one;

GSVE_INLINE Vector load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const Vector*>(p)); }

GSVE_INLINE void store(uint8_t* p, Vector v) { _mm_storeu_si128(reinterpret_cast<Vector*>(p), v); }

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

/// floor((a + b) / 2); pavgb rounds up, which shows where the lowest bits differ.
GSVE_INLINE Vector average(Vector a, Vector b) {
    return sub8(_mm_avg_epu8(a, b), _mm_and_si128(_mm_xor_si128(a, b), _mm_set1_epi8(1)));
}

/// Keeps the compiler from loading a vector once for each half.
GSVE_INLINE Vector at_hand(Vector v) {
    __asm__("" : "+x"(v));
    return v;
}

/// The upper bytes of words, as the samples lay that pairs_low() and pairs_high() took.
GSVE_INLINE Vector upper_bytes(Vector low, Vector high) {
    return _mm_packs_epi16(_mm_srai_epi16(low, 8), _mm_srai_epi16(high, 8));
}

/// Two groups, `combed` where the group's flag is set.
GSVE_INLINE Vector select(Vector still, Vector combed, const uint8_t* group_flags) {
    uint16_t flags;
    std::memcpy(&flags, group_flags, sizeof(flags));
    const Vector spread = _mm_shuffle_epi8(_mm_cvtsi32_si128(flags), _mm_set_epi64x(0x0101010101010101, 0));
    return _mm_blendv_epi8(still, combed, spread);
}

#include "generic/blend.h"

// ---- Horizontal interpolation -------------------------------------------------------------------------

inline constexpr GatherShape kDense = {.outputs = 16, .window = 16, .groups = 1, .position = {0}};
inline constexpr GatherShape kSparse = {
    .outputs = 8, .window = 16, .groups = 2, .position = {0, 1}, .bias = 0x70};

/// The pairs of a group's samples. pshufb gives 0 for an index with its top bit set and goes by the lowest
/// four bits of the others: biased by 0x70, offsets below 16 find their sample in the first window, and with
/// their top bit turned, the others find theirs in the second.
template <Spread kSpread>
GSVE_INLINE __m128i gather(const uint8_t* window, __m128i pair) {
    const __m128i near = _mm_shuffle_epi8(load(window), pair);
    if constexpr (kSpread != Spread::kTwo) return near;
    const __m128i far_pair = _mm_xor_si128(pair, _mm_set1_epi8(static_cast<int8_t>(0x80)));
    return _mm_or_si128(near, _mm_shuffle_epi8(load(window + 16), far_pair));
}

/// base + floor((base - other) * weight / 65536) in 16-bit lanes.
GSVE_INLINE __m128i weigh(__m128i pairs, __m128i weight) {
    const __m128i difference = _mm_maddubs_epi16(pairs, _mm_set1_epi16(static_cast<int16_t>(0xff01)));
    return _mm_add_epi16(_mm_and_si128(pairs, _mm_set1_epi16(0xff)), _mm_mulhi_epi16(difference, weight));
}

/// Fetches what the next rows want from around the first window of the round from output `i` on.
/// Into the second level: the lines of two rows of 4K are too much for the first, and cost more there.
template <Spread kSpread>
GSVE_INLINE void fetch(NextLines next, size_t i, const HorizontalPlan& plan) {
    const uint32_t column = plan.window[i / (kSpread == Spread::kDense ? kDense.outputs : kSparse.outputs)];
    _mm_prefetch(reinterpret_cast<const char*>(next.a + column), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(next.b + column), _MM_HINT_T1);
}

/// A round of 16 samples, from output `i` of the plan on.
template <Spread kSpread>
GSVE_INLINE __m128i round(const uint8_t* row, size_t i, const HorizontalPlan& plan) {
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
GSVE_INLINE void store_rest(uint8_t* out, size_t i, size_t n, __m128i samples) {
    uint8_t rest[kLanes];
    store(rest, samples);
    std::memcpy(out + i, rest, n);
}

template <Spread kSpread>
GSVE_KERNEL void interpolate_row(uint8_t* out, const uint8_t* row, size_t n, const HorizontalPlan& plan,
                                 NextLines next) {
    const size_t whole = n / kLanes * kLanes;
    for (size_t i = 0; i < whole; i += kLanes) {
        fetch<kSpread>(next, i, plan);
        store(out + i, round<kSpread>(row, i, plan));
    }
    if (whole < n) store_rest(out, whole, n - whole, round<kSpread>(row, whole, plan));
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
GSVE_INLINE __m128i range_of(__m128i smallest, __m128i largest) {
    const __m128i inverse = _mm_xor_si128(largest, _mm_set1_epi8(-1));
    const __m128i low = _mm_minpos_epu16(
        _mm_min_epu8(_mm_and_si128(smallest, _mm_set1_epi16(0xff)), _mm_srli_epi16(smallest, 8)));
    const __m128i high = _mm_minpos_epu16(
        _mm_min_epu8(_mm_and_si128(inverse, _mm_set1_epi16(0xff)), _mm_srli_epi16(inverse, 8)));
    return _mm_sub_epi16(_mm_sub_epi16(_mm_set1_epi16(255), high), low);
}

GSVE_INLINE uint32_t sum_of(__m128i sums) {
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_add_epi32(sums, _mm_srli_si128(sums, 8))));
}

GSVE_KERNEL inline void motion_row(uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines],
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

#include "generic/end.h"

#endif
