#pragma once

// What a media file's headers tell, at the cost of opening it.

#include <optional>
#include <string>

namespace gsve::programme {

struct SourceGlance {
    int width = 0, height = 0;
    std::optional<double> seconds;  ///< as far as the container tells
};

/// Throws Failure where there is no such file, or no picture in it.
SourceGlance glance_at(const std::string& path);

}  // namespace gsve::programme
