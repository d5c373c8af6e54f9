#pragma once

// One job from its input to its output.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "programme/encode_job.h"
#include "programme/encode_result.h"

namespace gsve::programme {

/// Hears what a reader wants to know while the work goes on. But for
/// stop_reason(), called from the thread that encodes.
class Observer {
public:
    virtual ~Observer() = default;

    /// What was changed, left out or is risky: one or several lines, each ending in a line feed.
    virtual void note(std::string_view lines);

    /// What a user has to know who wants to know nothing else.
    virtual void warn(std::string_view line);

    /// The work begins. `pictures`: how many there will be, where the input tells.
    virtual void begin(std::optional<uint64_t> pictures);

    /// One more picture has gone in.
    virtual void progress(const Tally& tally);

    /// A coded picture is on its way to the output.
    virtual void unit(const encoding::EncodedUnit& unit);

    /// Not 0 where the work is to end early, with what has been encoded complete: a signal's number. Asked by
    /// all threads of the work, at any time.
    virtual int stop_reason();
};

/// Encodes. Throws UsageError, before anything is written, and Failure. Where the input cannot be read to its
/// end, what came before is complete, and the result tells why.
EncodeResult encode_programme(const EncodeJob& job, Observer& observer);

}  // namespace gsve::programme
