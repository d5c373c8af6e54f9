#pragma once

/// What the caption tools had to change, delay or leave out, as one-line texts for the user.
///
/// A file that cannot be used at all is an exception (FileError in text_file.h). Everything that can be
/// carried on with, at a loss or a delay, goes into a Report, so that nothing is lost in silence.
///
/// Example:
///     Report report;
///     Schedule schedule = encode_pop_on(cues, "film.srt", options, report);
///     for (const std::string& line : report.lines())
///         fmt::print(stderr, "{}\n", line);

#include <cstddef>
#include <string>
#include <vector>

namespace gsve::captions {

enum class WarningKind {
    kReplacedCharacter,  ///< a character outside the EIA-608 sets was written as something else
    kBrokenWord,         ///< a word longer than a row was cut
    kSplitCue,           ///< a cue was shown as several captions, one after the other
    kShortenedCue,       ///< a cue ends early because the next one begins
    kLateCue,            ///< a cue appears late because its text takes longer to load
    kDroppedCue,         ///< a cue is not shown at all
    kDelayedPairs,       ///< byte pairs are sent later than asked
    kParity,             ///< byte pairs came with wrong parity
    kBeforeStart,        ///< captions lie before the start of the video
    kIgnoredData,        ///< data of a kind that is not carried
    kTimeCodes,          ///< time codes that contradict each other or do not exist were put right
    kOtherField,         ///< commands of one field were made those of the other
    kRewrappedCues,      ///< cues of several rows were wrapped to fewer
    kNoCaptions,         ///< a file has no captions
    kFaultyLine,         ///< what cannot be read of a line of a file is left out
    kUnknownReference,   ///< a character reference of an unknown name is shown as it is written
};

struct Warning {
    WarningKind kind;
    std::string file;  ///< empty when the warning is not about a file
    int line;          ///< from 1; 0 when there is no line
    std::string text;
};

/// "file:line: text", without the parts that are not known.
std::string format_warning(const Warning& warning);

class Report {
public:
    void add(WarningKind kind, std::string file, int line, std::string text);

    const std::vector<Warning>& warnings() const { return warnings_; }
    bool empty() const { return warnings_.empty(); }
    std::size_t count(WarningKind kind) const;

    /// The warnings in the order in which they were added, each as format_warning() gives it.
    std::vector<std::string> lines() const;

private:
    std::vector<Warning> warnings_;
};

}  // namespace gsve::captions
