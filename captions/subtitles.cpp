#include "subtitles.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

#include "character_references.h"
#include "line21.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

constexpr std::string_view kArrow = "-->";

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool is_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_digit);
}

std::optional<int> to_int(std::string_view text) {
    int value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
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

// What many writers of SubRip text escape as in HTML; WebVTT has all its references.
constexpr std::u32string_view kSubRipReferences[] = {U"&amp;", U"&lt;", U"&gt;", U"&nbsp;"};

// Turns the text lines of a cue into styled lines, and its markup into styles and placement.
class TextParser {
public:
    TextParser(Cue& cue, Markup markup) : cue_(cue), markup_(markup) {}

    // References of an unknown name in the lines so far, which are shown as they are written.
    const std::vector<std::u32string>& unknown_references() const { return unknown_references_; }

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
        if (const auto reference = reads_reference(text) ? reference_at(text) : std::nullopt) {
            if (reference->character == 0) {
                note_unknown(text.substr(0, reference->length));
            } else {
                character = reference->character;
                length = reference->length;
            }
        }
        const bool space = character == U'\t' || character == U'\n' || character == U'\r';
        line.push_back({space ? U' ' : character, italics_ > 0});
        text.remove_prefix(length);
    }

    void note_unknown(std::u32string_view reference) {
        auto& known = unknown_references_;
        if (std::find(known.begin(), known.end(), reference) == known.end()) known.emplace_back(reference);
    }

    bool reads_reference(std::u32string_view text) const {
        return markup_ == Markup::kWebVtt ||
               std::any_of(std::begin(kSubRipReferences), std::end(kSubRipReferences),
                           [&](std::u32string_view reference) { return text.starts_with(reference); });
    }

    Cue& cue_;
    Markup markup_;
    int italics_ = 0;
    std::vector<std::u32string> unknown_references_;
};

bool is_blank(std::string_view line) { return trim(line).empty(); }

// Whether the line is a time line, or was meant to be one: it has an arrow and a clock, right or wrong.
bool looks_like_times(std::string_view line) {
    if (line.find("->") == line.npos) return false;
    for (std::size_t at = line.find(':'); at != line.npos; at = line.find(':', at + 1))
        if (at > 0 && at + 1 < line.size() && is_digit(line[at - 1]) && is_digit(line[at + 1])) return true;
    return false;
}

// The lines of a file, with what each is by the ones around it. Lines count from 0.
class Lines {
public:
    Lines(const std::vector<std::string>& lines, Markup markup) : lines_(lines), markup_(markup) {}

    std::size_t count() const { return lines_.size(); }
    std::string_view text(std::size_t at) const { return trim(lines_[at]); }
    bool blank(std::size_t at) const { return at >= count() || is_blank(lines_[at]); }
    bool after_blank(std::size_t at) const { return at == 0 || blank(at - 1); }
    // Within a paragraph a damaged arrow is more likely to be text.
    bool times(std::size_t at) const {
        return at < count() && looks_like_times(lines_[at]) &&
               (lines_[at].find(kArrow) != std::string::npos || after_blank(at) || is_digits(text(at - 1)));
    }

    bool identifier(std::size_t at) const {
        const bool any_text = markup_ == Markup::kWebVtt && after_blank(at);
        return (is_digits(text(at)) || any_text) && times(at + 1);
    }

    // The first line of a block that is not a cue. It ends at the next empty line.
    bool other_block(std::size_t at) const {
        if (markup_ != Markup::kWebVtt || !after_blank(at)) return false;
        const std::string_view line = lines_[at];
        return line == "STYLE" || line == "REGION" || line == "NOTE" || line.starts_with("NOTE ") ||
               line.starts_with("NOTE\t");
    }

private:
    const std::vector<std::string>& lines_;
    Markup markup_;
};

// A cue by its lines, or text that belongs to none, which has no time line.
struct CueLines {
    std::optional<std::size_t> times;
    std::vector<std::size_t> text;
};

// An empty line does not end a cue, the beginning of the next one does: authors part paragraphs within a cue.
std::vector<CueLines> split_cues(const Lines& lines, std::size_t first) {
    std::vector<CueLines> cues;
    int newest_number = 0;
    bool in_cue = false;
    for (std::size_t at = first; at < lines.count(); ++at) {
        if (lines.blank(at)) continue;
        if (lines.other_block(at)) {
            while (!lines.blank(at + 1)) ++at;
            in_cue = false;
            continue;
        }
        const std::optional<int> number = to_int(lines.text(at));
        if (lines.times(at)) {
            cues.push_back({at, {}});
            in_cue = true;
        } else if (lines.identifier(at)) {
            newest_number = number.value_or(newest_number);
        } else if (!in_cue || (lines.after_blank(at) && newest_number > 0 && number == newest_number + 1)) {
            // Also a cue's number, as it is due, without its time line.
            newest_number = number.value_or(newest_number);
            cues.push_back({std::nullopt, {at}});
            in_cue = true;
        } else {
            cues.back().text.push_back(at);
        }
    }
    return cues;
}

std::string_view time_line_example(Markup markup) {
    return markup == Markup::kSubRip ? "00:00:01,000 --> 00:00:03,500" : "00:01.000 --> 00:03.500";
}

// Throws std::invalid_argument, with a text that says what to change.
void parse_time_line(Cue& cue, std::string_view text, Markup markup) {
    const std::size_t arrow = text.find(kArrow);
    if (arrow == text.npos)
        throw std::invalid_argument(fmt::format("expected a time line such as {}, found \"{}\"",
                                                time_line_example(markup), trim(text)));
    const std::string_view begin_text = trim(text.substr(0, arrow));
    std::string_view rest = trim(text.substr(arrow + kArrow.size()));
    const std::string_view end_text = rest.substr(0, rest.find_first_of(" \t"));
    rest.remove_prefix(end_text.size());

    const auto begin = parse_clock(begin_text), end = parse_clock(end_text);
    if (!begin || !end)
        throw std::invalid_argument(fmt::format(
            "\"{}\" is not a time: write hours, minutes, seconds and milliseconds such as 00:01:02.345",
            begin ? end_text : begin_text));
    if (*end <= *begin)
        throw std::invalid_argument(
            fmt::format("the cue ends at {}, which is not after its begin at {}: correct one of the times",
                        end_text, begin_text));
    cue.begin_ms = *begin;
    cue.end_ms = *end;
    while (!(rest = trim(rest)).empty()) {
        const std::string_view setting = rest.substr(0, rest.find_first_of(" \t"));
        apply_setting(cue, setting);
        rest.remove_prefix(setting.size());
    }
}

// The text of a cue on one line, or the beginning of it.
std::string quoted_text(const Cue& cue) {
    constexpr std::size_t kLongest = 80;
    std::u32string text;
    for (const StyledLine& line : cue.lines) {
        if (!text.empty()) text += U" / ";
        for (const StyledCharacter& c : line) text.push_back(c.character);
    }
    if (text.size() > kLongest) text = text.substr(0, kLongest) + U"...";
    return fmt::format("\"{}\"", encode_utf8(text));
}

// Reads cues, and keeps account of what cannot be read.
class CueReader {
public:
    CueReader(const Lines& lines, Markup markup, const std::string& name)
        : lines_(lines), markup_(markup), name_(name) {}

    void read(const CueLines& found) {
        Cue cue;
        const std::size_t head = found.times ? *found.times : found.text.front();
        cue.source_line = line_number(head);
        try {
            // Settings of the time line come first: SubRip's markup in the text overrides them.
            if (found.times) parse_time_line(cue, lines_.text(head), markup_);
        } catch (const std::invalid_argument& error) {
            return leave_out(cue, found, error.what());
        }
        if (!found.times) return leave_out_text(cue, found);
        for (const std::u32string& reference : read_text(cue, found))
            problems_.add(WarningKind::kUnknownReference, name_, cue.source_line,
                          fmt::format("\"{}\" is not a known character reference and is shown as it is "
                                      "written: write the character itself",
                                      encode_utf8(reference)));
        if (!cue.lines.empty()) cues_.push_back(std::move(cue));
    }

    // The cues; what was left out goes into the report. Throws FileError when nothing else is left.
    std::vector<Cue> take(Report& report) {
        pass_on(problems_, !cues_.empty(), "no cue of the file can be shown", report);
        return std::move(cues_);
    }

private:
    static int line_number(std::size_t at) { return static_cast<int>(at) + 1; }

    // Gives the unknown character references in it.
    std::vector<std::u32string> read_text(Cue& cue, const CueLines& found) const {
        TextParser parser(cue, markup_);
        for (const std::size_t at : found.text)
            parser.add_line(decode_utf8(lines_.text(at), name_, line_number(at)));
        return parser.unknown_references();
    }

    void leave_out(Cue& cue, const CueLines& found, std::string_view reason) {
        read_text(cue, found);
        problems_.add(WarningKind::kDroppedCue, name_, cue.source_line,
                      fmt::format("{}; the cue {} is left out", reason, quoted_text(cue)));
    }

    void leave_out_text(Cue& cue, CueLines found) {
        // A number may be that of a cue, whose time line is then missing in the line after it.
        if (found.text.size() > 1 && is_digits(lines_.text(found.text.front())))
            found.text.erase(found.text.begin());
        cue.source_line = line_number(found.text.front());
        read_text(cue, found);
        problems_.add(WarningKind::kDroppedCue, name_, cue.source_line,
                      fmt::format("expected a time line such as {}, found {}, which is left out",
                                  time_line_example(markup_), quoted_text(cue)));
    }

    const Lines& lines_;
    Markup markup_;
    const std::string& name_;
    std::vector<Cue> cues_;
    Report problems_;
};

std::vector<Cue> read_cues(const std::vector<std::string>& text_lines, std::size_t first, Markup markup,
                           const std::string& name, Report& report) {
    const Lines lines(text_lines, markup);
    CueReader reader(lines, markup, name);
    for (const CueLines& found : split_cues(lines, first)) reader.read(found);
    return reader.take(report);
}

}  // namespace

std::optional<std::int64_t> parse_clock(std::string_view text) {
    const std::size_t point = std::min(text.find_first_of(",."), text.size());
    const std::string_view fraction = point < text.size() ? text.substr(point + 1) : "000";
    if (fraction.size() != 3 || !is_digits(fraction)) return std::nullopt;
    const int milliseconds = *to_int(fraction);
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

std::vector<Cue> parse_srt(std::string_view text, const std::string& name, Report& report) {
    return read_cues(split_lines(text, name), 0, Markup::kSubRip, name, report);
}

std::vector<Cue> parse_webvtt(std::string_view text, const std::string& name, Report& report) {
    const std::vector<std::string> lines = split_lines(text, name);
    const bool is_webvtt = !lines.empty() && (lines[0] == "WEBVTT" || lines[0].starts_with("WEBVTT ") ||
                                              lines[0].starts_with("WEBVTT\t"));
    if (!is_webvtt) throw FileError(name, 1, "not a WebVTT file: the first line must begin with \"WEBVTT\"");
    std::size_t first = 1;
    while (first < lines.size() && !is_blank(lines[first]) && !looks_like_times(lines[first])) ++first;
    return read_cues(lines, first, Markup::kWebVtt, name, report);
}

std::vector<Cue> read_srt(const std::string& path, Report& report) {
    return parse_srt(read_file(path), path, report);
}

std::vector<Cue> read_webvtt(const std::string& path, Report& report) {
    return parse_webvtt(read_file(path), path, report);
}

std::string plain_text(const StyledLine& line) {
    std::u32string text;
    for (const StyledCharacter& c : line) text.push_back(c.character);
    return encode_utf8(text);
}

}  // namespace gsve::captions
