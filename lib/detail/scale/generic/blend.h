// Rows out of two or three lines. The set gives kBlendsTwoVectors, kBlendHoldsLines, upper_bytes() and
// select().

/// a + floor((b - a) * weight / 256) by pair_weights(weight).
template <Weighting kWeighting>
GSVE_INLINE Vector blend(Vector a, Vector b, Vector weights) {
    if constexpr (kWeighting == Weighting::kNone) return a;
    if constexpr (kWeighting == Weighting::kHalf) return average(a, b);
    if constexpr (kBlendHoldsLines) b = in_register(b);  // else loaded once for each half
    const Vector low = multiply_pairs(pairs_low(a, b), weights);
    const Vector high = multiply_pairs(pairs_high(a, b), weights);
    return add8(kWeighting == Weighting::kNear ? a : b, upper_bytes(low, high));
}

/// The offset of the last, overlapping vector: rows of no whole number of vectors end with one.
constexpr size_t last_vector(size_t i, size_t n) { return i + kLanes <= n ? i : n - kLanes; }

template <Weighting kWeighting>
GSVE_KERNEL void blend_row(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n, unsigned weight) {
    const Vector weights = splat16(pair_weights(weight));
    size_t done = 0;
    if constexpr (kBlendsTwoVectors) {
        for (; done + 2 * kLanes <= n; done += 2 * kLanes) {
            const size_t i = done, j = done + kLanes;
            const Vector first = blend<kWeighting>(load(a + i), load(b + i), weights);
            const Vector second = blend<kWeighting>(load(a + j), load(b + j), weights);
            store(out + i, first);
            store(out + j, second);
        }
    }
    for (size_t next = done; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        store(out + i, blend<kWeighting>(load(a + i), load(b + i), weights));
    }
}

template <Weighting kWeighting>
GSVE_KERNEL void blend_three_row(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                                 unsigned weight) {
    const Vector weights = splat16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        store(out + i, average(blend<kWeighting>(load(a + i), load(c + i), weights), load(b + i)));
    }
}

template <Weighting kWeighting>
GSVE_KERNEL void blend_adaptive_row(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c,
                                    size_t n, unsigned weight, const uint8_t* group_flags) {
    const Vector weights = splat16(pair_weights(weight));
    for (size_t next = 0; next < n; next += kLanes) {
        const size_t i = last_vector(next, n);
        const Vector at_a = load(a + i), at_b = load(b + i);
        const Vector still = blend<kWeighting>(at_a, at_b, weights);
        const Vector combed = average(blend<kWeighting>(at_a, load(c + i), weights), at_b);
        store(out + i, select(still, combed, group_flags + i / 8));
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
    if (n < kLanes) return narrower::blend(out, a, b, n, weight);
    nearer_first(a, b, weight);
    kBlendRows[index_of(weight)](out, a, b, n, weight);
}

inline void blend_three(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                        unsigned weight) {
    if (n < kLanes) return narrower::blend_three(out, a, b, c, n, weight);
    nearer_first(a, c, weight);
    kBlendThreeRows[index_of(weight)](out, a, b, c, n, weight);
}

inline void blend_adaptive(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                           unsigned weight, const uint8_t* group_flags) {
    if (n < kLanes) return narrower::blend_adaptive(out, a, b, c, n, weight, group_flags);
    kBlendAdaptiveRows[index_of(weight)](out, a, b, c, n, weight, group_flags);
}
