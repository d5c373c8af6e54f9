#include "schedule.h"

#include <algorithm>
#include <iterator>
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

template <typename Event>
std::vector<Event> merge_events(const std::vector<Event>& a, const std::vector<Event>& b) {
    std::vector<Event> merged;
    std::merge(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(merged),
               [](const Event& left, const Event& right) { return left.frame < right.frame; });
    return merged;
}

}  // namespace

void append(Schedule& schedule, std::int64_t frame, const PictureCaptions& captions) {
    for (std::uint8_t field = 0; field < 2; ++field)
        for (const Word word : captions.fields[field])
            if (!is_null(word)) schedule.eia608.push_back({frame, field, with_parity(word)});
    if (!captions.cea708.empty()) schedule.cea708.push_back({frame, captions.cea708});
}

Schedule merge(const Schedule& a, const Schedule& b) {
    if (!(a.rate == b.rate))
        throw std::invalid_argument("caption schedules of different picture rates cannot be merged");
    return {a.rate, merge_events(a.eia608, b.eia608), merge_events(a.cea708, b.cea708)};
}

int cc_count(FrameRate rate) { return band_of(rate).cc_count; }

PictureBudget picture_budget(FrameRate rate) {
    return {rate.num / rate.den > kHighestRateWithBothFields, band_of(rate).cea708_constructs};
}

}  // namespace gsve::captions
