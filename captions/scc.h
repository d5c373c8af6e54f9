#pragma once

/// Scenarist closed-caption files: EIA-608 byte pairs in hexadecimal, each line with the time code of its
/// first pair, one pair per frame at 29.97.
///
///     Scenarist_SCC V1.0
///
///     00:00:01;10<TAB>9420 9420 94ae 94ae 9470 9470 c8e5 ecec ef80 942f 942f
///
/// A file holds one field. Time codes are drop-frame (';', with some writers '.' or ',') or not (':'), the
/// same throughout the file: where a file mixes them, all its lines are read as the most of them are, or, in
/// a tie, as the first.
///
/// Example:
///     Schedule schedule = read_scc("news.scc", {}, report);
///     std::string text = write_scc(schedule, 0, {.drop_frame = true});

#include <optional>
#include <string>
#include <string_view>

#include "report.h"
#include "schedule.h"

namespace gsve::captions {

struct SccReadOptions {
    int field = 0;                ///< the field that the pairs belong to
    FrameRate rate = kRate29_97;  ///< of the time codes; at most 39 frames per second
    /// The time code of the video's first picture, counted as the file counts; by default zero.
    std::optional<Timecode> start{};
};

/// Reads a file's text; `name` stands for it in errors and warnings. Time codes that begin again go on after
/// midnight. Left out and reported: lines without a time code, what is not a byte pair, and pairs before the
/// start. Put right and reported: wrong parity, the order of the lines, mixed time codes, and time codes that
/// drop-frame counting leaves out (taken for the first of their minute). Reported, too: lines whose pairs
/// must wait because the line before is still being sent. Throws FileError for another kind of file and when
/// the faults leave nothing, and std::invalid_argument for a start time code that the file's counting does
/// not have.
Schedule parse_scc(std::string_view text, const std::string& name, const SccReadOptions& options,
                   Report& report);

/// Reads the file at `path` likewise.
Schedule read_scc(const std::string& path, const SccReadOptions& options, Report& report);

struct SccWriteOptions {
    bool drop_frame = true;
    std::optional<Timecode> start{};  ///< the time code of frame 0; by default zero
};

/// The text of an SCC file with one field of the schedule. At 29.97 the reader gives back the same pairs
/// at the same frames; a schedule at another rate is brought to 29.97 first (59.94 loses nothing by it).
/// Idle gaps of one or two frames are written as null pairs. A longer gap begins a new line, and so does the
/// pair after a caption was shown or erased.
std::string write_scc(const Schedule& schedule, int field, const SccWriteOptions& options);

}  // namespace gsve::captions
