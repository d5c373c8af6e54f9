#pragma once

// Fills pauses of the pictures with the last one, so that the stream goes on at its rate where a source
// stumbles or another one takes over. Pictures that do come stay as they are, at their times: nothing of
// their captions is lost.

#include <gst/video/video.h>

#include <mutex>

#include "gstreamer/owners.h"

namespace gsve::gstreamer {

class Repeater {
public:
    ~Repeater() { forget(); }

    /// Pauses of at most so long are filled; 0: none. From any thread.
    void set_longest(GstClockTime longest);
    GstClockTime longest() const;

    /// Pictures of other caps or another segment come; or none do.
    void forget() { gst_clear_buffer(&last_); }

    /// The next repetition of the last picture that belongs in front of `next`, which the caller owns; null:
    /// none.
    GstBuffer* before(const GstBuffer* next, GstClockTime picture_duration);

    /// Whether a picture comes for a time for which one has been shown: a source that takes over may be
    /// behind the one before. What goes back by more than the longest pause is another line of times.
    bool is_past(const GstBuffer* picture, GstClockTime picture_duration) const;

    /// A picture that is going to be encoded, and is to be repeated if need be.
    void remember(GstBuffer* picture) { gst_buffer_replace(&last_, picture); }

private:
    mutable std::mutex mutex_;
    GstClockTime longest_ = 0;
    GstBuffer* last_ = nullptr;
};

}  // namespace gsve::gstreamer
