#pragma once

// The table of streams and containers, for readers of all kinds.

#include <string>

namespace gsve::report {

std::string treatments_text();

/// The table of the README.
std::string treatments_markdown();

}  // namespace gsve::report
