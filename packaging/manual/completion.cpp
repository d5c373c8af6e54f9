#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "encoding/settings.h"
#include "packaging/manual/pages.h"
#include "packaging/manual/parts.h"

namespace gsve::manual {
namespace {

// What stands for any setting among the values that an option takes.
constexpr std::string_view kAnySetting = "KEY=VALUE";

constexpr const char* kHead = R"(# bash completion for gsve. Made from the program's own table of options.
)";

constexpr const char* kTail = R"(
# Bash divides words at "=" and ":" (COMP_WORDBREAKS). This joins them again, up to the cursor. `cut` is the beginning
# of the last word that bash does not replace.
_gsve_read_words() {
    local line=${COMP_LINE:0:COMP_POINT} blanks part i
    words=()
    for ((i = 0; i <= COMP_CWORD; i++)); do
        blanks=${line%%[![:blank:]]*}
        ((i > 0)) && [[ ! $blanks ]] || words+=("")
        line=${line#"$blanks"} part=${COMP_WORDS[i]}
        ((i < COMP_CWORD)) || part=$line
        cut=${words[-1]}
        words[-1]+=$part line=${line#"$part"}
    done
    [[ $part == *[!=:]* ]] || cut=${words[-1]}
}

_gsve_words() {
    local word
    for word in $1; do
        [[ $word == "${current#[\"\']}"* ]] || continue
        if [[ $word == *=FILE ]]; then
            word=${word%FILE}
            [[ $current != "$word" ]] || continue  # files follow, which bash itself completes
            without_space=1
        fi
        COMPREPLY+=("$word")
    done
}

# Keys have spaces: a setting is offered as its word was begun, in quotation marks or without. A single key is offered
# twice in quotation marks, because bash closes them after a single offer, before there is a value.
_gsve_settings() {
    local setting word settings=("${_gsve_values_of_settings[@]}")
    [[ $current == *=* ]] || settings=("${_gsve_keys[@]/%/=}") without_space=1
    for setting in "${settings[@]}"; do
        word=$setting
        [[ $current == [\"\']* ]] || printf -v word '%q' "$setting"
        [[ $word != "${current#[\"\']}"* ]] || COMPREPLY+=("$word")
    done
    if [[ $current == [\"\']* && $without_space ]] && ((${#COMPREPLY[@]} == 1)); then
        COMPREPLY+=("${COMPREPLY[0]}VALUE")
    fi
}

_gsve() {
    local words cut command=gsve word previous current argument before values without_space
    argument='' before='' without_space=''
    COMPREPLY=()
    _gsve_read_words
    for word in "${words[@]:1:${#words[@]}-2}"; do
        case " ${_gsve_commands[$command]-} " in
            *" $word "*) command+=" $word" ;;
            *) [[ $word == -* ]] || { argument=$word; break; } ;;
        esac
    done
    previous=${words[-2]} current=${words[-1]}
    [[ $current != --*=* ]] || previous=${current%%=*} before=$previous= current=${current#*=}
    if [[ ${_gsve_values[$command $previous]+takes one} ]]; then
        values=${_gsve_values[$command $previous]}
        if [[ $values == KEY=VALUE ]]; then _gsve_settings; else _gsve_words "$values"; fi
    elif [[ ! $before && $current == -* ]]; then
        _gsve_words "${_gsve_options[$command]-}"
    elif [[ ! $before && ! $argument ]]; then
        _gsve_words "${_gsve_commands[$command]-}"
    fi
    COMPREPLY=("${COMPREPLY[@]/#/$before}")
    COMPREPLY=("${COMPREPLY[@]#"$cut"}")
    [[ ! $without_space ]] || compopt -o nospace
}

complete -o default -F _gsve gsve
)";

std::string words_of(const std::vector<std::string>& words) {
    return fmt::format("\"{}\"", fmt::join(words, " "));
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

/// What follows each option that takes a value; "" where that may be anything, or a file.
std::string values_of(const std::string& words, const CLI::App& command) {
    std::string text;
    for (const CLI::Option* option : options_of(command)) {
        const Value value = value_of(*option);
        if (!value.any) continue;
        const std::string values =
            is_setting(*option) ? fmt::format("\"{}\"", kAnySetting) : words_of(value.choices);
        for (const std::string& name : names_of(*option))
            text += fmt::format("    [\"{} {}\"]={}\n", words, name, values);
    }
    return text;
}

/// The tables of the completion, whose keys are commands as they are typed.
struct Tables {
    std::string commands;
    std::string options;
    std::string values;

    void add(const std::string& words, const CLI::App& command) {
        const std::vector<std::string> inner = command_names(command);
        if (!inner.empty()) commands += fmt::format("    [\"{}\"]={}\n", words, words_of(inner));
        options += fmt::format("    [\"{}\"]={}\n", words, words_of(option_names(command)));
        values += values_of(words, command);
        for (const CLI::App* next : commands_of(command)) add(words + " " + next->get_name(), *next);
    }
};

/// bash-completion reads the file within a function, where a table would be that function's own but for -g.
std::string table(std::string_view name, const std::string& entries) {
    return fmt::format("\ndeclare -gA {}=(\n{})\n", name, entries);
}

std::string quoted_lines(std::span<const std::string> lines) {
    std::string text;
    for (const std::string& line : lines) text += fmt::format("    '{}'\n", line);
    return text;
}

std::string tables_of_settings() {
    std::vector<std::string> keys, values;
    for (const encoding::Setting& setting : encoding::settings()) {
        keys.emplace_back(setting.key);
        for (const std::string& choice : choices_of(setting.values))
            values.push_back(fmt::format("{}={}", setting.key, choice));
    }
    return fmt::format("\n_gsve_keys=(\n{})\n\n_gsve_values_of_settings=(\n{})\n", quoted_lines(keys),
                       quoted_lines(values));
}

}  // namespace

std::string bash_completion(const CLI::App& program) {
    const std::string& name = program.get_name();
    Tables tables;
    tables.add(name, program);
    tables.commands += fmt::format("    [\"{} help\"]={}\n", name, words_of(command_names(program)));
    return kHead + table("_gsve_commands", tables.commands) + table("_gsve_options", tables.options) +
           table("_gsve_values", tables.values) + tables_of_settings() + kTail;
}

}  // namespace gsve::manual
