#pragma once

// Programs that others wrote, as witnesses of what a stream holds.

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace gsve::test {

/// True when `probe` (a shell command) succeeds; otherwise fails the test with the Debian package to install.
inline bool have(const std::string& probe, const std::string& package) {
    if (std::system((probe + " >/dev/null 2>&1").c_str()) == 0) return true;
    ADD_FAILURE() << "install the Debian package " << package << ": " << probe << " fails";
    return false;
}

/// What a shell command prints on both outputs. Fails the test when it does not end well within 20 seconds.
inline std::string output_of(const std::string& command) {
    const std::string bounded = "{ timeout 20 " + command + "; } 2>&1 </dev/null";
    std::FILE* pipe = popen(bounded.c_str(), "r");
    if (!pipe) return {};
    std::string text;
    std::array<char, 4096> block;
    while (const size_t count = std::fread(block.data(), 1, block.size(), pipe))
        text.append(block.data(), count);
    const int status = pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << "\n" << text;
    return text;
}

}  // namespace gsve::test
