#include "cli/stop.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

#include "cli/standard_error.h"
#include "programme/output_file.h"

namespace gsve::cli {
namespace {

std::atomic<int> received = 0;  // threads ask for it

void clean_up_and_die(int signal) {
    programme::remove_temporary_files();
    if (signal != received) show_held_diagnostics();  // a user who wants it to end at once does not ask why
    std::raise(signal);                               // its handler is the default one again
}

void handle(int signal, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
}

void handle_last(int signal) {
    handle(signal, clean_up_and_die, static_cast<int>(SA_RESETHAND | SA_NODEFER));
}

void remember(int signal) {
    received = signal;
    handle_last(signal);
}

}  // namespace

void clean_up_on_fatal_signals() {
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) handle_last(signal);
}

void catch_stop_signals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction inherited = {};
        sigaction(signal, nullptr, &inherited);
        const bool outlives_terminal = signal == SIGHUP && inherited.sa_handler == SIG_IGN;  // nohup
        // Not SA_RESTART: a call that waits for a network has to come back.
        if (!outlives_terminal) handle(signal, remember, 0);
    }
}

int stop_signal() { return received; }

}  // namespace gsve::cli
