#include "cli/standard_error.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace gsve::cli {
namespace {

constexpr off_t kMostHeld = 256 * 1024;
constexpr off_t kKept = 64 * 1024;

// One place for the process, as there is one standard error, which a signal handler has to find.
int held = -1;   // what libraries write, while it is held
int shown = -1;  // the user's standard error meanwhile
std::FILE* stream = nullptr;

void write_all(int to, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t count = write(to, bytes, size);
        if (count <= 0) return;
        bytes += count;
        size -= static_cast<size_t>(count);
    }
}

}  // namespace

std::FILE* user_stream() { return stream ? stream : stderr; }

HeldDiagnostics::HeldDiagnostics() {
    held = memfd_create("diagnostics", MFD_CLOEXEC);
    shown = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    stream = shown >= 0 ? fdopen(shown, "w") : nullptr;
    if (held < 0 || !stream || fcntl(held, F_SETFL, O_APPEND) != 0) return;
    std::setvbuf(stream, nullptr, _IONBF, 0);
    std::fflush(stderr);
    dup2(held, STDERR_FILENO);
}

HeldDiagnostics::~HeldDiagnostics() {
    std::fflush(stderr);
    if (shown >= 0) dup2(shown, STDERR_FILENO);
    if (stream) std::fclose(stream);
    if (held >= 0) close(held);
    stream = nullptr;
    held = shown = -1;
}

void HeldDiagnostics::limit() {
    struct stat file = {};
    if (held < 0 || fstat(held, &file) != 0 || file.st_size <= kMostHeld) return;
    std::vector<char> newest(static_cast<size_t>(kKept));
    const ssize_t count = pread(held, newest.data(), newest.size(), file.st_size - kKept);
    if (count <= 0 || ftruncate(held, 0) != 0) return;
    const auto end = newest.begin() + count;
    const auto line = std::find(newest.begin(), end, '\n');  // the first one is not whole
    const std::string_view whole(line == end ? newest.data() : &*line + 1, &*newest.begin() + count);
    constexpr std::string_view kNote = "(earlier diagnostics are left out)\n";
    write_all(held, kNote.data(), kNote.size());
    write_all(held, whole.data(), whole.size());
}

void HeldDiagnostics::show() {
    std::fflush(stderr);
    show_held_diagnostics();
}

void show_held_diagnostics() {
    if (held < 0 || shown < 0) return;
    char bytes[4096];
    off_t at = 0;
    for (ssize_t count; (count = pread(held, bytes, sizeof bytes, at)) > 0; at += count)
        write_all(shown, bytes, static_cast<size_t>(count));
}

}  // namespace gsve::cli
