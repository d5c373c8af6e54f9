#include "report/treatments_report.h"

#include <string_view>

#include <fmt/format.h>

#include "programme/treatments.h"

namespace gsve::report {
namespace {

using programme::Treatment;

std::string_view word_for(Treatment treatment) {
    switch (treatment) {
        case Treatment::kCarried: return "carried";
        case Treatment::kConverted: return "converted";
        case Treatment::kNamed: break;
    }
    return "named";
}

}  // namespace

std::string treatments_text() {
    std::string text = fmt::format("{:33}", "");
    for (const programme::Container container : programme::kContainers)
        text += fmt::format("{:11}", programme::name_of(container));
    text += "\n";
    for (const programme::TreatmentRow& row : programme::treatment_rows()) {
        text += fmt::format("{:33}", row.kind);
        for (const Treatment treatment : row.treatments) text += fmt::format("{:11}", word_for(treatment));
        text += "\n";
    }
    return text;
}

std::string treatments_markdown() {
    std::string text = "| Stream |", rule = "|---|";
    for (const programme::Container container : programme::kContainers) {
        text += fmt::format(" {} |", programme::name_of(container));
        rule += "---|";
    }
    text += "\n" + rule + "\n";
    for (const programme::TreatmentRow& row : programme::treatment_rows()) {
        text += fmt::format("| {} |", row.kind);
        for (const Treatment treatment : row.treatments) text += fmt::format(" {} |", word_for(treatment));
        text += "\n";
    }
    return text;
}

}  // namespace gsve::report
