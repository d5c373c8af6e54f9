#pragma once

// Plans, and what their tasks left, as JSON.

#include <string>
#include <string_view>

#include "programme/plan.h"
#include "programme/task_result.h"

namespace gsve::report {

std::string plan_json(const programme::Plan& plan);

/// The plan that plan_json() wrote. Throws UsageError, with what is wrong, for another text: a plan of
/// another version, what is missing, of the wrong kind, or unknown, and chunks that do not follow each other.
programme::Plan parse_plan(std::string_view json);

/// What a task of a plan is told, for its result to be known again by: as "17", or "sound".
std::string order_of(const programme::Plan& plan, std::string_view task);

/// A task's manifest.
std::string task_json(const programme::TaskResult& result);

/// The result that task_json() wrote. Throws UsageError as above.
programme::TaskResult parse_task(std::string_view json);

}  // namespace gsve::report
