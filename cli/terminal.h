#pragma once

// Long work in front of a person: progress, notes, stop signals, and the libraries' own words, which are kept
// until the work fails.

#include <functional>
#include <optional>
#include <string_view>

#include "cli/progress.h"
#include "cli/standard_error.h"
#include "programme/encode_programme.h"

namespace gsve::cli {

class Terminal final : public programme::Observer {
public:
    Terminal(bool quiet, HeldDiagnostics* held) : quiet_(quiet), held_(held) {}

    void note(std::string_view lines) override;
    void warn(std::string_view line) override;
    void begin(std::optional<uint64_t> pictures) override { progress_.emplace(!quiet_, pictures); }
    void progress(const programme::Tally& tally) override;
    int stop_reason() override;

    void end_progress() { progress_.reset(); }

private:
    bool quiet_;
    HeldDiagnostics* held_;
    std::optional<Progress> progress_;
};

/// Does the work, whose exit status it returns. What it throws passes; what the libraries said is shown then.
int work_at_terminal(bool quiet, bool verbose, const std::function<int(Terminal&)>& work);

}  // namespace gsve::cli
