// Flags of macroblocks side by side. The set gives kMotions, kMotionUnroll, kFewerBlocks and
// set_flags().

/// The motion of a vector's macroblocks, from column `x` on, while the lines of those behind are fetched: the
/// processor does not foresee the reads of so many lines.
GSVE_INLINE Motion motion_of(const uint8_t* const (&lines)[plain::kMotionLines], size_t x) {
    const Vector none = splat8(0);
    Vector even = load(lines[0] + x), odd = load(lines[1] + x);
    Motion motion = {even, even, none, {none, none}};
#pragma GCC unroll kMotionUnroll
    for (unsigned y = 0; y < kMacroblock; y += 2) {
        const Vector next_even = load(lines[y + 2] + x), next_odd = load(lines[y + 3] + x);
        fetch_near(lines[y + 2] + x + 128);
        fetch_near(lines[y + 3] + x + 128);
        motion.smallest = min8(motion.smallest, min8(even, odd));
        motion.largest = max8(motion.largest, max8(even, odd));
        motion.frame = add64(motion.frame, differences(even, odd));
        motion.frame = add64(motion.frame, differences(odd, next_even));
        motion.field[0] = add64(motion.field[0], differences(even, next_even));
        motion.field[1] = add64(motion.field[1], differences(odd, next_odd));
        even = next_even;
        odd = next_odd;
    }
    return motion;
}

GSVE_KERNEL inline void motion_row(uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines],
                                   size_t blocks) {
    constexpr size_t kBlocks = kMotions * kLanes / kMacroblock;
    if constexpr (kBlocks > 1) {
        if (blocks < kBlocks) return kFewerBlocks(flags, lines, blocks);
    }
    for (size_t next = 0; next < blocks; next += kBlocks) {
        const size_t block = std::min(next, blocks - kBlocks);  // the last ones overlap those before
        Motion motions[kMotions];
#pragma GCC unroll 2  // all of them
        for (size_t i = 0; i < kMotions; ++i) {
            motions[i] = motion_of(lines, block * kMacroblock + i * kLanes);
        }
        set_flags(flags + block, motions);
    }
}
