#pragma once

// gsve encode: one media file in, one encoded stream out.

#include <functional>
#include <string>
#include <vector>

#include "host.h"

namespace gsve::cli {

enum class Report { kNone, kText, kJson };

/// A step that is taken before each picture goes to the encoder; ancillary data is queued here.
using BeforePicture = std::function<void(Host&, const Picture&)>;

struct EncodeOptions {
    std::string input;
    std::string output;
    std::string codec;                  ///< empty: by the output's name
    std::vector<std::string> settings;  ///< "KEY=VALUE"
    std::string frame_rate;             ///< "25" or "30000/1001"; empty: the source's
    Report report = Report::kNone;
    bool overwrite = false;
    bool quiet = false;
    bool verbose = false;
};

/// Encodes. Returns the exit status; throws UsageError and Failure.
int encode(const EncodeOptions& options);

}  // namespace gsve::cli
