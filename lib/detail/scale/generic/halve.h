// Rows of half the width, straight out of one or two lines. The set gives halved().

/// The pairs of the kLanes outputs from output `i` on, of the blend of two lines.
template <Weighting kWeighting>
GSVE_INLINE Pairs pairs_from(size_t i, const uint8_t* a, const uint8_t* b, Vector weights) {
    const size_t low = 2 * i, high = 2 * i + kLanes;
    return {blend<kWeighting>(load(a + low), load(b + low), weights),
            blend<kWeighting>(load(a + high), load(b + high), weights)};
}

/// Fetches the pairs of the outputs from output `i` on.
GSVE_INLINE void fetch_pairs(const uint8_t* line, size_t i) {
    fetch_near(line + 2 * i);
    if constexpr (2 * kLanes > 64) fetch_near(line + 2 * i + 64);
}

template <Weighting kWeighting>
GSVE_KERNEL void halve_row(uint8_t* out, const uint8_t* a, const uint8_t* b, unsigned weight, size_t n,
                           const HalvingPlan& plan, const NextLines& next) {
    const auto [next_a, next_b] = next;
    const Vector weights = splat16(pair_weights(weight));
    const uint32_t* base = plan.base;
    for (size_t from = 0; from < n; from += kLanes) {
        const size_t i = last_vector(from, n);
        fetch_pairs(next_a, i);
        fetch_pairs(next_b, i);
        store(out + i, halved(pairs_from<kWeighting>(i, a, b, weights), *base++, plan.fraction + i));
    }
}

inline constexpr unsigned kHalved = kLanes;

inline constexpr decltype(RowKernels::halve) kHalveRows[] = {
    halve_row<Weighting::kNone>, halve_row<Weighting::kNear>, halve_row<Weighting::kHalf>};

inline void halve(uint8_t* out, const uint8_t* a, const uint8_t* b, unsigned weight, size_t n,
                  const HalvingPlan& plan, const NextLines& next) {
    nearer_first(a, b, weight);
    kHalveRows[index_of(weight)](out, a, b, weight, n, plan, next);
}
