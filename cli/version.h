#pragma once

#include <string>

namespace gsve::cli {

/// This program and the codec library that it runs with: "gsve 4.0.0 (libavcodec 59.37.100)".
std::string version();

}  // namespace gsve::cli
