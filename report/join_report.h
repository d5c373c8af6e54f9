#pragma once

#include <string>

#include "programme/join.h"

namespace gsve::report {

/// What a joined programme is, for a person.
std::string join_text(const std::string& output, size_t chunks, const programme::JoinResult& result);

}  // namespace gsve::report
