#pragma once

// gsve encode: one media file in, one encoded stream out.

#include <string>
#include <vector>

#include "programme/encode_job.h"

namespace gsve::cli {

enum class ReportFormat { kNone, kText, kJson };

struct EncodeOptions {
    std::string input;
    std::string output;
    std::string format;                 ///< of the output; empty: by its name
    std::string codec;                  ///< empty: by the output's name
    std::vector<std::string> settings;  ///< "KEY=VALUE"
    std::string frame_rate;             ///< "25" or "30000/1001"; empty: the source's
    programme::StreamChoice choice;
    programme::SoundChoice sound;
    programme::TransportChoice transport;
    programme::HlsChoice hls;
    std::string colour = "convert";
    double longest_repeat = programme::kLongestRepeat;  ///< seconds
    programme::CaptionChoice captions;
    std::string timecode;  ///< of the first picture, at the encoded rate; "source": the input's; empty: none
    bool adapt = false;    ///< let the processor's load coarsen MPEG-2 pictures
    int decoder_threads = 0;
    bool quality = false;  ///< measure it
    ReportFormat report = ReportFormat::kNone;
    std::string page;     ///< file for a page with charts; empty: none is written
    bool strict = false;  ///< an input that is damaged, or ends early, is a failure
    bool overwrite = false;
    bool quiet = false;
    bool verbose = false;
};

/// The job that the options describe. Throws UsageError.
programme::EncodeJob job_of(const EncodeOptions& options);

/// Encodes. Returns the exit status; throws UsageError and Failure.
int encode(const EncodeOptions& options);

/// A job that was described before, which overwrites its output. Of the options, those that tell of it count.
int encode(const programme::EncodeJob& job, const EncodeOptions& options);

}  // namespace gsve::cli
