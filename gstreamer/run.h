#pragma once

// One run of the encoder, from its opening to its end: pictures of GStreamer's in, finished units with their
// frames and times out. It pushes nothing downstream and posts nothing: what a caller is to do with the
// result stands in it.

#include <gst/video/video.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "encoding/caption_forms.h"
#include "encoding/caption_track.h"
#include "encoding/picture_encoder.h"
#include "encoding/settings.h"
#include "gstreamer/log.h"
#include "gstreamer/owners.h"
#include "gstreamer/picture_data.h"

namespace gsve::gstreamer {

/// What a run is opened with.
struct RunPlan {
    std::string name;
    GstVideoInfo info;  ///< of the pictures
    std::string codec;
    std::vector<encoding::KeyValue> settings;  ///< as given, the codec's aside
    bool adapts = true;
    bool has_captions = false;       ///< pictures have come with some
    bool has_shape = false;          ///< pictures have come with an active format or bars
    GstClockTime decoded_until = 0;  ///< units of the run before go on until then
};

/// A setting that would have let one picture end the process, and what was set instead.
struct Remedy {
    std::string key, value;
    std::string reason;
};

/// A unit and the frame that it belongs to, with its times.
struct FinishedUnit {
    CodecFramePtr frame;
    BufferPtr bytes;
};

class Run {
public:
    /// Opens the encoder; `first` is what goes with the first picture. Throws UsageError with what to change
    /// where it does not open.
    Run(GstObject* element, const RunPlan& plan, const encoding::Ancillary& first);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    /// Takes one picture, whose frame has a time. What the picture's captions come to is the caller's
    /// `ancillary`. Throws Failure where the encoder cannot go on.
    encoding::PictureFate push(CodecFramePtr frame, const GstVideoFrame& picture,
                               encoding::Ancillary ancillary);

    /// Ends the run: the pictures that the codec still holds.
    void drain();

    /// The units that have left since the last call, and frames of which none came and none will.
    std::vector<FinishedUnit> take_units() { return std::exchange(finished_, {}); }
    std::vector<CodecFramePtr> take_dropped() { return std::exchange(dropped_, {}); }

    /// The number that push() gives the next picture, and whether the encoder will take it.
    uint64_t next_number() const { return next_number_; }
    bool takes_next() const { return encoder_.takes(next_number_); }

    /// Pictures of the source by which units come later than their pictures, as far as seen; before the first
    /// unit, as far as the codec tells.
    uint64_t delay() const { return delay_; }

    /// When the latest unit is decoded.
    GstClockTime latest_decoding() const { return latest_decoding_; }

    /// Pictures that the codec has taken and never given, so far.
    uint64_t lost() const { return lost_; }

    /// Whether the codec has more pictures than it ever holds back: it refuses some, or all.
    bool is_stuck() const { return in_codec_.size() > most_held_back_; }
    bool has_given_units() const { return seen_unit_; }

    /// What goes with a picture is followed until its unit leaves.
    void follow_captions(encoding::CaptionTrack* track, uint64_t first_number) {
        captions_ = track;
        captions_begin_ = first_number;
    }

    /// Applies a setting that works on an open encoder.
    void apply(const encoding::KeyValue& setting);
    void adapt_to_load(bool on);

    std::vector<std::pair<std::string, std::string>> status();

    encoding::PictureEncoder& encoder() { return encoder_; }
    const encoding::CaptionForms& forms() const { return forms_; }
    const std::vector<Remedy>& remedies() const { return remedies_; }

    /// The first unit's bytes until it was taken; caps are made from it.
    std::span<const uint8_t> first_unit() const { return first_unit_; }

private:
    void open(const encoding::Ancillary& first);
    void avoid_long_pictures();
    void take_remedy(const char* key, const std::string& value, const std::string& reason);
    void receive(const encoding::EncodedUnit& unit);
    void drop_before(int64_t number);
    GstClockTime decoding_time(int64_t number) const;

    GstObject* element_;
    GstVideoInfo info_;
    mutable std::mutex mutex_;  ///< of the encoder: the status is asked for on any thread
    encoding::PictureEncoder encoder_;
    std::optional<CodecLog> codec_log_;
    encoding::CaptionForms forms_;
    std::vector<Remedy> remedies_;
    encoding::CaptionTrack* captions_ = nullptr;
    uint64_t captions_begin_ = 0;

    uint64_t lost_ = 0;
    uint64_t next_number_ = 0;
    std::map<int64_t, CodecFramePtr> in_codec_;  ///< by number
    std::map<int64_t, GstClockTime> times_;      ///< of pictures whose time may yet be one of decoding
    GstClockTime first_time_ = GST_CLOCK_TIME_NONE;
    GstClockTime decoded_until_ = 0;
    GstClockTime latest_decoding_ = 0;
    int64_t lead_ = 0;  ///< pictures by which decoding begins before the first one is shown
    std::vector<FinishedUnit> finished_;
    std::vector<CodecFramePtr> dropped_;
    std::vector<uint8_t> first_unit_;
    bool seen_unit_ = false;
    uint64_t delay_ = 0;
    size_t most_held_back_ = 0;
};

/// What a picture signals by itself.
encoding::Ancillary signalled_by(const GstVideoInfo& info, GstBuffer* buffer);

}  // namespace gsve::gstreamer
