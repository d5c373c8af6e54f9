#include "programme/buffer_account.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace gsve::programme {
namespace {

using Kind = BufferFinding::Kind;

constexpr int64_t kMostFindings = 10;  ///< of a kind

double begin_of(std::span<const AccessUnit> units, size_t n) { return n == 0 ? 0 : units[n - 1].end; }

}  // namespace

void ArrivalCurve::add(double time, double position) {
    if (!knots_.empty()) time = std::max(time, knots_.back().time);
    knots_.push_back({time, position});
}

double ArrivalCurve::arrived(double time) const {
    const auto after = std::upper_bound(knots_.begin(), knots_.end(), time,
                                        [](double wanted, const Knot& knot) { return wanted < knot.time; });
    if (after == knots_.begin()) return after->position;
    const Knot& before = *std::prev(after);
    if (after == knots_.end()) return before.position;
    const double share = (time - before.time) / (after->time - before.time);
    return before.position + share * (after->position - before.position);
}

std::vector<double> fullness_by(const ArrivalCurve& curve, std::span<const AccessUnit> units) {
    std::vector<double> fullness(units.size());
    for (size_t n = 0; n < units.size(); n++)
        fullness[n] = curve.arrived(units[n].removal) - begin_of(units, n);
    return fullness;
}

std::vector<double> fullness_filled_up(double rate, double size, std::span<const AccessUnit> units) {
    std::vector<double> fullness(units.size());
    for (size_t n = 0; n < units.size(); n++) {
        const double begin = begin_of(units, n);
        double held = size;
        if (n > 0) {
            const double seconds = units[n].removal - units[n - 1].removal;
            held = std::min(size, fullness[n - 1] - (begin - begin_of(units, n - 1)) + rate * seconds);
        }
        fullness[n] = std::min(held, units.back().end - begin);
    }
    return fullness;
}

int64_t whole_bits(double bits) {
    constexpr double kMost = 9e18;
    return std::llround(std::clamp(bits, -kMost, kMost));
}

void note(BufferAccount& account, Kind kind, const AccessUnit& unit, double bits) {
    const auto index = static_cast<size_t>(kind);
    const int64_t whole = std::max<int64_t>(whole_bits(std::ceil(bits)), 1);
    account.faults[index]++;
    account.most[index] = std::max(account.most[index], whole);
    if (account.faults[index] <= kMostFindings)
        account.findings.push_back({.kind = kind, .unit = unit.unit, .seconds = unit.removal, .bits = whole});
}

void follow(BufferAccount& account, std::span<const AccessUnit> units, std::span<const double> fullness,
            const BufferRules& rules) {
    int64_t least = std::numeric_limits<int64_t>::max();
    account.course.reserve(units.size());
    for (size_t n = 0; n < units.size(); n++) {
        const AccessUnit& unit = units[n];
        const double begin = begin_of(units, n), bits = unit.end - begin;
        const double missing = bits - fullness[n];
        const double surplus = fullness[n] - static_cast<double>(account.size);
        if (missing > rules.tolerance && rules.late_allowed)
            account.delayed++;
        else if (missing > rules.tolerance)
            note(account, Kind::kUnderflow, unit, missing);
        if (surplus > rules.tolerance && !rules.overflow_allowed)
            note(account, Kind::kOverflow, unit, surplus);

        const BufferFullness now = {.unit = unit.unit,
                                    .seconds = unit.removal,
                                    .bits = whole_bits(bits),
                                    .before = whole_bits(fullness[n]),
                                    .arriving = fullness[n] + begin < units.back().end,
                                    .stated_delay = unit.stated_delay};
        if (now.arriving) least = std::min(least, now.after());
        account.greatest = std::max(account.greatest, now.before);
        account.course.push_back(now);
    }
    std::stable_sort(account.findings.begin(), account.findings.end(),
                     [](const BufferFinding& a, const BufferFinding& b) { return a.unit < b.unit; });
    // A stream that the buffer holds whole before the first removal only ever drains.
    account.least = least == std::numeric_limits<int64_t>::max() ? 0 : least;
}

}  // namespace gsve::programme
