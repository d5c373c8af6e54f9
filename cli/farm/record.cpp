#include "cli/farm/record.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/output_file.h"

namespace gsve::cli {
namespace {

std::string record_path(const std::string& directory) { return directory + "/submission.json"; }

/// The record itself is replaced whenever it changes, and with it would go the lock.
int lock(const std::string& directory) {
    const std::string path = directory + "/submission.lock";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) throw Failure(fmt::format("cannot write {}: {}", path, std::strerror(errno)));
    if (flock(file, LOCK_EX | LOCK_NB) == 0) return file;
    const int error = errno;
    close(file);
    throw Failure(error == EWOULDBLOCK
                      ? fmt::format("another gsve farm is submitting {}: wait for it", directory)
                      : fmt::format("cannot lock {}: {}", path, std::strerror(error)));
}

}  // namespace

std::optional<report::Submission> read_record(const std::string& directory) {
    const std::string path = record_path(directory);
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    try {
        return report::parse_submission(std::string(std::istreambuf_iterator<char>(file), {}));
    } catch (const Failure& failure) {
        throw Failure(fmt::format("{}: {}", path, failure.what()));
    }
}

Record::Record(const std::string& directory) : path_(record_path(directory)), lock_(lock(directory)) {
    submission_ = read_record(directory).value_or(report::Submission());
}

Record::~Record() { close(lock_); }

void Record::add(report::SubmittedJob job) {
    submission_.jobs.push_back(std::move(job));
    programme::write_file(path_, report::submission_json(submission_));
}

}  // namespace gsve::cli
