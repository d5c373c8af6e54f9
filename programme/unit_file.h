#pragma once

// The coded pictures of a bare stream, cut where a task's result says.

#include <optional>
#include <string>
#include <vector>

#include "encoding/encoded_unit.h"
#include "programme/packet_log.h"
#include "programme/task_result.h"

namespace gsve::programme {

class UnitFileReader {
public:
    /// Throws Failure where there is no such file.
    UnitFileReader(const std::string& path, const std::vector<TaskUnit>& units);

    /// The next unit, valid until the one after it; nothing at the end. Throws Failure where the file ends
    /// before.
    std::optional<encoding::EncodedUnit> next();

    size_t read() const { return at_; }  ///< units so far

private:
    std::string path_;
    FilePtr file_;
    const std::vector<TaskUnit>& units_;
    size_t at_ = 0;
    std::vector<uint8_t> bytes_;
};

}  // namespace gsve::programme
