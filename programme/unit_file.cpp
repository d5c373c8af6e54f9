#include "programme/unit_file.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::programme {

UnitFileReader::UnitFileReader(const std::string& path, const std::vector<TaskUnit>& units)
    : path_(path), file_(std::fopen(path.c_str(), "rb")), units_(units) {
    if (!file_) throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
}

std::optional<encoding::EncodedUnit> UnitFileReader::next() {
    if (at_ == units_.size()) return std::nullopt;
    const TaskUnit& unit = units_[at_++];
    bytes_.resize(unit.bytes);
    if (std::fread(bytes_.data(), 1, bytes_.size(), file_.get()) != bytes_.size())
        throw Failure(fmt::format("{} ends within a picture", path_));
    return encoding::EncodedUnit{.bytes = bytes_,
                                 .pts = unit.pts,
                                 .dts = unit.dts,
                                 .key = unit.key,
                                 .type = unit.type,
                                 .ancillary = false};
}

}  // namespace gsve::programme
