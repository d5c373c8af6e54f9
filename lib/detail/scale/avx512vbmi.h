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

// The compiler's own headers build these intrinsics on a deliberately undefined vector, which GCC 12 reports.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"

#define GSVE_SCALE_SET vbmi
#define GSVE_SCALE_TARGET "avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi"
#define GSVE_SCALE_INTRINSIC(name) _mm512_##name
#include "generic/begin.h"

inline constexpr const char* kName = "avx512vbmi";
using Vector = __m512i;
inline constexpr size_t kLanes = 64;
inline constexpr bool kBlendsTwoVectors = false;
inline constexpr bool kBlendHoldsLines = true;
namespace narrower = avx2;

using avx512::load;
using avx512::select;
using avx512::store;

#include "generic/arithmetic.h"

// ---- Blends -------------------------------------------------------------------------------------------

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
    return _mm512_permutex2var_epi8(low, load_table(kUpperBytes.data()), high);
}

#include "generic/blend.h"

// ---- Horizontal interpolation -------------------------------------------------------------------------

inline constexpr GatherShape kDense = {.outputs = 64, .window = 64, .groups = 1, .position = {0}};
inline constexpr GatherShape kSparse = {.outputs = 32, .window = 64, .groups = 2, .position = {0, 1}};

template <Spread kSpread>
inline constexpr bool kTwoRowsHoldTables = true;

template <Spread kSpread>
GSVE_INLINE Vector gather_half(const uint8_t* window, Vector pair) {
    if constexpr (kSpread != Spread::kTwo) return _mm512_permutexvar_epi8(pair, load(window));
    return _mm512_permutex2var_epi8(load(window), pair, load(window + 64));
}

/// The pairs of a round's halves.
template <Spread kSpread>
GSVE_INLINE Pairs gather(const uint8_t* row, const uint32_t* window, const Vector (&pair)[2]) {
    if constexpr (kSpread == Spread::kDense) {
        const Vector samples = in_register(load(row + window[0]));
        return {_mm512_permutexvar_epi8(pair[0], samples), _mm512_permutexvar_epi8(pair[1], samples)};
    }
    return {gather_half<kSpread>(row + window[0], pair[0]), gather_half<kSpread>(row + window[1], pair[1])};
}

/// The first of each two samples, in the lower bytes of 16-bit lanes; pack() leaves the upper ones out.
GSVE_INLINE Vector base_of(Vector pairs) { return pairs; }

/// The offsets of the lower bytes of 64 words.
alignas(64) inline constexpr auto kLowerBytes = [] {
    std::array<uint8_t, 64> offsets{};
    for (unsigned i = 0; i < 64; ++i) offsets[i] = static_cast<uint8_t>(2 * i);
    return offsets;
}();

/// The samples of a round out of its halves.
template <Spread kSpread>
GSVE_INLINE Vector pack(Vector first, Vector second) {
    return _mm512_permutex2var_epi8(first, load_table(kLowerBytes.data()), second);
}

/// Into the second level: the lines of two rows of 4K are too much for the first, and cost more there.
template <Spread kSpread>
GSVE_INLINE void fetch_windows(const uint8_t* line, const uint32_t* window) {
    for (unsigned group = 0; group < (kSpread == Spread::kDense ? 1 : 2); ++group) {
        fetch_far(line + window[group]);
        if constexpr (kSpread == Spread::kTwo) fetch_far(line + window[group] + 64);
    }
}

/// Stores the first `n` samples of a vector.
GSVE_INLINE void store_first(uint8_t* out, size_t n, Vector samples) {
    _mm512_mask_storeu_epi8(out, (uint64_t{1} << n) - 1, samples);
}

#include "generic/interpolate.h"

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
GSVE_INLINE Vector between(Vector pairs, Vector fraction) {
    const Vector difference = multiply_pairs(pairs, splat16(0x01ff));
    const Vector sample = add16(pairs, multiply_high(difference, fraction));
    if constexpr (kSide == Side::kLeft) return sample;
    if constexpr (kSide == Side::kRight) return add16(sample, difference);
    return _mm512_mask_add_epi16(sample, _mm512_movepi16_mask(fraction), sample, difference);
}

template <Side kSide>
GSVE_INLINE Vector halved_to(const Pairs& pairs, const int16_t* fractions) {
    return pack<Spread::kDense>(between<kSide>(pairs.first, _mm512_loadu_si512(fractions)),
                                between<kSide>(pairs.second, _mm512_loadu_si512(fractions + 32)));
}

/// 64 outputs out of their pairs.
GSVE_INLINE Vector halved(const Pairs& pairs, uint32_t base, const int16_t* fractions) {
    switch (side_of(base)) {
        case Side::kLeft: return halved_to<Side::kLeft>(pairs, fractions);
        case Side::kRight: return halved_to<Side::kRight>(pairs, fractions);
        default: return halved_to<Side::kEither>(pairs, fractions);
    }
}

#include "generic/halve.h"

using avx512::motion_row;

#include "generic/kernels.h"

#include "generic/end.h"

#pragma GCC diagnostic pop

#endif
