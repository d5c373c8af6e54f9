#pragma once

// gsve plan, chunk and join: one programme on many machines.

#include <cstdint>
#include <string>

#include "cli/encode/encode.h"

namespace gsve::cli {

struct PlanOptions {
    EncodeOptions encode;
    double chunk_seconds = 60;
    std::string plan;  ///< file to write
};

/// For both that work with a plan.
struct TaskOptions {
    std::string plan;
    std::string directory;  ///< where the chunks are; empty: beside the plan
    std::string task;       ///< of chunk: "17", or "sound"
    uint64_t saved = 0;     ///< of chunk: bits
    std::string output;     ///< of join; empty: the plan's
    bool overwrite = false;
    bool quiet = false;
    bool verbose = false;
};

/// Each returns the exit status, and throws UsageError and Failure.
int plan(const PlanOptions& options);
int chunk(const TaskOptions& options);
int join(const TaskOptions& options);

}  // namespace gsve::cli
