#include "packaging/manual/readme.h"

#include <sstream>

#include <fmt/format.h>

namespace gsve::manual {
namespace {

constexpr std::string_view kHeading = "## ";
constexpr std::string_view kIndent = "    ";  // of code
constexpr std::string_view kMark = "<!-- man:";

/// "<!-- man: encode inspect -->" names "encode" and "inspect".
bool names(const std::string& mark, std::string_view page) {
    std::istringstream words(mark.substr(kMark.size()));
    for (std::string word; words >> word;)
        if (word == page) return true;
    return false;
}

}  // namespace

std::vector<Readme::Section> Readme::sections_for(std::string_view page) const {
    std::vector<Section> sections;
    std::istringstream lines(text_);
    std::string title;
    bool wanted = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(kHeading)) {
            title = line.substr(kHeading.size());
            wanted = false;
        } else if (line.starts_with(kMark)) {
            wanted = names(line, page);
            if (!wanted) continue;
            if (sections.empty() || sections.back().title != title)
                sections.push_back({title, ""});
            else
                sections.back().text += "\n";  // a passage begins with a paragraph of its own
        } else if (wanted) {
            sections.back().text += line + "\n";
        }
    }
    return sections;
}

std::vector<std::string> Readme::examples_of(std::string_view words) const {
    std::vector<std::string> examples, of_section;
    bool marked = false;
    const auto end_section = [&] {
        if (marked) examples.insert(examples.end(), of_section.begin(), of_section.end());
        of_section.clear();
        marked = false;
    };
    std::istringstream lines(text_);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(kHeading)) end_section();
        if (line.starts_with(kMark)) marked = true;
        if (!line.starts_with(fmt::format("{}{} ", kIndent, words)) &&
            line != fmt::format("{}{}", kIndent, words))
            continue;
        std::string example = line.substr(kIndent.size());
        while (line.ends_with('\\') && std::getline(lines, line))
            example += "\n" + line.substr(kIndent.size());
        of_section.push_back(example);
    }
    end_section();
    return examples;
}

}  // namespace gsve::manual
