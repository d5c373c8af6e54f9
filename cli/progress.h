#pragma once

// A line on the terminal that says how far the encoding is.

#include <chrono>
#include <optional>

#include "programme/tally.h"

namespace gsve::cli {

class Progress {
public:
    /// `expected`: pictures in the source, where known. Nothing is shown unless standard error is a terminal.
    Progress(bool wanted, std::optional<uint64_t> expected);
    ~Progress();

    /// Redraws the line, at most ten times a second.
    void show(const programme::Tally& tally);

    double elapsed_seconds() const;

private:
    using Clock = std::chrono::steady_clock;
    bool shown_;
    bool drawn_ = false;
    std::optional<uint64_t> expected_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_;
};

}  // namespace gsve::cli
