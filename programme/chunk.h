#pragma once

// The tasks of a plan.

#include <string>

#include "programme/encode_programme.h"
#include "programme/plan.h"
#include "programme/task_result.h"

namespace gsve::programme {

/// Encodes one chunk into `path`. `saved`: as many bits less in its last GOPs. The result's order is the
/// caller's. Throws UsageError and Failure.
TaskResult encode_chunk(const Plan& plan, size_t number, const std::string& path, uint64_t saved,
                        Observer& observer);

/// Makes all that goes with the picture, as the joined output takes it.
TaskResult encode_sound(const Plan& plan, const std::string& path, Observer& observer);

}  // namespace gsve::programme
