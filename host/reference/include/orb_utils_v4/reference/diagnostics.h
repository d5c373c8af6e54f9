#pragma once

// Where the library's lines of diagnostics go, for a program that keeps a log of its own. It belongs to the
// reference comm library alone.

namespace orb_utils_v4::reference {

/// Gets each text that would go to standard error, with its line feeds; an empty one is to be passed over.
/// May not throw.
struct LineTaker {
    void (*take)(void* taker, const char* text) = nullptr;  ///< null: standard error
    void* taker = nullptr;
};

/// Who takes the calling thread's lines from now on. Returns who took them before.
LineTaker exchange_line_taker(LineTaker taker);

}  // namespace orb_utils_v4::reference

extern "C" {

/// The library calls it. True where the calling thread has somebody who takes the text.
bool host_take_diagnostics(const char* text);

}  // extern "C"
