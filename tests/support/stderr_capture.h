#pragma once

#include <string>

#include <gtest/gtest.h>

namespace gsve::test {

/// Everything that `body` writes to standard error.
template <typename Body>
std::string stderr_of(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

}  // namespace gsve::test
