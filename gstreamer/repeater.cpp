#include "gstreamer/repeater.h"

namespace gsve::gstreamer {
namespace {

/// Captions and a time code belong to the picture that they came with.
gboolean keep_what_lasts(GstBuffer* /*buffer*/, GstMeta** meta, gpointer /*unused*/) {
    const GType api = (*meta)->info->api;
    if (api == GST_VIDEO_CAPTION_META_API_TYPE || api == GST_VIDEO_TIME_CODE_META_API_TYPE) *meta = nullptr;
    return TRUE;
}

}  // namespace

void Repeater::set_longest(GstClockTime longest) {
    const std::lock_guard lock(mutex_);
    longest_ = longest;
}

GstClockTime Repeater::longest() const {
    const std::lock_guard lock(mutex_);
    return longest_;
}

GstBuffer* Repeater::before(const GstBuffer* next, GstClockTime picture_duration) {
    if (!last_ || !GST_BUFFER_PTS_IS_VALID(last_) || !GST_BUFFER_PTS_IS_VALID(next)) return nullptr;
    const GstClockTime due = GST_BUFFER_PTS(last_) + picture_duration;
    // What is not a whole picture late is a time that wavers.
    if (GST_BUFFER_PTS(next) < due + picture_duration / 2 ||
        GST_BUFFER_PTS(next) - GST_BUFFER_PTS(last_) > longest())
        return nullptr;
    GstBuffer* const repetition = gst_buffer_copy(last_);
    gst_buffer_foreach_meta(repetition, keep_what_lasts, nullptr);
    GST_BUFFER_PTS(repetition) = due;
    GST_BUFFER_DTS(repetition) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(repetition) = picture_duration;
    GST_BUFFER_FLAG_UNSET(repetition, GST_BUFFER_FLAG_DISCONT);
    remember(repetition);
    return repetition;
}

bool Repeater::is_past(const GstBuffer* picture, GstClockTime picture_duration) const {
    const GstClockTime most = longest();
    if (most == 0 || !last_ || !GST_BUFFER_PTS_IS_VALID(last_) || !GST_BUFFER_PTS_IS_VALID(picture))
        return false;
    return GST_BUFFER_PTS(picture) < GST_BUFFER_PTS(last_) + picture_duration / 2 &&
           GST_BUFFER_PTS(picture) + most >= GST_BUFFER_PTS(last_);
}

}  // namespace gsve::gstreamer
