#include "scc.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <limits>
#include <stdexcept>

#include <fmt/format.h>

#include "repacer.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

constexpr std::string_view kHeader = "Scenarist_SCC V1.0";
constexpr std::int64_t kLongestBridgedGap = 2;

// The separator before the frames tells how they are counted: ':' without drop-frame, ';' with it, and so do
// the '.' and ',' of some writers.
bool says_drop_frame(std::string_view timecode) {
    constexpr std::size_t kBeforeFrames = 8;
    return timecode.size() > kBeforeFrames && timecode[kBeforeFrames] != ':';
}

std::string with_colons(std::string_view timecode) {
    std::string text(timecode);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == ';' || c == '.' || c == ','; }, ':');
    return text;
}

std::string_view first_word(std::string_view line) { return line.substr(0, line.find_first_of(" \t")); }

class SccParser {
public:
    SccParser(const std::string& name, const SccReadOptions& options, Report& report)
        : name_(name), options_(options), report_(report), schedule_{options.rate, {}, {}} {}

    Schedule parse(std::string_view text) {
        const std::vector<std::string> lines = split_lines(text, name_);
        const auto head = std::find_if(lines.begin(), lines.end(),
                                       [](const std::string& line) { return !trim(line).empty(); });
        if (head == lines.end() || !lower_case(trim(*head)).starts_with("scenarist_scc"))
            throw FileError(name_, 1, fmt::format("not an SCC file: the first line must be \"{}\"", kHeader));
        std::vector<Line> coded;
        for (auto line = head + 1; line != lines.end(); ++line)
            if (const std::string_view trimmed = trim(*line); !trimmed.empty())
                coded.push_back({trimmed, static_cast<int>(line - lines.begin()) + 1});
        choose_counting(coded);
        for (const Line& line : coded) parse_line(line.text, line.number);
        report_totals();
        return std::move(schedule_);
    }

private:
    struct Line {
        std::string_view text;
        int number;
    };

    // One programme counts in one way, so that separators in the minority are slips of the pen. To follow
    // them would move their lines by up to 3.6 seconds per hour of time code.
    void choose_counting(const std::vector<Line>& lines) {
        const auto drop_frame = [](const Line& line) { return says_drop_frame(first_word(line.text)); };
        const auto dropping = std::count_if(lines.begin(), lines.end(), drop_frame);
        const auto others = static_cast<std::ptrdiff_t>(lines.size()) - dropping;
        drop_frame_ = dropping > others || (dropping == others && dropping > 0 && drop_frame(lines.front()));
        if (options_.start) start_frame_ = frame_counted(*options_.start, options_.rate, drop_frame_);
        if (dropping == 0 || others == 0) return;
        const auto slip = std::find_if(lines.begin(), lines.end(),
                                       [&](const Line& line) { return drop_frame(line) != drop_frame_; });
        report_.add(
            WarningKind::kTimeCodes, name_, slip->number,
            fmt::format("drop-frame time codes ({} lines) and non-drop ones ({} lines) are mixed, the "
                        "first of the fewer here: all are taken for {}",
                        dropping, others, drop_frame_ ? "drop-frame" : "non-drop"));
    }

    void parse_line(std::string_view line, int number) {
        const std::size_t end = line.find_first_of(" \t");
        const Timecode timecode = line_timecode(line.substr(0, end), number);
        const std::int64_t frame = timecode_to_frame(timecode, options_.rate) - start_frame_;
        if (frame < newest_line_)
            throw FileError(
                name_, number,
                fmt::format("time code {} is earlier than that of the line before: put the lines in order",
                            format_timecode(timecode)));
        newest_line_ = frame;
        if (frame < next_frame_)
            report_.add(
                WarningKind::kDelayedPairs, name_, number,
                fmt::format("these byte pairs are sent {} frames late, after those of the line before",
                            next_frame_ - frame));
        next_frame_ = std::max(frame, next_frame_);
        if (end == line.npos) return;
        std::string_view pairs = trim(line.substr(end));
        while (!pairs.empty()) {
            const std::size_t length = std::min(pairs.find_first_of(" \t"), pairs.size());
            add_pair(pairs.substr(0, length), number);
            pairs = trim(pairs.substr(length));
        }
    }

    Timecode line_timecode(std::string_view text, int number) const try {
        Timecode timecode = parse_timecode(with_colons(text), options_.rate);
        timecode.drop_frame = drop_frame_;
        const std::string written = format_timecode(timecode);
        while (!is_counted(timecode, options_.rate)) ++timecode.frames;
        if (const std::string taken = format_timecode(timecode); taken != written)
            report_.add(WarningKind::kTimeCodes, name_, number,
                        fmt::format("drop-frame counting leaves out time code {}: it is taken for {}",
                                    written, taken));
        return parse_timecode(format_timecode(timecode), options_.rate);  // drop-frame is not for every rate
    } catch (const std::invalid_argument& error) {
        throw FileError(name_, number, error.what());
    }

    void add_pair(std::string_view text, int number) {
        Word word = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), word, 16);
        if (text.size() != 4 || error != std::errc() || end != text.data() + text.size())
            throw FileError(
                name_, number,
                fmt::format("\"{}\" is not a byte pair: write four hexadecimal digits such as 9420", text));
        const std::int64_t frame = next_frame_++;
        if (is_null(word)) return;
        if (!has_parity(word) && wrong_parity_++ == 0) wrong_parity_line_ = number;
        if (frame < 0)
            ++before_start_;
        else
            schedule_.eia608.push_back({frame, static_cast<std::uint8_t>(options_.field), with_parity(word)});
    }

    void report_totals() {
        if (wrong_parity_ > 0)
            report_.add(WarningKind::kParity, name_, wrong_parity_line_,
                        fmt::format("{} byte pairs (the first one here) have wrong parity; it is put right",
                                    wrong_parity_));
        if (before_start_ > 0)
            report_.add(WarningKind::kBeforeStart, name_, 0,
                        fmt::format("{} byte pairs lie before the start of the video and are left out",
                                    before_start_));
    }

    const std::string& name_;
    const SccReadOptions& options_;
    Report& report_;
    Schedule schedule_;
    std::int64_t start_frame_ = 0;
    std::int64_t newest_line_ = std::numeric_limits<std::int64_t>::min();
    std::int64_t next_frame_ = std::numeric_limits<std::int64_t>::min();
    bool drop_frame_ = false;
    int wrong_parity_ = 0;
    int wrong_parity_line_ = 0;
    int before_start_ = 0;
};

// Whether the pair opens a line of its own even without a gap, so that each line shows or erases one caption
// at most: the first pair after one that did, an erasure, a roll-up command.
bool opens_line(Word before, Word word) {
    const auto is_one_of = [](Word pair, std::initializer_list<Command> commands) {
        const std::optional<Command> command = command_of(pair);
        return command && std::find(commands.begin(), commands.end(), *command) != commands.end();
    };
    if (word == before) return false;
    return is_one_of(before, {kEndOfCaption, kEraseDisplayedMemory}) ||
           is_one_of(word, {kEraseDisplayedMemory, kRollUp2, kRollUp3, kRollUp4});
}

}  // namespace

Schedule parse_scc(std::string_view text, const std::string& name, const SccReadOptions& options,
                   Report& report) {
    if (picture_budget(options.rate).alternating_fields)
        throw std::invalid_argument("SCC time codes count at most 39 frames per second");
    return SccParser(name, options, report).parse(text);
}

Schedule read_scc(const std::string& path, const SccReadOptions& options, Report& report) {
    return parse_scc(read_file(path), path, options, report);
}

std::string write_scc(const Schedule& schedule, int field, const SccWriteOptions& options) {
    Schedule one_field{schedule.rate, {}, {}};
    for (const Eia608Event& event : schedule.eia608)
        if (event.field == field) one_field.eia608.push_back(event);
    Report unused;  // a lower source rate fits into 29.97, and twice the rate holds as many pairs
    const Schedule timed = retime(one_field, kRate29_97, unused);

    const std::int64_t start = options.start ? timecode_to_frame(*options.start, kRate29_97) : 0;
    std::string text = fmt::format("{}\n", kHeader);
    std::optional<std::int64_t> next_frame;
    Word before = 0;
    for (const Eia608Event& event : timed.eia608) {
        const bool same_line =
            next_frame && event.frame - *next_frame <= kLongestBridgedGap && !opens_line(before, event.word);
        if (same_line) {
            for (; *next_frame < event.frame; ++*next_frame) text += fmt::format(" {:04x}", kNullPair);
            text += fmt::format(" {:04x}", event.word);
        } else {
            const Timecode timecode = frame_to_timecode(start + event.frame, kRate29_97, options.drop_frame);
            text +=
                fmt::format("{}\n{}\t{:04x}", next_frame ? "\n" : "", format_timecode(timecode), event.word);
        }
        next_frame = event.frame + 1;
        before = event.word;
    }
    return next_frame ? text + "\n" : text;
}

}  // namespace gsve::captions
