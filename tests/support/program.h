#pragma once

// Runs the gsve program the way a user does: by its command line, with its output and exit status.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/scratch.h"

extern char** environ;

namespace gsve::test {

struct ProgramResult {
    int status = -1;  ///< exit status, or 128 plus the signal that ended the process
    std::string out;
    std::string err;
};

/// The program under test: the built one, or another that the environment names.
inline const char* gsve_program() {
    const char* other = std::getenv("GSVE_PROGRAM");
    return other ? other : GSVE_PROGRAM;
}

/// A running gsve.
class Program {
public:
    /// `standard_output`: a file for it in place of the one that wait() returns.
    explicit Program(const std::vector<std::string>& arguments, const std::string& standard_output = {}) {
        std::vector<char*> argv = {const_cast<char*>(gsve_program())};
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
        const std::string out = standard_output.empty() ? directory_ / "out" : standard_output;
        posix_spawn_file_actions_addopen(&files, 1, out.c_str(), flags, 0600);
        posix_spawn_file_actions_addopen(&files, 2, (directory_ / "err").c_str(), flags, 0600);
        // As a terminal starts it, even where this process was started to ignore signals.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        const int error = posix_spawn(&pid_, gsve_program(), &files, &attributes, argv.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&files);
        if (error) throw std::runtime_error(std::string("cannot start ") + gsve_program());
    }

    void send(int signal) const { kill(pid_, signal); }

    ProgramResult wait() const {
        int status = 0;
        waitpid(pid_, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                read_file(directory_ / "out"), read_file(directory_ / "err")};
    }

private:
    ScratchDirectory directory_;
    pid_t pid_ = -1;
};

inline ProgramResult run(const std::vector<std::string>& arguments) { return Program(arguments).wait(); }

}  // namespace gsve::test
