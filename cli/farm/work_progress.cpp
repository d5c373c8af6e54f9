#include "cli/farm/work_progress.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <optional>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "cli/farm/scripts.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;
using report::TaskState;

bool is_number(const std::string& task) {
    return std::isdigit(static_cast<unsigned char>(task.front())) != 0;
}

/// A directory that is read afresh shows what other machines have just left, where to ask for one file after
/// another would show what was known before.
std::set<std::string> files_in(const std::string& directory) {
    std::set<std::string> names;
    std::error_code none;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, none))
        names.insert(entry.path().filename().string());
    return names;
}

/// The lines at the end of a log.
std::vector<std::string> last_lines(const std::string& path) {
    constexpr std::streamoff kEnough = 16384;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return {};
    const std::streamoff size = file.tellg();
    file.seekg(std::max<std::streamoff>(size - kEnough, 0));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        if (line.find_first_not_of(" \t\r") != line.npos) lines.push_back(line);
    return lines;
}

/// When the latest attempt began, by the line with which a script begins.
std::optional<int64_t> begin_of(const std::vector<std::string>& lines) {
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        if (!line->starts_with(kBeginLine)) continue;
        int64_t seconds = 0;
        const char* const digits = line->c_str() + kBeginLine.size();
        if (std::from_chars(digits, line->c_str() + line->size(), seconds).ec == std::errc()) return seconds;
    }
    return std::nullopt;
}

std::optional<int64_t> time_of(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) return std::nullopt;
    return status.st_mtim.tv_sec;
}

std::string number_of(const std::string& task) {
    return is_number(task) ? fmt::format("{:0>5}", task) : task;
}

std::string job_text(const slurm::TaskKey& key) {
    return key.second < 0 ? key.first : fmt::format("{}_{}", key.first, key.second);
}

}  // namespace

std::string log_name(const std::string& task) { return fmt::format("log-{}.txt", number_of(task)); }

WorkProgress::WorkProgress(const Work& work, const report::Submission& submission, const ClusterView& cluster)
    : work_(work), cluster_(cluster) {
    for (uint64_t n = 0; n < work.count; n++) tasks_.push_back(std::to_string(n));
    if (work.sound) tasks_.emplace_back(report::kSoundJob);
    if (work.joined) tasks_.emplace_back(report::kJoinJob);
    // What another plan of this name has left is of no use to this one.
    if (submission.work != work.identity) return;
    files_ = files_in(work.directory);
    for (const report::SubmittedJob& job : submission.jobs) {
        if (!job.task.empty()) keys_[job.task] = {job.id, -1};
        for (const uint64_t task : job.tasks)
            keys_[std::to_string(task)] = {job.id, static_cast<int64_t>(task - job.first)};
    }
}

const slurm::Task* WorkProgress::find(const std::string& task) const {
    const auto key = keys_.find(task);
    if (key == keys_.end()) return nullptr;
    const auto found = cluster_.queue.find(key->second);
    return found == cluster_.queue.end() ? nullptr : &found->second;
}

bool WorkProgress::done(const std::string& task) const {
    return files_.contains(task == report::kJoinJob ? kJoinedMark : work_.manifest(task));
}

bool WorkProgress::queued(const std::string& task) const {
    const slurm::Task* const found = find(task);
    return found && found->queued();
}

std::string WorkProgress::job_of(const std::string& task) const {
    const auto key = keys_.find(task);
    return key == keys_.end() ? "" : key->second.first;
}

report::FarmWork WorkProgress::report() const {
    report::FarmWork report;
    report.name = work_.name;
    report.output = work_.output;
    bool failed = false;
    for (const std::string& task : tasks_) {
        report.tasks.push_back(report_of(task, failed));
        failed |= report.tasks.back().state == TaskState::kFailed;
    }
    report.seconds_left = seconds_left();
    return report;
}

report::FarmTask WorkProgress::report_of(const std::string& task, bool others_failed) const {
    report::FarmTask report;
    report.name = is_number(task) ? work_.label(std::stoull(task)) : task;
    report.log = fmt::format("{}/{}", work_.directory, log_name(task));
    if (const auto key = keys_.find(task); key != keys_.end()) report.job = job_text(key->second);
    const slurm::Task* const found = find(task);
    if (done(task)) {
        report.state = TaskState::kDone;
    } else if (found && (found->running() || found->state == "COMPLETED")) {
        // What has just ended well on another machine may not be seen from here yet.
        report.state = TaskState::kRunning;
        report.node = found->node;
    } else if (found && found->queued()) {
        report.state = TaskState::kWaiting;
    } else if (task == report::kJoinJob && others_failed) {
        report.state = TaskState::kBlocked;
    } else {
        report.state = TaskState::kFailed;
        report.why = why(task);
    }
    return report;
}

/// The last line of its log, behind what the cluster says where that is more than that it failed.
std::string WorkProgress::why(const std::string& task) const {
    const auto key = keys_.find(task);
    if (key == keys_.end()) return "was not submitted";
    std::string state;
    if (const slurm::Task* const found = find(task)) state = found->state;
    // Tasks that never began are in the accounts as one, by the array's number alone.
    for (const slurm::TaskKey& known : {slurm::TaskKey{key->second.first, -1}, key->second})
        if (const auto account = cluster_.accounts.find(known); account != cluster_.accounts.end())
            state = account->second;
    const std::vector<std::string> lines = last_lines(fmt::format("{}/{}", work_.directory, log_name(task)));
    const std::string line =
        lines.empty() ? "it has no log"
        : lines.back().starts_with(kBeginLine)
            ? "it ended without a word, on " + lines.back().substr(lines.back().rfind(' ') + 1)
            : lines.back();
    return state.empty() || state == "FAILED" ? line : fmt::format("{}: {}", state, line);
}

std::optional<double> WorkProgress::seconds_left() const {
    constexpr size_t kSample = 200;  // logs: enough for a mean
    std::vector<double> taken;
    double waiting = 0;
    std::vector<double> running;
    for (const std::string& task : tasks_) {
        if (task == report::kJoinJob) continue;
        if (done(task)) {
            if (taken.size() >= kSample) continue;
            const std::optional<int64_t> end =
                time_of(fmt::format("{}/{}", work_.directory, work_.manifest(task)));
            const std::optional<int64_t> begin =
                begin_of(last_lines(fmt::format("{}/{}", work_.directory, log_name(task))));
            if (begin && end && *end >= *begin) taken.push_back(static_cast<double>(*end - *begin));
        } else if (const slurm::Task* const found = find(task); found && found->running()) {
            running.push_back(found->seconds);
        } else if (queued(task)) {
            waiting++;
        }
    }
    if (taken.empty() || waiting + static_cast<double>(running.size()) == 0) return std::nullopt;
    const double mean = std::accumulate(taken.begin(), taken.end(), 0.0) / static_cast<double>(taken.size());
    double left = mean * waiting;
    for (const double seconds : running) left += std::max(mean - seconds, 0.0);
    return left / static_cast<double>(std::max<size_t>(running.size(), 1));
}

}  // namespace gsve::cli
