#pragma once

// Presentation and decoding times of encoded units, in source pictures, as a multiplexer needs them.
//
// Presentation times come with the units. Decoding times are made here: those of the codec do not last to the
// end of a stream (with per-frame rate control the encoder reports 0 for every time before the first picture;
// drained units count encoded pictures, the others source pictures). They follow from the order alone. A
// codec that reorders by `depth` pictures needs picture k - depth, counted in display order, to be complete
// when it is given unit k, so unit k is decoded at the time of that picture: strictly increasing, and never
// after the unit's own presentation. The first units are decoded before the first picture is shown.

#include <cstdint>
#include <deque>

namespace gsve::encoding {

class UnitTimes {
public:
    /// `depth`: pictures that the codec holds back for reordering; `step`: source pictures per encoded one.
    UnitTimes(int depth, int64_t step) : lead_(depth), step_(step) {}

    /// Picture `number` is about to go to the encoder. Numbers rise.
    void offered(int64_t number) { waiting_.push_back(number); }

    /// The encoder skipped or dropped the picture offered last: it will have no unit.
    void withdrawn() { waiting_.pop_back(); }

    /// The decoding time of the next unit, in the order in which units leave the encoder.
    int64_t next_decode_time() {
        if (lead_ > 0) return waiting_.front() - step_ * lead_--;
        const int64_t time = waiting_.front();
        waiting_.pop_front();
        return time;
    }

private:
    int64_t lead_;
    int64_t step_;
    std::deque<int64_t> waiting_;  ///< pictures whose display times have not served as decoding times yet
};

}  // namespace gsve::encoding
