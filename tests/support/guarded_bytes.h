#pragma once

// A byte buffer between pages that must not be touched: a read or write past its end, and one well in front
// of its start, ends the test program.

#include <cstdint>
#include <cstring>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

#include "support/bytes.h"

namespace gsve::test {

class GuardedBytes {
public:
    /// `size` bytes that end at the guard page, filled with `fill`.
    explicit GuardedBytes(size_t size, uint8_t fill = 0) : size_(size) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t usable = (size + page - 1) / page * page;
        mapped_size_ = usable + 2 * page;
        mapped_ = mmap(nullptr, mapped_size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped_ == MAP_FAILED) throw std::bad_alloc();
        auto* const first = static_cast<uint8_t*>(mapped_) + page;
        if (usable > 0 && mprotect(first, usable, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
        data_ = first + usable - size;
        std::memset(data_, fill, size);
    }
    explicit GuardedBytes(const Bytes& content) : GuardedBytes(content.size()) {
        if (!content.empty()) std::memcpy(data_, content.data(), content.size());
    }
    ~GuardedBytes() { munmap(mapped_, mapped_size_); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    Bytes bytes() const { return {data_, data_ + size_}; }

private:
    size_t size_;
    void* mapped_;
    size_t mapped_size_;
    uint8_t* data_;
};

}  // namespace gsve::test
