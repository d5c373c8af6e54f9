#pragma once

// Standard error as the user sees it, and as libraries write to it.
//
// The encoder and the codecs below it explain themselves on standard error, in the middle of the program's
// own progress. While a HeldDiagnostics is there, what they write is kept instead: the newest part of it is
// shown where the work fails, and where the process aborts.

#include <cstdio>
#include <string_view>

#include <fmt/format.h>

namespace gsve::cli {

/// What the program itself says to the user goes here.
std::FILE* user_stream();

class HeldDiagnostics {
public:
    /// At most one object at a time. Where the system gives no place to keep them, diagnostics pass as they
    /// come.
    HeldDiagnostics();

    /// Lets them pass again; what was held is gone.
    ~HeldDiagnostics();
    HeldDiagnostics(const HeldDiagnostics&) = delete;
    HeldDiagnostics& operator=(const HeldDiagnostics&) = delete;

    /// To be called now and then: forgets the oldest of more than a quarter megabyte.
    void limit();

    /// Shows what is held.
    void show();
};

/// Shows what is held, if anything. May be called by a signal handler.
void show_held_diagnostics();

}  // namespace gsve::cli
