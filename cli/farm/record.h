#pragma once

// The record of what was submitted of a work, in the work's directory.

#include <optional>
#include <string>
#include <vector>

#include "report/submission_json.h"

namespace gsve::cli {

/// Nothing where the work was never submitted. Throws Failure.
std::optional<report::Submission> read_record(const std::string& directory);

/// Whoever holds it is the only one who submits. Throws Failure where another one does.
class Record {
public:
    explicit Record(const std::string& directory);
    ~Record();
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    const report::Submission& submission() const { return submission_; }
    const std::vector<report::SubmittedJob>& jobs() const { return submission_.jobs; }

    /// Forgets what was submitted before, of another work.
    void begin(const std::string& work) { submission_ = {.work = work, .jobs = {}}; }

    /// Each job is on record as soon as the cluster has it. Throws Failure.
    void add(report::SubmittedJob job);

private:
    std::string path_;
    int lock_;
    report::Submission submission_;
};

}  // namespace gsve::cli
