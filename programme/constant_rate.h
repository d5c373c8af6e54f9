#pragma once

// Pictures at their own times to pictures at one rate: repeated where one is shown longer, left out where
// another takes its place.

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

#include "programme/av.h"

namespace gsve::programme {

/// Times are rounded to the nearest place of the new rate, halves away from zero. What is repeated shares the
/// samples of the picture before.
class ConstantRate {
public:
    ConstantRate(AVRational time_base, AVRational frame_rate)
        : time_base_(time_base), place_duration_(av_inv_q(frame_rate)) {}

    /// Begins at a place, in place of the first picture's. What is there is the last picture at or before it.
    void begin_at(int64_t place) {
        waiting_.clear();
        end_.reset();
        next_ = place;
    }

    /// Takes a picture with its time. The first one's begins the run, unless it was told where.
    void put(FramePtr frame) {
        frame->pts = place_of(frame->pts);
        if (!next_) next_ = frame->pts;
        waiting_.push_back(std::move(frame));
    }

    /// No more pictures follow; the last one ends at `end_time`.
    void finish(int64_t end_time) { end_ = place_of(end_time); }

    /// The next picture, with its place for a time; null where it needs another one first, or at the end.
    FramePtr take() {
        while (!waiting_.empty() && is_over(*next_)) waiting_.pop_front();
        if (waiting_.empty() || (waiting_.size() == 1 && !end_)) return nullptr;
        FramePtr frame;
        if (is_over(*next_ + 1)) {
            frame = std::move(waiting_.front());
            waiting_.pop_front();
        } else {
            frame.reset(av_frame_clone(waiting_.front().get()));
            check_memory(frame != nullptr);
        }
        frame->pts = (*next_)++;
        return frame;
    }

    /// Where a picture of this time has its place.
    int64_t place_of(int64_t time) const { return av_rescale_q(time, time_base_, place_duration_); }

    /// Whether take() has given all there was, after finish().
    bool at_end() const { return end_ && waiting_.empty(); }

private:
    /// Whether the foremost picture is not shown at a place any more.
    bool is_over(int64_t place) const {
        return (waiting_.size() > 1 && waiting_[1]->pts <= place) || (end_ && *end_ <= place);
    }

    AVRational time_base_;
    AVRational place_duration_;
    std::deque<FramePtr> waiting_;  ///< the picture that is shown, and those after it
    std::optional<int64_t> next_;   ///< place of the next picture
    std::optional<int64_t> end_;    ///< place after the last one
};

}  // namespace gsve::programme
