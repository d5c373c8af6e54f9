#include "encoding/status_text.h"

namespace gsve::encoding {

std::string_view pair_subject(std::string_view pair_name) {
    // The report name may have commas of its own; the subjects have none.
    constexpr std::string_view kSeparator = ", ";
    const auto separator = pair_name.rfind(kSeparator);
    return separator == pair_name.npos ? pair_name : pair_name.substr(separator + kSeparator.size());
}

std::string one_line(std::string text) {
    while (text.ends_with('\n')) text.pop_back();
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) text.replace(at, 1, ", ");
    return text;
}

}  // namespace gsve::encoding
