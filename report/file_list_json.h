#pragma once

// Files that are all encoded alike, as JSON.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "programme/encode_job.h"

namespace gsve::report {

struct FileList {
    struct File {
        std::string input;
        std::string output;  ///< a name in the list's own directory

        friend bool operator==(const File&, const File&) = default;
    };
    programme::EncodeJob job;  ///< of all, without input and output
    std::vector<File> files;
    uint64_t per_task = 1;  ///< files that are encoded one after the other
    int processors = 1;     ///< that a task keeps busy
    uint64_t memory = 0;    ///< megabytes that the largest takes

    uint64_t tasks() const { return (files.size() + per_task - 1) / per_task; }

    std::span<const File> files_of(uint64_t task) const {
        const std::span from_first = std::span(files).subspan(task * per_task);
        return from_first.first(std::min<size_t>(per_task, from_first.size()));
    }

    friend bool operator==(const FileList&, const FileList&) = default;
};

/// Throws UsageError for a name that is no UTF-8 text.
std::string file_list_json(const FileList& list);

/// The list that file_list_json() wrote; nothing where the text is another document. Throws UsageError, with
/// what is wrong, where it is damaged, and where an output lies anywhere else.
std::optional<FileList> parse_file_list(std::string_view json);

}  // namespace gsve::report
