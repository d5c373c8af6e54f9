#pragma once

// Plane operations composed of row kernels. The vector forms share everything but their kernels: an output
// plane is produced in strips of columns, a strip row by row, with the horizontal gather laid out once per
// strip. Nothing is allocated: the layout, two blended rows or three interpolated lines live on the stack.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <variant>

#include "geometry.h"
#include "plain.h"

namespace gsve::detail {

/// How a gather kernel wants its samples laid out: a group of `outputs` samples is made out of a window of
/// source bytes, `groups` of them make up a round.
struct GatherShape {
    unsigned outputs;
    unsigned window;
    unsigned groups;
    std::array<uint8_t, 8> position;  ///< where the round's tables hold its n-th group
    uint8_t bias = 0;                 ///< added to the offsets in two windows, Spread::kTwo
};

/// Output columns that a plan is laid out for at most.
inline constexpr unsigned kPlanColumns = 2048;

/// How far the source samples of a group lie apart.
enum class Spread {
    kDense,  ///< a group of the kernels' larger, dense shape fits one window
    kOne,    ///< a group fits one window
    kTwo,    ///< a group fits two windows side by side
};

// The horizontal interpolation of a strip of outputs is laid out in one of three plans. None of them fills
// its tables beforehand: laying out fills what is read.

/// Outputs that a gather kernel makes out of windows of a row.
///
/// An output is base + floor((base - other) * weight / 65536), a product of signed 16-bit numbers: for
/// fractions below 0x8000 the left sample is the base and the weight is -fraction, from there on the right
/// one is the base and the weight is fraction - 65536. Both equal left + floor((right - left) * fraction /
/// 65536).
struct GatherPlan {
    GatherPlan() {}

    alignas(
        64) uint16_t pair[kPlanColumns];  ///< offsets in the group's window: base, in the low byte, and other
    alignas(64) int16_t weight[kPlanColumns];
    uint32_t window[kPlanColumns / 8];  ///< where each group's window starts in the row
    Spread spread;
    unsigned reach;      ///< bytes that are read from a window's start on
    unsigned row_width;  ///< bytes of the row
};

/// Outputs whose samples lie too far apart for that: their pairs are brought together first, and gathered
/// from a row of pairs.
struct ScatteredPlan {
    ScatteredPlan() {}

    uint32_t left[kPlanColumns];  ///< the source sample on the left of each output
    unsigned src_width;
    GatherPlan pairs;  ///< along the row of pairs
};

/// Outputs each of whose pairs follows the one before, as in a picture of half the width: nothing to gather.
/// The fractions rise or fall all along: the base changes from one sample to the other once at most.
struct HalvingPlan {
    HalvingPlan() {}

    alignas(64) int16_t fraction[kPlanColumns];  ///< read as signed numbers
    /// For each vector of outputs, where its bases begin in a vector of left ones, one of right ones and one
    /// of left ones.
    uint32_t base[kPlanColumns / 8];
    unsigned first;  ///< the source sample on the left of the first output
};

using HorizontalPlan = std::variant<GatherPlan, ScatteredPlan, HalvingPlan>;

/// Source lines to fetch into the cache during a horizontal pass. Where none is to come, one at hand stands
/// in: it costs less than a question in a loop.
struct NextLines {
    const uint8_t* a;
    const uint8_t* b;
};

/// Two rows to be interpolated together, with the lines that the next two want.
struct RowPair {
    uint8_t* out[2];
    const uint8_t* row[2];
    NextLines next[2];
};

/// The row kernels of one instruction set. Source and destination never overlap; `n` is 1 or more.
struct RowKernels {
    const char* name;
    GatherShape dense;
    GatherShape sparse;
    /// out = a + floor((b - a) * weight / 256), weight 1 to 255.
    void (*blend)(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n, unsigned weight);
    /// out = floor((a * (256 - weight) + c * weight + b * 256) / 512), weight 0 to 255.
    void (*blend_three)(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                        unsigned weight);
    /// In groups of 8 samples, of which `n` is a multiple: blend_three() where the group's flag is 0xff,
    /// blend() of a and b where it is 0. Weight 0 to 255.
    void (*blend_adaptive)(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                           unsigned weight, const uint8_t* group_flags);
    /// The plan's first `n` samples of a row.
    void (*interpolate)(uint8_t* out, const uint8_t* row, size_t n, const GatherPlan& plan, NextLines next);
    /// interpolate() for two rows in one pass over the plan's tables.
    void (*interpolate_two)(const RowPair& rows, size_t n, const GatherPlan& plan);
    /// All samples of the plan, out of the blend of two lines, weight 0 to 255; all lines from the plan's
    /// first sample on.
    void (*halve)(uint8_t* out, const uint8_t* a, const uint8_t* b, unsigned weight, size_t n,
                  const HalvingPlan& plan, const NextLines& next);
    unsigned halved;  ///< samples that halve() makes at a time, and takes at least
    /// Flags, 0 or 1, of `blocks` macroblocks side by side, the first one at lines[0] to lines[17].
    void (*motion_row)(uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines], size_t blocks);
};

/// How a vertical weight is carried out in 8-bit lanes. The nearer line is the base, so that the other one's
/// weight stays below 128 and the products of pmaddubsw within 16 bits; 128 itself is an average.
enum class Weighting { kNone, kNear, kHalf, kFar };

constexpr Weighting weighting(unsigned weight) {
    if (weight == 0) return Weighting::kNone;
    if (weight == 128) return Weighting::kHalf;
    return weight < 128 ? Weighting::kNear : Weighting::kFar;
}

constexpr size_t index_of(unsigned weight) { return static_cast<size_t>(weighting(weight)); }

/// Makes the nearer of two lines the first, which keeps a blend and rules out Weighting::kFar.
constexpr void nearer_first(const uint8_t*& a, const uint8_t*& b, unsigned& weight) {
    const bool far = weight > 128;
    const uint8_t *nearer = far ? b : a, *other = far ? a : b;
    a = nearer;
    b = other;
    weight = far ? 256 - weight : weight;
}

/// The signed weights of a pair of lines (a in the low byte) whose weighted sum, shifted right 8, is what the
/// base lacks: -weight and weight with a as the base, 256 - weight and weight - 256 with b as the base.
constexpr int16_t pair_weights(unsigned weight) {
    const int b = weight < 128 ? static_cast<int>(weight) : static_cast<int>(weight) - 256;
    return static_cast<int16_t>((b * 256) | (-b & 0xff));
}

// ---- Rows too short for a vector ----------------------------------------------------------------------

namespace one_by_one {

inline void blend(uint8_t* out, const uint8_t* a, const uint8_t* b, size_t n, unsigned weight) {
    for (size_t i = 0; i < n; ++i) out[i] = plain::blend_lines(a[i], b[i], static_cast<int>(weight));
}

inline void blend_three(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                        unsigned weight) {
    for (size_t i = 0; i < n; ++i) {
        out[i] = plain::blend_three_lines(a[i], b[i], c[i], static_cast<int>(weight));
    }
}

inline void blend_adaptive(uint8_t* out, const uint8_t* a, const uint8_t* b, const uint8_t* c, size_t n,
                           unsigned weight, const uint8_t* group_flags) {
    for (size_t i = 0; i < n; i += 8) {
        if (group_flags[i / 8] != 0)
            blend_three(out + i, a + i, b + i, c + i, 8, weight);
        else
            blend(out + i, a + i, b + i, 8, weight);
    }
}

}  // namespace one_by_one

namespace rows {

// ---- The horizontal plan ------------------------------------------------------------------------------

/// A plan's outputs before they are grouped: the sample on the left of each and the way to the one on its
/// right.
struct Outputs {
    unsigned count;
    unsigned last;  ///< the row's last sample
    uint32_t left[kPlanColumns];
    uint16_t fraction[kPlanColumns];

    uint32_t right(unsigned i) const { return std::min(left[i] + 1, last); }
};

/// Takes `count` outputs of a row of `src_width` samples from `walk` on, and `walk` past them.
inline void take_outputs(Outputs& outputs, SampleWalk& walk, unsigned count, uint32_t x_step,
                         unsigned src_width) {
    outputs.count = count;
    outputs.last = src_width - 1;
    // Within the row, a walk whose sums stay within 32 bits goes by whole steps.
    const uint64_t row_end = uint64_t{src_width} << 16;
    unsigned whole = 0;
    if (x_step != 0 && x_step <= 0xffff0000 && walk.position < row_end) {
        whole = static_cast<unsigned>(std::min<uint64_t>((row_end - walk.position) / x_step, count));
    }
    uint64_t position = walk.position;
    for (unsigned i = 0; i < whole; ++i, position += x_step) {
        outputs.left[i] = static_cast<uint32_t>(position >> 16);
        outputs.fraction[i] = static_cast<uint16_t>(position);
    }
    walk.position = position;
    for (unsigned i = whole; i < count; ++i, walk.advance(x_step)) {
        outputs.left[i] = column_in_row(walk.sample(), src_width);
        outputs.fraction[i] = static_cast<uint16_t>(walk.fraction());
    }
}

/// True where `group` outputs in a row never take more than `window` source samples.
inline bool fits(const Outputs& outputs, unsigned group, unsigned window) {
    for (unsigned i = 0; i < outputs.count; i += group) {
        const unsigned end = std::min(i + group, outputs.count);
        if (outputs.right(end - 1) + 1 - outputs.left[i] > window) return false;
    }
    return true;
}

/// True where the pairs of samples lie side by side, as those of a picture of half the width do.
inline bool are_side_by_side(const Outputs& outputs) {
    const unsigned count = outputs.count;
    if (outputs.left[count - 1] != outputs.left[0] + 2 * (count - 1)) return false;
    uint32_t strays = 0;
    for (unsigned i = 0; i < count; ++i) strays |= outputs.left[i] ^ (outputs.left[0] + 2 * i);
    return strays == 0 && outputs.left[count - 1] < outputs.last;
}

/// The spread of groups that a kernel can gather; none where they lie too far apart.
inline std::optional<Spread> spread_of(const Outputs& outputs, const RowKernels& kernels) {
    const GatherShape &dense = kernels.dense, &sparse = kernels.sparse;
    if (fits(outputs, dense.outputs, dense.window)) return Spread::kDense;
    if (fits(outputs, sparse.outputs, sparse.window)) return Spread::kOne;
    if (fits(outputs, sparse.outputs, 2 * sparse.window)) return Spread::kTwo;
    return std::nullopt;
}

/// Enters outputs whose pairs lie side by side, for a kernel that makes `lanes` of them at a time, the last
/// ones overlapping those before.
inline void lay_out(HalvingPlan& plan, const Outputs& outputs, unsigned lanes) {
    plan.first = outputs.left[0];
    const unsigned count = outputs.count;
    unsigned right = 0;
    for (unsigned i = 0; i < count; ++i) right += outputs.fraction[i] >> 15;
    const bool rises = outputs.fraction[0] <= outputs.fraction[count - 1];
    const unsigned turn = rises ? count - right : right;

    std::memcpy(plan.fraction, outputs.fraction, count * sizeof(plan.fraction[0]));
    uint32_t* base = plan.base;
    for (unsigned next = 0; next < count; next += lanes) {
        const unsigned first = std::min(next, count - lanes);
        const unsigned before_turn = std::clamp(turn, first, first + lanes) - first;
        *base++ = (rises ? lanes : 2 * lanes) - before_turn;
    }
}

/// Enters 8 offsets, counted from `origin` on.
inline void enter_offsets(uint16_t* __restrict to, const uint16_t* __restrict from, uint16_t origin) {
#pragma GCC unroll 8
    for (unsigned i = 0; i < 8; ++i) to[i] = static_cast<uint16_t>(from[i] - origin);
}

/// Outputs that the kernels make for `count`, in whole rounds.
constexpr unsigned whole_rounds(const GatherShape& shape, unsigned count) {
    const unsigned round = shape.outputs * shape.groups;
    return (count + round - 1) / round * round;
}

/// Groups the outputs, along a row of `row_width` bytes, for a kernel.
inline void lay_out(GatherPlan& plan, Spread spread, const GatherShape& shape, Outputs& outputs,
                    unsigned row_width) {
    plan.spread = spread;
    plan.reach = spread == Spread::kTwo ? 2 * shape.window : shape.window;
    plan.row_width = row_width;
    // A round is made whole with copies of the last output, which widen no window.
    const unsigned round = shape.outputs * shape.groups, filled = whole_rounds(shape, outputs.count);
    std::fill(outputs.left + outputs.count, outputs.left + filled, outputs.left[outputs.count - 1]);
    std::fill(outputs.fraction + outputs.count, outputs.fraction + filled,
              outputs.fraction[outputs.count - 1]);

    // Counted from the row's start, offsets overflow their bytes; counted from a window's, they fit again.
    uint16_t pair[kPlanColumns];
    int16_t weight[kPlanColumns];
    for (unsigned i = 0; i < filled; ++i) {
        // Read as a signed number, a fraction of 0x8000 or more is less by 65536, as its weight is. The
        // others change their sign.
        const auto fraction = static_cast<int16_t>(outputs.fraction[i]);
        const int16_t right = fraction >> 15;  // where it is the base: all bits, elsewhere none
        pair[i] = static_cast<uint16_t>(outputs.left[i] * 0x101 + 0x100 - (right & 0xff));
        weight[i] = static_cast<int16_t>((fraction ^ ~right) - ~right);
    }
    // Behind the row's last sample stands the last again.
    for (unsigned i = filled; i-- > 0 && outputs.left[i] == outputs.last;) {
        pair[i] = static_cast<uint16_t>(outputs.left[i] * 0x101);
    }

    // No window reads past the row's end: the last ones start earlier.
    const unsigned last_window = row_width > plan.reach ? row_width - plan.reach : 0;
    const unsigned bias = spread == Spread::kTwo ? shape.bias : 0;
    uint32_t* window = plan.window;
    for (unsigned first = 0; first < filled; first += round) {
        for (unsigned group = 0; group < shape.groups; ++group) {
            const unsigned from = first + group * shape.outputs;
            const unsigned to = first + shape.position[group] * shape.outputs;
            const unsigned start = std::min<unsigned>(outputs.left[from], last_window);
            const auto origin = static_cast<uint16_t>((start - bias) * 0x101);
            for (unsigned n = 0; n < shape.outputs; n += 8) {
                enter_offsets(plan.pair + to + n, pair + from + n, origin);
                std::memcpy(plan.weight + to + n, weight + from + n, 8 * sizeof(weight[0]));
            }
            *window++ = start;
        }
    }
}

/// Groups the outputs' pairs, side by side in a row of their own, for a kernel.
inline void lay_out(ScatteredPlan& plan, const GatherShape& shape, Outputs& outputs, unsigned src_width) {
    const unsigned count = outputs.count;
    std::copy(outputs.left, outputs.left + count, plan.left);
    plan.src_width = src_width;
    for (unsigned i = 0; i < count; ++i) outputs.left[i] = 2 * i;
    outputs.last = ~0u;
    lay_out(plan.pairs, Spread::kOne, shape, outputs, 2 * whole_rounds(shape, count));
}

/// The columns [first, end) of a row.
struct Columns {
    unsigned first;
    unsigned end;
};

/// Lays out `count` outputs, 1 or more, of a row of `src_width` samples from `walk` on, and takes `walk` past
/// them. Returns the source samples that they take.
inline Columns lay_out(HorizontalPlan& plan, const RowKernels& kernels, SampleWalk& walk, unsigned count,
                       uint32_t x_step, unsigned src_width) {
    Outputs outputs;
    take_outputs(outputs, walk, count, x_step, src_width);
    const Columns taken = {outputs.left[0], outputs.right(count - 1) + 1};
    if (count >= kernels.halved && are_side_by_side(outputs)) {
        lay_out(plan.emplace<HalvingPlan>(), outputs, kernels.halved);
    } else if (const auto spread = spread_of(outputs, kernels)) {
        const GatherShape& shape = *spread == Spread::kDense ? kernels.dense : kernels.sparse;
        lay_out(plan.emplace<GatherPlan>(), *spread, shape, outputs, src_width);
    } else {
        lay_out(plan.emplace<ScatteredPlan>(), kernels.sparse, outputs, src_width);
    }
    return taken;
}

/// Bytes to have behind a buffered row, so that a window of any kernel can be read from a row of one sample.
inline constexpr unsigned kWindowRoom = 128;

/// Brings the plan's first `n` pairs of samples of `row` together.
inline void bring_together(uint8_t* __restrict pairs, const uint8_t* row, size_t n, const ScatteredPlan& plan,
                           NextLines next) {
    const uint32_t* __restrict left = plan.left;
    const unsigned last = plan.src_width - 1;
    size_t inside = n;
    while (inside > 0 && left[inside - 1] >= last) --inside;
    const auto bring = [&](size_t i) { std::memcpy(pairs + 2 * i, row + left[i], 2); };
    size_t i = 0;
    for (; i + 4 <= inside; i += 4) {
        __builtin_prefetch(next.a + left[i]);
        __builtin_prefetch(next.b + left[i]);
        for (size_t j = 0; j < 4; ++j) bring(i + j);
    }
    for (; i < inside; ++i) bring(i);
    std::memset(pairs + 2 * inside, row[last], 2 * (n - inside));
}

inline void interpolate(const RowKernels& kernels, uint8_t* out, const uint8_t* row, size_t n,
                        const GatherPlan& plan, NextLines next) {
    if (plan.row_width >= plan.reach) return kernels.interpolate(out, row, n, plan, next);
    uint8_t short_row[kWindowRoom] = {};
    std::memcpy(short_row, row, plan.row_width);
    kernels.interpolate(out, short_row, n, plan, {short_row, short_row});
}

inline void interpolate(const RowKernels& kernels, uint8_t* out, const uint8_t* row, size_t n,
                        const ScatteredPlan& plan, NextLines next) {
    uint8_t pairs[2 * kPlanColumns + kWindowRoom];
    bring_together(pairs, row, n, plan, next);
    std::memset(pairs + 2 * n, 0, kWindowRoom);
    kernels.interpolate(out, pairs, n, plan.pairs, {pairs, pairs});
}

inline void interpolate(const RowKernels& kernels, uint8_t* out, const uint8_t* row, size_t n,
                        const HalvingPlan& plan, NextLines next) {
    const uint8_t* first = row + plan.first;
    kernels.halve(out, first, first, 0, n, plan, {next.a + plan.first, next.b + plan.first});
}

inline void interpolate(const RowKernels& kernels, uint8_t* out, const uint8_t* row, size_t n,
                        const HorizontalPlan& plan, NextLines next) {
    std::visit([&](const auto& kind) { interpolate(kernels, out, row, n, kind, next); }, plan);
}

inline void interpolate_two(const RowKernels& kernels, const RowPair& pair, size_t n,
                            const HorizontalPlan& plan) {
    const auto* gather = std::get_if<GatherPlan>(&plan);
    if (gather != nullptr && gather->row_width >= gather->reach) {
        return kernels.interpolate_two(pair, n, *gather);
    }
    interpolate(kernels, pair.out[0], pair.row[0], n, plan, pair.next[0]);
    interpolate(kernels, pair.out[1], pair.row[1], n, plan, pair.next[1]);
}

// ---- Strips -------------------------------------------------------------------------------------------

/// Columns of an output plane that are produced together. A straight strip takes its samples from the columns
/// of the same number, the others along their plan.
struct Strip {
    static constexpr unsigned kStraightColumns = 8192;

    size_t column;
    unsigned count;
    bool straight;
    Columns source;  ///< what it takes of a source row
};

/// Calls body(strip, plan) for all columns of an output plane of `width` samples, from left to right. Columns
/// come in multiples of 8, but for the last strip's.
template <typename Body>
void for_each_strip(const PlaneScaling& plane, uint64_t width, const RowKernels& kernels, Body body) {
    HorizontalPlan plan;
    SampleWalk walk;
    uint64_t column = 0;
    if (plane.x_step == 65536) {
        const uint64_t both = std::min<uint64_t>(width, plane.src_width);
        const uint64_t straight = both == width ? width : both & ~uint64_t{7};
        for (; column < straight; column += std::min<uint64_t>(straight - column, Strip::kStraightColumns)) {
            const auto count = std::min<uint64_t>(straight - column, Strip::kStraightColumns);
            const auto first = static_cast<unsigned>(column), end = static_cast<unsigned>(column + count);
            body(Strip{column, end - first, true, {first, end}}, plan);
        }
        walk.position = column << 16;
    }
    while (column < width) {
        const auto count = static_cast<unsigned>(std::min<uint64_t>(width - column, kPlanColumns));
        const Columns source = lay_out(plan, kernels, walk, count, plane.x_step, plane.src_width);
        body(Strip{column, count, false, source}, plan);
        column += count;
    }
}

// ---- The plain scaler ---------------------------------------------------------------------------------

inline const uint8_t* line_of(const PlaneScaling& plane, unsigned line) {
    return plane.src + line * plane.src_stride;
}

/// The lines of a row, from a column on.
inline NextLines lines_of(const PlaneScaling& plane, const BlendedRow& row, size_t column = 0) {
    return {line_of(plane, row.a) + column, line_of(plane, row.b) + column};
}

/// True where rows reach into the next, in the source or, `width` samples long, in the output. A vector would
/// read on behind the last row, and strips write in another order than rows do.
constexpr bool rows_overlap(const PlaneScaling& plane, uint64_t width) {
    return plane.src_stride < plane.src_width || plane.dst_stride < width;
}

/// How many rows from `row`, an unblended one, on are copies of lines that follow each other as the rows do,
/// without a gap in either plane: 1 or more.
inline unsigned rows_in_one_piece(const PlaneScaling& plane, const RowScheme& scheme, unsigned row) {
    const size_t width = plane.to_width;
    const bool gapless = plane.src_width == width && plane.src_stride == width && plane.dst_stride == width;
    const bool line_by_line = plane.y_step == 65536 && scheme.even == kProgressive;
    const unsigned end = std::min({plane.to_height, plane.src_height, 65536u});  // where positions wrap
    return gapless && line_by_line && row < end ? end - row : 1;
}

/// The strip's part of the rows from `row` on, straight from the lines above it. Returns how many rows it
/// made.
inline unsigned scale_straight(const RowKernels& kernels, const PlaneScaling& plane, const RowScheme& scheme,
                               const Strip& strip, unsigned row, const BlendedRow& source) {
    const uint8_t* a = line_of(plane, source.a) + strip.column;
    const uint8_t* b = line_of(plane, source.b) + strip.column;
    uint8_t* out = plane.dst + row * plane.dst_stride + strip.column;
    if (source.weight != 0) {
        kernels.blend(out, a, b, strip.count, source.weight);
        return 1;
    }
    const unsigned rows = rows_in_one_piece(plane, scheme, row);
    std::memcpy(out, a, size_t{strip.count} * rows);
    return rows;
}

/// The samples of a source row that a strip takes: a line of the plane, or the blend of two in `buffer`.
inline const uint8_t* source_row(const RowKernels& kernels, const PlaneScaling& plane, const Columns& taken,
                                 const BlendedRow& source, uint8_t* buffer) {
    const uint8_t* a = line_of(plane, source.a);
    if (source.weight == 0) return a;
    kernels.blend(buffer + taken.first, a + taken.first, line_of(plane, source.b) + taken.first,
                  taken.end - taken.first, source.weight);
    return buffer;
}

/// Makes the strip's part of all rows in half of the width, straight from the lines.
inline void scale_in_half(const RowKernels& kernels, const PlaneScaling& plane, const RowScheme& scheme,
                          const Strip& strip, const HalvingPlan& plan, const char* function) {
    BlendedRow source = blended_row(plane, scheme, 0);
    for (unsigned row = 0; row < plane.to_height; ++row) {
        if (source.weight != 0) require_source_line(plane, source.b, function);
        require_output_row(plane, row, function);
        const BlendedRow next = blended_row(plane, scheme, row + 1);
        kernels.halve(plane.dst + row * plane.dst_stride + strip.column,
                      line_of(plane, source.a) + plan.first, line_of(plane, source.b) + plan.first,
                      source.weight, strip.count, plan, lines_of(plane, next, plan.first));
        source = next;
    }
}

/// Makes the strip's part of all rows along its plan, two rows at a time.
inline void scale_along_plan(const RowKernels& kernels, const PlaneScaling& plane, const RowScheme& scheme,
                             const Strip& strip, const HorizontalPlan& plan, const char* function) {
    alignas(64) uint8_t buffer[2][kScalerRowSamples];
    const auto out = [&](unsigned row) { return plane.dst + row * plane.dst_stride + strip.column; };
    const auto source_of = [&](unsigned row) { return blended_row(plane, scheme, row); };
    const auto samples = [&](unsigned row, const BlendedRow& source, uint8_t* into) {
        if (source.weight != 0) require_source_line(plane, source.b, function);
        require_output_row(plane, row, function);
        return source_row(kernels, plane, strip.source, source, into);
    };

    BlendedRow first = source_of(0), second = source_of(1);
    unsigned row = 0;
    for (; row + 1 < plane.to_height; row += 2) {
        const BlendedRow third = source_of(row + 2), fourth = source_of(row + 3);
        const RowPair pair = {{out(row), out(row + 1)},
                              {samples(row, first, buffer[0]), samples(row + 1, second, buffer[1])},
                              {lines_of(plane, third), lines_of(plane, fourth)}};
        interpolate_two(kernels, pair, strip.count, plan);
        first = third;
        second = fourth;
    }
    if (row == plane.to_height) return;
    const uint8_t* last = samples(row, first, buffer[0]);
    interpolate(kernels, out(row), last, strip.count, plan, {last, last});
}

inline void scale(const RowKernels& kernels, const PlaneScaling& plane, int mode, int field,
                  const char* function) {
    if (rows_overlap(plane, plane.to_width)) return plain::scale(plane, mode, field, function);
    const RowScheme scheme = row_scheme(mode, field);
    for_each_strip(plane, plane.to_width, kernels, [&](const Strip& strip, const HorizontalPlan& plan) {
        if (!strip.straight) {
            const auto* half = std::get_if<HalvingPlan>(&plan);
            if (half != nullptr) return scale_in_half(kernels, plane, scheme, strip, *half, function);
            return scale_along_plan(kernels, plane, scheme, strip, plan, function);
        }
        for (unsigned row = 0; row < plane.to_height;) {
            const BlendedRow source = blended_row(plane, scheme, row);
            if (source.weight != 0) require_source_line(plane, source.b, function);
            require_output_row(plane, row, function);
            row += scale_straight(kernels, plane, scheme, strip, row, source);
        }
    });
}

// ---- The deinterlacers --------------------------------------------------------------------------------

/// The source lines of a strip, interpolated to its columns and kept while the rows that follow need them: a
/// row asks for no more than three lines, which lie side by side.
class StripLines {
public:
    StripLines(const RowKernels& kernels, const PlaneScaling& plane, const Strip& strip,
               const HorizontalPlan& plan)
        : kernels_(kernels), plane_(plane), strip_(strip), plan_(plan) {}

    const uint8_t* operator[](unsigned line) {
        const uint8_t* row = line_of(plane_, line);
        if (strip_.straight) return row + strip_.column;
        const unsigned slot = line % 3;
        if (held_[slot] != line) {
            const uint8_t* next = line_of(plane_, std::min(line + 2, plane_.src_height - 1));
            interpolate(kernels_, samples_[slot], row, strip_.count, plan_, {next, next});
            held_[slot] = line;
        }
        return samples_[slot];
    }

private:
    const RowKernels& kernels_;
    const PlaneScaling& plane_;
    const Strip& strip_;
    const HorizontalPlan& plan_;
    int64_t held_[3] = {-1, -1, -1};
    alignas(64) uint8_t samples_[3][kPlanColumns];
};

inline void deinterlace_basic(const RowKernels& kernels, const PlaneScaling& plane) {
    if (rows_overlap(plane, plane.to_width)) return plain::deinterlace_basic(plane);
    for_each_strip(plane, plane.to_width, kernels, [&](const Strip& strip, const HorizontalPlan& plan) {
        StripLines source(kernels, plane, strip, plan);
        for (unsigned row = 0; row < plane.to_height; ++row) {
            const LineTriple lines = line_triple(row_position(row, plane.y_step), plane.src_height);
            uint8_t* out = plane.dst + row * plane.dst_stride + strip.column;
            const uint8_t* a = source[lines.a];
            const uint8_t* b = source[lines.b];
            kernels.blend_three(out, a, b, source[lines.c], strip.count, lines.weight);
        }
    });
}

/// The flags of a strip's groups of 8 samples, 0xff where the block is combed and 0 elsewhere.
class StripFlags {
public:
    StripFlags(const PlaneScaling& plane, const Strip& strip, const MotionMap& map)
        : plane_(plane), strip_(strip), map_(map) {}

    const uint8_t* at(uint32_t position) {
        if (!has_blocks(map_) || held_ == map_row(map_, position)) return flags_;
        held_ = map_row(map_, position);
        const uint8_t* blocks = map_.flags + static_cast<size_t>(held_) * map_.cols;
        const auto first = static_cast<unsigned>(strip_.column / 8);
        for (unsigned group = 0; group < strip_.count / 8; ++group) {
            flags_[group] = blocks[map_column(map_, first + group, plane_.x_step)] != 0 ? 0xff : 0;
        }
        return flags_;
    }

private:
    const PlaneScaling& plane_;
    const Strip& strip_;
    const MotionMap& map_;
    int64_t held_ = -1;
    uint8_t flags_[Strip::kStraightColumns / 8] = {};
};

inline void deinterlace_adaptive(const RowKernels& kernels, const PlaneScaling& plane, const MotionMap& map) {
    const uint64_t width = whole_groups(plane.to_width);
    if (rows_overlap(plane, width)) return plain::deinterlace_adaptive(plane, map);
    for_each_strip(plane, width, kernels, [&](const Strip& strip, const HorizontalPlan& plan) {
        StripLines source(kernels, plane, strip, plan);
        StripFlags flags(plane, strip, map);
        for (unsigned row = 0; row < plane.to_height; ++row) {
            const uint32_t position = row_position(row, plane.y_step);
            const LineTriple lines = line_triple(position, plane.src_height);
            uint8_t* out = plane.dst + row * plane.dst_stride + strip.column;
            const uint8_t* a = source[lines.a];
            const uint8_t* b = source[lines.b];
            kernels.blend_adaptive(out, a, b, source[lines.c], strip.count, lines.weight, flags.at(position));
        }
    });
}

inline void motion_map(const RowKernels& kernels, uint8_t* map, const uint8_t* luma, size_t stride,
                       unsigned width, unsigned height) {
    const unsigned cols = macroblocks(width), map_rows = macroblocks(height);
    for (unsigned row = 0; row + 1 < map_rows; ++row) {
        const uint8_t* lines[plain::kMotionLines];
        for (unsigned y = 0; y < plain::kMotionLines; ++y) {
            lines[y] = luma + std::min(row * kMacroblock + y, height - 1) * stride;
        }
        uint8_t* flags = map + size_t{row} * cols;
        if (cols > 1) kernels.motion_row(flags, lines, cols - 1);
        flags[cols - 1] = 1;
    }
    std::memset(map + size_t{map_rows - 1} * cols, 1, cols);
}

}  // namespace rows
}  // namespace gsve::detail
