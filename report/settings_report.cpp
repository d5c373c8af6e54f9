#include "report/settings_report.h"

#include <string_view>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "encoding/settings.h"

namespace gsve::report {

using encoding::Setting;

std::string settings_text() {
    std::string text =
        "Key, default, values and, where not all have it, codecs. \"KEY=\" restores the default, or sets "
        "what "
        "stands after \"empty\".\n";
    std::string_view topic;
    for (const Setting& setting : encoding::settings()) {
        if (setting.topic != topic) text += fmt::format("\n{}\n", setting.topic);
        topic = setting.topic;
        const std::string_view value = setting.default_value.empty() ? "(not given)" : setting.default_value;
        text += fmt::format("  {:30} {:12} {}", setting.key, value, encoding::syntax_text(setting.values));
        if (setting.empty_value != "default") text += fmt::format("; empty: {}", setting.empty_value);
        if (setting.codecs != encoding::kAllCodecs)
            text += fmt::format(" ({})", encoding::codecs_text(setting.codecs));
        text += fmt::format("\n      {}\n", setting.meaning);
    }
    return text;
}

std::string settings_json() {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Setting& setting : encoding::settings())
        list.push_back(
            {{"topic", setting.topic},
             {"key", setting.key},
             {"default", setting.default_value},
             {"empty", setting.empty_value == "default" ? setting.default_value : setting.empty_value},
             {"syntax", encoding::syntax_text(setting.values)},
             {"codecs", encoding::codecs_text(setting.codecs)},
             {"meaning", setting.meaning}});
    return list.dump(2) + "\n";
}

std::string settings_markdown() {
    std::string text;
    std::string_view topic;
    for (const Setting& setting : encoding::settings()) {
        if (setting.topic != topic)
            text += fmt::format("{}| {} | Default | Value | |\n|---|---|---|---|\n",
                                topic.empty() ? "" : "\n", setting.topic);
        topic = setting.topic;
        const std::string_view value = setting.default_value.empty() ? "not given" : setting.default_value;
        text += fmt::format("| `{}` | {} | {} | {} |\n", setting.key, value,
                            encoding::syntax_text(setting.values), setting.meaning);
    }
    return text;
}

}  // namespace gsve::report
