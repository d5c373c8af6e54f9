#include "subtitles.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <span>

#include <fmt/format.h>

#include "line21.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

constexpr std::string_view kArrow = "-->";

bool is_digits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<int> to_int(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// "[HH:]MM:SS,mmm" or with a point, in milliseconds.
std::optional<std::int64_t> parse_clock(std::string_view text) {
    const std::size_t point = text.find_first_of(",.");
    if (point == text.npos || text.size() - point != 4 || !is_digits(text.substr(point + 1)))
        return std::nullopt;
    const int milliseconds = *to_int(text.substr(point + 1));
    std::int64_t seconds = 0;
    int parts = 0;
    for (std::string_view rest = text.substr(0, point); parts < 4; ++parts) {
        const std::size_t colon = rest.find(':');
        const std::string_view part = rest.substr(0, colon);
        if (!is_digits(part) || part.size() > 4 || (parts > 0 && (part.size() != 2 || part[0] > '5')))
            return std::nullopt;
        seconds = seconds * 60 + *to_int(part);
        if (colon == rest.npos) break;
        rest.remove_prefix(colon + 1);
    }
    if (parts != 1 && parts != 2) return std::nullopt;
    return seconds * 1000 + milliseconds;
}

int clamp_row(int row) { return std::clamp(row, 1, kRows); }

// One WebVTT cue setting, "name:value".
void apply_setting(Cue& cue, std::string_view setting) {
    const std::size_t colon = setting.find(':');
    if (colon == setting.npos) return;
    const std::string_view name = setting.substr(0, colon);
    const std::string_view value = setting.substr(colon + 1);
    if (name == "align") {
        if (value == "start" || value == "left")
            cue.alignment = Alignment::kLeft;
        else if (value == "end" || value == "right")
            cue.alignment = Alignment::kRight;
    } else if (name == "line") {
        const std::string_view number = value.substr(0, value.find(','));
        if (number.ends_with('%')) {
            const std::string_view whole = number.substr(0, number.find_first_of(".%"));
            if (const auto percent = to_int(whole))
                cue.first_row =
                    clamp_row(1 + static_cast<int>(std::lround(*percent * ((kRows - 1) / 100.0))));
        } else if (const auto line = to_int(number)) {
            cue.first_row =
                clamp_row(*line >= 0 ? std::min(*line, kRows) + 1 : kRows + 1 + std::max(*line, -kRows));
        }
    }
}

// SubRip's "{\an1}" to "{\an9}", placed as on the keys of a number pad.
void apply_number_pad(Cue& cue, int key) {
    constexpr Alignment kByColumn[] = {Alignment::kLeft, Alignment::kCenter, Alignment::kRight};
    constexpr std::optional<int> kByRow[] = {std::nullopt, 8, 1};
    cue.alignment = kByColumn[(key - 1) % 3];
    cue.first_row = kByRow[(key - 1) / 3];
}

enum class Markup { kSubRip, kWebVtt };

struct Entity {
    std::u32string_view name;
    char32_t character;
};
constexpr Entity kEntities[] = {{U"amp", U'&'},       {U"lt", U'<'},       {U"gt", U'>'},
                                {U"nbsp", U'\u00A0'}, {U"lrm", U'\u200E'}, {U"rlm", U'\u200F'},
                                {U"quot", U'"'},      {U"apos", U'\''}};

// Turns the text lines of a cue into styled lines, and its markup into styles and placement.
class TextParser {
public:
    TextParser(Cue& cue, Markup markup) : cue_(cue), markup_(markup) {}

    void add_line(std::u32string_view text) {
        StyledLine line;
        while (!text.empty()) {
            const std::size_t taken = text[0] == U'<'   ? take_tag(text)
                                      : text[0] == U'{' ? take_override(text)
                                                        : 0;
            if (taken > 0)
                text.remove_prefix(taken);
            else
                take_character(text, line);
        }
        const bool visible = std::any_of(line.begin(), line.end(),
                                         [](const StyledCharacter& c) { return c.character != U' '; });
        if (visible) cue_.lines.push_back(std::move(line));
    }

private:
    // Each take_ function returns the length of the markup at the front, 0 when it is plain text.
    std::size_t take_tag(std::u32string_view text) {
        const std::size_t end = text.find(U'>');
        if (end == text.npos) return 0;
        std::u32string_view name = text.substr(1, end - 1);
        const bool closing = name.starts_with(U'/');
        if (closing) name.remove_prefix(1);
        name = name.substr(0, name.find_first_of(U" .\t"));
        constexpr std::u32string_view kSubRipTags[] = {U"i",    U"b", U"u", U"s", U"em", U"strong",
                                                       U"font", U"I", U"B", U"U", U"S",  U"FONT"};
        if (markup_ == Markup::kSubRip &&
            std::find(std::begin(kSubRipTags), std::end(kSubRipTags), name) == std::end(kSubRipTags))
            return 0;
        if (name == U"i" || name == U"I" || name == U"em")
            italics_ = std::max(0, italics_ + (closing ? -1 : 1));
        return end + 1;
    }

    std::size_t take_override(std::u32string_view text) {
        const std::size_t end = text.find(U'}');
        if (markup_ != Markup::kSubRip || end == text.npos || !text.starts_with(U"{\\")) return 0;
        const std::u32string_view body = text.substr(1, end - 1);
        if (const auto at = body.find(U"\\an"); at != body.npos && at + 3 < body.size())
            if (const char32_t key = body[at + 3]; key >= U'1' && key <= U'9')
                apply_number_pad(cue_, static_cast<int>(key - U'0'));
        if (body.find(U"\\i1") != body.npos) italics_ = 1;
        if (body.find(U"\\i0") != body.npos) italics_ = 0;
        return end + 1;
    }

    void take_character(std::u32string_view& text, StyledLine& line) {
        char32_t character = text[0];
        std::size_t length = 1;
        if (markup_ == Markup::kWebVtt && character == U'&')
            for (const Entity& entity : kEntities)
                if (text.substr(1).starts_with(entity.name) &&
                    text.substr(1 + entity.name.size()).starts_with(U';')) {
                    character = entity.character;
                    length = entity.name.size() + 2;
                    break;
                }
        line.push_back({character == U'\t' ? U' ' : character, italics_ > 0});
        text.remove_prefix(length);
    }

    Cue& cue_;
    Markup markup_;
    int italics_ = 0;
};

// The lines of a file, block by block; a block is a run of lines that are not empty.
class Blocks {
public:
    Blocks(const std::vector<std::string>& lines, std::size_t first) : lines_(lines), at_(first) {}

    std::span<const std::string> next() {
        while (at_ < lines_.size() && trim(lines_[at_]).empty()) ++at_;
        first_ = at_;
        while (at_ < lines_.size() && !trim(lines_[at_]).empty()) ++at_;
        return std::span(lines_).subspan(first_, at_ - first_);
    }

    int line_number(std::size_t line_of_block) const { return static_cast<int>(first_ + line_of_block) + 1; }

private:
    const std::vector<std::string>& lines_;
    std::size_t at_;
    std::size_t first_ = 0;
};

void parse_time_line(Cue& cue, std::string_view text, const std::string& name, int number) {
    const std::size_t arrow = text.find(kArrow);
    const std::string_view begin_text = trim(text.substr(0, arrow));
    std::string_view rest = trim(text.substr(arrow + kArrow.size()));
    const std::string_view end_text = rest.substr(0, rest.find_first_of(" \t"));
    rest.remove_prefix(end_text.size());

    const auto begin = parse_clock(begin_text), end = parse_clock(end_text);
    if (!begin || !end)
        throw FileError(
            name, number,
            fmt::format(
                "\"{}\" is not a time: write hours, minutes, seconds and milliseconds such as 00:01:02.345",
                begin ? end_text : begin_text));
    if (*end <= *begin)
        throw FileError(
            name, number,
            fmt::format("the cue ends at {}, which is not after its begin at {}: correct one of the times",
                        end_text, begin_text));
    cue.begin_ms = *begin;
    cue.end_ms = *end;
    cue.source_line = number;
    while (!(rest = trim(rest)).empty()) {
        const std::string_view setting = rest.substr(0, rest.find_first_of(" \t"));
        apply_setting(cue, setting);
        rest.remove_prefix(setting.size());
    }
}

// A block whose first or second line is a time line.
void add_cue(std::vector<Cue>& cues, std::span<const std::string> block, const Blocks& blocks, Markup markup,
             const std::string& name) {
    const bool has_identifier = block[0].find(kArrow) == std::string::npos;
    const std::size_t time_line = has_identifier ? 1 : 0;
    Cue cue;
    parse_time_line(cue, block[time_line], name, blocks.line_number(time_line));
    TextParser text(cue, markup);
    for (std::size_t i = time_line + 1; i < block.size(); ++i)
        text.add_line(decode_utf8(trim(block[i]), name, blocks.line_number(i)));
    if (!cue.lines.empty()) cues.push_back(std::move(cue));
}

bool has_time_line(std::span<const std::string> block) {
    return block[0].find(kArrow) != std::string::npos ||
           (block.size() > 1 && block[1].find(kArrow) != std::string::npos);
}

}  // namespace

std::vector<Cue> parse_srt(std::string_view text, const std::string& name) {
    const std::vector<std::string> lines = split_lines(text, name);
    std::vector<Cue> cues;
    Blocks blocks(lines, 0);
    for (auto block = blocks.next(); !block.empty(); block = blocks.next()) {
        if (!has_time_line(block)) {
            const std::size_t line = block.size() > 1 && is_digits(trim(block[0])) ? 1 : 0;
            throw FileError(name, blocks.line_number(line),
                            fmt::format("expected a time line such as 00:00:01,000 --> 00:00:03,500, found "
                                        "\"{}\" (an empty line ends a "
                                        "cue)",
                                        trim(block[line])));
        }
        add_cue(cues, block, blocks, Markup::kSubRip, name);
    }
    return cues;
}

std::vector<Cue> parse_webvtt(std::string_view text, const std::string& name) {
    const std::vector<std::string> lines = split_lines(text, name);
    const bool is_webvtt = !lines.empty() && (lines[0] == "WEBVTT" || lines[0].starts_with("WEBVTT ") ||
                                              lines[0].starts_with("WEBVTT\t"));
    if (!is_webvtt) throw FileError(name, 1, "not a WebVTT file: the first line must begin with \"WEBVTT\"");
    std::vector<Cue> cues;
    Blocks blocks(lines, 0);
    blocks.next();  // the header
    for (auto block = blocks.next(); !block.empty(); block = blocks.next()) {
        const bool other = block[0] == "STYLE" || block[0] == "REGION" || block[0] == "NOTE" ||
                           block[0].starts_with("NOTE ") || block[0].starts_with("NOTE\t");
        if (other) continue;
        if (!has_time_line(block))
            throw FileError(name, blocks.line_number(0),
                            fmt::format("expected a time line such as 00:01.000 --> 00:03.500, found \"{}\" "
                                        "(an empty line ends a cue)",
                                        trim(block[0])));
        add_cue(cues, block, blocks, Markup::kWebVtt, name);
    }
    return cues;
}

std::vector<Cue> read_srt(const std::string& path) { return parse_srt(read_file(path), path); }

std::vector<Cue> read_webvtt(const std::string& path) { return parse_webvtt(read_file(path), path); }

std::string plain_text(const StyledLine& line) {
    std::u32string text;
    for (const StyledCharacter& c : line) text.push_back(c.character);
    return encode_utf8(text);
}

}  // namespace gsve::captions
