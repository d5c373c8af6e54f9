#include "cli/stop.h"

#include <csignal>
#include <initializer_list>

namespace gsve::cli {
namespace {

volatile std::sig_atomic_t received = 0;

void remember(int signal) { received = signal; }

}  // namespace

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
