#include "cli/plan/plan.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "cli/overwriting.h"
#include "cli/plan/plan_file.h"
#include "cli/terminal.h"
#include "cli/version.h"
#include "cli/whole_number.h"
#include "encoding/error.h"
#include "programme/chunk.h"
#include "programme/join.h"
#include "programme/output_file.h"
#include "report/join_report.h"
#include "report/plan_json.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;

/// Relative to the plan where it lies beside it or below, so that both can be moved together.
std::string seen_from(const std::string& plan, const std::string& path) {
    std::error_code none;
    const fs::path home = fs::weakly_canonical(fs::absolute(plan).parent_path(), none);
    const fs::path place =
        fs::weakly_canonical(fs::absolute(path).parent_path(), none) / fs::path(path).filename();
    const fs::path relative = place.lexically_relative(home);
    const bool below = !relative.empty() && *relative.begin() != "..";
    return (below ? relative : place).string();
}

/// Throws UsageError for a name of none.
std::string task_named(const programme::Plan& plan, const std::string& name) {
    if (name == programme::kSoundTask) {
        if (!plan.has_sound) throw UsageError("the plan has no sound");
        return name;
    }
    const std::optional<size_t> number = whole_number<size_t>(name);
    if (!number || *number >= plan.chunks.size())
        throw UsageError(fmt::format("the plan has chunks 0 to {}{}, not \"{}\"", plan.chunks.size() - 1,
                                     plan.has_sound ? " and \"sound\"" : "", name));
    return std::to_string(*number);
}

void print_plan(const PlanOptions& options, const programme::Plan& plan) {
    const double seconds = static_cast<double>(plan.pictures) / plan.frame_rate.per_second();
    fmt::print("{} chunks{} of {} pictures, {:.3f} s\n", plan.chunks.size(),
               plan.has_sound ? " and the sound" : "", plan.pictures, seconds);
    const std::string name = for_shell(options.plan);
    fmt::print("gsve chunk {} N, for N from 0 to {}{}; then gsve join {}\n", name, plan.chunks.size() - 1,
               plan.has_sound ? ", and \"sound\"" : "", name);
}

}  // namespace

int plan(const PlanOptions& options) {
    const programme::EncodeJob job = job_of(options.encode);
    check_overwriting(options.plan, options.encode.overwrite);
    return work_at_terminal(options.encode.quiet, options.encode.verbose, [&](Terminal& terminal) {
        programme::Plan plan = programme::make_plan(job, options.chunk_seconds, terminal);
        plan.software = version();
        for (std::string* name : {&plan.job.input, &plan.job.output}) *name = seen_from(options.plan, *name);
        for (programme::EncodeJob& chunk : plan.chunks) chunk.input = plan.job.input;
        programme::write_file(options.plan, report::plan_json(plan));
        if (!options.encode.quiet) print_plan(options, plan);
        return 0;
    });
}

int chunk(const TaskOptions& options) {
    const PlanFile file = open_plan(options.plan, options.directory);
    const std::string task = task_named(file.plan, options.task);
    if (file.plan.software != version())
        throw Failure(fmt::format(
            "{} was made by {}, and this is {}, which may encode otherwise: plan again, or use the same",
            options.plan, file.plan.software, version()));
    if (options.directory.empty() && !is_beside(file, file.directory))
        throw UsageError(
            fmt::format("{} leads out of the plan's own directory: give --directory", file.directory));
    programme::check_source(file.plan);
    std::error_code error;
    fs::create_directories(file.directory, error);
    if (error) throw Failure(fmt::format("cannot create {}: {}", file.directory, error.message()));
    return work_at_terminal(options.quiet, options.verbose, [&](Terminal& terminal) {
        const std::string data = programme::data_path(file.directory, file.plan, task);
        const std::string manifest = programme::manifest_path(file.directory, task);
        fs::remove(manifest, error);  // of the data that go now
        programme::TaskResult result =
            task == programme::kSoundTask
                ? programme::encode_sound(file.plan, data, terminal)
                : programme::encode_chunk(file.plan, std::stoul(task), data, options.saved, terminal);
        result.order = report::order_of(file.stored, task);
        programme::write_file(manifest, report::task_json(result));
        terminal.end_progress();
        if (!options.quiet) fmt::print("{}: {} bytes\n", data, result.bytes);
        return 0;
    });
}

int join(const TaskOptions& options) {
    PlanFile file = open_plan(options.plan, options.directory);
    if (!options.output.empty())
        file.plan.job.output = options.output;
    else if (!is_beside(file, file.plan.job.output))
        throw UsageError(fmt::format("{} lies elsewhere than the plan: if it is meant, give OUTPUT",
                                     file.plan.job.output));
    check_overwriting(file.plan.job.output, options.overwrite);
    std::vector<programme::FinishedTask> chunks;
    std::optional<programme::FinishedTask> sound;
    for (const std::string& task : programme::tasks_of(file.plan)) {
        programme::FinishedTask finished = {.result = read_manifest(file, task, true),
                                            .data = programme::data_path(file.directory, file.plan, task)};
        if (task == programme::kSoundTask)
            sound = std::move(finished);
        else
            chunks.push_back(std::move(finished));
    }
    if (const auto deficit = programme::find_deficit(file.plan, chunks)) {
        // What a chunk saves is never just what it was to save.
        constexpr uint64_t kShareToSpare = 32;
        const programme::TaskResult& chunk = chunks[deficit->chunk].result;
        const uint64_t size = chunk.buffer ? static_cast<uint64_t>(chunk.buffer->size) : 0;
        const uint64_t saved = deficit->bits + chunk.saved + std::max(size / kShareToSpare, chunk.saved / 4);
        throw Failure(fmt::format(
            "chunk {} leaves {} bits too few in the decoder's buffer for the one behind it: {} --save {}",
            deficit->chunk, deficit->bits, chunk_command(file, std::to_string(deficit->chunk)), saved));
    }
    programme::check_source(file.plan);
    return work_at_terminal(options.quiet, options.verbose, [&](Terminal& terminal) {
        const programme::JoinResult result =
            programme::join(file.plan, chunks, sound ? &*sound : nullptr, terminal);
        terminal.end_progress();
        if (options.quiet) return 0;
        fmt::print("{}", report::join_text(file.plan.job.output, chunks.size(), result));
        return 0;
    });
}

}  // namespace gsve::cli
