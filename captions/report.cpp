#include "report.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace gsve::captions {

std::string format_warning(const Warning& warning) {
    if (warning.file.empty()) return warning.text;
    if (warning.line < 1) return fmt::format("{}: {}", warning.file, warning.text);
    return fmt::format("{}:{}: {}", warning.file, warning.line, warning.text);
}

void Report::add(WarningKind kind, std::string file, int line, std::string text) {
    warnings_.push_back({kind, std::move(file), line, std::move(text)});
}

std::size_t Report::count(WarningKind kind) const {
    return std::count_if(warnings_.begin(), warnings_.end(),
                         [kind](const Warning& warning) { return warning.kind == kind; });
}

std::vector<std::string> Report::lines() const {
    std::vector<std::string> texts;
    for (const Warning& warning : warnings_) texts.push_back(format_warning(warning));
    return texts;
}

}  // namespace gsve::captions
