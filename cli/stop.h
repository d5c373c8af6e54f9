#pragma once

// Ctrl-C, termination and a closed terminal: the first signal asks the running command to end its stream
// cleanly, a second one ends the process.

namespace gsve::cli {

void catch_stop_signals();

/// The signal that asked for a stop, or 0.
int stop_signal();

}  // namespace gsve::cli
