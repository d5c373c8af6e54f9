#include "cli/terminal.h"

#include <csignal>

#include <fmt/format.h>

extern "C" {
#include <libavutil/log.h>
}

#include "cli/stop.h"

namespace gsve::cli {

void Terminal::note(std::string_view lines) {
    if (!quiet_) fmt::print(user_stream(), "{}", lines);
}

void Terminal::warn(std::string_view line) { fmt::print(user_stream(), "gsve: {}\n", line); }

void Terminal::progress(const programme::Tally& tally) {
    if (progress_) progress_->show(tally);
    if (held_) held_->limit();
}

int Terminal::stop_reason() { return stop_signal(); }

int work_at_terminal(bool quiet, bool verbose, const std::function<int(Terminal&)>& work) {
    av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_ERROR);
    catch_stop_signals();
    std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is told of like a full disk
    clean_up_on_fatal_signals();
    std::optional<HeldDiagnostics> held;
    if (!verbose) held.emplace();
    Terminal terminal(quiet, held ? &*held : nullptr);
    try {
        return work(terminal);
    } catch (...) {
        terminal.end_progress();
        if (held) held->show();
        throw;
    }
}

}  // namespace gsve::cli
