#pragma once

/// Reading of caption files as text, and the one error that they can give.
///
/// Example:
///     try { schedule = read_scc(path, options, report); }
///     catch (const FileError& error) { fmt::print(stderr, "gsve: {}\n", error.what()); return 1; }

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "report.h"

namespace gsve::captions {

/// A caption file that cannot be used. what() is "file:line: text", or "file: text" for line 0; the text
/// says what to change.
class FileError : public std::runtime_error {
public:
    FileError(std::string_view file, int line, std::string_view text);

    int line() const { return line_; }

private:
    int line_;
};

/// Passes on the faults of a file, in the order of its lines. Throws FileError, with the first of them and
/// `nothing`, when they leave nothing of the file.
void pass_on(const Report& faults, bool anything_left, std::string_view nothing, Report& report);

/// "1 line", "2 lines".
std::string counted(std::size_t count, std::string_view noun);

/// The whole file. Throws FileError when it cannot be read.
std::string read_file(const std::string& path);

/// The lines without their ends (LF, CRLF or CR) and without a leading UTF-8 byte-order mark; an empty
/// last line is not a line. Throws FileError for UTF-16 text. `name` is for errors.
std::vector<std::string> split_lines(std::string_view text, std::string_view name);

/// The text without spaces and tabs at both ends.
std::string_view trim(std::string_view text);

/// The text with its ASCII capitals as small letters.
std::string lower_case(std::string_view text);

/// Decodes one line of UTF-8. Throws FileError, with the line, the column and the remedy, when it is not.
std::u32string decode_utf8(std::string_view text, std::string_view name, int line);

std::string encode_utf8(std::u32string_view text);

}  // namespace gsve::captions
