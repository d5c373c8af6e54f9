#pragma once

// Files of one test.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace gsve::test {

/// A directory for one test, gone with it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string pattern = std::filesystem::temp_directory_path() / "gsve-test-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDirectory() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

inline std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return std::move(bytes).str();
}

}  // namespace gsve::test
