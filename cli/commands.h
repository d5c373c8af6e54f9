#pragma once

// The program, by its command line.

namespace gsve::cli {

/// Takes main()'s arguments, and gives its exit status.
int run(int argc, const char* const* argv);

}  // namespace gsve::cli
