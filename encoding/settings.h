#pragma once

// The encoder's settings as a user meets them: by topic, with syntax and meaning. The library never refuses a
// setting: it ignores unknown keys and brings every number into range. Mistakes are refused here instead.

#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "encoding/codec_id.h"

namespace gsve::encoding {

enum class Syntax {
    kSwitch,     ///< 0 or 1
    kAutomatic,  ///< 0, 1 or -1
    kWhole,
    kReal,
    kText,
    kSize,    ///< WIDTHxHEIGHT
    kChoice,  ///< one of a list
};

/// The values that a setting takes.
struct Values {
    Syntax syntax = Syntax::kText;
    double lowest = 0;  ///< kWhole, kReal: both bounds are allowed
    double highest = 0;
    std::string_view choices = {};  ///< kChoice: with single spaces between them
};

/// Codecs as a set: the sum of their codec ids.
inline constexpr int kAllCodecs = kMpeg2 | kH264 | kH265;

struct Setting {
    std::string_view topic;
    std::string_view key;
    std::string_view default_value;  ///< empty: not given
    Values values;
    std::string_view meaning;
    int codecs = kAllCodecs;                   ///< that it does something for
    std::string_view empty_value = "default";  ///< what "KEY=" sets
};

using KeyValue = std::pair<std::string, std::string>;

/// All settings, topic by topic.
std::span<const Setting> settings();

/// Whether an open encoder takes the setting at once. All others close it.
bool works_on_open_encoder(std::string_view key);

/// How a value is written.
std::string syntax_text(const Values& values);

/// The names of a set of codecs.
std::string codecs_text(int codecs);

/// Takes "KEY=VALUE" apart and checks both. Throws UsageError, naming the nearest key or the syntax.
KeyValue parse_setting(const std::string& text);

/// Checks settings that depend on each other, in the order of their application. Throws UsageError.
void check_together(std::span<const KeyValue> given);

}  // namespace gsve::encoding
