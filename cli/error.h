#pragma once

// The two ways in which a command ends badly. The text is one line that says what to change.

#include <stdexcept>

namespace gsve::cli {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitSignal = 128;  ///< plus the signal's number, as shells report it

/// The command line asks for something that cannot be done: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The work failed: exit status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace gsve::cli
