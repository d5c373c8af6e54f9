#pragma once

// What goes with one picture of GStreamer's, beside its samples: captions, active format and bars, time code,
// and the order of its fields.

#include <gst/video/video.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "captions/schedule.h"
#include "captions/timecode.h"
#include "encoding/picture_shape.h"

namespace gsve::gstreamer {

/// A time code, and the rate at which it is counted where it tells that.
struct CountedTimecode {
    captions::Timecode timecode;
    std::optional<captions::FrameRate> rate;
};

struct PictureData {
    bool has_captions = false;  ///< there is a place for them, which may be idle
    captions::PictureCaptions captions;
    encoding::PictureShape shape;
    std::optional<CountedTimecode> timecode;
    std::vector<std::string> damage;  ///< what was wrong with the captions
};

/// Where a buffer has captions in several forms, they are the same captions, and the richest form counts:
/// CEA-708, with or without a distribution packet around it, before CEA-608 with fields, before CEA-608 of
/// which field 1 is all there is.
PictureData picture_data(GstBuffer* buffer);

/// 0 progressive, 1 top field first, 2 bottom field first. The caps tell, and where they leave it open, the
/// buffer.
int field_order(const GstVideoInfo& info, GstBuffer* buffer);

/// Follows the time codes of a run's pictures: each has its own, and those that come without one are counted
/// on.
class TimecodeFollower {
public:
    /// One of `divider` pictures of the source is encoded.
    TimecodeFollower(captions::FrameRate source, captions::FrameRate encoded, int64_t divider)
        : source_(source), encoded_(encoded), divider_(divider) {}

    /// The time code of picture `number`, which is going to be encoded, at the encoded rate. Numbers ascend.
    std::optional<captions::GopTimecode> next(int64_t number, const std::optional<CountedTimecode>& found);

private:
    captions::Timecode counted(int64_t number) const;

    captions::FrameRate source_, encoded_;
    int64_t divider_;
    std::optional<captions::Timecode> anchor_;  ///< of picture `anchored_at_`, at the counting rate
    captions::FrameRate counting_{25, 1};
    int64_t anchored_at_ = 0;
};

}  // namespace gsve::gstreamer
