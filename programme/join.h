#pragma once

// What the tasks of a plan left, put together to one programme.

#include <cstdint>
#include <string>
#include <vector>

#include "programme/buffer_verdict.h"
#include "programme/encode_programme.h"
#include "programme/plan.h"
#include "programme/task_result.h"

namespace gsve::programme {

/// What was left, and where.
struct FinishedTask {
    TaskResult result;
    std::string data;  ///< path
};

struct JoinResult {
    uint64_t pictures = 0;  ///< of the source
    uint64_t units = 0;     ///< coded pictures
    uint64_t bytes = 0;     ///< of these
    uint64_t stuffed = 0;   ///< bytes that fill the decoder's buffer up at the joins
    BufferVerdict buffer;   ///< of the joined stream
    std::string timecode;   ///< of the first picture; empty: none
    std::string notes;
};

/// A chunk whose last GOPs take so many bits too much that the next one's pictures would come too late.
struct BufferDeficit {
    size_t chunk = 0;
    uint64_t bits = 0;
};

/// Follows the decoder's buffer over the joins, from the results alone; nothing where it never runs dry that
/// does not in a chunk alone.
std::optional<BufferDeficit> find_deficit(const Plan& plan, const std::vector<FinishedTask>& chunks);

/// Joins into plan.job.output. `chunks`: of all chunks, in order; `sound`: where the plan has it. Throws
/// UsageError and Failure; the output then is as it was.
JoinResult join(const Plan& plan, const std::vector<FinishedTask>& chunks, const FinishedTask* sound,
                Observer& observer);

}  // namespace gsve::programme
