// Stand-in for the host framework's misc library. It counts the processors that the calling thread's affinity
// mask allows, as taskset and container runtimes set it; a CPU time quota is not taken into account. The
// clock is the system's CLOCK_MONOTONIC.

#include <orb_utils_v4/misc.h>

#include <ctime>

#include <sched.h>
#include <unistd.h>

namespace {

/// The processors of the calling thread's affinity mask, or 0 when it does not fit into `mask_cpus` bits or
/// cannot be had at all.
unsigned count_affinity(unsigned mask_cpus) {
    cpu_set_t* const mask = CPU_ALLOC(mask_cpus);
    if (!mask) return 0;
    const size_t mask_size = CPU_ALLOC_SIZE(mask_cpus);
    const bool known = sched_getaffinity(0, mask_size, mask) == 0;
    const int count = known ? CPU_COUNT_S(mask_size, mask) : 0;
    CPU_FREE(mask);
    return static_cast<unsigned>(count);
}

}  // namespace

unsigned int how_many_cpus(void) {
    // A kernel built for more than CPU_SETSIZE processors refuses a mask of the usual length.
    constexpr unsigned kLargestMask = CPU_SETSIZE * 64;
    for (unsigned mask_cpus = CPU_SETSIZE; mask_cpus <= kLargestMask; mask_cpus *= 2) {
        if (const unsigned count = count_affinity(mask_cpus)) return count;
    }
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<unsigned>(online) : 1;
}

uint64_t monotonic_clock_us(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1'000;
}
