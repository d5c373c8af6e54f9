#include "text_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>

namespace gsve::captions {

namespace {

std::string located(std::string_view file, int line, std::string_view text) {
    return line < 1 ? fmt::format("{}: {}", file, text) : fmt::format("{}:{}: {}", file, line, text);
}

// Length of the UTF-8 sequence at the front, with its value; 0 when it is not valid (overlong forms,
// surrogates and values above U+10FFFF included).
std::size_t next_code_point(std::string_view text, char32_t& value) {
    struct Form {
        std::uint8_t mask, lead;
        std::size_t length;
        char32_t lowest;
    };
    constexpr Form kForms[] = {
        {0x80, 0x00, 1, 0}, {0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};
    const auto lead = static_cast<std::uint8_t>(text.front());
    for (const Form& form : kForms) {
        if ((lead & form.mask) != form.lead) continue;
        if (text.size() < form.length) return 0;
        value = lead & static_cast<std::uint8_t>(~form.mask);
        for (std::size_t i = 1; i < form.length; ++i) {
            const auto byte = static_cast<std::uint8_t>(text[i]);
            if ((byte & 0xC0) != 0x80) return 0;
            value = value << 6 | (byte & 0x3F);
        }
        const bool surrogate = value >= 0xD800 && value < 0xE000;
        return value < form.lowest || value > 0x10FFFF || surrogate ? 0 : form.length;
    }
    return 0;
}

}  // namespace

FileError::FileError(std::string_view file, int line, std::string_view text)
    : std::runtime_error(located(file, line, text)), line_(line) {}

void pass_on(const Report& faults, bool anything_left, std::string_view nothing, Report& report) {
    std::vector<Warning> warnings = faults.warnings();
    std::stable_sort(warnings.begin(), warnings.end(),
                     [](const Warning& a, const Warning& b) { return a.line < b.line; });
    if (!anything_left && !warnings.empty())
        throw FileError(warnings[0].file, warnings[0].line,
                        fmt::format("{} ({})", warnings[0].text, nothing));
    for (const Warning& warning : warnings)
        report.add(warning.kind, warning.file, warning.line, warning.text);
}

std::string counted(std::size_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string read_file(const std::string& path) {
    if (std::filesystem::is_directory(path)) throw FileError(path, 0, "cannot be read: it is a directory");
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    // A stream turns an error of reading into its state, its buffer alone would throw.
    std::string text;
    char block[4096];
    while (stream.read(block, sizeof block) || stream.gcount() > 0)
        text.append(block, static_cast<std::size_t>(stream.gcount()));
    if (!stream.is_open() || stream.bad())
        throw FileError(path, 0, fmt::format("cannot be read: {}", std::strerror(errno)));
    return text;
}

std::vector<std::string> split_lines(std::string_view text, std::string_view name) {
    if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF"))
        throw FileError(name, 1,
                        "the file is UTF-16 text: convert it, for example with iconv -f UTF-16 -t UTF-8");
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = text.find_first_of("\r\n");
        lines.emplace_back(text.substr(0, end));
        if (end == text.npos) break;
        text.remove_prefix(end + (text.substr(end, 2) == "\r\n" ? 2 : 1));
    }
    return lines;
}

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string lower_case(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return lower;
}

std::u32string decode_utf8(std::string_view text, std::string_view name, int line) {
    std::u32string decoded;
    while (!text.empty()) {
        char32_t value{};
        const std::size_t length = next_code_point(text, value);
        if (length == 0)
            throw FileError(name, line,
                            fmt::format("the text is not UTF-8 (byte 0x{:02X} after {} characters): convert "
                                        "the file, for example with "
                                        "iconv -f WINDOWS-1252 -t UTF-8",
                                        static_cast<std::uint8_t>(text.front()), decoded.size()));
        decoded.push_back(value);
        text.remove_prefix(length);
    }
    return decoded;
}

std::string encode_utf8(std::u32string_view text) {
    std::string encoded;
    const auto put = [&](char32_t byte) { encoded.push_back(static_cast<char>(byte)); };
    const auto put_tail = [&](char32_t c, int shift) { put(0x80 | (c >> shift & 0x3F)); };
    for (const char32_t c : text) {
        if (c < 0x80) {
            put(c);
        } else if (c < 0x800) {
            put(0xC0 | c >> 6), put_tail(c, 0);
        } else if (c < 0x10000) {
            put(0xE0 | c >> 12), put_tail(c, 6), put_tail(c, 0);
        } else {
            put(0xF0 | c >> 18), put_tail(c, 12), put_tail(c, 6), put_tail(c, 0);
        }
    }
    return encoded;
}

}  // namespace gsve::captions
