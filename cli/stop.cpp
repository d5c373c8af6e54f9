#include "stop.h"

#include <csignal>

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
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int stop_signal() { return received; }

}  // namespace gsve::cli
