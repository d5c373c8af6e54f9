#include "cli/farm/files.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "cli/farm/work.h"
#include "cli/overwriting.h"
#include "cli/plan/plan.h"
#include "cli/plan/plan_file.h"
#include "cli/whole_number.h"
#include "encoding/error.h"
#include "encoding/settings.h"
#include "encoding/split.h"
#include "programme/output_file.h"
#include "programme/source_glance.h"
#include "report/file_list_json.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;

/// One after the other with NULs between them, or, where it has none, lines.
std::vector<std::string> names_in(const std::string& text) {
    const char separator = text.find('\0') == text.npos ? '\n' : '\0';
    std::vector<std::string> names;
    for (const std::string_view name : encoding::split(text, separator))
        if (!name.empty()) names.emplace_back(name);
    return names;
}

struct File {
    std::string input, output;
    std::optional<programme::SourceGlance> glance;  ///< nothing: it cannot be opened, as its task will tell
};

std::vector<File> name_outputs(const FarmFilesOptions& options) {
    std::vector<std::string> inputs = options.files;
    if (!options.files_from.empty()) {
        const std::string path = options.files_from == "-" ? "/dev/stdin" : options.files_from;
        for (std::string& name : names_in(read_text(path))) inputs.push_back(std::move(name));
    }
    if (inputs.empty()) throw UsageError("there is no file to encode: name one");
    const std::string extension = options.encode.format.empty() ? "ts" : options.encode.format;
    std::map<std::string, std::string> taken;
    std::vector<File> files;
    for (const std::string& input : inputs) {
        File file = {.input = fs::absolute(input).lexically_normal().string(), .output = {}, .glance = {}};
        const std::string name = fmt::format("{}.{}", fs::path(input).stem().string(), extension);
        const auto [other, is_new] = taken.emplace(name, input);
        if (!is_new)
            throw UsageError(
                fmt::format("{} and {} would both become {}: rename one, or submit it for another directory",
                            other->second, input, name));
        file.output = (fs::path(options.directory) / name).string();
        std::error_code none;
        if (fs::equivalent(file.input, file.output, none))
            throw UsageError(fmt::format("{} is the input itself: name another directory", file.output));
        check_overwriting(file.output, options.encode.overwrite);
        files.push_back(std::move(file));
    }
    return files;
}

/// Storage that is far away takes its time for each, and can be asked for many at once.
void glance_at_all(std::vector<File>& files) {
    constexpr size_t kAtOnce = 16;
    std::atomic<size_t> next = 0;
    std::vector<std::jthread> threads;
    for (size_t n = 0; n < std::min(kAtOnce, files.size()); n++)
        threads.emplace_back([&] {
            for (size_t at; (at = next++) < files.size();) try {
                    files[at].glance = programme::glance_at(files[at].input);
                } catch (const Failure&) {
                }
        });
}

bool is_long(const File& file, const FarmFilesOptions& options) {
    return file.glance && file.glance->seconds.value_or(0) > options.longest;
}

std::string make_plan(const File& file, const FarmFilesOptions& options) {
    PlanOptions plan_options;
    plan_options.encode = options.encode;
    plan_options.encode.input = file.input;
    plan_options.encode.output = file.output;
    plan_options.encode.quiet = true;
    plan_options.chunk_seconds = options.chunk_seconds;
    plan_options.plan = fs::path(file.output).replace_extension(".plan.json").string();
    plan(plan_options);
    return plan_options.plan;
}

/// One for each task where nobody says otherwise: of many files, all processors have one.
int processors_for(const programme::EncodeJob& job, const JobOptions& jobs) {
    if (jobs.processors > 0) return jobs.processors;
    const std::string given = setting_of(job, "maximum threads");
    int threads = 0;
    std::from_chars(given.data(), given.data() + given.size(), threads);
    return std::max(threads, 1);
}

/// A name in the directory that no other list has had.
std::string new_list(const std::string& directory) {
    for (int n = 1;; n++) {
        std::string path = (fs::path(directory) / fmt::format("files-{}.json", n)).string();
        if (fs::create_directory(programme::work_directory(path))) return path;
    }
}

std::string make_list(const std::vector<const File*>& files, const FarmFilesOptions& options,
                      const JobOptions& jobs, uint64_t most_tasks) {
    EncodeOptions encode = options.encode;
    encode.input = files.front()->input;
    encode.output = files.front()->output;
    report::FileList list;
    list.job = job_of(encode);
    check(list.job);
    list.job.input.clear();
    list.job.output.clear();
    list.per_task = (files.size() + most_tasks - 1) / most_tasks;
    list.processors = processors_for(list.job, jobs);
    list.job.threads = list.processors;
    if (list.job.decoder_threads == 0) list.job.decoder_threads = list.processors;
    for (const File* file : files) {
        list.files.push_back({file->input, fs::path(file->output).filename().string()});
        if (file->glance) list.memory = std::max(list.memory, memory_for(*file->glance, list.processors));
    }
    const std::string text = file_list_json(list);
    std::string path = new_list(options.directory);
    programme::write_file(path, text);
    return path;
}

/// What a first attempt has encoded stays, where its node went down over another file of its task.
int encode_file(const report::FileList& list, const std::string& path, uint64_t number) {
    programme::EncodeJob job = list.job;
    job.input = list.files[number].input;
    job.output = (fs::absolute(path).parent_path() / list.files[number].output).string();
    const fs::path mark = fs::path(programme::work_directory(path)) / fmt::format("file-{:05}.json", number);
    if (fs::exists(mark) && fs::exists(job.output)) return 0;
    check(job);
    const int status = encode(job, EncodeOptions());
    if (status == 0)
        programme::write_file(mark.string(), fmt::format("{{\"bytes\":{}}}\n", fs::file_size(job.output)));
    return status;
}

}  // namespace

std::vector<std::string> divide_files(const FarmFilesOptions& options, const JobOptions& jobs,
                                      const slurm::Cluster& cluster) {
    std::vector<File> files = name_outputs(options);
    fs::create_directories(options.directory);
    glance_at_all(files);
    std::vector<std::string> works;
    std::vector<const File*> whole;
    for (const File& file : files)
        if (is_long(file, options))
            works.push_back(make_plan(file, options));
        else
            whole.push_back(&file);
    // Half of what the cluster takes of all its users.
    const uint64_t most_tasks = std::max<uint64_t>(cluster.most_jobs / 2, 1);
    if (!whole.empty()) works.push_back(make_list(whole, options, jobs, most_tasks));
    return works;
}

int farm_encode(const std::string& path, const std::string& task) {
    const std::optional<report::FileList> list = report::parse_file_list(read_text(path));
    if (!list) throw UsageError(fmt::format("{} is no list of files", path));
    const std::optional<uint64_t> number = whole_number<uint64_t>(task);
    if (!number || *number >= list->tasks())
        throw UsageError(fmt::format("the list has {} tasks, from 0, not \"{}\"", list->tasks(), task));
    const fs::path directory = programme::work_directory(path);
    const std::span files = list->files_of(*number);
    uint64_t index = *number * list->per_task;
    std::string failed;
    for (const report::FileList::File& file : files) try {
            if (const int status = encode_file(*list, path, index++); status != 0) return status;
        } catch (const std::exception& failure) {
            if (files.size() == 1) throw;
            fmt::print(stderr, "gsve: {}: {}\n", file.input, failure.what());
            failed += fmt::format("{}{}", failed.empty() ? "" : ", ", file.input);
        }
    if (!failed.empty()) throw Failure(fmt::format("not encoded: {}", failed));
    programme::write_file((directory / task_mark(*number)).string(), "{}\n");
    return 0;
}

}  // namespace gsve::cli
