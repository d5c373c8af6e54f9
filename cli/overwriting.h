#pragma once

// Files that are there already.

#include <filesystem>
#include <string>

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::cli {

/// Throws UsageError where `path` is a file and the user has not said that it may go.
inline void check_overwriting(const std::string& path, bool allowed) {
    std::error_code absent;
    if (!allowed && std::filesystem::is_regular_file(path, absent))
        throw UsageError(fmt::format("{} exists: give -y to overwrite it", path));
}

}  // namespace gsve::cli
