// What the sets' intrinsics give under the same names but for the width in them.

/// Keeps a vector in a register where the compiler would load it again for its next use.
GSVE_INLINE Vector in_register(Vector v) {
    __asm__("" : "+v"(v));
    return v;
}

/// A vector of a table, which is aligned.
GSVE_INLINE Vector load_table(const void* table) { return *static_cast<const Vector*>(table); }

GSVE_INLINE Vector splat8(int value) { return GSVE_SCALE_INTRINSIC(set1_epi8)(static_cast<int8_t>(value)); }

GSVE_INLINE Vector splat16(int value) {
    return GSVE_SCALE_INTRINSIC(set1_epi16)(static_cast<int16_t>(value));
}

GSVE_INLINE Vector add8(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(add_epi8)(a, b); }
GSVE_INLINE Vector add16(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(add_epi16)(a, b); }
GSVE_INLINE Vector add64(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(add_epi64)(a, b); }
GSVE_INLINE Vector sub8(Vector a, Vector b) { return GSVE_SCALE_INTRINSIC(sub_epi8)(a, b); }

/// floor((a + b) / 2) of each two samples; pavgb rounds up, which shows where the lowest bits differ.
GSVE_INLINE Vector average(Vector a, Vector b) {
    return sub8(GSVE_SCALE_INTRINSIC(avg_epu8)(a, b), (a ^ b) & splat8(1));
}

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

/// Samples by their offsets within 128-bit lanes.
GSVE_INLINE Vector shuffle(Vector samples, Vector offsets) {
    return GSVE_SCALE_INTRINSIC(shuffle_epi8)(samples, offsets);
}

/// The sample pairs of the two halves of a round of outputs.
struct Pairs {
    Vector first, second;
};

/// What is known of the macroblocks of a vector: each has its parts in a 128-bit lane.
struct Motion {
    Vector smallest, largest;  ///< samples, column by column
    Vector frame, field[2];    ///< sums of differences between neighbours and within each field
};

/// Brings the cache line of a source line's sample into the first level, or into the second alone.
GSVE_INLINE void fetch_near(const uint8_t* sample) { __builtin_prefetch(sample, 0, 3); }
GSVE_INLINE void fetch_far(const uint8_t* sample) { __builtin_prefetch(sample, 0, 2); }
