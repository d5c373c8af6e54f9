#pragma once

/// Timed text from SubRip (.srt) and WebVTT (.vtt) files.
///
/// Files are UTF-8, with or without a byte-order mark, with any line ends. Kept: line breaks, italics, and
/// the placement as far as line-21 captions have one: WebVTT's "line" (as a number or per cent) chooses the
/// first row, "align" left, centre or right; SubRip's {\an1} to {\an9} do both. Ignored: "position", "size",
/// "vertical", "region", styles, notes, voices, ruby structure, bold, underline, colours.
///
/// Example:
///     Report report;
///     std::vector<Cue> cues = read_srt("film.srt", report);

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report.h"

namespace gsve::captions {

struct StyledCharacter {
    char32_t character;
    bool italic;

    friend bool operator==(const StyledCharacter&, const StyledCharacter&) = default;
};
using StyledLine = std::vector<StyledCharacter>;

enum class Alignment { kCenter, kLeft, kRight };

struct Cue {
    std::int64_t begin_ms = 0;  ///< from the start of the video
    std::int64_t end_ms = 0;    ///< after begin_ms
    std::vector<StyledLine> lines;
    std::optional<int> first_row;  ///< 1 to 15; without one the text stands at the bottom
    Alignment alignment = Alignment::kCenter;
    int source_line = 0;  ///< of the time line in the file
};

/// A time as the files write it, "[HH:]MM:SS,mmm" or with a point, in milliseconds; nothing for another text.
/// Some writers leave out milliseconds that are zero.
std::optional<std::int64_t> parse_clock(std::string_view text);

/// Read a file's text; `name` stands for it in errors and warnings. Text after an empty line belongs to the
/// cue before it, until the next cue begins. Cues without text are left out. Of character references WebVTT
/// has those of character_references.h, SubRip "&amp;", "&lt;", "&gt;" and "&nbsp;". Reported: cues that
/// cannot be read or that do not end after their begin, and text that belongs to no cue, both left out; and
/// references of an unknown name, shown as they are written. Throw FileError when there is nothing but such
/// cues or text, and for a file that is not UTF-8 or, WebVTT, has no header.
std::vector<Cue> parse_srt(std::string_view text, const std::string& name, Report& report);
std::vector<Cue> parse_webvtt(std::string_view text, const std::string& name, Report& report);

/// Read the file at `path` likewise.
std::vector<Cue> read_srt(const std::string& path, Report& report);
std::vector<Cue> read_webvtt(const std::string& path, Report& report);

/// A styled line without its styles, as UTF-8.
std::string plain_text(const StyledLine& line);

}  // namespace gsve::captions
