#include "packaging/manual/pages.h"

#include <cctype>
#include <vector>

#include <fmt/format.h>
#include <gsve.h>
#include <CLI/CLI.hpp>

#include "cli/exit_status.h"
#include "encoding/settings.h"
#include "packaging/manual/parts.h"
#include "packaging/manual/roff.h"

namespace gsve::manual {
namespace {

constexpr std::string_view kProgram = "gsve";
constexpr std::string_view kSettingsPage = "gsve-settings";
constexpr std::string_view kSettingsTitle = "settings of the gsve video encoder";

struct Page {
    std::string name;  ///< "gsve-encode"
    int section = 1;
};

std::string head(const Page& page, std::string_view title) {
    std::string upper = page.name;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return fmt::format(".TH {} {} \"\" \"gsve {}\" \"{}\"\n", literal(upper), page.section, gsve_version,
                       page.section == 1 ? "User Commands" : "Miscellaneous") +
           heading("name") + fmt::format("{} \\- {}\n", literal(page.name), prose(title));
}

/// A description as the name's line has it: it goes on after the dash.
std::string title_of(const CLI::App& command) {
    std::string title = command.get_description();
    if (title.size() > 1 && !std::isupper(static_cast<unsigned char>(title[1])))
        title[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(title[0])));
    return title;
}

std::string see_also(const Page& page, const std::vector<Page>& all) {
    std::string list;
    for (const Page& other : all) {
        if (other.name == page.name && other.section == page.section) continue;
        if (!list.empty()) list += ",\n";
        list += fmt::format("{}({})", in_bold(other.name), other.section);
    }
    return heading("see also") + list + "\n";
}

std::string value_text(const Value& value) {
    if (value.choices.empty()) return " " + in_italics(value.placeholder);
    std::string text;
    for (const std::string& choice : value.choices) text += (text.empty() ? " " : "|") + in_italics(choice);
    return text;
}

std::string names_text(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + in_bold(name);
    return text;
}

std::string with_full_stop(std::string text) {
    if (!text.empty() && !text.ends_with('.')) text += '.';
    return text;
}

std::string others_text(const char* lead, const std::set<CLI::Option*>& others) {
    std::string text;
    for (const CLI::Option* other : others)
        text += fmt::format("{}{}", text.empty() ? lead : ", ", names_text(names_of(*other)));
    return text.empty() ? text : " " + text + ".";
}

std::string option_entry(const CLI::Option& option) {
    const Value value = value_of(option);
    std::string text = with_full_stop(literal(option.get_description()));
    if (!value.bounds.empty()) text += " " + literal(value.bounds);
    if (value.any && !option.get_default_str().empty())
        text += fmt::format(" Default: {}.", literal(option.get_default_str()));
    text += others_text("Needs ", option.get_needs()) + others_text("Not with ", option.get_excludes());
    return entry(names_text(names_of(option)) + (value.any ? value_text(value) : ""), text);
}

std::string synopsis(const CLI::App& command, const std::string& words) {
    std::string line = in_bold(words);
    if (!commands_of(command).empty()) line += " " + in_italics("COMMAND");
    line += " [" + in_italics("OPTION") + "]...";
    for (const CLI::Option* argument : arguments_of(command)) {
        const std::string name = in_italics(argument->get_name(true));
        line += argument->get_required() ? " " + name : " [" + name + "]";
    }
    return heading("synopsis") + line + "\n";
}

std::string arguments(const CLI::App& command) {
    std::string text;
    for (const CLI::Option* argument : arguments_of(command))
        if (!argument->get_description().empty())
            text += entry(in_italics(argument->get_name(true)),
                          with_full_stop(literal(argument->get_description())));
    return text.empty() ? text : heading("arguments") + text;
}

std::string options(const CLI::App& command) {
    std::string text = heading("options");
    for (const CLI::Option* option : options_of(command)) text += option_entry(*option);
    return text;
}

std::string list_of_commands(const CLI::App& command, const std::string& page) {
    std::string text;
    for (const CLI::App* inner : commands_of(command))
        text += entry(fmt::format("{}(1)", in_bold(page + "-" + inner->get_name())),
                      with_full_stop(literal(inner->get_description())));
    return text.empty() ? text : heading("commands") + text;
}

/// The first section of the README describes the command; the others stand behind its options.
std::string command_text(const CLI::App& command, const std::string& page, const Readme& readme) {
    std::string text, more;
    for (const Readme::Section& section : readme.sections_for(command.get_name()))
        if (text.empty())
            text = heading("description") + body(section.text);
        else
            more += heading(section.title) + body(section.text);
    return text + list_of_commands(command, page) + arguments(command) + options(command) + more;
}

std::string exit_status() {
    return heading("exit status") + entry("0", "Success.") +
           entry(std::to_string(cli::kExitFailure), "Failure; a line on standard error says which.") +
           entry(std::to_string(cli::kExitUsage), "A mistake in the command line.") +
           entry(fmt::format("{}+N", cli::kExitSignal), "Stopped by signal N.");
}

std::string command_page(const CLI::App& command, const Page& page, const std::string& words,
                         const Readme& readme, const std::vector<Page>& all) {
    const bool whole = page.name == kProgram;
    std::string text =
        head(page, title_of(command)) + synopsis(command, words) + command_text(command, page.name, readme);
    const std::string examples = readme.examples_of(whole ? "encode" : command.get_name());
    if (!examples.empty()) text += heading("examples") + verbatim(examples);
    return text + exit_status() + see_also(page, all);
}

std::string setting_text(const encoding::Setting& setting) {
    std::string text = with_full_stop(literal(setting.meaning)) + "\n.br\n" +
                       with_full_stop("Value: " + literal(encoding::syntax_text(setting.values)));
    text += setting.default_value.empty() ? " Default: not given."
                                          : fmt::format(" Default: {}.", literal(setting.default_value));
    if (setting.empty_value != "default")
        text += fmt::format(" An empty value sets: {}.", literal(setting.empty_value));
    if (setting.codecs != encoding::kAllCodecs)
        text += fmt::format(" For {} only.", literal(encoding::codecs_text(setting.codecs)));
    if (encoding::works_on_open_encoder(setting.key)) text += " Works on an open encoder.";
    return text;
}

std::string settings_page(const Page& page, const std::vector<Page>& all) {
    std::string text = head(page, kSettingsTitle) + heading("description");
    text += "Each is a key and a value, which a host gives to on_set(), and a user to\n" +
            in_bold("gsve encode --set") + " \"" + in_italics("KEY") + "=" + in_italics("VALUE") +
            "\".\nA key with spaces needs the quotation marks.\n";
    std::string_view topic;
    for (const encoding::Setting& setting : encoding::settings()) {
        if (setting.topic != topic) text += heading(setting.topic);
        topic = setting.topic;
        text += entry(in_bold(setting.key), setting_text(setting));
    }
    return text + see_also(page, all);
}

struct Command {
    const CLI::App* app;
    Page page;
    std::string words;  ///< "gsve encode"
};

void collect(const CLI::App& app, const std::string& page, const std::string& words,
             std::vector<Command>& found) {
    found.push_back({&app, {page, 1}, words});
    for (const CLI::App* inner : commands_of(app))
        collect(*inner, page + "-" + inner->get_name(), words + " " + inner->get_name(), found);
}

}  // namespace

std::map<std::string, std::string> pages(const CLI::App& program, const Readme& readme) {
    std::vector<Command> commands;
    collect(program, std::string(kProgram), std::string(kProgram), commands);
    const Page settings = {std::string(kSettingsPage), 7};
    std::vector<Page> all;
    for (const Command& command : commands) all.push_back(command.page);
    all.push_back(settings);

    std::map<std::string, std::string> texts;
    const auto file = [](const Page& page) { return fmt::format("man{0}/{1}.{0}", page.section, page.name); };
    for (const Command& command : commands)
        texts[file(command.page)] = command_page(*command.app, command.page, command.words, readme, all);
    texts[file(settings)] = settings_page(settings, all);
    return texts;
}

}  // namespace gsve::manual
