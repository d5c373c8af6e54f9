// Rows along a plan. The set gives kDense, kSparse, kTwoRowsHoldTables, gather(), base_of(), pack(),
// fetch_windows() and store_first().

/// The tables of a round of kLanes outputs, and where its windows stand.
struct Round {
    const uint32_t* window;
    Vector pair[2];
    Vector weight[2];
};

/// Windows of a round.
template <Spread kSpread>
inline constexpr size_t kWindows = kSpread == Spread::kDense ? kDense.groups : kSparse.groups;

/// base + floor((base - other) * weight / 65536) in 16-bit lanes.
GSVE_INLINE Vector weigh(Vector pairs, Vector weight) {
    const Vector difference = multiply_pairs(pairs, splat16(0xff01));
    return add16(base_of(pairs), multiply_high(difference, weight));
}

/// The round from output `i` of the plan on, whose windows stand at `window`.
GSVE_INLINE Round round_at(size_t i, const uint32_t* window, const GatherPlan& plan) {
    const auto* pair = reinterpret_cast<const Vector*>(plan.pair + i);
    const auto* weight = reinterpret_cast<const Vector*>(plan.weight + i);
    return {window, {pair[0], pair[1]}, {weight[0], weight[1]}};
}

/// Keeps the tables of a round in registers for a second row, where the compiler would load them again.
template <Spread kSpread>
GSVE_INLINE Round held(const Round& round) {
    if constexpr (!kTwoRowsHoldTables<kSpread>) return round;
    return {round.window,
            {in_register(round.pair[0]), in_register(round.pair[1])},
            {in_register(round.weight[0]), in_register(round.weight[1])}};
}

/// The kLanes samples of a round.
template <Spread kSpread>
GSVE_INLINE Vector samples_of(const uint8_t* row, const Round& round) {
    const auto [first, second] = gather<kSpread>(row, round.window, round.pair);
    return pack<kSpread>(weigh(first, round.weight[0]), weigh(second, round.weight[1]));
}

/// Fetches what the next rows want from around the windows of a round.
template <Spread kSpread>
GSVE_INLINE void fetch(NextLines next, const uint32_t* window) {
    fetch_windows<kSpread>(next.a, window);
    fetch_windows<kSpread>(next.b, window);
}

template <Spread kSpread>
GSVE_KERNEL void interpolate_row(uint8_t* out, const uint8_t* row, size_t n, const GatherPlan& plan,
                                 NextLines next) {
    const size_t whole = n / kLanes * kLanes;
    const uint32_t* window = plan.window;
    for (size_t i = 0; i < whole; i += kLanes, window += kWindows<kSpread>) {
        fetch<kSpread>(next, window);
        store(out + i, samples_of<kSpread>(row, round_at(i, window, plan)));
    }
    if (whole == n) return;
    store_first(out + whole, n - whole, samples_of<kSpread>(row, round_at(whole, window, plan)));
}

template <Spread kSpread>
GSVE_KERNEL void interpolate_two_rows(const RowPair& rows, size_t n, const GatherPlan& plan) {
    const auto [upper_out, lower_out] = rows.out;
    const auto [upper_row, lower_row] = rows.row;
    const auto [upper_next, lower_next] = rows.next;
    const size_t whole = n / kLanes * kLanes;
    const uint32_t* window = plan.window;
    for (size_t i = 0; i < whole; i += kLanes, window += kWindows<kSpread>) {
        fetch<kSpread>(upper_next, window);
        fetch<kSpread>(lower_next, window);
        const Round round = held<kSpread>(round_at(i, window, plan));
        const Vector upper = samples_of<kSpread>(upper_row, round);
        const Vector lower = samples_of<kSpread>(lower_row, round);
        store(upper_out + i, upper);
        store(lower_out + i, lower);
    }
    if (whole == n) return;
    // Counted anew: with the loop's own pointer, GCC steps one for each row as well.
    const Round round = round_at(whole, plan.window + whole / kLanes * kWindows<kSpread>, plan);
    store_first(upper_out + whole, n - whole, samples_of<kSpread>(upper_row, round));
    store_first(lower_out + whole, n - whole, samples_of<kSpread>(lower_row, round));
}

// One form of each kernel per Spread, in its order.
inline constexpr decltype(RowKernels::interpolate) kInterpolateRows[] = {
    interpolate_row<Spread::kDense>, interpolate_row<Spread::kOne>, interpolate_row<Spread::kTwo>};

inline constexpr decltype(RowKernels::interpolate_two) kInterpolateTwoRows[] = {
    interpolate_two_rows<Spread::kDense>, interpolate_two_rows<Spread::kOne>,
    interpolate_two_rows<Spread::kTwo>};

inline void interpolate(uint8_t* out, const uint8_t* row, size_t n, const GatherPlan& plan, NextLines next) {
    kInterpolateRows[static_cast<size_t>(plan.spread)](out, row, n, plan, next);
}

inline void interpolate_two(const RowPair& rows, size_t n, const GatherPlan& plan) {
    kInterpolateTwoRows[static_cast<size_t>(plan.spread)](rows, n, plan);
}
