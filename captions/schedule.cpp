#include "schedule.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace gsve::captions {

namespace {

struct BudgetBand {
    double lowest_rate;
    int cc_count;
    int cea708_constructs;  // EIA-608 takes the rest
};
constexpr BudgetBand kBudgetBands[] = {
    {59.0, 10, 9}, {49.0, 12, 11}, {29.0, 20, 18}, {24.9, 24, 22}, {0.0, 25, 23}};

const BudgetBand& band_of(FrameRate rate) {
    return *std::find_if(std::begin(kBudgetBands), std::end(kBudgetBands) - 1,
                         [&](const BudgetBand& b) { return rate.per_second() >= b.lowest_rate; });
}

constexpr int kHighestRateWithBothFields = 39;

// A picture of a 24th of a second is two and a half fields of a 60th: in fifths, a field is two and a frame
// four.
constexpr int kFifths = 5, kFieldFifths = 2, kFrameFifths = 4;

std::int64_t divide_down(std::int64_t numerator, std::int64_t denominator) {
    return numerator / denominator - (numerator % denominator < 0 ? 1 : 0);
}

template <typename Event>
std::vector<Event> merge_events(const std::vector<Event>& a, const std::vector<Event>& b) {
    std::vector<Event> merged;
    std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(merged),
               [](const Event& left, const Event& right) { return left.frame < right.frame; });
    return merged;
}

}  // namespace

void append(Schedule& schedule, std::int64_t frame, const PictureCaptions& captions) {
    const bool may_have_two_places = runs_at_full_rate(schedule.rate, LineRate::kFull);
    for (std::uint8_t field = 0; field < 2; ++field) {
        const std::size_t first = schedule.eia608.size();
        bool idle_before = false;
        for (const Word word : captions.fields[field]) {
            if (!is_null(word)) {
                schedule.eia608.push_back({frame, field, with_parity(word)});
                schedule.eia608.back().idle_before = idle_before && may_have_two_places;
            } else if (schedule.eia608.size() > first) {
                schedule.eia608.back().idle_after = may_have_two_places;
            }
            idle_before = is_null(word);
        }
    }
    if (!captions.cea708.empty()) schedule.cea708.push_back({frame, captions.cea708});
}

Schedule merge(const Schedule& a, const Schedule& b) {
    if (!(a.rate == b.rate))
        throw std::invalid_argument("caption schedules of different picture rates cannot be merged");
    return {a.rate, merge_events(a.eia608, b.eia608), merge_events(a.cea708, b.cea708)};
}

int cc_count(FrameRate rate) { return band_of(rate).cc_count; }

bool runs_at_full_rate(FrameRate rate, LineRate line_rate) {
    constexpr double kLowest = 23.9, kHighest = 24.1;
    return line_rate == LineRate::kFull && rate.per_second() > kLowest && rate.per_second() < kHighest &&
           rate.num <= std::numeric_limits<int>::max() / kFifths;
}

PictureBudget picture_budget(FrameRate rate, LineRate line_rate) {
    return {rate.num / rate.den > kHighestRateWithBothFields, band_of(rate).cea708_constructs,
            runs_at_full_rate(rate, line_rate)};
}

FieldSlots::FieldSlots(FrameRate rate, int field, LineRate line_rate, int phase) : clock_(rate) {
    if (picture_budget(rate).alternating_fields) {
        spacing_ = 2;
        field_offset_ = field;
    } else if (runs_at_full_rate(rate, line_rate)) {
        clock_.num *= kFifths;
        per_picture_ = kFifths;
        spacing_ = kFrameFifths;
        frame_offset_ = -kFifths * phase;
        field_offset_ = kFieldFifths * field;
    }
}

std::int64_t FieldSlots::picture_of(std::int64_t slot) const {
    return divide_down(frame_of(slot) + field_offset_, per_picture_);
}

std::int64_t FieldSlots::first_slot_from(std::int64_t tick) const {
    const std::int64_t from_slot_0 = std::max<std::int64_t>(tick, 0) - frame_offset_ - field_offset_;
    return -divide_down(-from_slot_0, spacing_);
}

}  // namespace gsve::captions
