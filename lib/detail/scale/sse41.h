#pragma once

// Row kernels for SSSE3 and SSE4.1: 16 samples at a time.

#if defined(__x86_64__)

#include <immintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rows.h"

#define GSVE_SCALE_SET sse41
#define GSVE_SCALE_TARGET "ssse3,sse4.1"
#define GSVE_SCALE_INTRINSIC(name) _mm_##name
#include "generic/begin.h"

inline constexpr const char* kName = "sse4.1";
using Vector = __m128i;
inline constexpr size_t kLanes = 16;
inline constexpr bool kBlendsTwoVectors = false;
inline constexpr bool kBlendHoldsLines = true;
namespace narrower = one_by_one;

GSVE_INLINE Vector load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const Vector*>(p)); }

GSVE_INLINE void store(uint8_t* p, Vector v) { _mm_storeu_si128(reinterpret_cast<Vector*>(p), v); }

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

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

template <Spread kSpread>
inline constexpr bool kTwoRowsHoldTables = false;

/// The window of half a round.
template <Spread kSpread>
GSVE_INLINE Vector windows(const uint8_t* row, const uint32_t* window, unsigned half) {
    return load(row + window[kSpread == Spread::kDense ? 0 : half]);
}

/// The samples of a round out of its halves.
template <Spread kSpread>
GSVE_INLINE Vector pack(Vector first, Vector second) {
    return _mm_packus_epi16(first, second);
}

/// Into the second level: the lines of two rows of 4K are too much for the first, and cost more there.
template <Spread kSpread>
GSVE_INLINE void fetch_windows(const uint8_t* line, const uint32_t* window) {
    fetch_far(line + window[0]);
}

#include "generic/in_lanes.h"
#include "generic/interpolate.h"
#include "generic/halve.h"

// ---- Motion map ---------------------------------------------------------------------------------------

inline constexpr size_t kMotions = 1;
inline constexpr unsigned kMotionUnroll = 8;  // all lines

/// A vector holds one macroblock: none are fewer.
inline constexpr decltype(RowKernels::motion_row) kFewerBlocks = nullptr;

/// Largest minus smallest of 16 samples of each, in the lowest 16 bits. phminposuw finds the smallest of
/// eight words; the largest is the complement of the complements' smallest.
GSVE_INLINE Vector range_of(Vector smallest, Vector largest) {
    const Vector inverse = largest ^ splat8(-1);
    const Vector low = _mm_minpos_epu16(min8(smallest & splat16(0xff), _mm_srli_epi16(smallest, 8)));
    const Vector high = _mm_minpos_epu16(min8(inverse & splat16(0xff), _mm_srli_epi16(inverse, 8)));
    return _mm_sub_epi16(_mm_sub_epi16(splat16(255), high), low);
}

GSVE_INLINE uint32_t sum_of(Vector sums) {
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_add_epi32(sums, _mm_srli_si128(sums, 8))));
}

/// The flag of one macroblock.
GSVE_INLINE void set_flags(uint8_t* flags, const Motion (&motions)[1]) {
    const auto& [smallest, largest, frame, field] = motions[0];
    const auto range = static_cast<uint32_t>(_mm_cvtsi128_si32(range_of(smallest, largest)) & 0xff);
    const uint32_t steady = std::min(sum_of(field[0]), sum_of(field[1])) + 10 * range;
    flags[0] = range > 17 && steady < sum_of(frame) ? 1 : 0;
}

#include "generic/motion.h"
#include "generic/kernels.h"

#include "generic/end.h"

#endif
