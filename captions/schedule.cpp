#include "schedule.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace gsve::captions {

namespace {

struct BudgetBand {
    double lowest_rate;
    int cea708_constructs;
};
// cc_count of the rate (10, 12, 20, 24, 25) less the constructs that carry EIA-608.
constexpr BudgetBand kBudgetBands[] = {{59.0, 9}, {49.0, 11}, {29.0, 18}, {24.9, 22}, {0.0, 23}};

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

PictureBudget picture_budget(FrameRate rate) {
    const auto band = std::find_if(std::begin(kBudgetBands), std::end(kBudgetBands) - 1,
                                   [&](BudgetBand b) { return rate.per_second() >= b.lowest_rate; });
    return {rate.num / rate.den > kHighestRateWithBothFields, band->cea708_constructs};
}

}  // namespace gsve::captions
