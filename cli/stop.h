#pragma once

// Ctrl-C, termination and a closed terminal: the first signal asks the running command to end its stream
// cleanly, a second one ends the process without an output.

namespace gsve::cli {

void catch_stop_signals();

/// Where the process is about to die, by an assertion in a codec for example, has it remove its temporary
/// files and show what libraries had to say.
void clean_up_on_fatal_signals();

/// The signal that asked for a stop, or 0.
int stop_signal();

}  // namespace gsve::cli
