#pragma once

/// Timed text as EIA-608 pop-on captions of CTA-608: cues in, byte pairs in time out.
///
/// A caption is loaded out of sight (Resume Caption Loading, Erase Non-Displayed Memory, then for each row
/// an address, text and italics), shown by End Of Caption on the cue's first frame, and taken away by Erase
/// Displayed Memory on its last, unless the next caption takes its place. Control pairs are sent twice.
/// Loading ends just before End Of Caption and begins as early as it must.
///
/// Text keeps its lines where they fit in 32 columns and the rows allowed; otherwise it is wrapped by words,
/// and a cue that needs more rows becomes several captions of about the same length, which share its time.
/// Each follows the one before when it is loaded, and no sooner than a second after it where the next cue
/// leaves the time; the last may outlast the cue. A word is italic when most of its characters are.
///
/// Example:
///     Report report;
///     Schedule schedule = encode_pop_on(read_srt(path), path, {.rate = kRate29_97}, report);

#include <string>
#include <vector>

#include "report.h"
#include "schedule.h"
#include "subtitles.h"

namespace gsve::captions {

struct PopOnOptions {
    FrameRate rate = kRate29_97;  ///< of the pictures that will carry the captions
    int rows = 2;                 ///< the most rows of one caption, 1 to 15
    int field = 0;                ///< 0: CC1, 1: CC3
    LineRate line_rate = LineRate::kPairOfEachField;
};

/// A word with only characters that have a glyph.
struct CaptionWord {
    std::u32string text;
    bool italic;

    friend bool operator==(const CaptionWord&, const CaptionWord&) = default;
};

struct CaptionRow {
    int row;     ///< 1 to 15
    int column;  ///< of the first character, 0 to 31
    std::vector<CaptionWord> words;

    friend bool operator==(const CaptionRow&, const CaptionRow&) = default;
};

/// The captions that show the cue's text, one after the other; each is its rows from top to bottom. `name`
/// is the file for the warnings. Throws std::invalid_argument for `rows` outside 1 to 15. Reported: replaced
/// characters, words that were cut, a cue that was split.
std::vector<std::vector<CaptionRow>> lay_out_cue(const Cue& cue, int rows, const std::string& name,
                                                 Report& report);

/// Schedule of all cues, in any order. At most one pair per slot of the field. Cues that begin at the same
/// frame are shown together. Reported, beside what lay_out_cue() reports: how many cues were wrapped to fewer
/// rows than they had; a cue that ends early because another begins; a cue, or a part of one, that appears
/// late because its text takes longer to load than there is time (it is shown for at least half a second or
/// half its time, past its end if need be); and a cue dropped because the next one leaves no time even for
/// that.
Schedule encode_pop_on(const std::vector<Cue>& cues, const std::string& name, const PopOnOptions& options,
                       Report& report);

}  // namespace gsve::captions
