#pragma once

// Other programs, run by their names and arguments. There is no shell in between, to which a file's name
// could be a command.

#include <string>
#include <string_view>
#include <vector>

namespace gsve::cli {

struct ProgramRun {
    int status = 0;  ///< as shells report it: above 128 for a signal
    std::string output;
    std::string diagnostics;
};

/// Runs `command[0]`, which is looked for in PATH, to its end, with `input` on its standard input. Throws
/// Failure where it cannot be started.
ProgramRun run_program(const std::vector<std::string>& command, std::string_view input = {});

}  // namespace gsve::cli
