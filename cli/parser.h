#pragma once

// The command line as the parser knows it, for what is made from it: manual pages, completion.

#include <functional>

namespace CLI {
class App;
}

namespace gsve::cli {

/// Shows `read` the program's parser with all of its commands. What stands in it lives for the call.
void with_parser(const std::function<void(const CLI::App&)>& read);

}  // namespace gsve::cli
