#include "packaging/manual/roff.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include <fmt/format.h>

#include "encoding/split.h"

namespace gsve::manual {
namespace {

using encoding::split;

constexpr size_t kVerbatimWidth = 68;  // of a terminal's 80, less the indents
constexpr std::string_view kCommand = "gsve ";
constexpr std::string_view kContinued = "    ";

std::string_view trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

/// Backslashes, and a point or an apostrophe that begins a line, mean something to roff.
std::string escaped(std::string_view text, bool minus) {
    std::string out;
    for (const char c : text) {
        if (out.empty() && (c == '.' || c == '\'')) out += "\\&";
        if (c == '\\')
            out += "\\e";
        else if (c == '-' && minus)
            out += "\\-";
        else if (c == '~')
            out += "\\(ti";
        else if (c == '^')
            out += "\\(ha";
        else
            out += c;
    }
    return out;
}

/// Code has no hyphens put into it at a line's end. Paths are parted after a slash.
std::string in_whole_words(std::string_view text) {
    if (text.find_first_of("-/_\"") == std::string_view::npos) return literal(text);
    std::string out = "\\%";
    for (const char c : literal(text)) {
        out += c;
        if (c == '/') out += "\\:";
        if (c == ' ') out += "\\%";
    }
    return out;
}

/// The cells of a table's row.
std::vector<std::string_view> cells(std::string_view row) {
    row = trimmed(row);
    row.remove_prefix(1);
    if (row.ends_with('|')) row.remove_suffix(1);
    std::vector<std::string_view> parts = split(row, '|');
    std::transform(parts.begin(), parts.end(), parts.begin(), trimmed);
    return parts;
}

/// Columns that say the same are named together: a page has no room for seven of them.
std::string table_entry(const std::vector<std::string_view>& columns,
                        const std::vector<std::string_view>& row) {
    struct Group {
        std::string columns;
        std::string_view cell;
    };
    std::vector<Group> groups;
    for (size_t i = 1; i < row.size(); i++) {
        if (row[i].empty()) continue;
        const std::string column = i < columns.size() ? prose(columns[i]) : "";
        const auto same = std::find_if(groups.begin(), groups.end(),
                                       [&](const Group& group) { return group.cell == row[i]; });
        if (same == groups.end())
            groups.push_back({column, row[i]});
        else
            same->columns += ", " + column;
    }
    std::string text;
    for (const Group& group : groups)
        text += fmt::format("{}{}{}{}", text.empty() ? "" : "; ", group.columns,
                            group.columns.empty() ? "" : ": ", prose(group.cell));
    return entry(prose(row[0]), text.empty() ? "\\&" : text);
}

// A link to a page of the repository: where its package has it. Links to the web keep their text alone.
std::string link(std::string_view text, std::string_view target) {
    constexpr std::string_view kDocs = "docs/";
    if (!target.starts_with(kDocs)) return literal(text);
    const std::string installed = fmt::format("/usr/share/doc/gsve/{}.gz", target.substr(kDocs.size()));
    if (text == target) return in_italics(installed);
    return fmt::format("{} ({})", literal(text), in_italics(installed));
}

/// A command line and its comment, which may follow it.
struct CommandLine {
    explicit CommandLine(std::string_view line) {
        const size_t at = std::min(line.find("  # "), line.size());
        command = trimmed(line.substr(0, at));
        comment = trimmed(line.substr(at));
    }

    std::string_view command;
    std::string_view comment;
};

/// A command line that fits an ordinary terminal: continued before an option.
std::string folded(std::string_view command) {
    std::string text;
    while (command.size() > kVerbatimWidth) {
        const size_t at = command.substr(0, kVerbatimWidth - 2).rfind(" -");
        if (at == std::string_view::npos || command.find_first_not_of(' ') > at) break;
        text += fmt::format("{} \\\n", command.substr(0, at));
        command.remove_prefix(at + 1);
        text += kContinued;
    }
    return text + std::string(command);
}

bool has_command_line_too_wide(const std::vector<std::string_view>& lines) {
    return std::any_of(lines.begin(), lines.end(), [](std::string_view line) {
        return line.starts_with(kCommand) && line.size() > kVerbatimWidth;
    });
}

/// Reads Markdown line by line and writes roff.
class Converter {
public:
    std::string convert(std::string_view markdown) {
        for (const std::string_view line : split(markdown, '\n')) take(line);
        end_block();
        return std::move(out_);
    }

private:
    enum class Block { kNone, kParagraph, kItem, kCode, kTable };

    void take(std::string_view line) {
        if (fenced_) {
            if (line.starts_with("```"))
                end_block(), fenced_ = false;
            else
                held_ += std::string(line) + "\n";
        } else if (line.starts_with("```")) {
            begin_block(Block::kCode);
            fenced_ = true;
        } else if (line.starts_with("<!--") || line.starts_with("![")) {
            end_block();
        } else if (trimmed(line).empty()) {
            if (block_ == Block::kCode)
                held_ += "\n";
            else
                end_block();
        } else if (line.starts_with("#")) {
            end_block();
            out_ += fmt::format(".SS {}\n", prose(trimmed(line.substr(line.find_first_not_of('#')))));
        } else if (line.starts_with("    ") && block_ != Block::kParagraph && block_ != Block::kItem) {
            if (block_ != Block::kCode) begin_block(Block::kCode);
            held_ += std::string(line.substr(4)) + "\n";
        } else if (line.starts_with("- ")) {
            begin_block(Block::kItem);
            held_ = line.substr(2);
        } else if (line.starts_with("|")) {
            take_row(line);
        } else {
            if (block_ != Block::kParagraph && block_ != Block::kItem) begin_block(Block::kParagraph);
            held_ += (held_.empty() ? "" : " ") + std::string(trimmed(line));
        }
    }

    void take_row(std::string_view line) {
        if (block_ != Block::kTable) {
            begin_block(Block::kTable);
            columns_ = cells(line);
        } else if (line.find_first_not_of("|-: ") != std::string_view::npos) {
            out_ += table_entry(columns_, cells(line));
        }
    }

    void begin_block(Block block) {
        end_block();
        block_ = block;
    }

    void end_block() {
        while (held_.ends_with("\n\n")) held_.pop_back();
        if (block_ == Block::kParagraph) out_ += ".PP\n" + prose(held_) + "\n";
        if (block_ == Block::kItem) out_ += ".IP \\(bu 2\n" + prose(held_) + "\n";
        if (block_ == Block::kCode) out_ += verbatim(held_);
        held_.clear();
        block_ = Block::kNone;
    }

    Block block_ = Block::kNone;
    bool fenced_ = false;
    std::string held_;
    std::vector<std::string_view> columns_;
    std::string out_;
};

}  // namespace

std::string literal(std::string_view text) { return escaped(text, true); }

std::string in_bold(std::string_view text) { return "\\fB" + in_whole_words(text) + "\\fR"; }
std::string in_italics(std::string_view text) { return "\\fI" + in_whole_words(text) + "\\fR"; }

std::string prose(std::string_view markdown) {
    std::string out;
    while (!markdown.empty()) {
        const size_t special = std::min(markdown.find_first_of("`*["), markdown.size());
        out += out.empty() ? escaped(markdown.substr(0, special), false)
                           : escaped("x" + std::string(markdown.substr(0, special)), false).substr(1);
        markdown.remove_prefix(special);
        if (markdown.empty()) break;
        const std::string_view mark = markdown.starts_with("**") ? "**" : markdown.substr(0, 1);
        const size_t end = markdown.find(mark == "[" ? "](" : mark, mark.size());
        const size_t target = mark == "[" ? markdown.find(')', std::min(end, markdown.size())) : end;
        if (mark == "*" || end == std::string_view::npos || target == std::string_view::npos) {
            out += mark;
            markdown.remove_prefix(mark.size());
            continue;
        }
        const std::string_view inner = markdown.substr(mark.size(), end - mark.size());
        out += mark == "[" ? link(inner, markdown.substr(end + 2, target - end - 2)) : in_bold(inner);
        markdown.remove_prefix(mark == "[" ? target + 1 : end + mark.size());
    }
    return out;
}

std::string body(std::string_view markdown) { return Converter().convert(markdown); }

std::string heading(std::string_view text) {
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return fmt::format(".SH {}\n", literal(upper));
}

std::string entry(std::string_view tag, std::string_view text) {
    return fmt::format(".TP\n{}\n{}\n", tag, text);
}

std::string verbatim(std::string_view lines) {
    std::string out = ".PP\n.RS 4\n.nf\n";
    if (lines.ends_with('\n')) lines.remove_suffix(1);
    const std::vector<std::string_view> all = split(lines, '\n');
    const bool fold = has_command_line_too_wide(all);
    for (const std::string_view line : all) {
        if (!fold || !line.starts_with(kCommand)) {
            out += literal(line) + "\n";
            continue;
        }
        const CommandLine parts(line);
        if (!parts.comment.empty()) out += literal(parts.comment) + "\n";
        const std::string command = folded(parts.command);
        for (const std::string_view part : split(command, '\n')) out += literal(part) + "\n";
    }
    return out + ".fi\n.RE\n";
}

}  // namespace gsve::manual
