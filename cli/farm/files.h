#pragma once

// Many files for a farm, that are all encoded alike: each is a task, and the long ones are plans.

#include <string>
#include <vector>

#include "cli/encode/encode.h"
#include "cli/farm/submitting.h"

namespace gsve::cli {

struct FarmFilesOptions {
    std::vector<std::string> files;
    std::string files_from;     ///< a file that names more of them; "-": standard input; empty: none
    std::string directory;      ///< for the outputs
    double longest = 600;       ///< seconds: what is longer is divided
    double chunk_seconds = 60;  ///< then
    EncodeOptions encode;       ///< of each; without input and output
};

/// Writes the plans of what is long and the list of what is not, beside the outputs. Returns their names.
/// Throws UsageError and Failure.
std::vector<std::string> divide_files(const FarmFilesOptions& options, const JobOptions& jobs,
                                      const slurm::Cluster& cluster);

/// Encodes the files of a list's task, by its number: those that are not encoded yet. Returns the exit
/// status; throws UsageError and Failure.
int farm_encode(const std::string& list, const std::string& task);

}  // namespace gsve::cli
