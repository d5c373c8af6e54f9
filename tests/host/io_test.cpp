// The reference host's byte windows.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include <orb_utils_v4/io.h>

// Under a sanitizer too, an allocation that is too large fails as it does without one.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

#if defined(GSVE_SANITIZED_ADDRESS) || defined(GSVE_SANITIZED_THREAD)
constexpr bool kMallocIsInterposed = false;
static int mallocs_before_failure = -1;
#else
constexpr bool kMallocIsInterposed = true;
static thread_local int mallocs_before_failure = -1;
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    if (mallocs_before_failure >= 0 && mallocs_before_failure-- == 0) return nullptr;
    return __libc_malloc(size);
}
#endif

namespace {

TEST(SlidingWindow, IsEmptyAtItsBaseWhenNew) {
    for (const size_t size : {size_t{1}, size_t{8192}, size_t{1048576}}) {
        sliding_window_v4* const window = sliding_window_v4_create_buffer(size);
        ASSERT_NE(window, nullptr);
        ASSERT_NE(window->base, nullptr);
        EXPECT_EQ(static_cast<size_t>(window->limit - window->base), size);
        EXPECT_EQ(window->data, window->base);
        EXPECT_EQ(window->end, window->base);
        EXPECT_TRUE(sliding_window_v4_is_sane(window));
        std::memset(window->base, 0xA5, size);
        EXPECT_EQ(sliding_window_v4_destroy(window), nullptr);
    }
}

TEST(SlidingWindow, MayHaveNoBytes) {
    sliding_window_v4* const window = sliding_window_v4_create_buffer(0);
    ASSERT_NE(window, nullptr);
    EXPECT_NE(window->base, nullptr);
    EXPECT_EQ(window->limit, window->base);
    EXPECT_TRUE(sliding_window_v4_is_sane(window));
    EXPECT_EQ(sliding_window_v4_destroy(window), nullptr);
}

TEST(SlidingWindow, IsNullWhenTheSizeCannotBeHad) {
    constexpr auto kLargestDistance = static_cast<size_t>(std::numeric_limits<ptrdiff_t>::max());
    for (const size_t size : {kLargestDistance, kLargestDistance + 1, SIZE_MAX - 1, SIZE_MAX})
        EXPECT_EQ(sliding_window_v4_create_buffer(size), nullptr) << size;
}

TEST(SlidingWindow, IsNullWhenAnyOfItsAllocationsFails) {
    if (!kMallocIsInterposed) GTEST_SKIP() << "the sanitizer keeps malloc for itself";
    int allocations = 0;
    for (;; allocations++) {
        mallocs_before_failure = allocations;
        sliding_window_v4* const window = sliding_window_v4_create_buffer(64);
        mallocs_before_failure = -1;
        if (!window) continue;
        EXPECT_TRUE(sliding_window_v4_is_sane(window));
        sliding_window_v4_destroy(window);
        break;
    }
    EXPECT_GE(allocations, 1);
}

TEST(SlidingWindow, IsSaneWhileItsPointersAreInOrder) {
    uint8_t bytes[4];
    int sane = 0;
    for (int base = 0; base < 4; base++)
        for (int data = 0; data < 4; data++)
            for (int end = 0; end < 4; end++)
                for (int limit = 0; limit < 4; limit++) {
                    const sliding_window_v4 window{.base = bytes + base,
                                                   .limit = bytes + limit,
                                                   .data = bytes + data,
                                                   .end = bytes + end};
                    const bool in_order = base <= data && data <= end && end <= limit;
                    EXPECT_EQ(sliding_window_v4_is_sane(&window), in_order) << base << data << end << limit;
                    sane += in_order;
                }
    EXPECT_EQ(sane, 35);  // the non-decreasing sequences of four out of four
}

TEST(SlidingWindow, IsNotSaneWhenThereIsNone) { EXPECT_FALSE(sliding_window_v4_is_sane(nullptr)); }

TEST(SlidingWindow, DestroyAcceptsNull) { EXPECT_EQ(sliding_window_v4_destroy(nullptr), nullptr); }

}  // namespace
