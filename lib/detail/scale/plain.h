#pragma once

// The plane operations in their plain form. They are the definition of the scaler's output: one sample at a
// time, in the order of the formulas, never tuned. The vector forms must give the same bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "../assertion.h"
#include "geometry.h"

namespace gsve::detail {

/// Width from which the plain scaler refuses a plane: a blended source row has to fit its row buffer.
inline constexpr unsigned kScalerRowSamples = 4096;

/// Aborts where the second line of a blend leaves the source plane, which takes a stride below the width.
inline void require_source_line(const PlaneScaling& plane, unsigned line, const char* function) {
    require(line * plane.src_stride + plane.src_width <= plane.src_height * plane.src_stride,
            "(sl1+src_width) <= (sY+(src_height*sY_stride))", __LINE__, function);
}

/// Aborts where an output row leaves the destination plane.
inline void require_output_row(const PlaneScaling& plane, unsigned row, const char* function) {
    require(row * plane.dst_stride + plane.to_width <= plane.to_height * plane.dst_stride,
            "(dl+to_width) <= (dY+(to_height*dY_stride))", __LINE__, function);
}

namespace plain {

/// a + floor((b - a) * weight / 256), weight 0 to 255. The shift of a negative product is arithmetic: it
/// rounds toward minus infinity, as everything here does; there is no rounding constant.
constexpr uint8_t blend_lines(int a, int b, int weight) {
    return static_cast<uint8_t>(a + (((b - a) * weight) >> 8));
}

/// a + floor((b - a) * weight / 65536), weight 0 to 65535.
constexpr uint8_t blend_samples(int a, int b, int weight) {
    return static_cast<uint8_t>(a + (((b - a) * weight) >> 16));
}

/// floor((a * (256 - weight) + c * weight + b * 256) / 512): b carries half of the weight.
constexpr uint8_t blend_three_lines(int a, int b, int c, int weight) {
    return static_cast<uint8_t>((a * (256 - weight) + c * weight + b * 256) >> 9);
}

/// A row of `plane` at a point of the walk. Past the row's end its last sample stands in.
inline uint8_t sample_at(const PlaneScaling& plane, const uint8_t* line, const SampleWalk& walk) {
    return blend_samples(line[column_in_row(walk.sample(), plane.src_width)],
                         line[column_in_row(walk.sample() + 1, plane.src_width)],
                         static_cast<int>(walk.fraction()));
}

/// The plain scaler's plane: see scale_plane() in plane_scaler.h.
inline void scale(const PlaneScaling& plane, int mode, int field, const char* function) {
    const RowScheme scheme = row_scheme(mode, field);
    uint8_t row_buffer[kScalerRowSamples];
    for (unsigned row = 0; row < plane.to_height; ++row) {
        const BlendedRow source = blended_row(plane, scheme, row);
        const uint8_t* line = plane.src + source.a * plane.src_stride;
        if (source.weight != 0) {
            require_source_line(plane, source.b, function);
            const uint8_t* below = plane.src + source.b * plane.src_stride;
            for (unsigned x = 0; x < plane.src_width; ++x) {
                row_buffer[x] = blend_lines(line[x], below[x], static_cast<int>(source.weight));
            }
            line = row_buffer;
        }
        require_output_row(plane, row, function);
        uint8_t* out = plane.dst + row * plane.dst_stride;
        SampleWalk walk;
        for (unsigned x = 0; x < plane.to_width; ++x) {
            out[x] = sample_at(plane, line, walk);
            walk.advance(plane.x_step);
        }
    }
}

/// The basic deinterlacer's plane: see deinterlace_plane_basic() in plane_scaler.h.
inline void deinterlace_basic(const PlaneScaling& plane) {
    for (unsigned row = 0; row < plane.to_height; ++row) {
        const LineTriple lines = line_triple(row_position(row, plane.y_step), plane.src_height);
        const uint8_t* a = plane.src + lines.a * plane.src_stride;
        const uint8_t* b = plane.src + lines.b * plane.src_stride;
        const uint8_t* c = plane.src + lines.c * plane.src_stride;
        uint8_t* out = plane.dst + row * plane.dst_stride;
        SampleWalk walk;
        for (unsigned x = 0; x < plane.to_width; ++x) {
            out[x] = blend_three_lines(sample_at(plane, a, walk), sample_at(plane, b, walk),
                                       sample_at(plane, c, walk), static_cast<int>(lines.weight));
            walk.advance(plane.x_step);
        }
    }
}

/// The adaptive deinterlacer's plane: see deinterlace_plane_adaptive() in plane_scaler.h.
inline void deinterlace_adaptive(const PlaneScaling& plane, const MotionMap& map) {
    const uint64_t width = whole_groups(plane.to_width);
    for (unsigned row = 0; row < plane.to_height; ++row) {
        const uint32_t position = row_position(row, plane.y_step);
        const LineTriple lines = line_triple(position, plane.src_height);
        const int weight = static_cast<int>(lines.weight);
        const uint8_t* a = plane.src + lines.a * plane.src_stride;
        const uint8_t* b = plane.src + lines.b * plane.src_stride;
        const uint8_t* c = plane.src + lines.c * plane.src_stride;
        uint8_t* out = plane.dst + row * plane.dst_stride;
        SampleWalk walk;
        bool combed = false;
        for (uint64_t x = 0; x < width; ++x) {
            if (x % 8 == 0 && has_blocks(map)) {
                const unsigned column = map_column(map, static_cast<unsigned>(x / 8), plane.x_step);
                combed = map.flags[size_t{map_row(map, position)} * map.cols + column] != 0;
            }
            const int at_a = sample_at(plane, a, walk), at_b = sample_at(plane, b, walk);
            out[x] = combed ? blend_three_lines(at_a, at_b, sample_at(plane, c, walk), weight)
                            : blend_lines(at_a, at_b, weight);
            walk.advance(plane.x_step);
        }
    }
}

/// Sum of absolute differences of two runs of 16 samples.
inline uint32_t line_difference(const uint8_t* a, const uint8_t* b) {
    uint32_t sum = 0;
    for (unsigned x = 0; x < kMacroblock; ++x) sum += static_cast<uint32_t>(std::abs(a[x] - b[x]));
    return sum;
}

/// Lines that the judgement of a macroblock reads: its own and the two below.
inline constexpr unsigned kMotionLines = kMacroblock + 2;

/// 1 where a macroblock is combed: its lines differ more from their neighbours, the other field's lines, than
/// from the lines of their own field. The range of the samples keeps noise and fine texture out.
inline uint8_t is_combed(const uint8_t* const (&lines)[kMotionLines]) {
    int smallest = 255, largest = 0;
    uint32_t frame = 0, even_field = 0, odd_field = 0;
    for (unsigned y = 0; y < kMacroblock; ++y) {
        for (unsigned x = 0; x < kMacroblock; ++x) {
            smallest = std::min<int>(smallest, lines[y][x]);
            largest = std::max<int>(largest, lines[y][x]);
        }
        frame += line_difference(lines[y], lines[y + 1]);
        (y % 2 == 0 ? even_field : odd_field) += line_difference(lines[y], lines[y + 2]);
    }
    const auto range = static_cast<uint32_t>(largest - smallest);
    if (range <= 17) return 0;
    return std::min(even_field, odd_field) + 10 * range < frame ? 1 : 0;
}

/// The motion map of a luma plane: see build_motion_map() in plane_scaler.h.
inline void motion_map(uint8_t* map, const uint8_t* luma, size_t stride, unsigned width, unsigned height) {
    const unsigned cols = macroblocks(width), rows = macroblocks(height);
    for (unsigned row = 0; row < rows; ++row) {
        for (unsigned col = 0; col < cols; ++col) {
            uint8_t& flag = map[size_t{row} * cols + col];
            flag = 1;
            if (row == rows - 1 || col == cols - 1) continue;
            const uint8_t* lines[kMotionLines];
            for (unsigned y = 0; y < kMotionLines; ++y) {
                // The last-but-one row of macroblocks may stand above a single line; it serves as both.
                const unsigned line = std::min(row * kMacroblock + y, height - 1);
                lines[y] = luma + line * stride + col * kMacroblock;
            }
            flag = is_combed(lines);
        }
    }
}

}  // namespace plain
}  // namespace gsve::detail
