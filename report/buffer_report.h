#pragma once

// What the decoder's buffer makes of a stream, in words and as JSON.

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "programme/buffer_verdict.h"

namespace gsve::report {

/// Each without its end: the models and the figures, and what is wrong.
std::vector<std::string> buffer_lines(const programme::BufferVerdict& verdict);

/// `course` adds the fullness at each picture.
nlohmann::ordered_json buffer_json(const programme::BufferVerdict& verdict, bool course);

}  // namespace gsve::report
