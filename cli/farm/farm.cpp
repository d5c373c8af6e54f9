#include "cli/farm/farm.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <optional>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

extern "C" {
#include <libavutil/log.h>
}

#include "cli/exit_status.h"
#include "cli/overwriting.h"
#include "cli/plan/plan_file.h"
#include "encoding/error.h"
#include "programme/join.h"
#include "programme/output_file.h"
#include "report/farm_report.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;
using report::TaskState;

std::vector<Work> works_at(const std::vector<std::string>& paths) {
    std::vector<Work> works;
    for (const std::string& path : paths.empty() ? std::vector<std::string>{"."} : paths)
        for (Work& work : find_works(path)) works.push_back(std::move(work));
    if (works.empty()) throw UsageError("nothing there was submitted: gsve farm submit does it");
    return works;
}

/// What a plan names is taken where it lies beside the plan; for any other place its user has to say so.
void choose_output(Work& work, const FarmSubmitOptions& options) {
    if (!options.output.empty()) {
        work.output = fs::absolute(options.output).lexically_normal().string();
        work.join_arguments.push_back(work.output);
    } else if (!work.output_is_beside) {
        throw UsageError(
            fmt::format("{} lies elsewhere than the plan: if it is meant, give --output", work.output));
    }
    if (!work.joined) return;  // each task overwrites its own
    check_overwriting(work.output, options.overwrite);
    if (options.overwrite) work.join_arguments.emplace_back("--overwrite");
}

/// Jobs of another plan of this name would leave what is of no use to this one, in the same places.
void begin_anew_where_planned_anew(const Work& work, Record& record, const ClusterView& view) {
    if (record.submission().work == work.identity) return;
    for (const report::SubmittedJob& job : record.jobs())
        for (const auto& [key, task] : view.queue)
            if (key.first == job.id && task.queued())
                throw Failure(fmt::format(
                    "{} was planned again, and jobs of the plan before are still in the queue: scancel {}",
                    work.name, job.id));
    record.begin(work.identity);
    fs::remove(fs::path(work.directory) / kJoinedMark);
}

/// What is left of another plan of this name, or is damaged, is to be done again.
void discard_what_does_not_fit(const Work& work, const WorkProgress& progress) {
    for (const std::string& task : progress.tasks())
        if (task != report::kJoinJob && !progress.queued(task) && progress.done(task) && !work.fits(task))
            fs::remove(fs::path(work.directory) / work.manifest(task));
}

std::string own_program() { return fs::read_symlink("/proc/self/exe").string(); }

/// The cluster may refuse the second job after it has taken the first.
uint64_t submit_all_of(const Work& work, Record& record, const ClusterView& view,
                       const slurm::Cluster& cluster, const JobOptions& options) {
    const size_t before = record.jobs().size();
    try {
        return submit_rest(work, record, view, cluster, options);
    } catch (const Failure& failure) {
        if (record.jobs().size() == before) throw;
        throw Failure(fmt::format("{}; a part of {} is submitted, and gsve farm retry submits the rest",
                                  failure.what(), work.name));
    }
}

int submit(std::vector<Work> works, FarmSubmitOptions options) {
    if (!options.output.empty() && (works.size() != 1 || !works.front().joined))
        throw UsageError("--output is for one plan: submit the plans one by one");
    av_log_set_level(AV_LOG_QUIET);  // of sources that are only glanced at
    if (options.jobs.program.empty()) options.jobs.program = own_program();
    const slurm::Cluster cluster = slurm::ask_cluster();
    const ClusterView view{.queue = slurm::ask_queue(), .accounts = {}};
    for (Work& work : works) {
        fs::create_directories(work.directory);
        Record record(work.directory);
        begin_anew_where_planned_anew(work, record, view);
        const WorkProgress before(work, record.submission(), view);
        const auto in_hand = [&](const std::string& task) {
            return before.done(task) || before.queued(task);
        };
        const bool complete = work.joined && before.done(std::string(report::kJoinJob));
        if (complete || std::ranges::all_of(before.tasks(), in_hand)) {
            fmt::print("{}: nothing to submit\n", work.name);
            continue;
        }
        choose_output(work, options);
        discard_what_does_not_fit(work, before);
        const uint64_t count = submit_all_of(work, record, view, cluster, options.jobs);
        fmt::print("{}: {} tasks submitted\n", work.name, count);
    }
    return 0;
}

/// The first chunk that leaves the next one's pictures too few bits in the decoder's buffer, and so many bits
/// it has to save in all.
std::optional<std::pair<size_t, uint64_t>> next_saving(const PlanFile& file) {
    std::vector<programme::FinishedTask> chunks;
    for (size_t n = 0; n < file.plan.chunks.size(); n++)
        chunks.push_back({.result = read_manifest(file, std::to_string(n), false), .data = {}});
    const auto deficit = programme::find_deficit(file.plan, chunks);
    if (!deficit) return std::nullopt;
    return std::pair(deficit->chunk, deficit->bits + chunks[deficit->chunk].result.saved);
}

/// With its time zone, for readers elsewhere.
std::string now_text() { return fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(std::time(nullptr))); }

}  // namespace

int farm_submit(const FarmSubmitOptions& options) {
    std::vector<std::string> plans = options.plans;
    if (!options.files.directory.empty()) {
        FarmFilesOptions files = options.files;
        files.files = options.plans;
        files.encode.overwrite = options.overwrite;
        plans = divide_files(files, options.jobs, slurm::ask_cluster());
    }
    if (plans.empty()) throw UsageError("there is nothing to submit: name a plan");
    std::vector<Work> works;
    for (const std::string& plan : plans) works.push_back(open_work(plan));
    return submit(std::move(works), options);
}

int farm_retry(const FarmSubmitOptions& options) { return submit(works_at(options.plans), options); }

int farm_join(const TaskOptions& options) {
    const PlanFile file = open_plan(options.plan, options.directory);
    // Each costs one chunk. What more of them do not bring into the buffer is told by the joining.
    constexpr size_t kMostPerChunk = 3;
    for (size_t left = kMostPerChunk * file.plan.chunks.size(); left > 0; left--) {
        const auto saving = next_saving(file);
        if (!saving) break;
        TaskOptions again = options;
        again.task = std::to_string(saving->first);
        again.saved = saving->second;
        if (const int status = chunk(again); status != 0) return status;
    }
    return join(options);
}

int farm_status(const FarmStatusOptions& options) {
    if (!options.page.empty()) check_overwriting(options.page, options.overwrite);
    const std::vector<Work> works = works_at(options.plans);
    std::vector<report::Submission> submissions;
    std::vector<std::string> ids;
    for (const Work& work : works) {
        const std::optional<report::Submission> jobs = read_record(work.directory);
        if (!jobs) throw UsageError(fmt::format("{} was not submitted: gsve farm submit does it", work.name));
        for (const report::SubmittedJob& job : jobs->jobs) ids.push_back(job.id);
        submissions.push_back(*jobs);
    }
    ClusterView view{.queue = slurm::ask_queue(), .accounts = {}};
    if (slurm::ask_cluster().accounting) view.accounts = slurm::ask_accounts(ids);
    std::vector<report::FarmWork> reports;
    reports.reserve(works.size());
    for (size_t n = 0; n < works.size(); n++)
        reports.push_back(WorkProgress(works[n], submissions[n], view).report());
    if (!options.page.empty()) programme::write_file(options.page, report::farm_page(reports, now_text()));
    fmt::print("{}", options.json ? report::farm_json(reports) : report::farm_text(reports));
    const bool failed = std::any_of(reports.begin(), reports.end(),
                                    [](const auto& work) { return work.count(TaskState::kFailed) > 0; });
    return failed ? kExitFailure : 0;
}

}  // namespace gsve::cli
