#pragma once

/// Character references of WebVTT text, which are HTML's: "&eacute;", "&#233;", "&#xE9;".
///
/// Known by name are the characters of ISO 8859-1, those of the EIA-608 character sets, ASCII's, quotation
/// marks, dashes, spaces, the music note ("&sung;"), and some that have a substitute in line 21.
///
/// Example:
///     if (const auto reference = reference_at(U"&eacute;t&eacute;")) put(reference->character);

#include <cstddef>
#include <optional>
#include <string_view>

namespace gsve::captions {

struct CharacterReference {
    char32_t character;  ///< 0 for an unknown name
    std::size_t length;  ///< of the reference, with '&' and ';'
};

/// The reference at the front of the text; nothing where there is none. Numbers that are no character become
/// U+FFFD, and 128 to 159 those of Windows-1252, as in HTML.
std::optional<CharacterReference> reference_at(std::u32string_view text);

}  // namespace gsve::captions
