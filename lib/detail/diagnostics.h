#pragma once

// The library's lines of diagnostics. They go to standard error, where support looks for them, unless the
// host keeps its log elsewhere and says so by a function of its own.

#include <cstdarg>
#include <cstdio>

/// Optional: a host that has it is given every text first, on the thread that called into the encoder. False:
/// the text goes to standard error. An empty text asks whether others would be taken.
extern "C" __attribute__((weak)) bool host_take_diagnostics(const char* text);

namespace gsve::detail {

inline bool host_takes(const char* text) { return host_take_diagnostics && host_take_diagnostics(text); }

inline void print(const char* text) {
    if (!host_takes(text)) std::fputs(text, stderr);
}

[[gnu::format(printf, 1, 2)]] inline void print_formatted(const char* format, ...) {
    constexpr size_t kLongestLine = 256;
    char text[kLongestLine];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    print(text);
}

}  // namespace gsve::detail
