#pragma once

// The two ways in which work ends badly. The text is one line that says what to change.

#include <stdexcept>

namespace gsve {

/// What was asked for cannot be done.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The work failed.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace gsve
