#include "gstreamer/properties.h"

#include <gst/gst.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <limits>
#include <regex>

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::gstreamer {
namespace {

using encoding::KeyValue;
using encoding::Setting;
using encoding::settings;
using encoding::Syntax;
using enum encoding::Syntax;

constexpr auto kFlags =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);

/// Where a choice is not made.
constexpr gint kNotGiven = 0;

/// Names that GObject keeps live as long as the process.
const char* forever(std::string text) {
    static std::deque<std::string> texts;
    return texts.emplace_back(std::move(text)).c_str();
}

std::vector<std::string> choices_of(const Setting& setting) {
    std::vector<std::string> choices;
    std::string_view rest = setting.values.choices;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(' '), rest.size());
        choices.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return choices;
}

const Setting& setting_of(guint id) { return settings()[id - 1]; }

/// The element is there to encode, and so is on.
std::string default_of(const Setting& setting) {
    return setting.key == "enable" ? "1" : std::string(setting.default_value);
}

std::string type_name(const Setting& setting) {
    std::string name = "GsveEnc";
    bool begins_word = true;
    for (const char letter : property_name(setting.key)) {
        if (letter != '-') name += begins_word ? static_cast<char>(std::toupper(letter)) : letter;
        begins_word = letter == '-';
    }
    return name;
}

/// 0 where nothing is given, then the choices in their order.
GType choice_type(const Setting& setting) {
    const char* const name = forever(type_name(setting));
    if (const GType known = g_type_from_name(name)) return known;
    const std::vector<std::string> choices = choices_of(setting);
    auto* const values = g_new0(GEnumValue, choices.size() + 2);  // as long as the type
    const bool is_codec = setting.key == "encoder";
    values[kNotGiven] = {kNotGiven, is_codec ? "What the caps downstream ask for" : "Not given", "default"};
    for (size_t n = 0; n < choices.size(); n++) {
        const char* const choice = forever(choices[n]);
        values[n + 1] = {static_cast<gint>(n + 1), choice, choice};
    }
    return g_enum_register_static(name, values);
}

gint index_of_choice(const Setting& setting, const std::string& text) {
    const std::vector<std::string> choices = choices_of(setting);
    const auto found = std::ranges::find(choices, text);
    return found == choices.end() ? kNotGiven : static_cast<gint>(found - choices.begin()) + 1;
}

gint whole(double value) {
    return static_cast<gint>(
        std::clamp<double>(value, std::numeric_limits<gint>::min(), std::numeric_limits<gint>::max()));
}

double number(const std::string& text) { return text.empty() ? 0 : std::strtod(text.c_str(), nullptr); }

std::string description_of(const Setting& setting) {
    std::string text = fmt::format("{}: {}", setting.topic, setting.meaning);
    if (setting.values.syntax == kSize)
        text += fmt::format(" Takes {}.", encoding::syntax_text(setting.values));
    if (setting.codecs != encoding::kAllCodecs)
        text += fmt::format(" ({})", encoding::codecs_text(setting.codecs));
    return text;
}

GParamSpec* spec_of(const Setting& setting) {
    const char* const name = forever(property_name(setting.key));
    const char* const nick = forever(std::string(setting.key));
    const char* const blurb = forever(description_of(setting));
    const encoding::Values& values = setting.values;
    const std::string initial = default_of(setting);
    switch (values.syntax) {
        case kSwitch: return g_param_spec_boolean(name, nick, blurb, initial == "1", kFlags);
        case kAutomatic: return g_param_spec_int(name, nick, blurb, -1, 1, whole(number(initial)), kFlags);
        case kWhole:
            return g_param_spec_int(name, nick, blurb, whole(values.lowest), whole(values.highest),
                                    whole(number(initial)), kFlags);
        case kReal:
            return g_param_spec_double(name, nick, blurb, values.lowest,
                                       std::isfinite(values.highest) ? values.highest : G_MAXDOUBLE,
                                       number(initial), kFlags);
        case kChoice:
            return g_param_spec_enum(name, nick, blurb, choice_type(setting),
                                     index_of_choice(setting, initial), kFlags);
        case kText:
        case kSize: break;
    }
    return g_param_spec_string(name, nick, blurb, initial.empty() ? nullptr : forever(initial), kFlags);
}

/// As the setting writes it; empty: not given.
std::string text_of(const Setting& setting, const GValue& value) {
    switch (setting.values.syntax) {
        case kSwitch: return g_value_get_boolean(&value) ? "1" : "0";
        case kAutomatic:
        case kWhole: return std::to_string(g_value_get_int(&value));
        case kReal: return fmt::format("{:.9f}", g_value_get_double(&value));
        case kChoice: {
            const gint index = g_value_get_enum(&value);
            return index == kNotGiven ? "" : choices_of(setting)[static_cast<size_t>(index) - 1];
        }
        case kText:
        case kSize: break;
    }
    const gchar* const text = g_value_get_string(&value);
    return text ? text : "";
}

void put(const Setting& setting, const std::string& text, GValue& value) {
    switch (setting.values.syntax) {
        case kSwitch: return g_value_set_boolean(&value, text == "1");
        case kAutomatic:
        case kWhole: return g_value_set_int(&value, whole(number(text)));
        case kReal: return g_value_set_double(&value, number(text));
        case kChoice: return g_value_set_enum(&value, index_of_choice(setting, text));
        case kText:
        case kSize: break;
    }
    g_value_set_string(&value, text.empty() ? nullptr : text.c_str());
}

}  // namespace

std::string property_name(std::string_view key) {
    if (key == "encoder") return "codec";
    if (key == "name") return "label";
    std::string name(key);
    for (char& letter : name)
        if (!std::isalnum(static_cast<unsigned char>(letter))) letter = '-';
    return name;
}

std::string in_properties(std::string text) {
    static const std::regex setting("--set \"([^\"=]+)=([^\"]*)\"");
    std::string result;
    std::smatch match;
    for (; std::regex_search(text, match, setting); text = match.suffix().str())
        result += match.prefix().str() + property_name(match[1].str()) + "=" + match[2].str();
    result += text;
    for (const auto& [option, instead] :
         {std::pair<std::string, std::string>{"--rate ", "videorate ! video/x-raw,framerate="},
          {"--verbose shows", "GST_DEBUG=gsveenc:5 shows"}})
        if (const size_t at = result.find(option); at != result.npos)
            result.replace(at, option.size(), instead);
    return result;
}

guint install_settings(GObjectClass* object_class) {
    guint id = 1;
    for (const Setting& setting : settings())
        g_object_class_install_property(object_class, id++, spec_of(setting));
    return id;
}

KeyValue GivenSettings::set(guint id, const GValue& value) {
    const Setting& setting = setting_of(id);
    const std::string text = text_of(setting, value);
    // Ranges are the property's to keep; texts are not.
    if (!text.empty() && setting.values.syntax == kSize)
        encoding::parse_setting(fmt::format("{}={}", setting.key, text));
    if (text.empty())
        given_.erase(id);
    else
        given_[id] = text;
    return {std::string(setting.key), text};
}

void GivenSettings::get(guint id, GValue& value) const {
    const Setting& setting = setting_of(id);
    const auto given = given_.find(id);
    put(setting, given == given_.end() ? default_of(setting) : given->second, value);
}

std::vector<KeyValue> GivenSettings::all() const {
    std::vector<KeyValue> all;
    for (const auto& [id, text] : given_) all.emplace_back(setting_of(id).key, text);
    return all;
}

std::string GivenSettings::given(std::string_view key) const {
    for (const auto& [id, text] : given_)
        if (setting_of(id).key == key) return text;
    return "";
}

}  // namespace gsve::gstreamer
