#include "programme/caption_files.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

#include "captions/caption_file.h"
#include "encoding/error.h"

namespace gsve::programme {
namespace {

using captions::CaptionFormat;
using captions::FrameRate;
using captions::WarningKind;

/// Empty: not counted here.
std::string_view key_of(WarningKind kind) {
    switch (kind) {
        case WarningKind::kReplacedCharacter: return "replaced_characters";
        case WarningKind::kBrokenWord: return "broken_words";
        case WarningKind::kSplitCue: return "split_cues";
        case WarningKind::kShortenedCue: return "shortened_cues";
        case WarningKind::kLateCue: return "late_cues";
        case WarningKind::kDroppedCue: return "dropped_cues";
        case WarningKind::kDelayedPairs: break;  // counted pair by pair
        case WarningKind::kParity: return "parity";
        case WarningKind::kBeforeStart: return "before_start";
        case WarningKind::kIgnoredData: return "ignored_data";
        case WarningKind::kTimeCodes: return "time_codes";
        case WarningKind::kOtherField: return "other_field";
        case WarningKind::kRewrappedCues: return "rewrapped_cues";
        case WarningKind::kNoCaptions: return "no_captions";
        case WarningKind::kFaultyLine: return "faulty_lines";
        case WarningKind::kUnknownReference: return "unknown_references";
    }
    return {};
}

}  // namespace

void check_caption_choice(const CaptionChoice& choice, const std::string& codec) {
    if (choice.scte20 && codec != "mpeg-2")
        throw UsageError(fmt::format("--scte20 is for MPEG-2 streams, not {}: leave it out", codec));
    if (choice.files.empty()) return;
    if (choice.files.size() > 2)
        throw UsageError("--captions takes two files at most: one for field 1, one for field 2");
    for (const std::string& file : choice.files) {
        if (captions::caption_format(file) != CaptionFormat::kMcc) continue;
        if (choice.files.size() > 1 || choice.field != 0)
            throw UsageError(
                fmt::format("{} has both fields: give it alone, and without --captions-field", file));
    }
    const bool cues = std::any_of(choice.files.begin(), choice.files.end(), [](const std::string& file) {
        const CaptionFormat format = captions::caption_format(file);
        return format == CaptionFormat::kSubRip || format == CaptionFormat::kWebVtt;
    });
    if (choice.rows && !cues)
        throw UsageError(
            "--caption-rows is for SRT and WebVTT files: SCC and MCC captions have their rows; leave it out");
}

captions::Schedule load_caption_files(const CaptionChoice& choice, FrameRate source, FrameRate encoded,
                                      captions::LineRate line_rate, captions::Report& report) try {
    captions::Schedule all{encoded, {}, {}};
    int field = std::max(choice.field, 1) - 1;
    for (const std::string& file : choice.files) {
        captions::CaptionFileOptions reading{.output = encoded, .field = field, .start = choice.start};
        reading.rows = choice.rows.value_or(reading.rows);
        reading.source = source;
        reading.line_rate = line_rate;
        all = merge(all, load_captions(file, reading, report));
        field = 1 - field;
    }
    return all;
} catch (const std::invalid_argument& error) {
    throw UsageError(fmt::format("--captions-start: {}", error.what()));
}

std::map<std::string, size_t> count_warnings(const captions::Report& report) {
    std::map<std::string, size_t> counts;
    for (const captions::Warning& warning : report.warnings())
        if (const std::string_view key = key_of(warning.kind); !key.empty()) counts[std::string(key)]++;
    return counts;
}

}  // namespace gsve::programme
