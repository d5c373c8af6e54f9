#include "packaging/manual/readme.h"

#include <sstream>

namespace gsve::manual {
namespace {

constexpr std::string_view kHeading = "## ";
constexpr std::string_view kMark = "<!-- man:";

/// "<!-- man: encode inspect -->" names "encode" and "inspect".
bool names(const std::string& mark, std::string_view command) {
    std::istringstream words(mark.substr(kMark.size()));
    for (std::string word; words >> word;)
        if (word == command) return true;
    return false;
}

/// The word of a command line that is the command's.
std::string command_of(const std::string& line) {
    std::istringstream words(line);
    std::string program, command;
    words >> program >> command;
    return command;
}

}  // namespace

std::vector<Readme::Section> Readme::sections_for(std::string_view command) const {
    std::vector<Section> sections;
    std::istringstream lines(text_);
    std::string title;
    bool wanted = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(kHeading)) {
            title = line.substr(kHeading.size());
            wanted = false;
        } else if (line.starts_with(kMark)) {
            wanted = names(line, command);
            if (wanted) sections.push_back({title, ""});
        } else if (wanted) {
            sections.back().text += line + "\n";
        }
    }
    return sections;
}

std::string Readme::examples_of(std::string_view command) const {
    std::string examples;
    std::istringstream lines(text_);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("    gsve ") && command_of(line) == command) {
            examples += line.substr(4) + "\n";
            while (line.ends_with('\\') && std::getline(lines, line)) examples += line.substr(4) + "\n";
        }
    return examples;
}

}  // namespace gsve::manual
