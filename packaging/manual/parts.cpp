#include "packaging/manual/parts.h"

#include <regex>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "encoding/settings.h"
#include "encoding/split.h"

namespace gsve::manual {
namespace {

// What the parser's own checks call themselves.
constexpr const char* kPositive = "POSITIVE";
constexpr const char* kNonNegative = "NONNEGATIVE";

std::vector<std::string> choices_in(std::string_view text, char separator) {
    const std::vector<std::string_view> parts = encoding::split(text, separator);
    return {parts.begin(), parts.end()};
}

std::vector<const CLI::Option*> shown(const CLI::App& app, bool positional) {
    return app.get_options([positional](const CLI::Option* option) {
        return option->get_positional() == positional && (positional || !option->get_group().empty());
    });
}

bool is_literal(const std::string& check) { return check.find_first_of(" []()") == std::string::npos; }

std::string bounds_in(const std::string& type) {
    std::smatch range;
    if (std::regex_search(type, range, std::regex(R"( in \[(\S+) - (\S+)\])")))
        return fmt::format("From {} to {}.", range.str(1), range.str(2));
    if (type.find(kNonNegative) != std::string::npos) return "Not below 0.";
    if (type.find(kPositive) != std::string::npos) return "Above 0.";
    return {};
}

}  // namespace

std::vector<const CLI::App*> commands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* command) {
        return !command->get_name().empty() && !command->get_group().empty();
    });
}

// The parser keeps a group of options as a command without a name.
std::vector<const CLI::App*> groups_of(const CLI::App& app) {
    return app.get_subcommands(
        [](const CLI::App* group) { return group->get_name().empty() && !group->get_group().empty(); });
}

/// A group has a --help that is never asked for.
std::vector<const CLI::Option*> ungrouped_options_of(const CLI::App& app) {
    std::vector<const CLI::Option*> options = shown(app, false);
    if (app.get_name().empty()) std::erase(options, app.get_help_ptr());
    return options;
}

std::vector<const CLI::Option*> options_of(const CLI::App& app) {
    std::vector<const CLI::Option*> options = ungrouped_options_of(app);
    for (const CLI::App* group : groups_of(app)) {
        const std::vector<const CLI::Option*> more = options_of(*group);
        options.insert(options.end(), more.begin(), more.end());
    }
    return options;
}

std::vector<const CLI::Option*> arguments_of(const CLI::App& app) { return shown(app, true); }

std::vector<std::string> names_of(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) names.push_back("-" + name);
    for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
    return names;
}

// The parser has a type for each value, and behind colons what its checks call themselves: "TEXT:{ts,fmp4}",
// "N:INT in [1 - 65535]".
Value value_of(const CLI::Option& option) {
    if (option.get_items_expected_max() == 0) return {};
    const std::string type = option.get_type_name();
    const size_t colon = type.find(':');
    Value value = {
        .any = true, .placeholder = type.substr(0, colon), .choices = {}, .bounds = bounds_in(type)};
    const std::string check = colon == std::string::npos ? "" : type.substr(colon + 1);
    if (check.starts_with('{') && check.ends_with('}'))
        value.choices = choices_in(check.substr(1, check.size() - 2), ',');
    else if (check.find_first_of("|=") != std::string::npos && is_literal(check))
        value.choices = choices_in(check, '|');
    else if (check == "FILE")
        value.placeholder = check;
    return value;
}

std::vector<std::string> choices_of(const encoding::Values& values) {
    switch (values.syntax) {
        case encoding::Syntax::kSwitch: return {"0", "1"};
        case encoding::Syntax::kAutomatic: return {"0", "1", "-1"};
        case encoding::Syntax::kChoice: return choices_in(values.choices, ' ');
        default: return {};
    }
}

}  // namespace gsve::manual
