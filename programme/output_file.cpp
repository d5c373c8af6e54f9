#include "programme/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>

#include "encoding/av.h"
#include "encoding/error.h"
#include "programme/file_name.h"

namespace gsve::programme {
namespace {

namespace fs = std::filesystem;

/// The mode of a file that is to be replaced, or what the process gives new ones.
mode_t mode_for(const std::string& path) {
    struct stat existing = {};
    return stat(path.c_str(), &existing) == 0 ? existing.st_mode & 07777 : 0666;
}

/// Creates a file beside `target` that nobody else has, hidden from those who list the directory.
std::string create_beside(const fs::path& target, const std::string& path) {
    constexpr int kTries = 100;
    for (int n = 0; n < kTries; n++) {
        const std::string name = fmt::format(".{}.{}-{}.part", target.filename().string(), getpid(), n);
        const std::string candidate = target.parent_path() / name;
        const mode_t mode = mode_for(target);
        const int file = open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (file >= 0) {
            if (fs::exists(target)) fchmod(file, mode);  // as it was, whatever new files get
            close(file);
            return candidate;
        }
        if (errno != EEXIST) break;
    }
    fail_to_write(path, AVERROR(errno));
}

// For a signal handler, which may neither allocate nor wait: the names, and which of them are in use.
constexpr size_t kMostRemembered = 16;
char remembered[kMostRemembered][4096];
std::atomic<bool> in_use[kMostRemembered];

void remember(const std::string& name) {
    for (size_t n = 0; n < kMostRemembered && name.size() < sizeof remembered[n]; n++) {
        if (in_use[n]) continue;
        std::strcpy(remembered[n], name.c_str());
        in_use[n] = true;
        return;
    }
}

void forget(const std::string& name) {
    for (size_t n = 0; n < kMostRemembered; n++)
        if (in_use[n] && name == remembered[n]) in_use[n] = false;
}

}  // namespace

void remove_temporary_files() {
    for (size_t n = 0; n < kMostRemembered; n++)
        if (in_use[n]) unlink(remembered[n]);
}

void fail_to_write(const std::string& path, int error) {
    throw Failure(fmt::format("cannot write {}: {}; {}", path, av_error_text(error), writing_advice(error)));
}

OutputFile::OutputFile(const std::string& path) : path_(path), written_(path) {
    if (is_standard_stream(path)) return;
    std::error_code none;
    const fs::file_status status = fs::status(path, none);
    if (fs::exists(status) && !fs::is_regular_file(status)) return;
    const fs::path target = fs::weakly_canonical(path, none);
    if (none) fail_to_write(path, AVERROR(none.value()));
    written_ = create_beside(target, path);
    target_ = target;
    remember(written_);
}

OutputFile::~OutputFile() {
    if (target_.empty()) return;
    unlink(written_.c_str());
    forget(written_);
}

void OutputFile::commit() {
    if (target_.empty()) return;
    if (rename(written_.c_str(), target_.c_str()) != 0) fail_to_write(path_, AVERROR(errno));
    target_.clear();
    forget(written_);
}

void write_bytes(const OutputFile& output, const std::string& bytes) {
    const std::string& path = output.path();
    std::FILE* const file = std::fopen(output.written_path().c_str(), "wb");
    if (!file) fail_to_write(path, AVERROR(errno));
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    const int error = errno;
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) fail_to_write(path, AVERROR(written ? errno : error));
}

void write_file(const std::string& path, const std::string& bytes) {
    OutputFile output(path);
    write_bytes(output, bytes);
    output.commit();
}

}  // namespace gsve::programme
