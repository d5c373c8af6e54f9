#include "caption_file.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

#include "mcc.h"
#include "pop_on.h"
#include "repacer.h"
#include "scc.h"
#include "subtitles.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

struct Extension {
    std::string_view text;
    CaptionFormat format;
};
constexpr Extension kExtensions[] = {{".scc", CaptionFormat::kScc},
                                     {".mcc", CaptionFormat::kMcc},
                                     {".srt", CaptionFormat::kSubRip},
                                     {".vtt", CaptionFormat::kWebVtt}};

// The four numbers count: whether they are drop-frame, and how many frames a second has, is the file's
// affair. What says that it is drop-frame must exist, however.
std::optional<Timecode> start_timecode(const std::string& text) {
    if (text.empty()) return std::nullopt;
    std::string non_drop = text;
    std::replace(non_drop.begin(), non_drop.end(), ';', ':');
    const Timecode start = parse_timecode(non_drop, kRate60);
    if (non_drop != text && start.frames < nominal_rate(kRate29_97)) return parse_timecode(text, kRate29_97);
    return start;
}

// The start as files of cues count it: a clock's time as it is written, then the frames of a time code.
std::int64_t start_milliseconds(const std::string& text, FrameRate rate) {
    constexpr int kColons = 2;  // hours, minutes, seconds
    if (text.empty()) return 0;
    if (std::count(text.begin(), text.end(), ':') == kColons)
        if (const std::optional<std::int64_t> clock = parse_clock(text)) return *clock;
    if (!is_timecode(text))
        throw std::invalid_argument(
            fmt::format("\"{}\" is not a time: write HH:MM:SS, HH:MM:SS.mmm or HH:MM:SS:FF", text));
    const Timecode start = parse_timecode(text, rate);
    const int seconds = (start.hours * 60 + start.minutes) * 60 + start.seconds;
    return seconds * std::int64_t{1000} + std::lround(1000 * frame_to_seconds(start.frames, rate));
}

std::vector<Cue> from_start(std::vector<Cue> cues, std::int64_t start, const std::string& path,
                            Report& report) {
    const std::size_t before = std::erase_if(cues, [start](const Cue& cue) { return cue.end_ms <= start; });
    for (Cue& cue : cues) {
        cue.begin_ms = std::max(cue.begin_ms, start) - start;
        cue.end_ms -= start;
    }
    if (before > 0)
        report.add(WarningKind::kBeforeStart, path, 0,
                   fmt::format("left out: {} before the start of the video", counted(before, "cue")));
    return cues;
}

// The control codes of a file that was made for the other field.
Schedule to_field(Schedule schedule, int field, const std::string& path, Report& report) {
    std::size_t changed = 0;
    for (Eia608Event& event : schedule.eia608) {
        const Word sent = in_field(event.word, field);
        changed += sent != event.word;
        event.word = sent;
    }
    if (changed > 0)
        report.add(WarningKind::kOtherField, path, 0,
                   fmt::format("{} of field {}: sent as field {}'s", counted(changed, "control code"),
                               2 - field, field + 1));
    return schedule;
}

Schedule load_cues(std::vector<Cue> (*read)(const std::string&, Report&), const std::string& path,
                   const CaptionFileOptions& options, Report& report) {
    const std::int64_t start = start_milliseconds(options.start, options.source);
    const std::vector<Cue> cues = from_start(read(path, report), start, path, report);
    return encode_pop_on(cues, path, {options.output, options.rows, options.field, options.line_rate},
                         report);
}

Schedule load(const std::string& path, const CaptionFileOptions& options, Report& report) {
    switch (caption_format(path)) {
        case CaptionFormat::kScc: {
            const SccReadOptions reading{options.field, kRate29_97, start_timecode(options.start)};
            const Schedule pairs = read_scc(path, reading, report);
            return retime(to_field(pairs, options.field, path, report), options.output, report,
                          options.line_rate);
        }
        case CaptionFormat::kMcc:
            return retime(read_mcc(path, {start_timecode(options.start)}, report), options.output, report,
                          options.line_rate);
        case CaptionFormat::kSubRip: return load_cues(read_srt, path, options, report);
        case CaptionFormat::kWebVtt: break;
    }
    return load_cues(read_webvtt, path, options, report);
}

}  // namespace

CaptionFormat caption_format(const std::string& path) {
    const std::string extension = lower_case(std::filesystem::path(path).extension().string());
    const auto entry = std::find_if(std::begin(kExtensions), std::end(kExtensions),
                                    [&](const Extension& e) { return e.text == extension; });
    if (entry == std::end(kExtensions))
        throw FileError(path, 0,
                        "not a caption file by its name: use one that ends in .scc, .mcc, .srt or .vtt");
    return entry->format;
}

Schedule load_captions(const std::string& path, const CaptionFileOptions& options, Report& report) {
    if (options.field != 0 && options.field != 1)
        throw std::invalid_argument("captions go into field 1 or field 2");
    const std::size_t warnings = report.warnings().size();
    Schedule schedule = load(path, options, report);
    if (schedule.empty() && report.warnings().size() == warnings)
        report.add(WarningKind::kNoCaptions, path, 0, "the file has no captions");
    return schedule;
}

}  // namespace gsve::captions
