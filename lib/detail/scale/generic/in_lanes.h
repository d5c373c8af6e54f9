// What sets have in common whose shuffles stay within 128-bit lanes and whose stores take no mask. The set
// gives windows() and pack().

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

/// The factors of the left and the right sample of a pair that pick its base: a vector of outputs finds its
/// own at the offset that the plan gives.
alignas(kLanes) inline constexpr auto kBaseFactors = [] {
    std::array<uint16_t, 3 * kLanes> factors{};
    for (size_t i = 0; i < factors.size(); ++i) factors[i] = i / kLanes == 1 ? 0x100 : 0x001;
    return factors;
}();

GSVE_INLINE Vector load_words(const void* p) { return load(static_cast<const uint8_t*>(p)); }

/// Samples, in 16-bit lanes, out of as many pairs: left + floor((right - left) * fraction / 65536). The
/// product takes fractions from 0x8000 on for less by 65536, which is one difference too few: the right-hand
/// sample as base, in place of the left-hand one, makes up for it.
GSVE_INLINE Vector between(Vector pairs, const uint16_t* base, const int16_t* fraction) {
    const Vector difference = multiply_pairs(pairs, splat16(0x01ff));
    const Vector part = multiply_high(difference, load_words(fraction));
    return add16(multiply_pairs(pairs, load_words(base)), part);
}

/// kLanes outputs, whose bases stand at `base`, out of their pairs.
GSVE_INLINE Vector halved(const Pairs& pairs, uint32_t base, const int16_t* fractions) {
    const uint16_t* bases = kBaseFactors.data() + base;
    const size_t j = kLanes / 2;
    return pack<Spread::kDense>(between(pairs.first, bases, fractions),
                                between(pairs.second, bases + j, fractions + j));
}

/// Stores the first `n` samples of a vector.
GSVE_INLINE void store_first(uint8_t* out, size_t n, Vector samples) {
    uint8_t bytes[kLanes];
    store(bytes, samples);
    std::memcpy(out, bytes, n);
}
