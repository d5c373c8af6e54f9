#pragma once

// The encoder's settings as a user meets them: by topic, with syntax and meaning. The encoder itself ignores
// unknown keys and makes something of every number, so that what is refused is refused here.

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gsve::cli {

enum class Syntax {
    kSwitch,     ///< 0 or 1
    kAutomatic,  ///< 0, 1 or -1
    kWhole,
    kReal,
    kText,
    kSize,      ///< WIDTHxHEIGHT
    kDropping,  ///< on, off, auto
};

struct Setting {
    std::string_view topic;
    std::string_view key;
    std::string_view default_value;  ///< empty: not given
    Syntax syntax;
    std::string_view meaning;
};

using KeyValue = std::pair<std::string, std::string>;

/// All settings, topic by topic.
std::span<const Setting> settings();

/// How a value is written.
std::string_view syntax_text(Syntax syntax);

/// Takes "KEY=VALUE" apart and checks both. Throws UsageError, naming the nearest key or the syntax.
KeyValue parse_setting(const std::string& text);

/// The settings as a table to read, and as JSON.
std::string settings_text();
std::string settings_json();

}  // namespace gsve::cli
