#pragma once

// The table of settings, for readers of all kinds.

#include <string>

namespace gsve::report {

std::string settings_text();
std::string settings_json();

/// The tables of the README.
std::string settings_markdown();

}  // namespace gsve::report
