// What libraries write on standard error while it is held.

#include "cli/standard_error.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/scratch.h"

namespace gsve::cli {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// What the user sees of `work`.
std::string seen(const std::function<void()>& work) {
    const test::ScratchDirectory directory;
    const std::string path = directory / "seen";
    std::fflush(stderr);
    const int before = dup(STDERR_FILENO);
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(file, STDERR_FILENO);
    work();
    std::fflush(stderr);
    dup2(before, STDERR_FILENO);
    close(file);
    close(before);
    return test::read_file(path);
}

void say(const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); }

TEST(HeldDiagnostics, LetTheProgramSpeakAndNotTheLibraries) {
    EXPECT_EQ(seen([] {
                  const HeldDiagnostics held;
                  say("a library");
                  std::fprintf(user_stream(), "the program\n");
              }),
              "the program\n");
}

TEST(HeldDiagnostics, AreShownOnRequestInTheirPlace) {
    EXPECT_EQ(seen([] {
                  HeldDiagnostics held;
                  say("first");
                  say("second");
                  held.show();
                  std::fprintf(user_stream(), "the failure\n");
              }),
              "first\nsecond\nthe failure\n");
}

TEST(HeldDiagnostics, PassAgainAfterwards) {
    EXPECT_EQ(seen([] {
                  { const HeldDiagnostics held; }
                  say("a library");
                  std::fprintf(user_stream(), "the program\n");
              }),
              "a library\nthe program\n");
}

TEST(HeldDiagnostics, KeepTheNewestWholeLinesOfMany) {
    const std::string shown = seen([] {
        HeldDiagnostics held;
        for (int n = 0; n < 100'000; n++) {
            say("line " + std::to_string(n));
            if (n % 100 == 0) held.limit();
        }
        held.show();
    });
    EXPECT_LT(shown.size(), 300'000u);
    EXPECT_GT(shown.size(), 60'000u);
    EXPECT_THAT(shown, StartsWith("(earlier diagnostics are left out)\nline "));
    EXPECT_THAT(shown, EndsWith("line 99998\nline 99999\n"));
    EXPECT_THAT(shown, Not(HasSubstr("line 7\n")));
}

TEST(HeldDiagnostics, KeepAllOfAFew) {
    const std::string shown = seen([] {
        HeldDiagnostics held;
        for (int n = 0; n < 10'000; n++) {
            say("line " + std::to_string(n));
            held.limit();
        }
        held.show();
    });
    EXPECT_THAT(shown, StartsWith("line 0\nline 1\n"));
    EXPECT_THAT(shown, EndsWith("line 9999\n"));
}

}  // namespace
}  // namespace gsve::cli
