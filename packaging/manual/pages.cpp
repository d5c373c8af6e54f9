#include "packaging/manual/pages.h"

#include <cctype>
#include <cstdint>
#include <limits>
#include <regex>
#include <set>
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

/// "farm-submit" of gsve-farm-submit(1), as the README's marks have it; "gsve" of the program's own.
std::string mark_of(const Page& page) {
    if (page.name == kProgram) return page.name;
    return page.name.substr(kProgram.size() + 1) +
           (page.section == 1 ? "" : fmt::format("({})", page.section));
}

/// Of the commands within commands, those within this one, and beside it.
bool is_near(const Page& page, const Page& other) {
    const std::string mark = mark_of(other);
    const std::string outer = mark.substr(0, mark.find('-'));
    return outer == mark || mark_of(page) == outer || mark_of(page).starts_with(outer + "-");
}

std::string see_also(const Page& page, const std::vector<Page>& all) {
    std::string list;
    for (const Page& other : all) {
        if ((other.name == page.name && other.section == page.section) || !is_near(page, other)) continue;
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

using Options = std::set<CLI::Option*>;

/// `known` has been said of all options of the group already.
std::string option_entry(const CLI::Option& option, const Options& known = {}) {
    const Value value = value_of(option);
    std::string text = with_full_stop(literal(option.get_description()));
    if (!value.bounds.empty()) text += " " + literal(value.bounds);
    if (value.any && !option.get_default_str().empty())
        text += fmt::format(" Default: {}.", literal(option.get_default_str()));
    Options needs = option.get_needs();
    for (CLI::Option* other : known) needs.erase(other);
    text += others_text("Needs ", needs) + others_text("Not with ", option.get_excludes());
    return entry(names_text(names_of(option)) + (value.any ? value_text(value) : ""), text);
}

std::string synopsis(const CLI::App& command, const std::string& words) {
    std::string line = in_bold(words);
    if (!commands_of(command).empty()) line += " " + in_italics("COMMAND");
    line += " [" + in_italics("OPTION") + "]...";
    for (const CLI::Option* argument : arguments_of(command)) {
        const std::string name =
            in_italics(argument->get_name(true)) + (argument->get_items_expected_max() > 1 ? "..." : "");
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

/// What every option of a group needs.
Options needed_by_all(const std::vector<const CLI::Option*>& group) {
    Options needed = group.empty() ? Options() : group.front()->get_needs();
    for (const CLI::Option* option : group)
        std::erase_if(needed, [&](CLI::Option* other) { return !option->get_needs().contains(other); });
    return needed;
}

std::string option_group(const CLI::App& group) {
    const std::vector<const CLI::Option*> options = options_of(group);
    const Options needed = needed_by_all(options);
    std::string text = fmt::format(".SS {}\n{}{}\n", literal(group.get_group()),
                                   with_full_stop(literal(group.get_description())),
                                   others_text("These options need ", needed));
    for (const CLI::Option* option : options) text += option_entry(*option, needed);
    return text;
}

std::string options(const CLI::App& command) {
    std::string text = heading("options");
    for (const CLI::Option* option : ungrouped_options_of(command)) text += option_entry(*option);
    for (const CLI::App* group : groups_of(command)) text += option_group(*group);
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
struct Texts {
    std::string description;
    std::string more;
    std::string source;  ///< Markdown of both
};

Texts texts_of(const Page& page, const Readme& readme) {
    Texts texts;
    for (const Readme::Section& section : readme.sections_for(mark_of(page))) {
        texts.source += section.text;
        if (texts.description.empty())
            texts.description = body(section.text);
        else
            texts.more += heading(section.title) + body(section.text);
    }
    return texts;
}

/// The program's page has one example of each command. Others leave out what their text shows.
std::string examples(const CLI::App& command, const std::string& words, const Texts& texts,
                     const Readme& readme) {
    std::string text;
    if (words == kProgram)
        for (const CLI::App* inner : commands_of(command)) {
            const std::vector<std::string> found = readme.examples_of(words + " " + inner->get_name());
            if (!found.empty()) text += found.front() + "\n";
        }
    else
        for (const std::string& example : readme.examples_of(words))
            if (texts.source.find("    " + example) == std::string::npos) text += example + "\n";
    return text.empty() ? text : heading("examples") + verbatim(text);
}

std::string exit_status() {
    return heading("exit status") + entry("0", "Success.") +
           entry(std::to_string(cli::kExitFailure), "Failure; a line on standard error says which.") +
           entry(std::to_string(cli::kExitUsage), "A mistake in the command line.") +
           entry(fmt::format("{}+N", cli::kExitSignal), "Stopped by signal N.");
}

std::string command_page(const CLI::App& command, const Page& page, const std::string& words,
                         const Readme& readme, const std::vector<Page>& all) {
    const Texts texts = texts_of(page, readme);
    const std::string summary = with_full_stop(literal(command.get_description())) + "\n";
    return head(page, title_of(command)) + synopsis(command, words) + heading("description") + summary +
           texts.description + list_of_commands(command, page.name) + arguments(command) + options(command) +
           texts.more + examples(command, words, texts, readme) + exit_status() + see_also(page, all);
}

/// Nobody looks for the largest number that a machine has.
std::string syntax_of(const encoding::Values& values) {
    std::string text = encoding::syntax_text(values);
    const std::string largest = fmt::format(" to {}", std::numeric_limits<int32_t>::max());
    if (text.ends_with(largest)) text.replace(text.size() - largest.size(), largest.size(), " up");
    return text;
}

std::string setting_text(const encoding::Setting& setting) {
    std::string text = with_full_stop(literal(setting.meaning)) + "\n.br\n" +
                       with_full_stop("Value: " + literal(syntax_of(setting.values)));
    text += setting.default_value.empty() ? " Default: not given."
                                          : fmt::format(" Default: {}.", literal(setting.default_value));
    if (setting.empty_value != "default")
        text += fmt::format(" An empty value sets: {}.", literal(setting.empty_value));
    if (setting.codecs != encoding::kAllCodecs)
        text += fmt::format(" For {} only.", literal(encoding::codecs_text(setting.codecs)));
    constexpr std::string_view kAtOnce = "Works on an open encoder.";
    if (encoding::works_on_open_encoder(setting.key) && !setting.meaning.ends_with(kAtOnce))
        text += fmt::format(" {}", kAtOnce);
    return text;
}

constexpr const char* kSettingsSynopsis = R"(\fBgsve encode \-\-set\fR "\fIKEY\fR=\fIVALUE\fR" ...
)";

constexpr const char* kSettingsIntroduction = R"(Each setting is a key and a value. A user gives it to
\fBgsve encode\fR, \fBgsve plan\fR or \fBgsve farm submit\fR as
\fB\-\-set\fR "\fIKEY\fR=\fIVALUE\fR"; a key with spaces needs the quotation marks.
A host gives both to on_set().
.PP
\fB\-\-set\fR "\fIKEY\fR=" sets the default, unless the setting says what an empty value sets.
In a host, a setting closes an open encoder, unless it says that it works on one;
on_set() opens the encoder again when it is asked to restart it.
)";

std::string settings_page(const Page& page, const Readme& readme, const std::vector<Page>& all) {
    const Texts texts = texts_of(page, readme);
    std::string text = head(page, kSettingsTitle) + heading("synopsis") + kSettingsSynopsis +
                       heading("description") + kSettingsIntroduction + texts.description;
    std::string_view topic;
    for (const encoding::Setting& setting : encoding::settings()) {
        if (setting.topic != topic) text += heading(setting.topic);
        topic = setting.topic;
        text += entry(in_bold(setting.key), setting_text(setting));
    }
    std::string shown;
    for (const std::string& example : readme.examples_of(kProgram))
        if (example.find("--set ") != std::string::npos) shown += example + "\n";
    return text + heading("examples") + verbatim(shown) + see_also(page, all);
}

/// A heading begins a paragraph by itself.
std::string without_idle_paragraphs(const std::string& text) {
    static const std::regex after_heading(R"((\n\.S[HS] [^\n]*\n)\.PP\n)");
    return std::regex_replace(text, after_heading, "$1");
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
    texts[file(settings)] = settings_page(settings, readme, all);
    for (auto& [name, text] : texts) text = without_idle_paragraphs(text);
    return texts;
}

}  // namespace gsve::manual
