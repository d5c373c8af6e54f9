#pragma once

// gsve farm: a plan's tasks as jobs of a cluster, and how far they are.

#include <string>
#include <vector>

#include "cli/farm/files.h"
#include "cli/farm/submitting.h"
#include "cli/plan/plan.h"

namespace gsve::cli {

struct FarmSubmitOptions {
    std::vector<std::string> plans;  ///< or directories with submitted ones, where they are submitted again
    FarmFilesOptions files;          ///< in place of plans, where it has a directory
    std::string output;              ///< of one plan; empty: the plan's
    bool overwrite = false;
    JobOptions jobs;
};

struct FarmStatusOptions {
    std::vector<std::string> plans;  ///< or directories
    bool json = false;
    std::string page;  ///< file to write as HTML; empty: none
    bool overwrite = false;
};

/// Each returns the exit status, and throws UsageError and Failure.
int farm_submit(const FarmSubmitOptions& options);
int farm_retry(const FarmSubmitOptions& options);

/// What the job that joins does: chunks that leave those behind them too few bits are encoded again, then all
/// are joined.
int farm_join(const TaskOptions& options);

/// kExitFailure where a task has failed.
int farm_status(const FarmStatusOptions& options);

}  // namespace gsve::cli
