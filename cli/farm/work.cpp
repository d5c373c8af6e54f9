#include "cli/farm/work.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "cli/farm/record.h"
#include "cli/plan/plan_file.h"
#include "encoding/error.h"
#include "programme/content_hash.h"
#include "programme/plan.h"
#include "programme/source_glance.h"
#include "report/file_list_json.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;

bool task_fits(const PlanFile& file, const std::string& task) try {
    read_manifest(file, task, true);
    return true;
} catch (const Failure&) {
    return false;
}

std::string absolute(const std::string& path) { return fs::absolute(path).lexically_normal().string(); }

Work work_of(const PlanFile& opened) {
    const auto file = std::make_shared<const PlanFile>(opened);
    const programme::Plan& plan = file->plan;
    Work work;
    work.path = file->path;
    work.directory = file->directory;
    work.output = plan.job.output;
    work.output_is_beside = is_beside(*file, work.output);
    work.label = [](uint64_t task) { return fmt::format("chunk {}", task); };
    work.count = plan.chunks.size();
    work.sound = plan.has_sound;
    work.joined = true;
    for (const programme::EncodeJob& chunk : plan.chunks)
        work.processors = std::max(work.processors, chunk.threads);
    work.task_arguments = {"chunk", work.path};
    work.join_arguments = {"farm", "join", work.path};
    work.memory = [file, threads = work.processors] {
        return memory_for(programme::glance_at(file->plan.job.input), threads);
    };
    work.manifest = [file](const std::string& task) {
        return fs::path(programme::manifest_path(file->directory, task)).filename().string();
    };
    work.fits = [file](const std::string& task) { return task_fits(*file, task); };
    return work;
}

Work work_of(const report::FileList& list, const std::string& path) {
    const std::string home = fs::path(path).parent_path().string();
    Work work;
    work.path = path;
    work.directory = programme::work_directory(path);
    work.output = home;
    work.count = list.tasks();
    work.label = [list](uint64_t task) {
        const std::span files = list.files_of(task);
        return files.size() == 1 ? files.front().output
                                 : fmt::format("{} to {}", files.front().output, files.back().output);
    };
    work.processors = list.processors;
    work.task_arguments = {"farm", "encode", path};
    work.memory = [memory = list.memory] { return memory; };
    work.manifest = [](const std::string& task) { return task_mark(std::stoull(task)); };
    work.fits = [home, list](const std::string& task) {
        return std::ranges::all_of(list.files_of(std::stoull(task)), [&](const report::FileList::File& file) {
            std::error_code none;
            return fs::exists(fs::path(home) / file.output, none);
        });
    };
    return work;
}

}  // namespace

/// Megabytes that encoding takes: some for the program and its libraries, and pictures, each of 4:2:0 with
/// one byte a sample, in decoder, converter, encoder and what waits between them. docs/farm.md has the
/// measurements.
uint64_t memory_for(const programme::SourceGlance& source, int threads) {
    constexpr double kBase = 200, kPictures = 150, kPicturesOfThread = 12;
    const double picture = 1.5 * source.width * source.height / (1 << 20);
    return static_cast<uint64_t>(kBase + picture * (kPictures + kPicturesOfThread * threads));
}

std::string task_mark(uint64_t number) { return fmt::format("task-{:05}.json", number); }

Work open_work(const std::string& path) {
    const std::string text = read_text(path);
    programme::ContentHash hash;
    hash.add(std::string_view(text));
    Work work;
    if (const std::optional<report::FileList> list = report::parse_file_list(text))
        work = work_of(*list, absolute(path));
    else
        work = work_of(open_plan(absolute(path)));
    work.name = path;
    work.identity = hash.finish();
    return work;
}

std::vector<Work> find_works(const std::string& path) {
    std::vector<Work> works;
    if (!fs::is_directory(path)) {
        works.push_back(open_work(path));
        return works;
    }
    std::vector<std::string> plans;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        if (entry.path().extension() == ".json" &&
            read_record(programme::work_directory(entry.path().string())))
            plans.push_back(entry.path().lexically_normal().string());
    std::sort(plans.begin(), plans.end());
    for (const std::string& plan : plans) works.push_back(open_work(plan));
    return works;
}

}  // namespace gsve::cli
