#pragma once

// Synthetic moving pictures that every codec can follow: a drifting gradient with a moving bright square.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace gsve::test {

/// One planar 8-bit picture, planes tightly packed.
struct TestPicture {
    TestPicture(int width, int height, int shift_x, int shift_y, unsigned number)
        : width(width),
          height(height),
          chroma_width(width >> shift_x),
          chroma_height(height >> shift_y),
          y(static_cast<size_t>(width) * height),
          u(static_cast<size_t>(chroma_width) * chroma_height),
          v(u.size()) {
        for (int row = 0; row < height; row++)
            fill_ramp(y.data() + row * width, width, row + number, 40, 128);
        const int square = 16 + static_cast<int>(number * 3 % (width > 48 ? width - 48 : 1));
        const int end = std::min(square + 16, width);
        for (int row = 16; row < std::min(32, height) && square < end; row++)
            std::memset(y.data() + row * width + square, 220, static_cast<size_t>(end - square));
        for (int row = 0; row < chroma_height; row++) {
            fill_ramp(u.data() + row * chroma_width, chroma_width, number, 96, 64);
            std::memset(v.data() + row * chroma_width, static_cast<uint8_t>(96 + (row + 2 * number) % 64),
                        static_cast<size_t>(chroma_width));
        }
    }

    int width, height, chroma_width, chroma_height;
    std::vector<uint8_t> y, u, v;

private:
    /// base + (from + column) % period. What repeats is copied: tests are not optimised, and make many.
    static void fill_ramp(uint8_t* row, int count, unsigned from, int base, int period) {
        const int once = std::min(count, period);
        for (int column = 0; column < once; column++)
            row[column] = static_cast<uint8_t>(base + (from + column) % period);
        for (int done = once; done < count; done += std::min(done, count - done))
            std::memcpy(row + done, row, static_cast<size_t>(std::min(done, count - done)));
    }
};

}  // namespace gsve::test
