#include "report/damage_report.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "report/times.h"

namespace gsve::report {
namespace {

using programme::Damage;
using programme::DamagedRange;
using Json = nlohmann::ordered_json;

constexpr size_t kMostPlaces = 8;

std::string counted(uint64_t count, std::string_view what, std::string_view state) {
    return fmt::format("{} {}{} {}", count, what, count == 1 ? "" : "s", state);
}

struct Place {
    double begin, end;
};

/// Where to look. What lies within half a second is one place.
std::vector<Place> places(const Damage& damage) {
    constexpr double kApart = 0.5;
    std::vector<Place> found;
    for (const DamagedRange& range : damage.ranges) {
        if (found.empty() || range.begin > found.back().end + kApart)
            found.push_back({range.begin, range.end});
        else
            found.back().end = std::max(found.back().end, range.end);
    }
    return found;
}

std::string places_text(const Damage& damage) {
    const std::vector<Place> all = places(damage);
    std::vector<std::string> texts;
    for (size_t n = 0; n < std::min(all.size(), kMostPlaces); n++)
        texts.push_back(
            fmt::format("{} to {}", coarse_clock_text(all[n].begin), coarse_clock_text(all[n].end)));
    std::string text = fmt::format("{}", fmt::join(texts, ", "));
    if (all.size() > kMostPlaces) text += fmt::format(" and {} more", all.size() - kMostPlaces);
    return text;
}

std::string early_end_text(const Damage::EarlyEnd& end) {
    return end.expected ? fmt::format("the input ends after {:.2f} of {:.2f} s", end.seconds, *end.expected)
                        : fmt::format("the input ends within a picture, after {:.2f} s", end.seconds);
}

}  // namespace

std::string_view name_of(DamagedRange::Kind kind) {
    switch (kind) {
        case DamagedRange::Kind::kDamaged: return "damaged";
        case DamagedRange::Kind::kMissing: return "missing";
        case DamagedRange::Kind::kUndecodable: return "undecodable";
    }
    return "?";
}

std::string damage_text(const Damage& damage) {
    std::vector<std::string> parts;
    if (damage.damaged()) parts.push_back(counted(damage.damaged(), "picture", "damaged"));
    if (damage.missing()) parts.push_back(counted(damage.missing(), "picture", "missing"));
    if (damage.undecodable()) parts.push_back(counted(damage.undecodable(), "coded picture", "undecodable"));
    std::string text = fmt::format("{}", fmt::join(parts, ", "));
    if (!parts.empty()) text += fmt::format(" ({})", places_text(damage));
    if (damage.early_end) text += (parts.empty() ? "" : "; ") + early_end_text(*damage.early_end);
    return text;
}

Json damage_json(const Damage& damage) {
    Json ranges = Json::array();
    for (const DamagedRange& range : damage.ranges)
        ranges.push_back({{"kind", name_of(range.kind)},
                          {"begin", range.begin},
                          {"end", range.end},
                          {"pictures", range.pictures}});
    Json end;
    if (damage.early_end) {
        end = {{"seconds", damage.early_end->seconds}, {"expected", nullptr}};
        if (damage.early_end->expected) end["expected"] = *damage.early_end->expected;
    }
    return {{"damaged", damage.damaged()},
            {"missing", damage.missing()},
            {"undecodable", damage.undecodable()},
            {"ranges", ranges},
            {"early_end", end}};
}

}  // namespace gsve::report
