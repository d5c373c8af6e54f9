#pragma once

// What the parser knows of commands and options, as pages and completion need it.

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace gsve::encoding {
struct Values;
}

namespace gsve::manual {

/// The commands of a parser that --help shows.
std::vector<const CLI::App*> commands_of(const CLI::App& app);

/// Its groups of options, which have a title and a description of their own.
std::vector<const CLI::App*> groups_of(const CLI::App& app);

/// Its options, or its positional arguments, that --help shows.
std::vector<const CLI::Option*> options_of(const CLI::App& app);
std::vector<const CLI::Option*> ungrouped_options_of(const CLI::App& app);
std::vector<const CLI::Option*> arguments_of(const CLI::App& app);

/// "-c", "--codec".
std::vector<std::string> names_of(const CLI::Option& option);

/// What an option's value may be.
struct Value {
    bool any = false;                  ///< false: the option takes none
    std::string placeholder;           ///< "FILE"
    std::vector<std::string> choices;  ///< where it is one of these
    std::string bounds;                ///< "From 1 to 15."; empty: not stated
};

Value value_of(const CLI::Option& option);

/// What a setting's value may be, where it is one of a few.
std::vector<std::string> choices_of(const encoding::Values& values);

}  // namespace gsve::manual
