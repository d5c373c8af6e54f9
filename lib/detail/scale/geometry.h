#pragma once

// Where the samples of a scaled plane come from: steps, sizes, source lines and weights, as pure functions.
//
// Positions and steps are unsigned 16.16 fixed point, 65536 being one source sample, and wrap at 32 bits.
// The vertical weight is the top 8 bits of the fraction, the horizontal weight all 16 of them; both passes
// round toward minus infinity. Every line and sample named here exists: what the arithmetic asks for past the
// last line or sample of a plane is the last line or sample.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace gsve::detail {

/// One plane to scale: 8-bit samples, rows `stride` bytes apart, the steps in 16.16 source samples per output
/// sample. The destination holds `to_width` by `to_height` samples, the source `src_width` by `src_height`.
struct PlaneScaling {
    uint8_t* dst;
    size_t dst_stride;
    const uint8_t* src;
    size_t src_stride;
    unsigned to_width;
    unsigned to_height;
    unsigned x_step;
    unsigned y_step;
    unsigned src_width;
    unsigned src_height;
};

/// False where there is nothing to write or nothing to read.
constexpr bool has_samples(const PlaneScaling& plane) {
    return plane.to_width != 0 && plane.to_height != 0 && plane.src_width != 0 && plane.src_height != 0;
}

// ---- Whole pictures -----------------------------------------------------------------------------------

/// A picture's luma size and the log2 of its chroma subsampling.
struct PictureFormat {
    int64_t width;
    int64_t height;
    unsigned chroma_shift_x;
    unsigned chroma_shift_y;
};

/// Sizes and steps of one plane: the arguments of a per-plane scaler that are not memory.
struct PlaneGeometry {
    unsigned to_width;
    unsigned to_height;
    unsigned x_step;
    unsigned y_step;
    unsigned src_width;
    unsigned src_height;

    bool operator==(const PlaneGeometry&) const = default;
};

/// The geometry of the three planes of a picture; Cb and Cr share one.
struct PictureGeometry {
    PlaneGeometry luma;
    PlaneGeometry chroma;

    bool operator==(const PictureGeometry&) const = default;
};

/// (from << 16 << to_shift) / (to << from_shift): the 16.16 step of a plane from the luma extents of source
/// and destination and the subsampling of each. Computed in 64 bits, handed on as 32.
constexpr uint32_t plane_step(uint64_t from, uint64_t to, unsigned from_shift, unsigned to_shift) {
    return static_cast<uint32_t>((from << (16 + to_shift)) / (to << from_shift));
}

namespace geometry {

/// No format subsamples chroma by more; a larger shift would leave 64 bits.
inline constexpr unsigned kMaxChromaShift = 15;

constexpr unsigned shift_of(unsigned shift) { return std::min(shift, kMaxChromaShift); }

/// The geometry for luma extents that are `inset` samples short of the sizes: 1 lays the steps between the
/// centres of the first and the last sample, 0 between the edges of the picture.
constexpr PictureGeometry picture(const PictureFormat& from, const PictureFormat& to, unsigned inset) {
    const auto step_x = [&](unsigned from_shift, unsigned to_shift) {
        return plane_step(from.width - inset, to.width - inset, from_shift, to_shift);
    };
    const auto step_y = [&](unsigned from_shift, unsigned to_shift) {
        return plane_step(from.height - inset, to.height - inset, from_shift, to_shift);
    };
    const unsigned from_x = shift_of(from.chroma_shift_x), from_y = shift_of(from.chroma_shift_y);
    const unsigned to_x = shift_of(to.chroma_shift_x), to_y = shift_of(to.chroma_shift_y);
    const auto size = [](int64_t samples, unsigned shift) { return static_cast<unsigned>(samples >> shift); };
    return {
        .luma = {size(to.width, 0), size(to.height, 0), step_x(0, 0), step_y(0, 0), size(from.width, 0),
                 size(from.height, 0)},
        .chroma = {size(to.width, to_x), size(to.height, to_y), step_x(from_x, to_x), step_y(from_y, to_y),
                   size(from.width, from_x), size(from.height, from_y)},
    };
}

}  // namespace geometry

/// End-point-aligned geometry, of the plain scaler: the first and the last luma sample of the destination lie
/// on the first and the last of the source. Nothing where a luma extent is 1 or less: there is no step.
constexpr std::optional<PictureGeometry> end_point_aligned(const PictureFormat& from,
                                                           const PictureFormat& to) {
    if (from.width <= 1 || from.height <= 1 || to.width <= 1 || to.height <= 1) return std::nullopt;
    return geometry::picture(from, to, 1);
}

/// Cell-aligned geometry, of the deinterlacing resizers: source and destination cover the same area. Nothing
/// where a luma extent is 0 (or negative, which no picture has).
constexpr std::optional<PictureGeometry> cell_aligned(const PictureFormat& from, const PictureFormat& to) {
    if (from.width <= 0 || from.height <= 0 || to.width <= 0 || to.height <= 0) return std::nullopt;
    return geometry::picture(from, to, 0);
}

// ---- Source lines -------------------------------------------------------------------------------------

/// The 16.16 source position of an output row.
constexpr uint32_t row_position(unsigned row, unsigned y_step) { return row * y_step; }

constexpr unsigned whole_lines(uint32_t position) { return position >> 16; }
constexpr unsigned line_weight(uint32_t position) { return (position >> 8) & 255; }

/// A source row of the plain scaler: line `a`, or with a weight above 0 the blend of `a` and `b`,
/// a + floor((b - a) * weight / 256).
struct BlendedRow {
    unsigned a;
    unsigned b;
    unsigned weight;

    bool operator==(const BlendedRow&) const = default;
};

inline constexpr int kProgressive = -1;

/// The parity of the field that an output row is built from, or kProgressive. `mode` is the
/// "resize deinterlace" setting, `field` the parity of the picture's first field or negative for a
/// progressive picture.
constexpr int row_parity(int mode, int field, unsigned row) {
    if (mode == 0 || mode == 1) return mode;  // the whole picture from that field
    if (mode == 2 || field < 0) return kProgressive;
    if (mode < 0) return static_cast<int>(row & 1);  // each field from its own lines: stays interlaced
    return field & 1;                                // both fields from the first one
}

constexpr BlendedRow single_line(unsigned line) { return {line, line, 0}; }

constexpr BlendedRow progressive_row(uint32_t position, unsigned src_height) {
    const unsigned line = whole_lines(position), last = src_height - 1;
    if (line >= last) return single_line(last);
    return {line, line + 1, line_weight(position)};
}

/// A row of one field. A position on a line of the other field takes the next line of this one, unblended; a
/// position on a line of this field is blended with the field's next line by the frame's own weight, which is
/// not halved. A plane of an odd number of lines leaves its last line out.
constexpr BlendedRow field_row(uint32_t position, unsigned src_height, unsigned parity) {
    const int64_t line = whole_lines(position);
    const int64_t last_pair = static_cast<int64_t>(src_height & ~1u) - 2;
    const auto last =
        static_cast<unsigned>(std::max<int64_t>(last_pair + parity, 0));  // 0: a plane of one line
    const bool own_field = (line & 1) == parity;
    const int64_t pair = own_field ? line - parity : line + 1 - parity;
    if (pair >= last_pair) return single_line(last);
    if (!own_field) return single_line(static_cast<unsigned>(line + 1));
    return {static_cast<unsigned>(line), static_cast<unsigned>(line + 2), line_weight(position)};
}

/// The parity of the field that even and odd output rows are built from, or kProgressive for both.
struct RowScheme {
    int even;
    int odd;
};

constexpr RowScheme row_scheme(int mode, int field) {
    return {row_parity(mode, field, 0), row_parity(mode, field, 1)};
}

constexpr BlendedRow blended_row(const PlaneScaling& plane, const RowScheme& scheme, unsigned row) {
    const uint32_t position = row_position(row, plane.y_step);
    const int parity = row % 2 == 0 ? scheme.even : scheme.odd;
    if (parity == kProgressive) return progressive_row(position, plane.src_height);
    return field_row(position, plane.src_height, static_cast<unsigned>(parity));
}

/// The source lines of a deinterlaced output row. C weighs `weight`, A weighs 256 - `weight`, out of 256.
struct LineTriple {
    unsigned a;
    unsigned b;
    unsigned c;
    unsigned weight;

    bool operator==(const LineTriple&) const = default;
};

constexpr LineTriple line_triple(uint32_t position, unsigned src_height) {
    const unsigned line = whole_lines(position), last = src_height - 1;
    if (line + 2 < last) return {line, line + 1, line + 2, line_weight(position)};
    if (line + 1 < last) return {line, line + 1, last, 0};
    if (line < last) return {line, last, last, 0};
    return {last, last, last, 0};
}

// ---- Source samples -----------------------------------------------------------------------------------

/// The walk of a row's output samples along the source row: a whole sample and a 16-bit fraction. The
/// fraction and the step are added in 32 bits, the whole samples have no end.
struct SampleWalk {
    uint64_t position = 0;

    constexpr uint64_t sample() const { return position >> 16; }
    constexpr uint32_t fraction() const { return position & 0xffff; }

    constexpr void advance(uint32_t x_step) {
        const bool wraps = x_step > 0xffff0000 && fraction() + x_step < x_step;
        position += x_step;
        if (wraps) position -= uint64_t{1} << 32;
    }
};

/// The sample at `column`, or the row's last where the row ends before it.
constexpr unsigned column_in_row(uint64_t column, unsigned src_width) {
    return static_cast<unsigned>(std::min<uint64_t>(column, src_width - 1));
}

// ---- Motion map ---------------------------------------------------------------------------------------

/// Samples and lines of a macroblock, ISO/IEC 13818-2.
inline constexpr unsigned kMacroblock = 16;

/// Macroblocks that cover `samples`.
constexpr unsigned macroblocks(uint64_t samples) {
    return static_cast<unsigned>((samples + kMacroblock - 1) / kMacroblock);
}

/// A motion map as one plane sees it: a flag per luma macroblock, `cols` to a row, non-zero where it is
/// combed. `shift_x` and `shift_y` are the plane's subsampling against the map, 0 for luma. Nothing here
/// knows where the map ends: map_reach() tells how far a plane reads.
struct MotionMap {
    const uint8_t* flags;
    unsigned cols;
    uint8_t shift_x;
    uint8_t shift_y;
};

constexpr unsigned map_shift(uint8_t plane_shift) { return 4u - std::min<unsigned>(plane_shift, 4); }

/// The map row of an output row.
constexpr unsigned map_row(const MotionMap& map, uint32_t position) {
    return whole_lines(position) >> map_shift(map.shift_y);
}

/// The map column of the group of 8 output samples number `group`, by the position of its first sample. One
/// that lies past the row's end is a block of the rows below.
constexpr unsigned map_column(const MotionMap& map, unsigned group, unsigned x_step) {
    const uint32_t position = group * (8 * x_step);
    return (position >> 16) >> map_shift(map.shift_x);
}

/// True where `map` can be read at all; without a map every block is static.
constexpr bool has_blocks(const MotionMap& map) { return map.flags != nullptr; }

/// The width that the adaptive deinterlacer writes: whole groups of 8 samples.
constexpr uint64_t whole_groups(unsigned to_width) {
    return (static_cast<uint64_t>(to_width) + 7) & ~uint64_t{7};
}

/// Bytes of its map that a plane reads at most: one more than the largest index.
constexpr size_t map_reach(const MotionMap& map, const PlaneGeometry& plane) {
    // A position that leaves 32 bits comes round: any may have been passed.
    const auto furthest = [](uint64_t count, uint64_t step) {
        const uint64_t steps = std::max<uint64_t>(count, 1) - 1;
        return static_cast<uint32_t>(std::min<uint64_t>(steps * step, UINT32_MAX)) >> 16;
    };
    const size_t row = furthest(plane.to_height, plane.y_step) >> map_shift(map.shift_y);
    const size_t column =
        furthest(whole_groups(plane.to_width) / 8, uint64_t{8} * plane.x_step) >> map_shift(map.shift_x);
    return row * map.cols + column + 1;
}

}  // namespace gsve::detail
