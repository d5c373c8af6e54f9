#include "scc.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <limits>
#include <stdexcept>

#include <fmt/format.h>

#include "repacer.h"
#include "text_file.h"
#include "timed_lines.h"

namespace gsve::captions {

namespace {

constexpr std::string_view kHeader = "Scenarist_SCC V1.0";
constexpr std::int64_t kLongestBridgedGap = 2;

// The separator before the frames of a time code tells how they are counted: ':' without drop-frame, ';' with
// it, and so do the '.' and ',' of some writers.
bool says_drop_frame(std::string_view timecode) {
    constexpr std::size_t kBeforeFrames = 8;
    return timecode[kBeforeFrames] != ':';
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
        std::vector<CodedLine> coded;
        for (auto line = head + 1; line != lines.end(); ++line)
            if (const std::string_view trimmed = trim(*line); !trimmed.empty())
                take_line(coded, trimmed, static_cast<int>(line - lines.begin()) + 1);
        choose_counting(coded);
        const std::int64_t day = frames_per_day(options_.rate, drop_frame_);
        for (const TimedLine& line : in_order(timed(coded), day, start_frame_, name_, report_))
            parse_line(line);
        pass_on(left_out_, pairs_ > 0, "nothing else is in the file", report_);
        report_totals();
        return std::move(schedule_);
    }

private:
    struct CodedLine {
        Timecode timecode;  // its parts: how they are counted is decided for all lines together
        bool says_drop_frame;
        std::string_view pairs;
        int number;
    };

    void take_line(std::vector<CodedLine>& lines, std::string_view text, int number) try {
        const std::string_view timecode = first_word(text);
        const std::string_view pairs = trim(text.substr(timecode.size()));
        const std::string colons = with_colons(timecode);
        const Timecode parts = parse_timecode(is_timecode(colons) ? colons : timecode, options_.rate);
        lines.push_back({parts, says_drop_frame(timecode), pairs, number});
    } catch (const std::invalid_argument& error) {
        leave_out(number, error.what(), "the line");
    }

    // One programme counts in one way, so that separators in the minority are slips of the pen. To follow
    // them would move their lines by up to 3.6 seconds per hour of time code.
    void choose_counting(const std::vector<CodedLine>& lines) {
        const std::size_t dropping = static_cast<std::size_t>(std::count_if(
            lines.begin(), lines.end(), [](const CodedLine& line) { return line.says_drop_frame; }));
        const std::size_t others = lines.size() - dropping;
        drop_frame_ =
            dropping > others || (dropping == others && dropping > 0 && lines.front().says_drop_frame);
        if (options_.start) start_frame_ = frame_counted(*options_.start, options_.rate, drop_frame_);
        if (dropping == 0 || others == 0) return;
        const auto slip = std::find_if(lines.begin(), lines.end(), [&](const CodedLine& line) {
            return line.says_drop_frame != drop_frame_;
        });
        report_.add(
            WarningKind::kTimeCodes, name_, slip->number,
            fmt::format("drop-frame time codes ({}) and non-drop ones ({}) are mixed, the first of the fewer "
                        "here: all are taken for {}",
                        counted(dropping, "line"), counted(others, "line"),
                        drop_frame_ ? "drop-frame" : "non-drop"));
    }

    std::vector<TimedLine> timed(const std::vector<CodedLine>& lines) {
        std::vector<TimedLine> result;
        result.reserve(lines.size());
        for (const CodedLine& line : lines)
            result.push_back(
                {frame_counted(counted_timecode(line), options_.rate, drop_frame_), line.pairs, line.number});
        return result;
    }

    Timecode counted_timecode(const CodedLine& line) {
        Timecode timecode = line.timecode;
        timecode.drop_frame = drop_frame_;
        const std::string written = format_timecode(timecode);
        while (!is_counted(timecode, options_.rate)) ++timecode.frames;
        if (const std::string taken = format_timecode(timecode); taken != written)
            report_.add(WarningKind::kTimeCodes, name_, line.number,
                        fmt::format("drop-frame counting leaves out time code {}: it is taken for {}",
                                    written, taken));
        return timecode;
    }

    void parse_line(const TimedLine& line) {
        if (line.frame < next_frame_)
            report_.add(WarningKind::kDelayedPairs, name_, line.number,
                        fmt::format("these byte pairs are sent {} late, after those of the line before",
                                    counted(static_cast<std::size_t>(next_frame_ - line.frame), "frame")));
        next_frame_ = std::max(line.frame, next_frame_);
        std::string_view pairs = line.data;
        while (!pairs.empty()) {
            const std::string_view pair = first_word(pairs);
            add_pair(pair, line.number);
            pairs = trim(pairs.substr(pair.size()));
        }
    }

    // What is left out keeps its frame, so that the others keep theirs.
    void add_pair(std::string_view text, int number) {
        Word word{};
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), word, 16);
        const std::int64_t frame = next_frame_++;
        if (text.size() != 4 || error != std::errc() || end != text.data() + text.size())
            return leave_out(
                number,
                fmt::format("\"{}\" is not a byte pair: write four hexadecimal digits such as 9420", text),
                "it");
        ++pairs_;
        if (is_null(word)) return;
        if (!has_parity(word) && wrong_parity_++ == 0) wrong_parity_line_ = number;
        if (frame < 0)
            ++before_start_;
        else
            schedule_.eia608.push_back({frame, static_cast<std::uint8_t>(options_.field), with_parity(word)});
    }

    void leave_out(int number, std::string_view why, std::string_view what) {
        left_out_.add(WarningKind::kFaultyLine, name_, number, fmt::format("{}; {} is left out", why, what));
    }

    void report_totals() {
        if (wrong_parity_ > 0)
            report_.add(WarningKind::kParity, name_, wrong_parity_line_,
                        fmt::format("wrong parity of {} (the first one here) is put right",
                                    counted(wrong_parity_, "byte pair")));
        if (before_start_ > 0)
            report_.add(WarningKind::kBeforeStart, name_, 0,
                        fmt::format("left out: {} before the start of the video",
                                    counted(before_start_, "byte pair")));
    }

    const std::string& name_;
    const SccReadOptions& options_;
    Report& report_;
    Report left_out_;
    Schedule schedule_;
    std::optional<std::int64_t> start_frame_;
    std::int64_t next_frame_ = std::numeric_limits<std::int64_t>::min();
    bool drop_frame_ = false;
    std::size_t pairs_ = 0;
    std::size_t wrong_parity_ = 0;
    int wrong_parity_line_{};
    std::size_t before_start_ = 0;
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
    Word before{};
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
