#pragma once

// Planes for the scaler's tests: memory that ends at a page without access, guard bytes between the rows.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "detail/scale/plane_scaler.h"

namespace plane_test {

using namespace gsve::detail;

/// Which end of the memory touches a page without access.
enum class Edge { kBefore, kBehind };

/// `size` bytes whose first or last one touches a page without access; the other end has one within reach.
class GuardedBytes {
public:
    GuardedBytes(size_t size, Edge edge) : size_(size) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t inner = (size + page - 1) / page * page;
        mapped_ = inner + 2 * page;
        base_ = static_cast<uint8_t*>(mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base_ == MAP_FAILED) throw std::bad_alloc();
        if (mprotect(base_ + page, inner, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
        data_ = edge == Edge::kBefore ? base_ + page : base_ + page + inner - size;
    }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;
    ~GuardedBytes() { munmap(base_, mapped_); }

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

private:
    size_t size_, mapped_;
    uint8_t* base_;
    uint8_t* data_;
};

inline constexpr uint8_t kGuardByte = 0xa5;

/// A plane without a byte behind its last sample. `extra` samples behind each row belong to it as well.
class Plane {
public:
    Plane(unsigned width, unsigned height, size_t stride, Edge edge, unsigned extra = 0)
        : width_(width + extra),
          height_(height),
          stride_(stride),
          bytes_((height - 1) * stride + width + extra, edge) {
        std::memset(bytes_.data(), kGuardByte, bytes_.size());
    }

    template <typename Random>
    void fill(Random& random) {
        // Noise, or only extremes: the largest differences are where a 16-bit product could overflow.
        const bool extremes = random() % 2 == 0;
        for (unsigned y = 0; y < height_; ++y) {
            for (unsigned x = 0; x < width_; ++x) {
                const auto value = static_cast<uint8_t>(random() >> 7);
                at(x, y) = extremes ? (value & 1 ? 255 : 0) : value;
            }
        }
    }

    uint8_t& at(unsigned x, unsigned y) { return bytes_.data()[y * stride_ + x]; }
    uint8_t* data() const { return bytes_.data(); }
    size_t stride() const { return stride_; }
    std::vector<uint8_t> bytes() const { return {bytes_.data(), bytes_.data() + bytes_.size()}; }

    bool guard_bytes_survive() {
        for (unsigned y = 0; y + 1 < height_; ++y) {
            for (size_t x = width_; x < stride_; ++x) {
                if (bytes_.data()[y * stride_ + x] != kGuardByte) return false;
            }
        }
        return true;
    }

private:
    unsigned width_, height_;
    size_t stride_;
    GuardedBytes bytes_;
};

/// A small picture to be written down row by row.
using Rows = std::vector<std::vector<int>>;

inline std::vector<uint8_t> packed(const Rows& rows) {
    std::vector<uint8_t> bytes;
    for (const auto& row : rows) {
        for (const int sample : row) bytes.push_back(static_cast<uint8_t>(sample));
    }
    return bytes;
}

inline Rows unpacked(const std::vector<uint8_t>& bytes, size_t width) {
    Rows rows(width == 0 ? 0 : bytes.size() / width);
    for (size_t i = 0; i < rows.size() * width; ++i) rows[i / width].push_back(bytes[i]);
    return rows;
}

/// A form of the plane operations under test, by its mask.
struct Form {
    unsigned mask;
    const char* name;
};

inline constexpr Form kForms[] = {
    {0, "plain"}, {1, "sse4.1"}, {3, "avx2"}, {7, "avx512"}, {15, "avx512vbmi"}};

/// Runs a test once under each mask that the processor can carry out.
class EveryForm : public testing::TestWithParam<Form> {
protected:
    void SetUp() override {
        if ((GetParam().mask & ~detected_cpu_features()) != 0) GTEST_SKIP() << "not on this processor";
        ASSERT_STREQ(set_plane_cpu_mask(GetParam().mask).name, GetParam().name);
        if (GetParam().mask != 0) {
            ASSERT_NE(plane_operations().scale, dispatch::kPlain.scale);
        }
    }
    void TearDown() override { set_plane_cpu_mask(cpu_mask_from_text(std::getenv("GSVE_CPU_MASK"))); }
};

inline std::string form_name(const testing::TestParamInfo<Form>& info) {
    std::string name = info.param.name;
    std::erase(name, '.');
    return name;
}

}  // namespace plane_test
