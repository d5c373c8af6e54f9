#pragma once

// Jobs for what is left to do of a work.

#include <cstdint>
#include <string>
#include <vector>

#include "cli/farm/record.h"
#include "cli/farm/slurm.h"
#include "cli/farm/work.h"
#include "cli/farm/work_progress.h"

namespace gsve::cli {

struct JobOptions {
    std::string program;               ///< of the nodes; empty: this one
    uint64_t memory = 0;               ///< megabytes of a task; 0: estimated
    int processors = 0;                ///< 0: as many as a task keeps busy
    uint64_t at_once = 0;              ///< tasks of a work; 0: as many as there is room for
    std::vector<std::string> cluster;  ///< more options for sbatch
};

/// Submits what is neither done nor in the queue, and with it the joining. Returns how many tasks that are.
uint64_t submit_rest(const Work& work, Record& record, const ClusterView& view, const slurm::Cluster& cluster,
                     const JobOptions& options);

}  // namespace gsve::cli
