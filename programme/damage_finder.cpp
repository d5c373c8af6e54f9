#include "programme/damage_finder.h"

#include <array>
#include <cstdlib>
#include <tuple>
#include <utility>

namespace gsve::programme {
namespace {

// Units that are remembered: more than any decoder holds, reordering and threads included.
constexpr size_t kWindow = 256;

// Of the units around a gap, those that may be the witness that pictures were lost in it.
constexpr int64_t kNearGap = 3;

// Between lists of ranges that are made short.
constexpr size_t kManyRanges = 4096;

/// Joins those of a kind that touch.
void join(std::vector<DamagedRange>& ranges) {
    const auto order = [](const DamagedRange& r) { return std::tuple(r.begin, r.end, r.kind); };
    std::stable_sort(ranges.begin(), ranges.end(),
                     [&](const DamagedRange& a, const DamagedRange& b) { return order(a) < order(b); });
    constexpr double kTouching = 1e-3;
    std::array<std::ptrdiff_t, 3> last = {-1, -1, -1};  // of each kind
    std::vector<DamagedRange> joined;
    for (const DamagedRange& range : ranges) {
        std::ptrdiff_t& open = last[static_cast<size_t>(range.kind)];
        if (open >= 0 && range.begin <= joined[static_cast<size_t>(open)].end + kTouching) {
            DamagedRange& longer = joined[static_cast<size_t>(open)];
            longer.end = std::max(longer.end, range.end);
            longer.pictures += range.pictures;
        } else {
            open = static_cast<std::ptrdiff_t>(joined.size());
            joined.push_back(range);
        }
    }
    ranges = std::move(joined);
}

}  // namespace

int64_t DamageFinder::sent(Sent unit) {
    if (units_.size() == kWindow) settle_first();
    keys_ += unit.key;
    if (keys_ == 1 && first_key_ < 0) first_key_ = next_;
    if (keys_ == 2 && second_key_ < 0) second_key_ = next_;
    const bool after_flagged = !units_.empty() && units_.back().flagged;
    Unit& added = units_.emplace_back();
    added.after_flagged = after_flagged;
    added.number = next_;
    added.key = unit.key;
    added.flagged = unit.flagged;
    return next_++;
}

DamageFinder::Unit* DamageFinder::find(int64_t number) {
    if (units_.empty() || number < units_.front().number || number > units_.back().number) return nullptr;
    return &units_[static_cast<size_t>(number - units_.front().number)];
}

void DamageFinder::complained(int64_t number, unsigned complaints) {
    Unit* unit = find(number);
    if (!unit) return;
    // Between the first key picture and the second, references may lie before the begin of the stream: such
    // pictures are not shown, or need them no more. Those of units before the first, if shown, are made up.
    const bool after_first = first_key_ >= 0 && number >= first_key_;
    if (after_first && (second_key_ < 0 || number < second_key_))
        complaints &= ~static_cast<unsigned>(kOfReferences);
    unit->complaints |= complaints;
}

void DamageFinder::refused() {
    constexpr size_t kLate = 64;
    const size_t first = units_.size() > kLate ? units_.size() - kLate : 0;
    for (size_t n = first; n < units_.size(); n++) {
        const Unit& unit = units_[n];
        if (unit.complaints && !unit.refused && !unit.shown) return refused(unit.number);
    }
    refused(next_ - 1);
}

void DamageFinder::refused(int64_t number) {
    if (Unit* unit = find(number)) unit->refused = true;
}

void DamageFinder::shown(int64_t number, const Shown& picture) {
    Unit* unit = find(number);
    if (!unit && !units_.empty()) unit = &units_.back();  // of a decoder that loses count
    if (!unit) return;
    if (picture.missing > 0)
        gaps_.push_back(
            {.before = last_shown_,
             .after = unit->number,
             .range = {.kind = DamagedRange::Kind::kMissing,
                       .begin = picture.begin - static_cast<double>(picture.missing) * frame_seconds_,
                       .end = picture.begin,
                       .pictures = static_cast<uint64_t>(picture.missing)}});
    unit->shown = true;
    unit->damaged |= picture.damaged;
    unit->begin = picture.begin;
    last_shown_ = unit->number;
    settle_gaps(next_ - static_cast<int64_t>(kWindow) / 2);
}

/// Whether the container says that bytes of the unit are missing. It finds out at the end of a unit: with a
/// parser behind it, the flag comes with the unit before. And it says so where two recordings were joined,
/// the second of which begins with a key picture, though nothing is missing there.
bool DamageFinder::is_incomplete(const Unit& unit, const Unit* after) {
    return after ? unit.after_flagged && !after->key : unit.after_flagged || unit.flagged;
}

/// A gap in the pictures' times may be as intended, where pictures last longer. Loss has other witnesses.
bool DamageFinder::witnessed(const Gap& gap) {
    const auto [first, last] = std::minmax(gap.before, gap.after);
    for (int64_t number = first - kNearGap; number <= last + kNearGap; number++)
        if (const Unit* unit = find(number);
            unit && (unit->flagged || unit->refused || unit->complaints || unit->damaged))
            return true;
    return false;
}

void DamageFinder::settle_gaps(int64_t up_to) {
    while (!gaps_.empty() && std::max(gaps_.front().before, gaps_.front().after) <= up_to) {
        if (witnessed(gaps_.front())) ranges_.push_back(gaps_.front().range);
        gaps_.pop_front();
    }
}

void DamageFinder::settle_first() {
    const Unit& unit = units_.front();
    settle_gaps(unit.number + kNearGap);
    if (unit.shown) {
        if (unit.damaged || unit.refused || unit.complaints || is_incomplete(unit, find(unit.number + 1)))
            add(unit, DamagedRange::Kind::kDamaged, unit.begin);
        end_ = std::max(end_, unit.begin + frame_seconds_);
    } else if (unit.refused) {
        // Before the first key picture, and of the pictures that are shown before it, nothing is decodable
        // in a stream that begins between two key pictures.
        if (unit.key || settled_shown_ >= 2) add(unit, DamagedRange::Kind::kUndecodable, end_);
    } else if ((unit.complaints & kOfData) && before_shown_ && !before_damaged_) {
        // A second field has no picture of its own.
        Unit first_field;
        first_field.number = unit.number - 1;
        add(first_field, DamagedRange::Kind::kDamaged, before_begin_);
    }
    settled_shown_ += unit.shown;
    before_shown_ = unit.shown;
    before_damaged_ = unit.damaged || unit.refused || unit.complaints;
    before_begin_ = unit.begin;
    units_.pop_front();
}

void DamageFinder::add(const Unit& unit, DamagedRange::Kind kind, double begin) {
    if (ranges_.size() >= kManyRanges) join(ranges_);
    ranges_.push_back({kind, begin, begin + frame_seconds_, 1});
    if (kind == DamagedRange::Kind::kDamaged && on_damaged_) on_damaged_(unit.number);
}

Damage DamageFinder::finish() {
    if (!units_.empty()) {
        const Unit& last = units_.back();
        last_incomplete_ =
            last.refused || (last.complaints & kOfData) || last.damaged || is_incomplete(last, nullptr);
    }
    settle_gaps(next_);
    while (!units_.empty()) settle_first();
    join(ranges_);
    return {.ranges = std::move(ranges_), .early_end = {}};
}

}  // namespace gsve::programme
