#pragma once

// What the README has for manual pages.

#include <string>
#include <string_view>
#include <vector>

namespace gsve::manual {

class Readme {
public:
    struct Section {
        std::string title;
        std::string text;  ///< Markdown
    };

    explicit Readme(std::string text) : text_(std::move(text)) {}

    /// The sections that are meant for a command's page: those in which the comment "<!-- man: encode inspect
    /// -->" follows the heading and names it.
    std::vector<Section> sections_for(std::string_view command) const;

    /// The command lines that show a command, in the README's order.
    std::string examples_of(std::string_view command) const;

private:
    std::string text_;
};

}  // namespace gsve::manual
