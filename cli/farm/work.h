#pragma once

// What many machines are to do: numbered tasks, and of a plan its sound and the joining of all. What a task
// is told, and what it leaves, is in files beside each other on storage that all machines share.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "programme/source_glance.h"

namespace gsve::cli {

struct Work {
    std::string name;       ///< of the plan's file, as the user gave it
    std::string identity;   ///< hash of the file
    std::string path;       ///< of the plan or the list; absolute, since jobs run elsewhere
    std::string directory;  ///< of manifests, logs and the record of the submission
    std::string output;
    bool output_is_beside = true;      ///< it lies where the work lies, or below
    uint64_t count = 0;                ///< of numbered tasks
    bool sound = false;                ///< there is a task of the sound
    bool joined = false;               ///< and one that joins all
    int processors = 1;                ///< that a numbered task keeps busy
    std::function<uint64_t()> memory;  ///< megabytes that it takes; opens the source

    /// The program's arguments; the task's number or name follows, except for the joining.
    std::vector<std::string> task_arguments, join_arguments;

    /// A numbered task, for people: "chunk 17".
    std::function<std::string(uint64_t)> label;

    /// The file's name that is there once a task, by its number or name, is done.
    std::function<std::string(const std::string&)> manifest;

    /// Whether what a task left is whole and made by this plan. Reads all of it. Without its manifest: false.
    std::function<bool(const std::string&)> fits;
};

/// Megabytes that an encoding with so many threads takes.
uint64_t memory_for(const programme::SourceGlance& source, int threads);

/// The name of the file that is left where a task of a list is done.
std::string task_mark(uint64_t number);

/// By its path. Throws UsageError where it is neither a plan nor a list of files, and Failure.
Work open_work(const std::string& path);

/// The works that were submitted among the files of a directory, or the one that `path` is.
std::vector<Work> find_works(const std::string& path);

}  // namespace gsve::cli
