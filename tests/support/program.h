#pragma once

// Runs the gsve program the way a user does: by its command line, with its output and exit status.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "cli/commands.h"
#include "support/scratch.h"

namespace gsve::test {

struct ProgramResult {
    int status = -1;  ///< exit status, or 128 plus the signal that ended the process
    std::string out;
    std::string err;
};

/// Another program of the same command line that the environment names; null: gsve itself.
inline const char* other_program() { return std::getenv("GSVE_PROGRAM"); }

#ifdef GSVE_PROGRAM
/// The built program, for who starts it in other ways.
inline const char* gsve_program() { return other_program() ? other_program() : GSVE_PROGRAM; }
#endif

/// A running gsve. It begins where the built program's main() does, in a process of its own: to load FFmpeg's
/// 170 libraries would take longer than most runs, and the test has them.
class Program {
public:
    /// `standard_output`: a file for it in place of the one that wait() returns.
    explicit Program(const std::vector<std::string>& arguments, const std::string& standard_output = {})
        : Program(other_program(), arguments, standard_output) {}

    /// Runs the program of that name; null: gsve itself.
    Program(const char* program, const std::vector<std::string>& arguments,
            const std::string& standard_output = {}) {
        std::vector<char*> argv = {const_cast<char*>(program ? program : "gsve")};
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        const std::string out = standard_output.empty() ? directory_ / "out" : standard_output;
        const std::string err = directory_ / "err";
        std::fflush(nullptr);  // what waits here would be written twice
        pid_ = fork();
        if (pid_ < 0) throw std::runtime_error("cannot start a process");
        if (pid_ > 0) return;
        constexpr int kWritten = O_WRONLY | O_CREAT | O_TRUNC;
        redirect(0, "/dev/null", O_RDONLY);
        redirect(1, out, kWritten);
        redirect(2, err, kWritten);
        // As a terminal starts it, even where this process was started to ignore signals.
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
        if (!program) {
            av_log_set_level(AV_LOG_INFO);
            av_log_set_callback(av_log_default_callback);
            const int status = cli::run(static_cast<int>(argv.size()) - 1, argv.data());
            std::fflush(nullptr);
            _exit(status);  // what the test still needs is its own to tidy away
        }
        execv(program, argv.data());
        _exit(127);
    }

    void send(int signal) const { kill(pid_, signal); }

    /// Until none of its threads has anything to do.
    void wait_until_idle() const {
        using namespace std::chrono_literals;
        constexpr int kTries = 12'000, kLooks = 10;
        for (int tries = 0, idle = 0; tries < kTries; tries++) {
            idle = sleeps() ? idle + 1 : 0;
            if (idle == kLooks) return;
            std::this_thread::sleep_for(5ms);
        }
        throw std::runtime_error("the program does not come to rest");
    }

    ProgramResult wait() const {
        int status = 0;
        waitpid(pid_, &status, 0);
        ProgramResult result = {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                                read_file(directory_ / "out"), read_file(directory_ / "err")};
        keep_report(result.out);
        return result;
    }

private:
    /// By the state of each thread, as the system tells it after the program's name in brackets.
    bool sleeps() const {
        const std::string threads = "/proc/" + std::to_string(pid_) + "/task";
        for (const auto& thread : std::filesystem::directory_iterator(threads)) {
            const std::string status = read_file(thread.path() / "stat");
            const size_t name_end = status.rfind(") ");
            if (name_end == std::string::npos || status[name_end + 2] != 'S') return false;
        }
        return true;
    }

    /// Reports are held against their schema later on.
    void keep_report(const std::string& out) const {
        const char* const folder = std::getenv("GSVE_REPORTS");
        if (!folder || !out.starts_with("{\n")) return;
        std::filesystem::create_directories(folder);
        std::ofstream(std::string(folder) + "/" + std::to_string(getpid()) + "-" + std::to_string(pid_) +
                      ".json")
            << out;
    }

    static void redirect(int descriptor, const std::string& path, int flags) {
        const int file = open(path.c_str(), flags, 0600);
        if (file < 0 || dup2(file, descriptor) < 0) _exit(126);
        close(file);
    }

    ScratchDirectory directory_;
    pid_t pid_ = -1;
};

inline ProgramResult run(const std::vector<std::string>& arguments) { return Program(arguments).wait(); }

}  // namespace gsve::test
