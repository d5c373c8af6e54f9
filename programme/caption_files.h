#pragma once

// Caption files for an encoding.

#include <map>
#include <string>

#include "captions/report.h"
#include "captions/schedule.h"
#include "programme/encode_job.h"

namespace gsve::programme {

/// Throws UsageError for files and options that do not go together, and for a codec that does not fit.
void check_caption_choice(const CaptionChoice& choice, const std::string& codec);

/// The captions of all files, for pictures at `encoded` made of pictures at `source`. Reports what had to be
/// changed or left out. Throws captions::FileError, and UsageError for a bad start.
captions::Schedule load_caption_files(const CaptionChoice& choice, captions::FrameRate source,
                                      captions::FrameRate encoded, captions::LineRate line_rate,
                                      captions::Report& report);

/// How many warnings of each kind there are, delays apart, which are counted pair by pair.
std::map<std::string, size_t> count_warnings(const captions::Report& report);

}  // namespace gsve::programme
