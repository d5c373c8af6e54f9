#pragma once

// What a task of a plan left: its data's contents and hash, and what joining has to know of them.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "programme/buffer_verdict.h"

namespace gsve::programme {

/// A coded picture in a chunk's data. Times are pictures of the whole programme.
struct TaskUnit {
    uint64_t bytes = 0;
    int64_t pts = 0;
    int64_t dts = 0;
    bool key = false;
    char type = '?';

    friend bool operator==(const TaskUnit&, const TaskUnit&) = default;
};

/// The decoder's buffer at both ends of a chunk, as its own headers say.
struct BufferEnds {
    BufferModel model = BufferModel::kVbvDelay;
    int64_t bit_rate = 0;  ///< bits/s
    int64_t size = 0;      ///< bits
    int64_t before = 0;    ///< bits in it before the first picture is removed
    int64_t after = 0;     ///< and after the last one has been
    bool holds = true;     ///< the chunk alone keeps to it

    friend bool operator==(const BufferEnds&, const BufferEnds&) = default;
};

struct TaskResult {
    std::string order;  ///< hash of what the task was told
    std::string task;   ///< "17", or kSoundTask
    std::string software;
    uint64_t bytes = 0;  ///< of the data
    std::string hash;    ///< of the data
    uint64_t pictures = 0;
    std::vector<TaskUnit> units;       ///< of a chunk
    std::optional<BufferEnds> buffer;  ///< where the chunk declares one
    uint64_t saved = 0;  ///< bits that its last GOPs were to save, for the sake of the chunk behind it
    std::vector<std::string> notes;

    friend bool operator==(const TaskResult&, const TaskResult&) = default;
};

}  // namespace gsve::programme
