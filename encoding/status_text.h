#pragma once

// The texts of the encoder's status report.

#include <string>
#include <string_view>

namespace gsve::encoding {

/// What a pair is about: its name without the report name.
std::string_view pair_subject(std::string_view pair_name);

/// Lines made one, with commas between them.
std::string one_line(std::string text);

}  // namespace gsve::encoding
