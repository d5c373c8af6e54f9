#pragma once

// Interleaved timing on one core: every contestant runs once per round, in an order drawn anew for each, so
// that a change of clock or load and what the one before left in the caches meet all of them. The median of
// its rounds is a contestant's time.

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace bench {

struct Contestant {
    std::string name;
    bool ours;
    std::function<void()> run;
    std::vector<double> microseconds = {};

    double median() {
        auto middle = microseconds.begin() + static_cast<std::ptrdiff_t>(microseconds.size() / 2);
        std::nth_element(microseconds.begin(), middle, microseconds.end());
        return *middle;
    }
};

/// Processor time of this thread: what others run on the core meanwhile is not counted.
inline double thread_microseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

/// Keeps this thread, and the threads that it starts, on the core that it runs on. Returns the core.
inline int pin_to_one_core() {
    const int core = sched_getcpu();
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    sched_setaffinity(0, sizeof(set), &set);
    return core;
}

/// Rounds until `seconds` of processor time are spent, and at least `least` of them, after one to warm up.
/// prepare() goes before every run, untimed: it brings the pictures' memory into one state, whoever ran
/// before.
inline void race(std::vector<Contestant>& contestants, const std::function<void()>& prepare, double seconds,
                 int least) {
    const double limit = thread_microseconds() + seconds * 1e6;
    for (Contestant& contestant : contestants) contestant.run();
    std::mt19937 random(1);
    std::vector<Contestant*> order;
    for (Contestant& contestant : contestants) order.push_back(&contestant);
    for (int round = 0; round < least || thread_microseconds() < limit; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (Contestant* contestant : order) {
            prepare();
            const double start = thread_microseconds();
            contestant->run();
            contestant->microseconds.push_back(thread_microseconds() - start);
        }
    }
}

}  // namespace bench
