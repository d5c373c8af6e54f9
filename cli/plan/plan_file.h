#pragma once

// A plan on a disk, and what lies beside it.

#include <string>
#include <string_view>

#include "programme/plan.h"
#include "programme/task_result.h"

namespace gsve::cli {

struct PlanFile {
    std::string path;
    std::string directory;   ///< where its tasks leave what they made
    programme::Plan stored;  ///< as it was written
    programme::Plan plan;    ///< with names from where we are
};

/// `directory`: empty: beside the plan, by its name. Throws UsageError and Failure.
PlanFile open_plan(const std::string& path, const std::string& directory = {});

/// Whether a file that may not exist yet lies in the plan's own directory or below.
bool is_beside(const PlanFile& file, const std::string& path);

/// The manifest of a task. Throws Failure, with the command that mends it, where there is none, where it is
/// of another plan, and where `checks_data` and the data are not what the task left.
programme::TaskResult read_manifest(const PlanFile& file, std::string_view task, bool checks_data);

/// As a shell takes it.
std::string for_shell(std::string_view word);

/// "gsve chunk film.plan.json 17", for a shell.
std::string chunk_command(const PlanFile& file, std::string_view task);

/// The whole of a file. Throws Failure.
std::string read_text(const std::string& path);

}  // namespace gsve::cli
