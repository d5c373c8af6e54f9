#pragma once

// The manual pages: of each command from the parser and the README, of the settings from their table.

#include <map>
#include <string>

#include "packaging/manual/readme.h"

namespace CLI {
class App;
}

namespace gsve::manual {

/// Each page's text by its file name, as "man1/gsve-encode.1". Commands that --help hides have none.
std::map<std::string, std::string> pages(const CLI::App& program, const Readme& readme);

/// What bash sources to complete the program's command lines.
std::string bash_completion(const CLI::App& program);

}  // namespace gsve::manual
