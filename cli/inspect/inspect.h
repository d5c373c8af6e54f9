#pragma once

// gsve inspect: what a coded stream holds, its captions and time codes included.

#include <string>

namespace gsve::cli {

struct InspectOptions {
    std::string input;
    bool json = false;
    std::string scc;    ///< file to write; empty: none
    int scc_field = 1;  ///< 1 or 2
    bool overwrite = false;
    bool pictures = false;  ///< list every picture and every GOP
    bool buffer = false;    ///< check the decoder's buffer
    std::string page;       ///< file to write as HTML; empty: none
};

/// Inspects. Returns the exit status; throws UsageError and Failure.
int inspect(const InspectOptions& options);

}  // namespace gsve::cli
