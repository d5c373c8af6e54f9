#pragma once

// Row kernels for AVX2: 32 samples at a time.

#if defined(__x86_64__)

#include <immintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rows.h"
#include "sse41.h"

#define GSVE_SCALE_SET avx2
#define GSVE_SCALE_TARGET "avx2"
#define GSVE_SCALE_INTRINSIC(name) _mm256_##name
#include "generic/begin.h"

inline constexpr const char* kName = "avx2";
using Vector = __m256i;
inline constexpr size_t kLanes = 32;
inline constexpr bool kBlendsTwoVectors = true;
inline constexpr bool kBlendHoldsLines = false;
namespace narrower = sse41;

GSVE_INLINE Vector load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const Vector*>(p)); }

GSVE_INLINE void store(uint8_t* p, Vector v) { _mm256_storeu_si256(reinterpret_cast<Vector*>(p), v); }

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

/// The upper bytes of words, as the samples lay that pairs_low() and pairs_high() took. One half is shifted,
/// the other one multiplied: the shifters have more to do than the multipliers.
GSVE_INLINE Vector upper_bytes(Vector low, Vector high) {
    return _mm256_packs_epi16(multiply_high(low, splat16(0x100)), _mm256_srai_epi16(high, 8));
}

/// Four groups, `combed` where the group's flag is set.
GSVE_INLINE Vector select(Vector still, Vector combed, const uint8_t* group_flags) {
    uint32_t flags;
    std::memcpy(&flags, group_flags, sizeof(flags));
    const Vector spread =
        _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(flags)),
                            _mm256_set_epi64x(0x0303030303030303, 0x0202020202020202, 0x0101010101010101, 0));
    return _mm256_blendv_epi8(still, combed, spread);
}

#include "generic/blend.h"

// ---- Horizontal interpolation -------------------------------------------------------------------------

/// A vector makes a dense group, both 128-bit lanes out of one window.
inline constexpr GatherShape kDense = {.outputs = 16, .window = 16, .groups = 2, .position = {0, 1}};

/// A vector holds groups 0 and 2 of a round, the next one 1 and 3: packing the two, which goes by 128-bit
/// lanes, puts them in order.
inline constexpr GatherShape kSparse = {
    .outputs = 8, .window = 16, .groups = 4, .position = {0, 2, 1, 3}, .bias = 0x70};

/// Not those of a dense round: its bound is the number of instructions, and operands in memory save some.
template <Spread kSpread>
inline constexpr bool kTwoRowsHoldTables = kSpread != Spread::kDense;

GSVE_INLINE __m128i load_lane(const uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

/// The windows of half a round, one in each 128-bit lane.
template <Spread kSpread>
GSVE_INLINE Vector windows(const uint8_t* row, const uint32_t* window, unsigned half) {
    const __m128i low = load_lane(row + window[half]);
    if constexpr (kSpread == Spread::kDense) return _mm256_broadcastsi128_si256(low);
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), load_lane(row + window[half + 2]), 1);
}

/// The samples of a round out of its halves.
template <Spread kSpread>
GSVE_INLINE Vector pack(Vector first, Vector second) {
    const Vector samples = _mm256_packus_epi16(first, second);
    if constexpr (kSpread != Spread::kDense) return samples;
    return _mm256_permute4x64_epi64(samples, _MM_SHUFFLE(3, 1, 2, 0));
}

template <Spread kSpread>
GSVE_INLINE void fetch_windows(const uint8_t* line, const uint32_t* window) {
    fetch_near(line + window[0]);
    if constexpr (kSpread == Spread::kTwo) fetch_near(line + window[2]);
}

#include "generic/in_lanes.h"
#include "generic/interpolate.h"
#include "generic/halve.h"

// ---- Motion map ---------------------------------------------------------------------------------------

inline constexpr size_t kMotions = 1;
inline constexpr unsigned kMotionUnroll = 2;
inline constexpr decltype(RowKernels::motion_row) kFewerBlocks = sse41::motion_row;

/// Adds the halves of each 128-bit lane into its lower half.
GSVE_INLINE Vector fold_sum(Vector v) { return add64(v, _mm256_srli_si256(v, 8)); }

/// Largest minus smallest sample of each 128-bit lane, in its lower half. The smallest and the complement of
/// the largest are searched for side by side.
GSVE_INLINE Vector range_of(Vector smallest, Vector largest) {
    const Vector inverse = largest ^ splat8(-1);
    Vector both = min8(_mm256_unpacklo_epi64(smallest, inverse), _mm256_unpackhi_epi64(smallest, inverse));
    both = min8(both, _mm256_srli_epi64(both, 32));
    both = min8(both, _mm256_srli_epi64(both, 16));
    both = min8(both, _mm256_srli_epi64(both, 8)) & _mm256_set1_epi64x(0xff);
    return _mm256_sub_epi64(_mm256_set1_epi64x(255), fold_sum(both));
}

/// The flags of two macroblocks.
GSVE_INLINE void set_flags(uint8_t* flags, const Motion (&motions)[1]) {
    const auto& [smallest, largest, frame, field] = motions[0];
    const Vector range = range_of(smallest, largest);
    const Vector steady = add64(_mm256_min_epu32(fold_sum(field[0]), fold_sum(field[1])),
                                _mm256_mullo_epi16(range, _mm256_set1_epi64x(10)));
    const Vector combed =
        _mm256_cmpgt_epi32(range, _mm256_set1_epi32(17)) & _mm256_cmpgt_epi32(fold_sum(frame), steady);
    const int bits = _mm256_movemask_epi8(combed);
    flags[0] = bits & 1;
    flags[1] = (bits >> 16) & 1;
}

#include "generic/motion.h"
#include "generic/kernels.h"

#include "generic/end.h"

#endif
