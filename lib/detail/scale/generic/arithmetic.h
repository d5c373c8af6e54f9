// Arithmetic of which the sets' intrinsics differ in nothing but the width in their names.

GSVE_INLINE Vector splat16(int value) {
    return GSVE_SCALE_INTRINSIC(set1_epi16)(static_cast<int16_t>(value));
}

GSVE_INLINE Vector add8(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(add_epi8)(a, b); }
GSVE_INLINE Vector add16(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(add_epi16)(a, b); }
GSVE_INLINE Vector add64(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(add_epi64)(a, b); }
GSVE_INLINE Vector sub8(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(sub_epi8)(a, b); }

/// The smaller and the larger of each two samples.
GSVE_INLINE Vector min8(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(min_epu8)(a, b); }
GSVE_INLINE Vector max8(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(max_epu8)(a, b); }

/// Sums of absolute differences of each eight samples, in 64-bit lanes.
GSVE_INLINE Vector differences(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(sad_epu8)(a, b); }

/// Samples times signed bytes, each two products added, in 16-bit lanes.
GSVE_INLINE Vector multiply_pairs(Vector samples, Vector factors) {
    return GSVE_SCALE_INTRINSIC(maddubs_epi16)(samples, factors);
}

/// The upper halves of 32-bit products: floor(a * b / 65536).
GSVE_INLINE Vector multiply_high(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(mulhi_epi16)(a, b); }

/// The samples of two vectors in turn, in the lower and in the upper halves of their 128-bit lanes.
GSVE_INLINE Vector pairs_low(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(unpacklo_epi8)(a, b); }
GSVE_INLINE Vector pairs_high(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(unpackhi_epi8)(a, b); }
