#pragma once

// Manual pages' own language, as groff's man macros have it.

#include <string>
#include <string_view>

namespace gsve::manual {

/// Text as it is to appear, its hyphens as the minus signs that a reader pastes into a shell.
std::string literal(std::string_view text);

/// An inline text of Markdown: `code` and **bold** become bold, links their text, and links into docs/ the
/// names under which the package has these files.
std::string prose(std::string_view markdown);

/// The body of a section of Markdown: paragraphs, lists, blocks of code, tables, and headings of its own as
/// subsections. A row of a table becomes an entry that names its columns.
std::string body(std::string_view markdown);

std::string in_bold(std::string_view text);
std::string in_italics(std::string_view text);

/// A section's heading.
std::string heading(std::string_view text);

/// One entry of a list: what it is about, already roff, and the text that explains it, likewise.
std::string entry(std::string_view tag, std::string_view text);

/// Lines that are not to be filled. Command lines that are too long for a terminal are continued on the next;
/// their comments come before.
std::string verbatim(std::string_view lines);

}  // namespace gsve::manual
