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

// The compiler's own headers build these intrinsics on a deliberately undefined vector, which GCC 12 reports.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#define GSVE_SCALE_SET avx512
#define GSVE_SCALE_TARGET "avx512f,avx512bw,avx512dq,avx512vl"
#define GSVE_SCALE_INTRINSIC(name) _mm512_##name
#include "generic/begin.h"

inline constexpr const char* kName = "avx512";
using Vector = __m512i;
inline constexpr size_t kLanes = 64;
inline constexpr bool kBlendsTwoVectors = false;
inline constexpr bool kBlendHoldsLines = false;
namespace narrower = avx2;

GSVE_INLINE Vector load(const uint8_t* p) { return _mm512_loadu_si512(p); }

GSVE_INLINE void store(uint8_t* p, Vector v) { _mm512_storeu_si512(p, v); }

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

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

// ---- Horizontal interpolation -------------------------------------------------------------------------

// Four windows to a vector cost what two vectors save.
using avx2::halve;
using avx2::interpolate;
using avx2::interpolate_two;
using avx2::kDense;
using avx2::kHalved;
using avx2::kSparse;

// ---- Motion map ---------------------------------------------------------------------------------------

inline constexpr size_t kMotions = 2;
inline constexpr unsigned kMotionUnroll = 2;  // unrolled further, it needs more registers than there are
inline constexpr decltype(RowKernels::motion_row) kFewerBlocks = avx2::motion_row;

/// The sums of the 128-bit lanes of two vectors, side by side.
GSVE_INLINE Vector lane_sums(Vector a, Vector b) {
    return add64(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
}

/// Likewise, their smallest bytes, in the lowest of 64 bits; those above are of no meaning.
GSVE_INLINE Vector lane_minima(Vector a, Vector b) {
    Vector least = min8(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
    least = min8(least, _mm512_srli_epi64(least, 32));
    least = min8(least, _mm512_srli_epi64(least, 16));
    return min8(least, _mm512_srli_epi64(least, 8));
}

/// Likewise, their largest bytes.
GSVE_INLINE Vector lane_maxima(Vector a, Vector b) {
    Vector most = max8(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
    most = max8(most, _mm512_srli_epi64(most, 32));
    most = max8(most, _mm512_srli_epi64(most, 16));
    return max8(most, _mm512_srli_epi64(most, 8));
}

/// The flags of eight macroblocks.
GSVE_INLINE void set_flags(uint8_t* flags, const Motion (&motions)[2]) {
    const auto& [a, b] = motions;
    const Vector largest = lane_maxima(a.largest, b.largest);
    const Vector smallest = lane_minima(a.smallest, b.smallest);
    const Vector range = sub8(largest, smallest) & _mm512_set1_epi64(0xff);
    const Vector field =
        _mm512_min_epu64(lane_sums(a.field[0], b.field[0]), lane_sums(a.field[1], b.field[1]));
    const Vector steady = add64(field, _mm512_mullo_epi16(range, _mm512_set1_epi64(10)));
    const __mmask8 wide = _mm512_cmpgt_epu64_mask(range, _mm512_set1_epi64(17));
    const __mmask8 combed = _mm512_mask_cmplt_epu64_mask(wide, steady, lane_sums(a.frame, b.frame));
    const __m128i mixed = _mm512_cvtepi64_epi8(_mm512_maskz_set1_epi64(combed, 1));
    const __m128i ordered = _mm_shuffle_epi8(mixed, _mm_set1_epi64x(0x0705030106040200));  // a's, then b's
    _mm_storel_epi64(reinterpret_cast<__m128i*>(flags), ordered);
}

#include "generic/motion.h"
#include "generic/kernels.h"

#include "generic/end.h"

#pragma GCC diagnostic pop

#endif
