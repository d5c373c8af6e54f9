#pragma once

// The host's processor count, as a test sets it. Include from one source of a program.

#include <orb_utils_v4/misc.h>

namespace gsve::test {

inline unsigned processor_count = 16;

}  // namespace gsve::test

extern "C" unsigned int how_many_cpus(void) { return gsve::test::processor_count; }
