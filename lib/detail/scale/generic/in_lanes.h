// What sets have in common whose shuffles stay within 128-bit lanes and whose stores take no mask. The set
// gives windows().

/// The pairs of half a round. pshufb gives 0 for an index with its top bit set and goes by the lowest four
/// bits of the others: biased by 0x70, offsets below 16 find their sample in the first window, and with their
/// top bit turned, the others find theirs in the second.
template <Spread kSpread>
GSVE_INLINE Vector gather_half(const uint8_t* row, const uint32_t* window, unsigned half, Vector pair) {
    const Vector near = shuffle(windows<kSpread>(row, window, half), pair);
    if constexpr (kSpread != Spread::kTwo) return near;
    const Vector far_pair = pair ^ splat8(0x80);
    return near | shuffle(windows<kSpread>(row + 16, window, half), far_pair);
}

template <Spread kSpread>
GSVE_INLINE Pairs gather(const uint8_t* row, const uint32_t* window, const Vector (&pair)[2]) {
    return {gather_half<kSpread>(row, window, 0, pair[0]), gather_half<kSpread>(row, window, 1, pair[1])};
}

/// The first of each two samples, in 16-bit lanes.
GSVE_INLINE Vector base_of(Vector pairs) { return pairs & splat16(0xff); }

/// Stores the first `n` samples of a vector.
GSVE_INLINE void store_first(uint8_t* out, size_t n, Vector samples) {
    uint8_t bytes[kLanes];
    store(bytes, samples);
    std::memcpy(out, bytes, n);
}
