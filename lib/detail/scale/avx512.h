#pragma once

// Row kernels for AVX-512 F, BW, DQ and VL: 64 samples at a time.

#if defined(__x86_64__)

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "avx2.h"
#include "rows.h"

#define GSVE_SCALE_SET avx512
#define GSVE_SCALE_TARGET "avx512f,avx512bw,avx512dq,avx512vl"
#define GSVE_SCALE_INTRINSIC(name) _mm512_##name
#include "generic/begin.h"

using Vector = __m512i;
inline constexpr size_t kLanes = 64;
inline constexpr bool kBlendsTwoVectors = false;
inline constexpr bool kBlendHoldsLines = false;
namespace narrower = avx2;

GSVE_INLINE Vector load(const uint8_t* p) { return _mm512_loadu_si512(p); }

GSVE_INLINE void store(uint8_t* p, Vector v) { _mm512_storeu_si512(p, v); }

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

/// floor((a + b) / 2); vpavgb rounds up, which shows where the lowest bits differ: (a ^ b) & 1.
GSVE_INLINE Vector average(Vector a, Vector b) {
    constexpr int kXorThenAnd = 0x28;
    const Vector odd = _mm512_ternarylogic_epi32(a, b, splat8(1), kXorThenAnd);
    return sub8(average_up(a, b), odd);
}

/// The upper bytes of words, as the samples lay that pairs_low() and pairs_high() took.
GSVE_INLINE Vector upper_bytes(Vector low, Vector high) {
    return _mm512_packs_epi16(_mm512_srai_epi16(low, 8), _mm512_srai_epi16(high, 8));
}

/// Eight groups, `combed` where the group's flag is set: a flag has one bit for each of its samples.
GSVE_INLINE Vector select(Vector still, Vector combed, const uint8_t* group_flags) {
    uint64_t flags;
    std::memcpy(&flags, group_flags, sizeof(flags));
    return _mm512_mask_mov_epi8(still, _cvtu64_mask64(flags), combed);
}

#include "generic/blend.h"

// ---- Motion map ---------------------------------------------------------------------------------------

/// What is known of four macroblocks side by side: each has its parts in a 128-bit lane.
struct Motion {
    __m512i smallest, largest;  ///< samples, column by column
    __m512i frame, field[2];    ///< sums of differences between neighbours and within each field
};

/// The motion of the four macroblocks from column `x` on, while the lines of those behind are fetched: the
/// processor does not foresee the reads of so many lines.
GSVE_INLINE Motion motion_of(const uint8_t* const (&lines)[plain::kMotionLines], size_t x) {
    const __m512i none = _mm512_setzero_si512();
    __m512i even = load(lines[0] + x), odd = load(lines[1] + x);
    Motion motion = {even, even, none, {none, none}};
#pragma GCC unroll 2  // unrolled further, it needs more registers than there are
    for (unsigned y = 0; y < kMacroblock; y += 2) {
        const __m512i next_even = load(lines[y + 2] + x), next_odd = load(lines[y + 3] + x);
        _mm_prefetch(reinterpret_cast<const char*>(lines[y + 2] + x + 2 * kLanes), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(lines[y + 3] + x + 2 * kLanes), _MM_HINT_T0);
        motion.smallest = _mm512_min_epu8(motion.smallest, _mm512_min_epu8(even, odd));
        motion.largest = _mm512_max_epu8(motion.largest, _mm512_max_epu8(even, odd));
        motion.frame = _mm512_add_epi64(motion.frame, _mm512_sad_epu8(even, odd));
        motion.frame = _mm512_add_epi64(motion.frame, _mm512_sad_epu8(odd, next_even));
        motion.field[0] = _mm512_add_epi64(motion.field[0], _mm512_sad_epu8(even, next_even));
        motion.field[1] = _mm512_add_epi64(motion.field[1], _mm512_sad_epu8(odd, next_odd));
        even = next_even;
        odd = next_odd;
    }
    return motion;
}

/// The sums of the 128-bit lanes of two vectors, side by side.
GSVE_INLINE __m512i lane_sums(__m512i a, __m512i b) {
    return _mm512_add_epi64(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
}

/// Likewise, their smallest bytes, in the lowest of 64 bits; those above are of no meaning.
GSVE_INLINE __m512i lane_minima(__m512i a, __m512i b) {
    __m512i least = _mm512_min_epu8(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
    least = _mm512_min_epu8(least, _mm512_srli_epi64(least, 32));
    least = _mm512_min_epu8(least, _mm512_srli_epi64(least, 16));
    return _mm512_min_epu8(least, _mm512_srli_epi64(least, 8));
}

/// Likewise, their largest bytes.
GSVE_INLINE __m512i lane_maxima(__m512i a, __m512i b) {
    __m512i most = _mm512_max_epu8(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
    most = _mm512_max_epu8(most, _mm512_srli_epi64(most, 32));
    most = _mm512_max_epu8(most, _mm512_srli_epi64(most, 16));
    return _mm512_max_epu8(most, _mm512_srli_epi64(most, 8));
}

/// The flags of eight macroblocks, of which `a` and `b` hold four each.
GSVE_INLINE __m128i flags_of(const Motion& a, const Motion& b) {
    const __m512i largest = lane_maxima(a.largest, b.largest);
    const __m512i smallest = lane_minima(a.smallest, b.smallest);
    const __m512i range = _mm512_and_si512(_mm512_sub_epi8(largest, smallest), _mm512_set1_epi64(0xff));
    const __m512i field =
        _mm512_min_epu64(lane_sums(a.field[0], b.field[0]), lane_sums(a.field[1], b.field[1]));
    const __m512i steady = _mm512_add_epi64(field, _mm512_mullo_epi16(range, _mm512_set1_epi64(10)));
    const __mmask8 wide = _mm512_cmpgt_epu64_mask(range, _mm512_set1_epi64(17));
    const __mmask8 combed = _mm512_mask_cmplt_epu64_mask(wide, steady, lane_sums(a.frame, b.frame));
    const __m128i flags = _mm512_cvtepi64_epi8(_mm512_maskz_set1_epi64(combed, 1));
    return _mm_shuffle_epi8(flags, _mm_set1_epi64x(0x0705030106040200));  // those of a, those of b
}

GSVE_KERNEL inline void motion_row(uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines],
                                   size_t blocks) {
    if (blocks < 8) return avx2::motion_row(flags, lines, blocks);
    for (size_t next = 0; next < blocks; next += 8) {
        const size_t block = std::min(next, blocks - 8);  // the last eight overlap those before
        const Motion left = motion_of(lines, block * kMacroblock);
        const Motion right = motion_of(lines, (block + 4) * kMacroblock);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(flags + block), flags_of(left, right));
    }
}

inline constexpr RowKernels kRowKernels = {
    .name = "avx512",
    .dense = avx2::kDense,
    .sparse = avx2::kSparse,
    .blend = blend,
    .blend_three = blend_three,
    .blend_adaptive = blend_adaptive,
    .interpolate = avx2::interpolate,  // four windows to a vector cost what two vectors save
    .interpolate_two = avx2::interpolate_two,
    .halve = avx2::halve,
    .halved = avx2::kLanes,
    .motion_row = motion_row,
};

#include "generic/end.h"

#endif
