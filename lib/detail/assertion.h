#pragma once

// Broken invariants end the process, in every build type: a window or a plane whose arithmetic has gone
// wrong must not go on air. The line printed is the C library's own for a failed assert(), and fixed:
// docs/contract.md, "Assertions".

// The C library's handler, which <assert.h> does not declare under NDEBUG.
extern "C" [[noreturn]] void __assert_fail(const char* expression, const char* file, unsigned line,
                                           const char* function) noexcept;

namespace gsve::detail {

/// The source path that every failed invariant names, whatever directory the library was built in.
inline constexpr const char kAssertionPath[] = "lib/gsve";

/// Prints "PROGRAM: lib/gsve:LINE: FUNCTION: Assertion `EXPRESSION' failed." to standard error and aborts.
/// `function` is the full name of the public operation whose invariant broke, so that a support log names
/// the operation that the host called and not an inner step.
[[noreturn]] inline void invariant_failed(const char* expression, unsigned line, const char* function) {
    __assert_fail(expression, kAssertionPath, line, function);
}

/// Aborts unless `holds`. See invariant_failed().
inline void require(bool holds, const char* expression, unsigned line, const char* function) {
    if (!holds) [[unlikely]]
        invariant_failed(expression, line, function);
}

}  // namespace gsve::detail
