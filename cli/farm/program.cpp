#include "cli/farm/program.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "cli/exit_status.h"
#include "encoding/error.h"

namespace gsve::cli {
namespace {

[[noreturn]] void fail(const char* what, int error) {
    throw Failure(fmt::format("{}: {}", what, std::strerror(error)));
}

/// A file in memory. A program that writes into it never waits for a reader, as it would at a pipe.
class MemoryFile {
public:
    MemoryFile() : file_(memfd_create("gsve", MFD_CLOEXEC)) {
        if (file_ < 0) fail("memory for a program's output", errno);
    }
    ~MemoryFile() { close(file_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int descriptor() const { return file_; }

    void write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t count = ::write(file_, text.data(), text.size());
            if (count < 0) fail("memory for a program's input", errno);
            text.remove_prefix(static_cast<size_t>(count));
        }
        lseek(file_, 0, SEEK_SET);
    }

    std::string read() const {
        std::string text;
        char part[65536];
        for (ssize_t count; (count = pread(file_, part, sizeof part, static_cast<off_t>(text.size()))) > 0;)
            text.append(part, static_cast<size_t>(count));
        return text;
    }

private:
    int file_;
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;

    void connect(const MemoryFile& file, int descriptor) {
        posix_spawn_file_actions_adddup2(&actions_, file.descriptor(), descriptor);
    }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

int wait_for(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0)
        if (errno != EINTR) fail("waiting for a program", errno);
    return WIFSIGNALED(status) ? kExitSignal + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

ProgramRun run_program(const std::vector<std::string>& command, std::string_view input) {
    MemoryFile in, out, diagnostics;
    in.write(input);
    SpawnActions actions;
    actions.connect(in, STDIN_FILENO);
    actions.connect(out, STDOUT_FILENO);
    actions.connect(diagnostics, STDERR_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_t process = 0;
    const int error =
        posix_spawnp(&process, command.front().c_str(), actions.get(), nullptr, arguments.data(), environ);
    if (error != 0)
        throw Failure(fmt::format("cannot start {}: {}{}", command.front(), std::strerror(error),
                                  error == ENOENT ? "; install it" : ""));
    const int status = wait_for(process);
    return {status, out.read(), diagnostics.read()};
}

}  // namespace gsve::cli
