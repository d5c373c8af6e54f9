// The reference host's processor count and clock. The kernel's answer about the affinity mask can be
// replaced, to be that of a machine which the test does not run on.

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <orb_utils_v4/misc.h>

/// Given the mask's size in bytes and the mask, cleared: 0, or an errno.
static std::function<int(size_t, cpu_set_t*)> kernel_answer;

extern "C" int sched_getaffinity(pid_t pid, size_t size, cpu_set_t* mask) noexcept {
    std::memset(mask, 0, size);
    if (kernel_answer) {
        errno = kernel_answer(size, mask);
        return errno == 0 ? 0 : -1;
    }
    return syscall(SYS_sched_getaffinity, pid, size, mask) < 0 ? -1 : 0;
}

namespace {

class ProcessorCount : public testing::Test {
protected:
    void TearDown() override { kernel_answer = nullptr; }
};

std::vector<int> allowed_cpus() {
    cpu_set_t mask;
    EXPECT_EQ(sched_getaffinity(0, sizeof mask, &mask), 0);
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &mask)) cpus.push_back(cpu);
    return cpus;
}

TEST_F(ProcessorCount, IsThatOfTheAffinityMask) {
    const std::vector<int> cpus = allowed_cpus();
    ASSERT_FALSE(cpus.empty());
    EXPECT_EQ(how_many_cpus(), cpus.size());
}

TEST_F(ProcessorCount, FollowsTheAffinityMaskOfTheCallingThread) {
    const std::vector<int> cpus = allowed_cpus();
    if (cpus.size() < 2) GTEST_SKIP() << "one processor only";
    unsigned bound = 0;
    std::thread([&] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpus.back(), &one);
        ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
        bound = how_many_cpus();
    }).join();
    EXPECT_EQ(bound, 1U);
    EXPECT_EQ(how_many_cpus(), cpus.size());
}

TEST_F(ProcessorCount, ReachesBeyondTheUsualMaskLength) {
    // A kernel for 8192 processors, of which every other one is allowed.
    kernel_answer = [](size_t size, cpu_set_t* mask) {
        if (size * 8 < 8192) return EINVAL;
        for (int cpu = 0; cpu < 8192; cpu += 2) CPU_SET_S(cpu, size, mask);
        return 0;
    };
    EXPECT_EQ(how_many_cpus(), 4096U);
}

TEST_F(ProcessorCount, IsThatOfTheMachineWhereThereIsNoMask) {
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    ASSERT_GE(online, 1);
    for (const int error : {EPERM, EINVAL}) {
        int calls = 0;
        kernel_answer = [&](size_t, cpu_set_t*) {
            calls++;
            return error;
        };
        EXPECT_EQ(how_many_cpus(), static_cast<unsigned>(online)) << std::strerror(error);
        EXPECT_LE(calls, 20) << std::strerror(error);
    }
}

uint64_t system_monotonic_us() {
    timespec now{};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    return static_cast<uint64_t>(now.tv_sec * 1'000'000 + now.tv_nsec / 1'000);
}

TEST(MonotonicClock, NeverGoesBack) {
    uint64_t previous = monotonic_clock_us();
    for (int i = 0; i < 100'000; i++) {
        const uint64_t now = monotonic_clock_us();
        ASSERT_GE(now, previous);
        previous = now;
    }
}

TEST(MonotonicClock, CountsMicrosecondsOfTheSystemsMonotonicClock) {
    for (int i = 0; i < 3; i++) {
        const uint64_t before = system_monotonic_us();
        const uint64_t read = monotonic_clock_us();
        const uint64_t after = system_monotonic_us();
        EXPECT_GE(read, before);
        EXPECT_LE(read, after);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_GE(monotonic_clock_us(), before + 2000);
    }
}

}  // namespace
