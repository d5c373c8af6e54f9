#include "cli/stop.h"

#include <csignal>
#include <initializer_list>

#include "cli/standard_error.h"
#include "programme/output_file.h"

namespace gsve::cli {
namespace {

volatile std::sig_atomic_t received = 0;

void remember(int signal) { received = signal; }

void clean_up_and_die(int signal) {
    programme::remove_temporary_files();
    show_held_diagnostics();
    std::raise(signal);  // its handler is the default one again
}

}  // namespace

void clean_up_on_fatal_signals() {
    struct sigaction action = {};
    action.sa_handler = clean_up_and_die;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigaction(signal, &action, nullptr);
}

void catch_stop_signals() {
    struct sigaction action = {};
    action.sa_handler = remember;
    // Not SA_RESTART: a read that waits for a pipe or a network has to come back.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction inherited = {};
        sigaction(signal, nullptr, &inherited);
        const bool outlives_terminal = signal == SIGHUP && inherited.sa_handler == SIG_IGN;  // nohup
        if (!outlives_terminal) sigaction(signal, &action, nullptr);
    }
}

int stop_signal() { return received; }

}  // namespace gsve::cli
