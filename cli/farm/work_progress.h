#pragma once

// How far a work is: by what its tasks left, and what the cluster says of its jobs.

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "cli/farm/slurm.h"
#include "cli/farm/work.h"
#include "report/farm_report.h"
#include "report/submission_json.h"

namespace gsve::cli {

/// What the cluster says. It is asked before the tasks' files are looked at: what ends in between is then
/// seen to be done, and not to have failed.
struct ClusterView {
    std::map<slurm::TaskKey, slurm::Task> queue;
    std::map<slurm::TaskKey, std::string> accounts;  ///< empty where the cluster keeps none
};

/// "log-00017.txt", "log-sound.txt".
std::string log_name(const std::string& task);

/// Where the joining leaves that it is done.
inline constexpr const char* kJoinedMark = "joined";

class WorkProgress {
public:
    WorkProgress(const Work& work, const report::Submission& submission, const ClusterView& cluster);

    bool done(const std::string& task) const;
    bool queued(const std::string& task) const;

    /// The latest that has the task; empty: none has.
    std::string job_of(const std::string& task) const;

    /// Numbers and names in order: "0", "1", ..., report::kSoundJob, report::kJoinJob.
    const std::vector<std::string>& tasks() const { return tasks_; }

    report::FarmWork report() const;

private:
    const slurm::Task* find(const std::string& task) const;
    report::FarmTask report_of(const std::string& task, bool others_failed) const;
    std::string why(const std::string& task) const;
    std::optional<double> seconds_left() const;

    const Work& work_;
    const ClusterView& cluster_;
    std::set<std::string> files_;
    std::vector<std::string> tasks_;
    std::map<std::string, slurm::TaskKey> keys_;  ///< of the latest job that has the task
};

}  // namespace gsve::cli
