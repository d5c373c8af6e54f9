// Captions that come while memory is short are lost, and nothing else is.

#include <cstdlib>
#include <new>
#include <vector>

#include <gtest/gtest.h>

#include "support/open_without_codec.h"
#include "support/stderr_capture.h"

namespace {

bool memory_is_short = false;

}  // namespace

[[gnu::noinline]] void* operator new(size_t size) {
    void* const memory = memory_is_short ? nullptr : std::malloc(size > 0 ? size : 1);
    if (!memory) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace gsve::test {
namespace {

class IntakeMemory : public OpenWithoutCodec {};

// A queue allocates once in some hundred words, however few it holds.
constexpr int kWords = 2000;

TEST_F(IntakeMemory, RunningOutCostsEia608WordsOnly) {
    stderr_of([&] {
        memory_is_short = true;
        for (int n = 0; n < kWords; n++) host.write_eia608(0, 0x1420);
        memory_is_short = false;
    });
    EXPECT_LE(host.eia608_field1_queue.size(), 33u);
    stderr_of([&] { host.write_eia608(0, 0x4142); });
    ASSERT_FALSE(host.eia608_field1_queue.empty());
    EXPECT_EQ(host.eia608_field1_queue.back(), 0x4142);
    EXPECT_EQ(host.eia608_field1_queue.front(), 0x1420);
}

TEST_F(IntakeMemory, RunningOutCostsCea708WordsOnly) {
    std::vector<zeph_cea708_word> words(100, {0xFE, 0x4142});
    stderr_of([&] {
        memory_is_short = true;
        for (int n = 0; n < kWords / 100; n++)
            host.write_cea708(static_cast<unsigned>(words.size()), words.data());
        memory_is_short = false;
    });
    const size_t kept = host.cea708_queue.size();
    EXPECT_EQ(kept % words.size(), 0u) << "a batch that does not fit is lost as a whole";
    zeph_cea708_word last = {0xFF, 0x4344};
    host.write_cea708(1, &last);
    ASSERT_EQ(host.cea708_queue.size(), kept + 1);
    EXPECT_EQ(host.cea708_queue.back().value, 0x4344);
}

}  // namespace
}  // namespace gsve::test
