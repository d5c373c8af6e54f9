#pragma once

// How far the work on a farm is: as text, JSON and a page of HTML.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gsve::report {

enum class TaskState { kDone, kRunning, kWaiting, kBlocked, kFailed };

/// By their order: "done", "running", ...
inline constexpr std::array<std::string_view, 5> kTaskStates = {"done", "running", "waiting", "blocked",
                                                                "failed"};

struct FarmTask {
    std::string name;  ///< "chunk 17"
    TaskState state = TaskState::kWaiting;
    std::string job;   ///< the cluster's number for it; empty: it was not submitted
    std::string node;  ///< that runs it
    std::string why;   ///< it failed
    std::string log;   ///< path
};

/// A plan, or a list of files.
struct FarmWork {
    std::string name;  ///< of its file
    std::string output;
    std::vector<FarmTask> tasks;
    std::optional<double> seconds_left;  ///< as long as the tasks that are done took; nothing: there is none

    uint64_t count(TaskState state) const;
};

/// A table, and the tasks that failed.
std::string farm_text(const std::vector<FarmWork>& works);

std::string farm_json(const std::vector<FarmWork>& works);

/// One file that needs nothing beside it. `time`: when this was so, for the reader.
std::string farm_page(const std::vector<FarmWork>& works, const std::string& time);

}  // namespace gsve::report
