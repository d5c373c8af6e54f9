#pragma once

// Included in front of every source of a coverage build. GCC's counters are written as a program exits, and
// what a program runs before an abort(), as the tests for broken invariants do, would not count.

#include <signal.h>

extern "C" void __gcov_dump();

namespace {

using SignalHandler = void (*)(int);

SignalHandler next_handler = SIG_DFL;

/// Writing takes memory, which a test may have cut off: the process then ends as if nothing had been written.
void give_up(int) {
    signal(SIGABRT, SIG_DFL);
    sigset_t aborting;
    sigemptyset(&aborting);
    sigaddset(&aborting, SIGABRT);
    sigprocmask(SIG_UNBLOCK, &aborting, nullptr);
    raise(SIGABRT);
}

void write_counters(int signal_number) {
    const SignalHandler for_faults = signal(SIGSEGV, give_up);
    __gcov_dump();
    signal(SIGSEGV, for_faults);
    if (next_handler != SIG_DFL && next_handler != SIG_IGN) next_handler(signal_number);
}

// The library and the program that uses it count on their own, so both have to be told.
[[gnu::constructor]] void write_counters_on_abort() { next_handler = signal(SIGABRT, write_counters); }

}  // namespace
