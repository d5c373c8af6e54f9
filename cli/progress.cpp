#include "cli/progress.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

#include <fmt/format.h>

#include "cli/standard_error.h"

namespace gsve::cli {
namespace {

constexpr const char* kEraseLine = "\r\033[K";

std::string minutes(double seconds) {
    const auto whole = static_cast<uint64_t>(std::llround(seconds));
    return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

Progress::Progress(bool wanted, std::optional<uint64_t> expected)
    : shown_(wanted && isatty(fileno(user_stream()))), expected_(expected) {}

Progress::~Progress() {
    if (drawn_) fmt::print(user_stream(), "{}", kEraseLine);
}

double Progress::elapsed_seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::show(const programme::Tally& tally) {
    // Until the first unit is out, there is nothing to tell.
    if (!shown_ || tally.units == 0 || Clock::now() < next_) return;
    next_ = Clock::now() + std::chrono::milliseconds(100);

    const double elapsed = std::max(elapsed_seconds(), 0.001);
    const double rate = static_cast<double>(tally.pictures) / elapsed;
    std::string left;
    if (expected_ && *expected_ > tally.pictures)
        left = fmt::format("  {:3}%  left {}", 100 * tally.pictures / *expected_,
                           minutes(static_cast<double>(*expected_ - tally.pictures) / rate));
    // The cursor goes back to the start of the line, for a diagnostic that may come next.
    fmt::print(user_stream(), "{}picture {}  {:.1f} pictures/s  {:.2f}x  {:.2f} Mbit/s{}\r", kEraseLine,
               tally.pictures, rate, tally.seconds() / elapsed, tally.mean_bit_rate() / 1e6, left);
    std::fflush(user_stream());
    drawn_ = true;
}

}  // namespace gsve::cli
