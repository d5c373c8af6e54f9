#include "pop_on.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <tuple>

#include <fmt/format.h>

#include "line21.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

constexpr double kShortestLateDisplay = 0.5;  // seconds
constexpr double kShortestPartDisplay = 1;    // of a cue shown in parts, where the next one leaves the time
constexpr int kRepeated = 2;                  // slots of a control pair

std::string quoted(char32_t character) {
    return fmt::format("\"{}\" (U+{:04X})", encode_utf8(std::u32string(1, character)),
                       static_cast<unsigned>(character));
}

// Text of a line in characters that line 21 has, with the style of each.
class Transcriber {
public:
    Transcriber(const Cue& cue, const std::string& name, Report& report)
        : cue_(cue), name_(name), report_(report) {}

    StyledLine transcribe(const StyledLine& line) {
        StyledLine result;
        for (std::size_t i = 0; i < line.size(); ++i) {
            char32_t character = line[i].character;
            if (i + 1 < line.size())
                if (const char32_t composed = compose(character, line[i + 1].character)) {
                    character = composed;
                    ++i;
                }
            put(result, character, line[i].italic);
        }
        return result;
    }

private:
    void put(StyledLine& result, char32_t character, bool italic) {
        if (glyph_for(character)) {
            result.push_back({character, italic});
            return;
        }
        const std::u32string_view text = substitute_for(character);
        for (const char32_t c : text) result.push_back({c, italic});
        const bool unseen = text == U" " || (text.empty() && !is_combining_mark(character));
        if (!unseen && reported_.find(character) == reported_.npos) {
            reported_.push_back(character);
            report_.add(WarningKind::kReplacedCharacter, name_, cue_.source_line,
                        fmt::format("{} is not in the EIA-608 character sets, {} is shown", quoted(character),
                                    text.empty() ? "nothing" : fmt::format("\"{}\"", encode_utf8(text))));
        }
    }

    const Cue& cue_;
    const std::string& name_;
    Report& report_;
    std::u32string reported_;
};

using Words = std::vector<CaptionWord>;

std::size_t width_of(const Words& words) {
    return std::accumulate(
        words.begin(), words.end(), words.empty() ? 0 : words.size() - 1,
        [](std::size_t width, const CaptionWord& word) { return width + word.text.size(); });
}

Words split_words(const StyledLine& line) {
    Words words;
    std::size_t italics{};
    bool inside = false;
    for (const StyledCharacter& c : line) {
        const bool space = c.character == U' ';
        if (!space && !inside) {
            words.push_back({});
            italics = 0;
        }
        inside = !space;
        if (space) continue;
        CaptionWord& word = words.back();
        word.text.push_back(c.character);
        italics += c.italic;
        word.italic = 2 * italics > word.text.size();
    }
    return words;
}

// Words longer than a row, cut to rows.
Words cut_long_words(const Words& words, const Cue& cue, const std::string& name, Report& report) {
    Words cut;
    for (const CaptionWord& word : words) {
        if (word.text.size() > kColumns)
            report.add(WarningKind::kBrokenWord, name, cue.source_line,
                       fmt::format("\"{}\" is longer than a row of {} columns and is broken",
                                   encode_utf8(word.text), kColumns));
        for (std::size_t at = 0; at < word.text.size(); at += kColumns)
            cut.push_back({word.text.substr(at, kColumns), word.italic});
    }
    return cut;
}

std::vector<Words> wrap(const Words& words) {
    std::vector<Words> rows;
    for (const CaptionWord& word : words) {
        if (rows.empty() || width_of(rows.back()) + 1 + word.text.size() > kColumns) rows.emplace_back();
        rows.back().push_back(word);
    }
    return rows;
}

Words joined(const std::vector<Words>& lines) {
    Words all;
    for (const Words& line : lines) all.insert(all.end(), line.begin(), line.end());
    return all;
}

bool fit(const std::vector<Words>& lines) {
    return std::all_of(lines.begin(), lines.end(),
                       [](const Words& line) { return width_of(line) <= kColumns; });
}

// Whether the cue's own lines are given up: when they are too long, and when their words need fewer rows.
bool is_rewrapped(const std::vector<Words>& lines, int rows) {
    if (!fit(lines)) return true;
    const auto most = static_cast<std::size_t>(rows);
    return lines.size() > most && wrap(joined(lines)).size() <= most;
}

int column_of(Alignment alignment, std::size_t width) {
    const int spare = kColumns - static_cast<int>(width);
    switch (alignment) {
        case Alignment::kLeft: return 0;
        case Alignment::kRight: return spare;
        default: return spare / 2;
    }
}

// The rows of each caption: own lines, or words to be wrapped. As few captions as can be, and of lengths as
// equal as those allow, so that a cue does not end in a caption of one word.
std::vector<std::vector<Words>> balanced(const std::vector<Words>& lines, bool wrapped, int rows) {
    std::vector<Words> pieces;
    for (const Words& line : lines)
        if (wrapped)
            for (const CaptionWord& word : line) pieces.push_back({word});
        else
            pieces.push_back(line);

    // From the last piece to the first: the best captions for all from there on.
    struct Best {
        std::size_t captions = 0;
        std::size_t squares{};  // of the captions' lengths, least when they are equal
        std::size_t end{};      // of the first caption
    };
    std::vector<Best> best(pieces.size() + 1);
    for (std::size_t begin = pieces.size(); begin-- > 0;) {
        std::size_t width{}, length = 0;
        int used = 0;
        for (std::size_t end = begin; end < pieces.size(); ++end) {
            const std::size_t more = width_of(pieces[end]);
            const bool same_row = wrapped && used > 0 && width + 1 + more <= kColumns;
            width = same_row ? width + 1 + more : more;
            used += same_row ? 0 : 1;
            length += more;
            if (used > rows) break;
            const Best& rest = best[end + 1];
            const Best found{rest.captions + 1, rest.squares + length * length, end + 1};
            if (best[begin].captions == 0 || std::tie(found.captions, found.squares) <=
                                                 std::tie(best[begin].captions, best[begin].squares))
                best[begin] = found;
        }
    }

    std::vector<std::vector<Words>> captions;
    for (std::size_t at = 0; at < pieces.size(); at = best[at].end) {
        std::vector<Words> caption(pieces.begin() + static_cast<std::ptrdiff_t>(at),
                                   pieces.begin() + static_cast<std::ptrdiff_t>(best[at].end));
        captions.push_back(wrapped ? wrap(joined(caption)) : caption);
    }
    return captions;
}

// One of the captions that a cue is shown as.
struct Caption {
    std::vector<CaptionRow> rows;
    std::int64_t begin;     // frames
    std::int64_t end;       // of the cue
    std::int64_t duration;  // its part of the cue's time
    bool continues;         // takes the place of the part before
    int source_line;
};

std::size_t character_count(const std::vector<CaptionRow>& rows) {
    std::size_t count = 0;
    for (const CaptionRow& row : rows) count += width_of(row.words);
    return count;
}

std::string text_of(const std::vector<CaptionRow>& rows) {
    std::u32string text;
    for (const CaptionRow& row : rows) {
        if (!text.empty()) text += U" /";
        for (const CaptionWord& word : row.words) {
            if (!text.empty()) text += U' ';
            text += word.text;
        }
    }
    return encode_utf8(text);
}

// The byte pairs of one caption's load, as units that stay together: a pair of characters, or a control
// pair with its repetition.
class LoadBuilder {
public:
    explicit LoadBuilder(int field) : field_(field) {
        control(command_word(kResumeCaptionLoading, field));
        control(command_word(kEraseNonDisplayedMemory, field));
    }

    void row(const CaptionRow& row) {
        const bool italic = row.words.front().italic;
        if (italic && row.column == 0) {
            control(italics_pac(row.row));
        } else {
            // The mid-row code takes the column before the text.
            address(row.row, italic ? row.column - 1 : row.column);
            if (italic) control(kMidRowItalics);
        }
        bool style = italic;
        for (const CaptionWord& word : row.words) {
            if (word.italic != style)
                control(word.italic ? kMidRowItalics : kMidRowWhite);
            else if (&word != &row.words.front())
                byte(' ');
            style = word.italic;
            for (const char32_t c : word.text) character(c);
        }
    }

    std::vector<std::vector<Word>> take() {
        flush();
        return std::move(units_);
    }

private:
    void address(int row, int column) {
        control(indent_pac(row, column / 4 * 4));
        if (column % 4 != 0) control(tab_offset(column % 4));
    }

    void character(char32_t c) {
        const Glyph glyph = *glyph_for(c);
        if (glyph.basic != 0) byte(glyph.basic);
        if (glyph.pair != 0) control(glyph.pair);
    }

    void byte(std::uint8_t value) {
        if (half_ == 0) {
            half_ = value;
            return;
        }
        units_.push_back({with_parity(make_word(half_, value))});
        half_ = 0;
    }

    void flush() {
        if (half_ != 0) units_.push_back({with_parity(make_word(half_, 0))});
        half_ = 0;
    }

    void control(Word word) {
        flush();
        const Word sent = with_parity(word);
        // A third equal pair in a row would pass for one more repetition, and an idle slot between does not
        // part them for every receiver. Resuming the load changes nothing, but does.
        if (!units_.empty() && units_.back().back() == sent)
            control(command_word(kResumeCaptionLoading, field_));
        units_.emplace_back(kRepeated, sent);
    }

    int field_;
    std::vector<std::vector<Word>> units_;
    std::uint8_t half_ = 0;
};

using Units = std::vector<std::vector<Word>>;
using Slots = std::vector<std::int64_t>;

// Slots that another code occupies.
struct Block {
    std::int64_t begin;
    std::int64_t end;
};

// First slots of the units, so that the last ends before `end`; nothing when they need slots below
// `lowest`.
std::optional<Slots> place_before(const Units& units, std::int64_t lowest, std::int64_t end,
                                  std::optional<Block> taken) {
    Slots slots(units.size());
    for (std::size_t i = units.size(); i-- > 0;) {
        const auto length = static_cast<std::int64_t>(units[i].size());
        if (taken && end - length < taken->end && end > taken->begin) end = taken->begin;
        end -= length;
        slots[i] = end;
    }
    if (end < lowest) return std::nullopt;
    return slots;
}

// First slots of the units from `next` on; `next` becomes the first free slot with room for a control pair.
Slots place_from(const Units& units, std::int64_t& next, std::optional<Block> taken) {
    Slots slots;
    const auto reserve = [&](std::int64_t length) {
        if (taken && next < taken->end && next + length > taken->begin) next = taken->end;
        return next;
    };
    for (const std::vector<Word>& unit : units) {
        const auto length = static_cast<std::int64_t>(unit.size());
        slots.push_back(reserve(length));
        next += length;
    }
    reserve(kRepeated);
    return slots;
}

struct TimedCue {
    Cue cue;
    std::int64_t begin;
    std::int64_t end;
};

// Puts captions on the slots of a field, in order of time.
class Timeline {
public:
    Timeline(const std::string& name, const PopOnOptions& options, Report& report)
        : name_(name),
          options_(options),
          report_(report),
          slots_(options.rate, options.field, options.line_rate) {}

    // A cue's captions, which share its time by the number of their characters, follow each other as late as
    // they must. `latest_end`: the frame on which the next cue is to appear.
    void add(const TimedCue& timed, const std::vector<std::vector<CaptionRow>>& captions,
             std::int64_t latest_end) {
        const std::int64_t shortest = seconds_to_frame(kShortestPartDisplay, options_.rate);
        std::int64_t total = 0;
        for (const auto& rows : captions) total += static_cast<std::int64_t>(character_count(rows));
        std::int64_t begin = timed.begin, left = total;
        bool continues = false;
        for (const auto& rows : captions) {
            const auto count = static_cast<std::int64_t>(character_count(rows));
            const auto share = [&](std::int64_t time, std::int64_t of) {
                return std::max<std::int64_t>(time, 0) * count / of;
            };
            Caption caption{rows,      begin,
                            timed.end, share(timed.end - timed.begin, total),
                            continues, timed.cue.source_line};
            const std::optional<std::int64_t> shown = place(caption, latest_end);
            if (shown) {
                begin = *shown + std::max(share(timed.end - *shown, left),
                                          std::min(share(latest_end - *shown, left), shortest));
                continues = true;
                if (captions.size() > 1)
                    erase_at_ = std::max(*erase_at_, std::min(*shown + shortest, latest_end));
            }
            left -= count;
        }
    }

    Schedule take() {
        if (const std::optional<Block> erasure = erasure_block())
            put_control(kEraseDisplayedMemory, erasure->begin);
        std::sort(pairs_.begin(), pairs_.end(), [](const Pair& a, const Pair& b) { return a.slot < b.slot; });
        Schedule schedule{options_.rate, {}, {}};
        for (auto pair = pairs_.begin(); pair != pairs_.end();) {
            const std::int64_t picture = slots_.picture_of(pair->slot);
            PictureCaptions captions;
            const std::size_t first = schedule.eia608.size();
            std::vector<std::int64_t> late;
            for (std::int64_t slot = slots_.first_slot_not_before(picture);
                 slots_.picture_of(slot) == picture; ++slot) {
                const bool idle = pair == pairs_.end() || pair->slot != slot;
                captions.fields[options_.field].push_back(idle ? kNullPair : pair->word);
                if (idle) continue;
                late.push_back(picture - slots_.picture_of(slot - pair->slots_late));
                ++pair;
            }
            append(schedule, picture, captions);
            for (std::size_t n = 0; n < late.size(); ++n) schedule.eia608[first + n].late = late[n];
        }
        return schedule;
    }

private:
    // Gives the frame on which the caption appears; nothing when it is dropped.
    std::optional<std::int64_t> place(Caption caption, std::int64_t latest_end) {
        LoadBuilder builder(options_.field);
        for (const CaptionRow& row : caption.rows) builder.row(row);
        const Units units = builder.take();

        const std::int64_t asked = slots_.first_slot_not_before(caption.begin);
        std::int64_t shown = asked;
        const std::optional<Block> before = caption.continues ? std::nullopt : erasure_block();
        std::optional<Block> erasure = before;
        if (erasure && erasure->end > shown) erasure.reset();  // the new caption takes the old one's place
        std::optional<Slots> placed = place_before(units, free_slot_, shown, erasure);
        if (!placed) {
            erasure = before;
            std::int64_t next = free_slot_;
            placed = place_from(units, next, erasure);
            shown = std::max(shown, next);
            if (erasure && erasure->end > shown) shown = erasure->end;
            if (!accept_late(caption, slots_.picture_of(shown), latest_end)) return std::nullopt;
        }
        if (erasure) put_control(kEraseDisplayedMemory, erasure->begin);
        for (std::size_t i = 0; i < units.size(); ++i) put(units[i], (*placed)[i]);
        put_control(kEndOfCaption, shown, shown - asked);
        free_slot_ = shown + kRepeated;
        erase_at_ = caption.end;
        return slots_.picture_of(shown);
    }

    std::optional<Block> erasure_block() const {
        if (!erase_at_) return std::nullopt;
        const std::int64_t begin = std::max(slots_.first_slot_not_before(*erase_at_), free_slot_);
        return Block{begin, begin + kRepeated};
    }

    // Whether a caption that appears on frame `shown` is seen long enough. It may stay past its end for that,
    // but not past the next one's begin.
    bool accept_late(Caption& caption, std::int64_t shown, std::int64_t latest_end) {
        const std::int64_t late = shown - caption.begin;
        if (late < slots_.step()) return true;
        const std::int64_t least =
            std::min(seconds_to_frame(kShortestLateDisplay, options_.rate), (caption.duration + 1) / 2);
        const std::string lateness = fmt::format("{} ({:.2f} s) late: its {} take that long to load",
                                                 counted(static_cast<std::size_t>(late), "frame"),
                                                 frame_to_seconds(late, options_.rate),
                                                 counted(character_count(caption.rows), "character"));
        if (shown + least > latest_end) {
            report_.add(WarningKind::kDroppedCue, name_, caption.source_line,
                        fmt::format("the caption \"{}\" is dropped, it would appear {}, and the next one "
                                    "follows",
                                    text_of(caption.rows), lateness));
            return false;
        }
        report_.add(WarningKind::kLateCue, name_, caption.source_line, "the caption appears " + lateness);
        caption.end = std::max(caption.end, shown + least);
        return true;
    }

    void put_control(Command command, std::int64_t slot, std::int64_t slots_late = 0) {
        put(std::vector<Word>(kRepeated, with_parity(command_word(command, options_.field))), slot,
            slots_late);
    }

    void put(const std::vector<Word>& unit, std::int64_t slot, std::int64_t slots_late = 0) {
        for (const Word word : unit) pairs_.push_back({slot++, word, slots_late});
    }

    struct Pair {
        std::int64_t slot;
        Word word;
        std::int64_t slots_late;
    };

    const std::string& name_;
    const PopOnOptions& options_;
    Report& report_;
    FieldSlots slots_;
    std::vector<Pair> pairs_;
    std::int64_t free_slot_ = 0;
    std::optional<std::int64_t> erase_at_;
};

// The cues in order of time, one at a time: what begins together is one cue, and none outlasts the next
// one's begin.
std::vector<TimedCue> sequence(const std::vector<Cue>& cues, const std::string& name, FrameRate rate,
                               Report& report) {
    std::vector<TimedCue> timed;
    for (const Cue& cue : cues) {
        const std::int64_t begin = milliseconds_to_frame(cue.begin_ms, rate);
        timed.push_back({cue, begin, std::max(milliseconds_to_frame(cue.end_ms, rate), begin + 1)});
    }
    std::stable_sort(timed.begin(), timed.end(),
                     [](const TimedCue& a, const TimedCue& b) { return a.begin < b.begin; });

    std::vector<TimedCue> result;
    for (const TimedCue& next : timed) {
        if (result.empty() || result.back().begin < next.begin) {
            if (!result.empty() && result.back().end > next.begin) {
                report.add(
                    WarningKind::kShortenedCue, name, result.back().cue.source_line,
                    fmt::format("the cue overlaps the one of line {} and ends {} early, when that begins",
                                next.cue.source_line,
                                counted(static_cast<std::size_t>(result.back().end - next.begin), "frame")));
                result.back().end = next.begin;
            }
            result.push_back(next);
            continue;
        }
        std::vector<StyledLine>& lines = result.back().cue.lines;
        lines.insert(lines.end(), next.cue.lines.begin(), next.cue.lines.end());
        result.back().end = std::max(result.back().end, next.end);
    }
    return result;
}

// The captions of a cue, and how many rows would have kept its lines where it was wrapped to fewer; else 0.
struct Layout {
    std::vector<std::vector<CaptionRow>> captions;
    int rows_for_own_lines = 0;
};

Layout lay_out(const Cue& cue, int rows, const std::string& name, Report& report) {
    if (rows < 1 || rows > kRows)
        throw std::invalid_argument(fmt::format("a caption has 1 to {} rows, not {}", kRows, rows));
    Transcriber transcriber(cue, name, report);
    std::vector<Words> lines;
    for (const StyledLine& line : cue.lines)
        if (Words words = cut_long_words(split_words(transcriber.transcribe(line)), cue, name, report);
            !words.empty())
            lines.push_back(std::move(words));

    Layout layout;
    const bool rewrapped = is_rewrapped(lines, rows);
    if (rewrapped && fit(lines) && lines.size() <= static_cast<std::size_t>(kRows))
        layout.rows_for_own_lines = static_cast<int>(lines.size());
    const std::size_t needed = rewrapped ? wrap(joined(lines)).size() : lines.size();
    for (const std::vector<Words>& words : balanced(lines, rewrapped, rows)) {
        const int lowest_first = kRows + 1 - static_cast<int>(words.size());
        const int first_row = std::min(cue.first_row.value_or(lowest_first), lowest_first);
        std::vector<CaptionRow> caption;
        for (std::size_t i = 0; i < words.size(); ++i)
            caption.push_back(
                {first_row + static_cast<int>(i), column_of(cue.alignment, width_of(words[i])), words[i]});
        layout.captions.push_back(std::move(caption));
    }
    if (layout.captions.size() > 1)
        report.add(WarningKind::kSplitCue, name, cue.source_line,
                   fmt::format("the cue needs {} and is shown as {} of at most {}", counted(needed, "row"),
                               counted(layout.captions.size(), "caption"),
                               counted(static_cast<std::size_t>(rows), "row")));
    return layout;
}

// Cues whose own lines were given up for fewer rows.
struct Rewrapped {
    std::size_t cues = 0;
    int first_line{};  // in the file
    int most_rows{};   // that a cue had

    void add(int line, int rows) {
        if (cues++ == 0) first_line = line;
        most_rows = std::max(most_rows, rows);
    }
};

}  // namespace

std::vector<std::vector<CaptionRow>> lay_out_cue(const Cue& cue, int rows, const std::string& name,
                                                 Report& report) {
    return lay_out(cue, rows, name, report).captions;
}

Schedule encode_pop_on(const std::vector<Cue>& cues, const std::string& name, const PopOnOptions& options,
                       Report& report) {
    const std::int64_t hour = seconds_to_frame(3600, options.rate);
    const std::vector<TimedCue> timed = sequence(cues, name, options.rate, report);
    Timeline timeline(name, options, report);
    Rewrapped rewrapped;
    for (std::size_t i = 0; i < timed.size(); ++i) {
        const Layout layout = lay_out(timed[i].cue, options.rows, name, report);
        if (layout.rows_for_own_lines > 0) rewrapped.add(timed[i].cue.source_line, layout.rows_for_own_lines);
        const bool last = i + 1 == timed.size();
        timeline.add(timed[i], layout.captions, last ? timed[i].end + hour : timed[i + 1].begin);
    }
    if (rewrapped.cues > 0)
        report.add(WarningKind::kRewrappedCues, name, rewrapped.first_line,
                   fmt::format("{} (the first one here) wrapped to {}: --caption-rows {} keeps the lines",
                               counted(rewrapped.cues, "cue"),
                               counted(static_cast<std::size_t>(options.rows), "row"), rewrapped.most_rows));
    return timeline.take();
}

}  // namespace gsve::captions
