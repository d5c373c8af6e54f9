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

    /// What is meant for a page. "<!-- man: encode farm-submit -->" on a line of its own begins a passage for
    /// the pages that it names, which ends with the section, or at the next mark: "<!-- man: -->" names none.
    std::vector<Section> sections_for(std::string_view page) const;

    /// The command lines that begin with these words, in the README's order, from the sections that have a
    /// mark.
    std::vector<std::string> examples_of(std::string_view words) const;

private:
    std::string text_;
};

}  // namespace gsve::manual
