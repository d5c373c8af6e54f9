#pragma once

// Synthetic moving pictures that every codec can follow: a drifting gradient with a moving bright square.

#include <cstddef>
#include <cstdint>
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
            for (int column = 0; column < width; column++)
                y[row * width + column] = luma(row, column, number);
        for (int row = 0; row < chroma_height; row++)
            for (int column = 0; column < chroma_width; column++) {
                u[row * chroma_width + column] = static_cast<uint8_t>(96 + (column + number) % 64);
                v[row * chroma_width + column] = static_cast<uint8_t>(96 + (row + 2 * number) % 64);
            }
    }

    int width, height, chroma_width, chroma_height;
    std::vector<uint8_t> y, u, v;

private:
    uint8_t luma(int row, int column, unsigned number) const {
        const int square = 16 + static_cast<int>(number * 3 % (width > 48 ? width - 48 : 1));
        const bool inside = column >= square && column < square + 16 && row >= 16 && row < 32;
        return inside ? 220 : static_cast<uint8_t>(40 + (row + column + number) % 128);
    }
};

}  // namespace gsve::test
