#pragma once

// A Slurm cluster, through its own commands.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace gsve::cli::slurm {

struct Cluster {
    uint64_t array_size = 0;  ///< MaxArraySize: indices are below it
    uint64_t most_jobs = 0;   ///< MaxJobCount: of all users, an array's tasks counted one by one
    bool accounting = false;  ///< sacct tells of past jobs
};

/// Asks the controller. Throws Failure, as all of this do.
Cluster ask_cluster();

struct Job {
    std::string name;
    std::string directory;  ///< in which it runs
    std::string log;        ///< in the directory; "%a" and the like stand for what Slurm says
    std::string array;      ///< indices, "0-9,17"; empty: it is no array
    uint64_t at_once = 0;   ///< so many of the array's tasks; 0: as many as there is room for
    int processors = 1;
    uint64_t memory = 0;     ///< megabytes; 0: what the cluster gives
    std::string dependency;  ///< as --dependency takes it; empty: none
    std::string script;
    std::vector<std::string> arguments;  ///< the script's
};

/// Whether logs may be in a directory of this name: a backslash in it is Slurm's own sign.
bool can_log_in(const std::string& directory);

/// Gives the job's number. `options` are for sbatch as they are.
std::string submit(const Job& job, const std::vector<std::string>& options);

void cancel(const std::string& job);

/// An array's task by the array's number and its index; -1 where the job is no array.
using TaskKey = std::pair<std::string, int64_t>;

struct Task {
    std::string state;  ///< "RUNNING"
    std::string node;
    double seconds = 0;  ///< for which it has been running

    bool queued() const;  ///< it waits, runs or will run again
    bool running() const;
};

/// All that is in the queue, and what ended in the last minutes.
std::map<TaskKey, Task> ask_queue();

/// What became of the jobs of these numbers, where the cluster keeps accounts: "TIMEOUT". The tasks of an
/// array that have not begun are one, of index -1.
std::map<TaskKey, std::string> ask_accounts(const std::vector<std::string>& jobs);

}  // namespace gsve::cli::slurm
