#pragma once

// Processor count and clock of the host framework's misc library.

#include <cstdint>

extern "C" {

/// The number of processors that the encoder may use, at least 1.
unsigned int how_many_cpus(void);

/// Microseconds of a clock that never goes back. Its zero is arbitrary.
uint64_t monotonic_clock_us(void);

}  // extern "C"
