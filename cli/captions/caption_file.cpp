#include "caption_file.h"

#include <algorithm>
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

// The control codes of a file that was made for the other field.
Schedule to_field(Schedule schedule, int field, const std::string& path, Report& report) {
    int changed = 0;
    for (Eia608Event& event : schedule.eia608) {
        const Word sent = in_field(event.word, field);
        changed += sent != event.word;
        event.word = sent;
    }
    if (changed > 0)
        report.add(WarningKind::kOtherField, path, 0,
                   fmt::format("{} control codes are those of field {}: they are sent as field {}'s", changed,
                               2 - field, field + 1));
    return schedule;
}

Schedule load(const std::string& path, const CaptionFileOptions& options, Report& report) {
    const std::optional<Timecode> start = start_timecode(options.start);
    const PopOnOptions pop_on{options.output, options.rows, options.field};
    switch (caption_format(path)) {
        case CaptionFormat::kScc: {
            const Schedule pairs = read_scc(path, {options.field, kRate29_97, start}, report);
            return retime(to_field(pairs, options.field, path, report), options.output, report);
        }
        case CaptionFormat::kMcc: return retime(read_mcc(path, {start}, report), options.output, report);
        case CaptionFormat::kSubRip: return encode_pop_on(read_srt(path, report), path, pop_on, report);
        case CaptionFormat::kWebVtt: return encode_pop_on(read_webvtt(path, report), path, pop_on, report);
    }
    throw FileError(path, 0, "unknown caption format");
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
