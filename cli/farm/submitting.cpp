#include "cli/farm/submitting.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <set>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "cli/farm/scripts.h"
#include "encoding/error.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;

constexpr int kLogDigits = 5;

/// Tasks of one array. A power of ten, so that the array's first number and Slurm's index are, one behind the
/// other, the number of the task in the name of its log.
struct Blocks {
    uint64_t size = 1;
    int digits = 0;
};

Blocks blocks_for(uint64_t array_size) {
    Blocks blocks;
    while (blocks.digits < kLogDigits && blocks.size * 10 <= array_size) {
        blocks.size *= 10;
        blocks.digits++;
    }
    return blocks;
}

std::string log_pattern(const Blocks& blocks, uint64_t block) {
    const int leading = kLogDigits - blocks.digits;
    const std::string number = leading == 0 && block == 0 ? "" : fmt::format("{:0{}}", block, leading);
    return fmt::format("log-{}{}.txt", number, blocks.digits == 0 ? "" : fmt::format("%{}a", blocks.digits));
}

/// "0-9,17".
std::string ranges_text(const std::vector<uint64_t>& numbers) {
    std::vector<std::string> ranges;
    for (size_t begin = 0; begin < numbers.size();) {
        size_t end = begin + 1;
        while (end < numbers.size() && numbers[end] == numbers[end - 1] + 1) end++;
        ranges.push_back(end - begin == 1 ? std::to_string(numbers[begin])
                                          : fmt::format("{}-{}", numbers[begin], numbers[end - 1]));
        begin = end;
    }
    return fmt::format("{}", fmt::join(ranges, ","));
}

/// For people who look at the queue: the letters of the work's name that are harmless wherever it is shown.
std::string job_name(const Work& work) {
    std::string name = "gsve-" + fs::path(work.path).stem().string();
    for (char& letter : name)
        if (!std::isalnum(static_cast<unsigned char>(letter)) && letter != '.' && letter != '-') letter = '_';
    return name.substr(0, 60);
}

class Submitting {
public:
    Submitting(const Work& work, Record& record, const ClusterView& view, const slurm::Cluster& cluster,
               const JobOptions& options)
        : work_(work),
          record_(record),
          cluster_(cluster),
          options_(options),
          progress_(work, record.submission(), view) {}

    uint64_t run();

private:
    slurm::Job job(int processors) const;
    slurm::Job task_job(int processors, const std::string& first) const;
    bool missing(const std::string& task) const { return !progress_.done(task) && !progress_.queued(task); }
    void submit_numbered();
    void submit_sound();
    void submit_join();
    std::string dependency() const;
    void submit(const slurm::Job& job, report::SubmittedJob entry);

    const Work& work_;
    Record& record_;
    const slurm::Cluster& cluster_;
    const JobOptions& options_;
    const WorkProgress progress_;
    std::set<std::string> new_jobs_;
    uint64_t memory_ = 0;  ///< megabytes of each job
    uint64_t submitted_ = 0;
};

uint64_t Submitting::run() {
    memory_ = options_.memory > 0 ? options_.memory : work_.memory();  // which looks at the source
    submit_numbered();
    const std::string sound(report::kSoundJob), join(report::kJoinJob);
    if (work_.sound && missing(sound)) submit_sound();
    // A joining that waits for a task that has failed since never begins.
    if (work_.joined && (submitted_ > 0 || missing(join))) submit_join();
    return submitted_;
}

slurm::Job Submitting::job(int processors) const {
    slurm::Job job;
    job.name = job_name(work_);
    job.directory = work_.directory;
    job.processors = processors;
    job.memory = memory_;
    job.arguments = {options_.program, slurm::can_log_in(work_.directory) ? "" : work_.directory};
    return job;
}

slurm::Job Submitting::task_job(int processors, const std::string& first) const {
    slurm::Job tasks = job(processors);
    tasks.script = kTaskScript;
    tasks.arguments.push_back(first);
    tasks.arguments.insert(tasks.arguments.end(), work_.task_arguments.begin(), work_.task_arguments.end());
    return tasks;
}

void Submitting::submit(const slurm::Job& job, report::SubmittedJob entry) {
    entry.id = slurm::submit(job, options_.cluster);
    new_jobs_.insert(entry.id);
    submitted_ += std::max<size_t>(entry.tasks.size(), 1);
    record_.add(std::move(entry));
}

void Submitting::submit_numbered() {
    const Blocks blocks = blocks_for(cluster_.array_size);
    std::map<uint64_t, std::vector<uint64_t>> tasks;  // by block
    for (uint64_t task = 0; task < work_.count; task++)
        if (missing(std::to_string(task))) tasks[task / blocks.size].push_back(task);
    for (const auto& [block, numbers] : tasks) {
        const uint64_t first = block * blocks.size;
        std::vector<uint64_t> indices = numbers;
        for (uint64_t& index : indices) index -= first;
        slurm::Job array =
            task_job(options_.processors > 0 ? options_.processors : work_.processors, std::to_string(first));
        array.log = log_pattern(blocks, block);
        array.array = ranges_text(indices);
        array.at_once = options_.at_once;
        submit(array, {.id = {}, .task = {}, .first = first, .tasks = numbers});
    }
}

void Submitting::submit_sound() {
    const std::string task(report::kSoundJob);
    slurm::Job sound = task_job(1, task);
    sound.log = log_name(task);
    submit(sound, {.id = {}, .task = task, .first = 0, .tasks = {}});
}

void Submitting::submit_join() {
    const std::string task(report::kJoinJob);
    if (progress_.queued(task)) {
        const auto old = std::find_if(record_.jobs().rbegin(), record_.jobs().rend(),
                                      [](const auto& job) { return job.task == report::kJoinJob; });
        slurm::cancel(old->id);
    }
    fs::remove(fs::path(work_.directory) / kJoinedMark);
    slurm::Job join = job(1);
    join.log = log_name(task);
    join.dependency = dependency();
    join.script = kJoinScript;
    join.arguments.insert(join.arguments.end(), work_.join_arguments.begin(), work_.join_arguments.end());
    submit(join, {.id = {}, .task = task, .first = 0, .tasks = {}});
}

/// All jobs that are still at work. Those of an earlier submission that have failed tasks, too, can never end
/// well: of these the end is enough, since joining looks at what each task left.
std::string Submitting::dependency() const {
    std::vector<std::string> conditions;
    for (const report::SubmittedJob& job : record_.jobs()) {
        if (job.task == report::kJoinJob) continue;
        if (new_jobs_.contains(job.id)) {
            conditions.push_back("afterok:" + job.id);
            continue;
        }
        std::vector<std::string> tasks;
        for (const uint64_t task : job.tasks) tasks.push_back(std::to_string(task));
        if (!job.task.empty()) tasks.push_back(job.task);
        const auto queued = [&](const std::string& task) {
            return progress_.job_of(task) == job.id && progress_.queued(task);
        };
        const auto lost = [&](const std::string& task) { return !progress_.done(task) && !queued(task); };
        if (std::none_of(tasks.begin(), tasks.end(), queued)) continue;
        conditions.push_back((std::any_of(tasks.begin(), tasks.end(), lost) ? "afterany:" : "afterok:") +
                             job.id);
    }
    return fmt::format("{}", fmt::join(conditions, ","));
}

}  // namespace

uint64_t submit_rest(const Work& work, Record& record, const ClusterView& view, const slurm::Cluster& cluster,
                     const JobOptions& options) {
    return Submitting(work, record, view, cluster, options).run();
}

}  // namespace gsve::cli
