#include "cli/plan/plan_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/content_hash.h"
#include "programme/packet_log.h"
#include "report/plan_json.h"

namespace gsve::cli {
namespace {

namespace fs = std::filesystem;

fs::path directory_of(const std::string& path) {
    const fs::path directory = fs::path(path).parent_path();
    return directory.empty() ? fs::path(".") : directory;
}

std::string hash_of(const std::string& path, uint64_t& size) {
    const programme::FilePtr file(std::fopen(path.c_str(), "rb"));
    if (!file) return "";
    programme::ContentHash hash;
    std::vector<uint8_t> block(1 << 20);
    size = 0;
    while (const size_t count = std::fread(block.data(), 1, block.size(), file.get())) {
        hash.add({block.data(), count});
        size += count;
    }
    return std::ferror(file.get()) ? "" : hash.finish();
}

}  // namespace

std::string read_text(const std::string& path) {
    const programme::FilePtr file(std::fopen(path.c_str(), "rb"));
    if (!file) throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    std::string text;
    std::array<char, 65536> block;
    while (const size_t count = std::fread(block.data(), 1, block.size(), file.get()))
        text.append(block.data(), count);
    if (std::ferror(file.get())) throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    return text;
}

PlanFile open_plan(const std::string& path, const std::string& directory) {
    PlanFile file = {.path = path, .directory = directory, .stored = {}, .plan = {}};
    if (file.directory.empty()) file.directory = programme::work_directory(path);
    try {
        file.stored = report::parse_plan(read_text(path));
    } catch (const UsageError& error) {
        throw UsageError(fmt::format("{}: {}", path, error.what()));
    }
    file.plan = file.stored;
    for (std::string* name : {&file.plan.job.input, &file.plan.job.output})
        *name = (fs::path(path).parent_path() / *name).string();
    return file;
}

bool is_beside(const PlanFile& file, const std::string& path) {
    std::error_code none;
    const fs::path home = fs::weakly_canonical(directory_of(file.path), none);
    const fs::path place = fs::weakly_canonical(fs::absolute(path), none);
    const auto [end, rest] = std::mismatch(home.begin(), home.end(), place.begin(), place.end());
    return end == home.end();
}

std::string for_shell(std::string_view word) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./+,:@%";
    if (!word.empty() && word.find_first_not_of(kPlain) == word.npos) return std::string(word);
    std::string text = "'";
    for (const char letter : word) text += letter == '\'' ? "'\\''" : std::string(1, letter);
    return text + "'";
}

std::string chunk_command(const PlanFile& file, std::string_view task) {
    std::string command = "gsve chunk ";
    if (file.directory != programme::work_directory(file.path))
        command += fmt::format("--directory {} ", for_shell(file.directory));
    // What begins with a dash is no option.
    return command +
           fmt::format("{}{} {}", file.path.starts_with('-') ? "./" : "", for_shell(file.path), task);
}

programme::TaskResult read_manifest(const PlanFile& file, std::string_view task, bool checks_data) {
    const std::string name = task == programme::kSoundTask ? "the sound" : fmt::format("chunk {}", task);
    const auto refuse = [&](std::string_view why) {
        return Failure(fmt::format("{} {}: {}", name, why, chunk_command(file, task)));
    };
    const std::string path = programme::manifest_path(file.directory, task);
    std::error_code none;
    if (!fs::exists(path, none)) throw refuse("is missing");
    programme::TaskResult result;
    try {
        result = report::parse_task(read_text(path));
    } catch (const UsageError& error) {
        throw refuse(fmt::format("cannot be used, {}", error.what()));
    }
    if (result.task != task) throw refuse(fmt::format("has the manifest of task \"{}\"", result.task));
    if (result.order != report::order_of(file.stored, task)) throw refuse("was made by another plan");
    if (!checks_data) return result;
    uint64_t size = 0;
    const std::string hash = hash_of(programme::data_path(file.directory, file.plan, task), size);
    if (hash.empty()) throw refuse("has lost its data");
    if (size != result.bytes || hash != result.hash) throw refuse("has other data than it was left with");
    uint64_t sum = 0;
    for (const programme::TaskUnit& unit : result.units) sum += unit.bytes;
    if (task != programme::kSoundTask && sum != result.bytes)
        throw refuse("has a manifest that does not fit its data");
    return result;
}

}  // namespace gsve::cli
