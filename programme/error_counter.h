#pragma once

// What a decoder says of damage. Decoders conceal most of it: the picture comes out, and only the log tells.

#include <cstdint>

namespace gsve::programme {

/// Counts the errors that libraries log, instead of printing them. One object at a time.
class ErrorCounter {
public:
    ErrorCounter();
    ~ErrorCounter();
    ErrorCounter(const ErrorCounter&) = delete;
    ErrorCounter& operator=(const ErrorCounter&) = delete;

    /// Errors of `object` (any with an AVClass); the ones of others are not counted.
    void watch(const void* object);

    uint64_t errors() const;
};

}  // namespace gsve::programme
