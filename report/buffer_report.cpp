#include "report/buffer_report.h"

#include <cmath>
#include <string_view>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "report/times.h"

namespace gsve::report {
namespace {

using programme::BufferAccount;
using programme::BufferFinding;
using programme::BufferFullness;
using programme::BufferModel;
using programme::BufferVerdict;
using Json = nlohmann::ordered_json;

struct ModelNames {
    std::string_view text, key;
};

ModelNames names_of(BufferModel model) {
    switch (model) {
        case BufferModel::kVbvDelay: return {"VBV by vbv_delay", "vbv_delay"};
        case BufferModel::kVbvConstantRate: return {"VBV at the constant rate", "vbv_constant_rate"};
        case BufferModel::kVbvFilledUp: return {"VBV at variable rate", "vbv_variable_rate"};
        case BufferModel::kHrdConstantRate: return {"HRD at constant rate", "hrd_cbr"};
        case BufferModel::kHrdVariableRate: return {"HRD at variable rate", "hrd_vbr"};
    }
    return {"?", "?"};
}

struct FaultNames {
    BufferFinding::Kind kind;
    std::string_view key, singular, plural;
};

constexpr FaultNames kFaults[] = {
    {BufferFinding::Kind::kUnderflow, "underflow", "picture arrives too late", "pictures arrive too late"},
    {BufferFinding::Kind::kOverflow, "overflow", "overflow", "overflows"},
    {BufferFinding::Kind::kRate, "rate", "picture arrives above the rate", "pictures arrive above the rate"},
    {BufferFinding::Kind::kInitialDelay, "initial_delay", "wrong initial delay", "wrong initial delays"},
};

std::string_view key_of(BufferFinding::Kind kind) { return kFaults[static_cast<size_t>(kind)].key; }

std::string_view state_key(BufferVerdict::State state) {
    switch (state) {
        case BufferVerdict::State::kChecked: return "checked";
        case BufferVerdict::State::kUndeclared: return "undeclared";
        case BufferVerdict::State::kUntimed: return "untimed";
        case BufferVerdict::State::kUnsupported: return "unsupported";
    }
    return "?";
}

std::string account_line(const BufferAccount& account) {
    std::string text = fmt::format("{}, {} bits/s into {} bits: ", names_of(account.model).text,
                                   account.bit_rate, account.size);
    text += fmt::format("{} pictures, {:.3f} s initial delay, {} to {} bits", account.course.size(),
                        account.initial_delay, account.least, account.greatest);
    if (account.delayed) text += fmt::format(", {} late with low delay", account.delayed);
    return text + (account.holds() ? "; holds" : "");
}

/// "3 pictures arrive too late, by up to 812 bits; the first is unit 12 at 00:00:00.480, by 100 bits".
std::string fault_line(const BufferAccount& account, const FaultNames& fault) {
    const int64_t count = account.count(fault.kind);
    std::string text = fmt::format("  {} {}", count, count == 1 ? fault.singular : fault.plural);
    for (const BufferFinding& finding : account.findings) {
        if (finding.kind != fault.kind) continue;
        const int64_t most = account.most[static_cast<size_t>(fault.kind)];
        if (count > 1) text += fmt::format(", by up to {} bits; the first", most);
        return text + fmt::format("{} unit {} at {}, by {} bits", count > 1 ? " is" : ":", finding.unit,
                                  clock_text(finding.seconds), finding.bits);
    }
    return text;
}

Json account_json(const BufferAccount& account, bool course) {
    Json faults = Json::object();
    for (const FaultNames& fault : kFaults)
        faults[std::string(fault.key)] = {{"count", account.count(fault.kind)},
                                          {"most_bits", account.most[static_cast<size_t>(fault.kind)]}};
    Json findings = Json::array();
    for (const BufferFinding& finding : account.findings)
        findings.push_back({{"kind", key_of(finding.kind)},
                            {"unit", finding.unit},
                            {"seconds", finding.seconds},
                            {"bits", finding.bits}});
    Json json = {{"model", names_of(account.model).key},
                 {"bit_rate", account.bit_rate},
                 {"size", account.size},
                 {"pictures", account.course.size()},
                 {"initial_delay", account.initial_delay},
                 {"least", account.least},
                 {"greatest", account.greatest},
                 {"delayed", account.delayed},
                 {"holds", account.holds()},
                 {"faults", faults},
                 {"findings", findings}};
    if (!course) return json;
    Json pictures = Json::array();
    for (const BufferFullness& now : account.course) {
        Json entry = {{"unit", now.unit},
                      {"seconds", now.seconds},
                      {"before", now.before},
                      {"after", now.after()},
                      {"stated_delay", nullptr}};
        if (now.stated_delay) entry["stated_delay"] = *now.stated_delay;
        pictures.push_back(entry);
    }
    json["course"] = pictures;
    return json;
}

}  // namespace

std::vector<std::string> buffer_lines(const BufferVerdict& verdict) {
    using State = BufferVerdict::State;
    if (verdict.state == State::kUntimed)
        return {"declared, but no unit has a buffering period; not checked"};
    if (verdict.state == State::kUnsupported) return {"declared; that of H.265 is not checked"};
    if (verdict.accounts.empty()) return {"none declared"};
    std::vector<std::string> lines;
    for (const BufferAccount& account : verdict.accounts) {
        lines.push_back(account_line(account));
        for (const FaultNames& fault : kFaults)
            if (account.count(fault.kind)) lines.push_back(fault_line(account, fault));
    }
    if (verdict.unreadable)
        lines.push_back(fmt::format("{} of {} units have no place in it", verdict.unreadable, verdict.units));
    if (verdict.approximate)
        lines.emplace_back(
            "approximate: the container has lengths in place of start codes, some bytes of each picture");
    return lines;
}

Json buffer_json(const BufferVerdict& verdict, bool course) {
    Json accounts = Json::array();
    for (const BufferAccount& account : verdict.accounts) accounts.push_back(account_json(account, course));
    return {{"state", state_key(verdict.state)},  {"units", verdict.units},
            {"unreadable", verdict.unreadable},   {"holds", verdict.holds()},
            {"approximate", verdict.approximate}, {"accounts", accounts}};
}

}  // namespace gsve::report
