#pragma once

/// One door for caption files of every format: what `--captions FILE` needs.
///
/// Example:
///     Report report;
///     Schedule schedule = load_captions("news.scc", {.output = rate}, report);
///     Repacer repacer(rate, rate);
///     repacer.push(schedule);

#include <string>

#include "report.h"
#include "schedule.h"

namespace gsve::captions {

enum class CaptionFormat { kScc, kMcc, kSubRip, kWebVtt };

/// The format by the file name's extension: .scc, .mcc, .srt, .vtt, in any case. Throws FileError, with the
/// extensions that are understood, for another.
CaptionFormat caption_format(const std::string& path);

struct CaptionFileOptions {
    FrameRate output = kRate29_97;  ///< of the encoded pictures: the source rate over the frame-rate divider
    int field = 0;                  ///< SCC: the field of the pairs; SRT, WebVTT: 0 is CC1, 1 is CC3
    std::string start{};            ///< the file's time for the video's first picture; "" is zero
    int rows = 2;                   ///< SRT, WebVTT: the most rows of a caption
    FrameRate source = kRate29_97;  ///< of the source; SRT, WebVTT: at which `start` counts frames
    LineRate line_rate = LineRate::kPairOfEachField;  ///< of the encoded pictures
};

/// Reads a caption file into a schedule at the output rate that passes a Repacer(output, output, line_rate)
/// unchanged.
/// Pairs and constructs of SCC and MCC files are brought to the output rate (retime()), cues become pop-on
/// captions. Control codes of an SCC file that belong to the other field become those of `field`. `start` is
/// a time code, for SRT and WebVTT also HH:MM:SS or HH:MM:SS.mmm. Reported, beside what the readers report:
/// such codes, cues that end before the start, which are left out, and a file without captions. Throws
/// FileError, or std::invalid_argument for a bad `start`, `field` or `rows`.
Schedule load_captions(const std::string& path, const CaptionFileOptions& options, Report& report);

}  // namespace gsve::captions
