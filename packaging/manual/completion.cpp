#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "encoding/settings.h"
#include "packaging/manual/pages.h"
#include "packaging/manual/parts.h"

namespace gsve::manual {
namespace {

constexpr const char* kHead = R"(# bash completion for gsve. Made from the program's own table of options.

_gsve_words() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$current"); }

# Keys have spaces: they are offered as the word was begun, in quotation marks or without.
_gsve_settings() {
    local key escaped begun=$current
    compopt -o nospace
    for key in "${_gsve_keys[@]}"; do
        printf -v escaped '%q' "$key"
        case $begun in
            [\"\']*) [[ $key != "${begun:1}"* ]] || COMPREPLY+=("$key=") ;;
            *) [[ $escaped != "$begun"* ]] || COMPREPLY+=("$escaped=") ;;
        esac
    done
}

)";

constexpr const char* kTail = R"(complete -o default -F _gsve gsve
)";

std::string words_of(const std::vector<std::string>& words) {
    return fmt::format("_gsve_words \"{}\"", fmt::join(words, " "));
}

std::vector<std::string> command_names(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : commands_of(app)) names.push_back(command->get_name());
    return names;
}

std::vector<std::string> option_names(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : options_of(app))
        for (const std::string& name : names_of(*option)) names.push_back(name);
    return names;
}

bool is_setting(const CLI::Option& option) {
    const std::vector<std::string> names = names_of(option);
    return std::find(names.begin(), names.end(), "--set") != names.end();
}

/// What may follow the options, where that is known. Those that take anything leave it to the names of files.
std::string values_after_options(const CLI::App& command) {
    std::string text;
    std::vector<std::string> free;
    for (const CLI::Option* option : options_of(command)) {
        const Value value = value_of(*option);
        const std::string action = is_setting(*option) ? "_gsve_settings" : words_of(value.choices);
        const std::vector<std::string> names = names_of(*option);
        if (is_setting(*option) || !value.choices.empty())
            text += fmt::format("                {}) {}; return ;;\n", fmt::join(names, " | "), action);
        else if (value.any)
            free.insert(free.end(), names.begin(), names.end());
    }
    if (!free.empty()) text += fmt::format("                {}) return ;;\n", fmt::join(free, " | "));
    if (text.empty()) return text;
    return "            case $previous in\n" + text + "            esac\n";
}

std::string completion_of(const CLI::App& command) {
    std::string text = fmt::format("        {})\n", command.get_name()) + values_after_options(command);
    std::vector<std::string> words = option_names(command);
    text += fmt::format("            [[ $current != -* ]] || {}\n", words_of(words));
    const std::vector<std::string> inner = command_names(command);
    if (!inner.empty()) text += fmt::format("            [[ $current == -* ]] || {}\n", words_of(inner));
    return text + "            ;;\n";
}

}  // namespace

std::string bash_completion(const CLI::App& program) {
    std::string text = kHead;
    text += "_gsve_keys=(\n";
    for (const encoding::Setting& setting : encoding::settings())
        text += fmt::format("    '{}'\n", setting.key);
    text += ")\n\n_gsve() {\n";
    text += "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n";
    text += "    COMPREPLY=()\n    if ((COMP_CWORD == 1)); then\n";
    std::vector<std::string> first = command_names(program);
    for (const std::string& name : option_names(program)) first.push_back(name);
    text += fmt::format("        {}\n        return\n    fi\n", words_of(first));
    text += "    case ${COMP_WORDS[1]} in\n";
    text += fmt::format("        help) ((COMP_CWORD > 2)) || {} ;;\n", words_of(command_names(program)));
    for (const CLI::App* command : commands_of(program))
        if (command->get_name() != "help") text += completion_of(*command);
    return text + "    esac\n}\n\n" + kTail;
}

}  // namespace gsve::manual
