#pragma once

// Which jobs of a cluster do which tasks of a plan or a list of files: what a submission leaves for those who
// look after it.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace gsve::report {

/// What is done once for all of it, beside the numbered tasks.
inline constexpr std::string_view kSoundJob = "sound", kJoinJob = "join";

struct SubmittedJob {
    std::string id;               ///< of the cluster: digits
    std::string task;             ///< kSoundJob, kJoinJob; empty: an array of numbered tasks
    uint64_t first = 0;           ///< the task that has index 0 in the array
    std::vector<uint64_t> tasks;  ///< of the array, by their numbers

    friend bool operator==(const SubmittedJob&, const SubmittedJob&) = default;
};

struct Submission {
    std::string work;                ///< hash of what was submitted: a later plan of its name is another
    std::vector<SubmittedJob> jobs;  ///< in order: of a task that was submitted twice, the last one holds

    friend bool operator==(const Submission&, const Submission&) = default;
};

std::string submission_json(const Submission& submission);

/// Throws Failure for a text that submission_json() has not written.
Submission parse_submission(std::string_view json);

}  // namespace gsve::report
