#pragma once

// Row kernels for AVX-512 F, BW, DQ and VL: 64 samples at a time.

#if defined(__x86_64__)

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "plane_avx2.h"
#include "plane_rows.h"

// The compiler's own headers build these intrinsics on a deliberately undefined vector, which GCC 12 reports.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#define GSVE_AVX512 __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl")))
#define GSVE_AVX512_INLINE __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl"), always_inline)) inline

namespace gsve::detail::avx512 {

inline constexpr size_t kLanes = 64;

GSVE_AVX512_INLINE __m512i load(const uint8_t* p) {
    return _mm512_loadu_si512(reinterpret_cast<const __m512i*>(p));
}

GSVE_AVX512_INLINE void store(uint8_t* p, __m512i v) {
    _mm512_storeu_si512(reinterpret_cast<__m512i*>(p), v);
}

/// floor((a + b) / 2); vpavgb rounds up, which shows where the lowest bits differ: (a ^ b) & 1.
GSVE_AVX512_INLINE __m512i average(__m512i a, __m512i b) {
    constexpr int kXorThenAnd = 0x28;
    const __m512i odd = _mm512_ternarylogic_epi32(a, b, _mm512_set1_epi8(1), kXorThenAnd);
    return _mm512_sub_epi8(_mm512_avg_epu8(a, b), odd);
}

template <Weighting kWeighting>
GSVE_AVX512_INLINE __m512i blend(__m512i a, __m512i b, __m512i weights) {
    if constexpr (kWeighting == Weighting::kNone) return a;
    if constexpr (kWeighting == Weighting::kHalf) return average(a, b);
    const __m512i low = _mm512_srai_epi16(_mm512_maddubs_epi16(_mm512_unpacklo_epi8(a, b), weights), 8);
    const __m512i high = _mm512_srai_epi16(_mm512_maddubs_epi16(_mm512_unpackhi_epi8(a, b), weights), 8);
    return _mm512_add_epi8(kWeighting == Weighting::kNear ? a : b, _mm512_packs_epi16(low, high));
}

/// The offset of the last, overlapping vector: rows of no whole number of vectors end with one.
constexpr size_t last_vector(size_t i, size_t n) { return i + kLanes <= n ? i : n - kLanes; }

template <Weighting kWeighting>
GSVE_AVX512 void blend_row(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n, unsigned weight) {
    const __m512i weights = _mm512_set1_epi16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        store(out + i, blend<kWeighting>(load(a + i), load(b + i), weights));
    }
}

template <Weighting kWeighting>
GSVE_AVX512 void blend_three_row(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                                 unsigned weight) {
    const __m512i weights = _mm512_set1_epi16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        store(out + i, average(blend<kWeighting>(load(a + i), load(c + i), weights), load(b + i)));
    }
}

/// The flags of eight groups: one bit for each of their samples.
GSVE_AVX512_INLINE __mmask64 spread_flags(const uint8_t* group_flags) {
    uint64_t flags;
    std::memcpy(&flags, group_flags, sizeof(flags));
    return _cvtu64_mask64(flags);
}

template <Weighting kWeighting>
GSVE_AVX512 void blend_adaptive_row(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c,
                                    size_t n, unsigned weight, const uint8_t* group_flags) {
    const __m512i weights = _mm512_set1_epi16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        const __m512i at_a = load(a + i), at_b = load(b + i);
        const __m512i still = blend<kWeighting>(at_a, at_b, weights);
        const __m512i combed = average(blend<kWeighting>(at_a, load(c + i), weights), at_b);
        store(out + i, _mm512_mask_mov_epi8(still, spread_flags(group_flags + i / 8), combed));
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
    if (n < kLanes) return avx2::blend(out, a, b, n, weight);
    nearer_first(a, b, weight);
    kBlendRows[index_of(weight)](out, a, b, n, weight);
}

inline void blend_three(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                        unsigned weight) {
    if (n < kLanes) return avx2::blend_three(out, a, b, c, n, weight);
    nearer_first(a, c, weight);
    kBlendThreeRows[index_of(weight)](out, a, b, c, n, weight);
}

inline void blend_adaptive(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                           unsigned weight, const uint8_t* group_flags) {
    if (n < kLanes) return avx2::blend_adaptive(out, a, b, c, n, weight, group_flags);
    kBlendAdaptiveRows[index_of(weight)](out, a, b, c, n, weight, group_flags);
}

// ---- Motion map ---------------------------------------------------------------------------------------

/// Adds the halves of each 128-bit lane into its lower half.
GSVE_AVX512_INLINE __m512i fold_sum(__m512i v) { return _mm512_add_epi64(v, _mm512_bsrli_epi128(v, 8)); }

/// Largest minus smallest sample of each 128-bit lane, in its lower half. The smallest and the complement of
/// the largest are searched for side by side.
GSVE_AVX512_INLINE __m512i range_of(__m512i smallest, __m512i largest) {
    const __m512i inverse = _mm512_xor_si512(largest, _mm512_set1_epi8(-1));
    __m512i both =
        _mm512_min_epu8(_mm512_unpacklo_epi64(smallest, inverse), _mm512_unpackhi_epi64(smallest, inverse));
    both = _mm512_min_epu8(both, _mm512_srli_epi64(both, 32));
    both = _mm512_min_epu8(both, _mm512_srli_epi64(both, 16));
    both = _mm512_and_si512(_mm512_min_epu8(both, _mm512_srli_epi64(both, 8)), _mm512_set1_epi64(0xff));
    return _mm512_sub_epi64(_mm512_set1_epi64(255), fold_sum(both));
}

/// Four macroblocks, one in each 128-bit lane: bits 0, 2, 4 and 6 are set where they are combed.
GSVE_AVX512_INLINE unsigned combed_of(const uint8_t* const (&lines)[plain::kMotionLines], size_t x,
                                      __mmask64 lanes) {
    __m512i line = _mm512_maskz_loadu_epi8(lanes, lines[0] + x);
    __m512i below = _mm512_maskz_loadu_epi8(lanes, lines[1] + x);
    __m512i smallest = line, largest = line;
    __m512i frame = _mm512_setzero_si512(), field[2] = {frame, frame};
    for (unsigned y = 0; y < kMacroblock; ++y) {
        const __m512i after = _mm512_maskz_loadu_epi8(lanes, lines[y + 2] + x);
        smallest = _mm512_min_epu8(smallest, line);
        largest = _mm512_max_epu8(largest, line);
        frame = _mm512_add_epi64(frame, _mm512_sad_epu8(line, below));
        field[y % 2] = _mm512_add_epi64(field[y % 2], _mm512_sad_epu8(line, after));
        line = below;
        below = after;
    }
    const __m512i range = range_of(smallest, largest);
    const __m512i steady = _mm512_add_epi64(_mm512_min_epu64(fold_sum(field[0]), fold_sum(field[1])),
                                            _mm512_mullo_epi16(range, _mm512_set1_epi64(10)));
    return _mm512_cmpgt_epu64_mask(range, _mm512_set1_epi64(17)) &
           _mm512_cmplt_epu64_mask(steady, fold_sum(frame));
}

GSVE_AVX512 inline void motion_row(uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines],
                                   size_t blocks) {
    size_t block = 0;
    for (; block + 4 <= blocks; block += 4) {
        const unsigned combed = combed_of(lines, block * kMacroblock, ~uint64_t{0});
        const uint32_t four = (combed & 1) | (combed & 4) << 6 | (combed & 16) << 12 | (combed & 64) << 18;
        std::memcpy(flags + block, &four, sizeof(four));
    }
    if (block == blocks) return;
    const unsigned combed =
        combed_of(lines, block * kMacroblock, ~uint64_t{0} >> (16 * (block + 4 - blocks)));
    for (size_t i = 0; block + i < blocks; ++i) flags[block + i] = (combed >> (2 * i)) & 1;
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
    .motion_row = motion_row,
};

}  // namespace gsve::detail::avx512

#undef GSVE_AVX512
#undef GSVE_AVX512_INLINE

#pragma GCC diagnostic pop

#endif
