#include "cli/farm/slurm.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "cli/farm/program.h"
#include "cli/whole_number.h"
#include "encoding/error.h"
#include "encoding/split.h"

namespace gsve::cli::slurm {
namespace {

using encoding::split;

/// The first line that says something.
std::string first_line(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(" \n"), text.size());
    return std::string(text.substr(begin, text.find('\n', begin) - begin));
}

std::string output_of(const std::vector<std::string>& command, std::string_view input = {}) {
    const ProgramRun run = run_program(command, input);
    if (run.status == 0) return run.output;
    const std::string why = first_line(run.diagnostics);
    if (why.empty()) throw Failure(fmt::format("{} ended with status {}", command.front(), run.status));
    throw Failure(why.starts_with(command.front()) ? why : fmt::format("{}: {}", command.front(), why));
}

/// "1-02:03:04", "02:03:04" or "03:04".
double seconds_of(std::string_view text) {
    double days = 0, seconds = 0;
    if (const size_t dash = text.find('-'); dash != text.npos) {
        days = static_cast<double>(whole_number<int>(text.substr(0, dash)).value_or(0));
        text.remove_prefix(dash + 1);
    }
    for (const std::string_view part : split(text, ':'))
        seconds = seconds * 60 + whole_number<int>(part).value_or(0);
    return days * 86400 + seconds;
}

/// The line "key = value" of "scontrol show config".
std::string_view configured(std::string_view configuration, std::string_view key) {
    for (const std::string_view line : split(configuration, '\n')) {
        if (!line.starts_with(key) || line.substr(key.size(), 1).find_first_of(" =") != 0) continue;
        const size_t value = line.find_first_not_of(" =", key.size());
        return value == line.npos ? "" : line.substr(value);
    }
    return "";
}

}  // namespace

Cluster ask_cluster() {
    const std::string configuration = output_of({"scontrol", "show", "config"});
    const auto limit = [&](std::string_view key) {
        const std::optional<uint64_t> value = whole_number<uint64_t>(configured(configuration, key));
        if (!value || *value == 0) throw Failure(fmt::format("scontrol tells no {}", key));
        return *value;
    };
    const std::string_view accounting = configured(configuration, "AccountingStorageType");
    return {limit("MaxArraySize"), limit("MaxJobCount"),
            !accounting.empty() && !accounting.ends_with("/none")};
}

bool can_log_in(const std::string& directory) { return directory.find('\\') == directory.npos; }

std::string submit(const Job& job, const std::vector<std::string>& options) {
    // Slurm looks for its signs in the whole of a log's path.
    std::string log = "/dev/null";
    if (can_log_in(job.directory)) {
        log.clear();
        for (const char letter : job.directory)
            log += letter == '%' ? std::string("%%") : std::string(1, letter);
        log += "/" + job.log;
    }
    std::vector<std::string> command = {"sbatch",
                                        "--parsable",
                                        "--requeue",
                                        "--open-mode=append",
                                        "--job-name=" + job.name,
                                        "--chdir=" + job.directory,
                                        "--output=" + log,
                                        "--nodes=1",
                                        "--ntasks=1",
                                        fmt::format("--cpus-per-task={}", job.processors)};
    if (job.memory > 0) command.push_back(fmt::format("--mem={}M", job.memory));
    if (!job.array.empty())
        command.push_back("--array=" + job.array + (job.at_once > 0 ? fmt::format("%{}", job.at_once) : ""));
    if (!job.dependency.empty()) {
        command.push_back("--dependency=" + job.dependency);
        command.emplace_back("--kill-on-invalid-dep=yes");
    }
    command.insert(command.end(), options.begin(), options.end());
    command.emplace_back("/dev/stdin");
    command.insert(command.end(), job.arguments.begin(), job.arguments.end());
    const std::string answer = first_line(output_of(command, job.script));
    std::string id = answer.substr(0, answer.find(';'));  // a cluster's name may follow
    if (!whole_number<uint64_t>(id)) throw Failure(fmt::format("sbatch gave no job's number: {}", answer));
    return id;
}

void cancel(const std::string& job) { output_of({"scancel", "--quiet", job}); }

bool Task::running() const { return state == "RUNNING" || state == "COMPLETING" || state == "STAGE_OUT"; }

bool Task::queued() const {
    constexpr std::array<std::string_view, 10> kEnded = {
        "COMPLETED",     "FAILED",   "CANCELLED", "TIMEOUT", "NODE_FAIL",
        "OUT_OF_MEMORY", "DEADLINE", "BOOT_FAIL", "REVOKED", "PREEMPTED"};
    return std::find(kEnded.begin(), kEnded.end(), state) == kEnded.end();
}

std::map<TaskKey, Task> ask_queue() {
    // Nothing that a user has named is among the columns.
    const std::string queue =
        output_of({"squeue", "--noheader", "--array", "--states=all", "--format=%F|%K|%T|%M|%N"});
    std::map<TaskKey, Task> tasks;
    for (const std::string_view line : split(queue, '\n')) {
        const std::vector<std::string_view> columns = split(line, '|');
        if (columns.size() != 5) continue;
        const TaskKey key = {std::string(columns[0]), whole_number<int64_t>(columns[1]).value_or(-1)};
        tasks[key] = {std::string(columns[2]), std::string(columns[4]), seconds_of(columns[3])};
    }
    return tasks;
}

std::map<TaskKey, std::string> ask_accounts(const std::vector<std::string>& jobs) {
    std::map<TaskKey, std::string> states;
    if (jobs.empty()) return states;
    const std::string accounts =
        output_of({"sacct", "--noheader", "--parsable2", "--allocations", "--format=JobID,State",
                   fmt::format("--jobs={}", fmt::join(jobs, ","))});
    for (const std::string_view line : split(accounts, '\n')) {
        const std::vector<std::string_view> columns = split(line, '|');
        if (columns.size() != 2) continue;
        const std::vector<std::string_view> id = split(columns[0], '_');
        const std::string_view state = columns[1].substr(0, columns[1].find(' '));  // "CANCELLED by 0"
        const int64_t index = id.size() > 1 ? whole_number<int64_t>(id[1]).value_or(-1) : -1;
        states[{std::string(id[0]), index}] = state;
    }
    return states;
}

}  // namespace gsve::cli::slurm
