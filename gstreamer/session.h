#pragma once

// What the element does between GStreamer's calls and the encoder: opens a run with the settings and the
// source as they are, ends it where either changes, and gives every picture its number, its captions and its
// time.

#include <gst/video/gstvideoencoder.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "captions/parity.h"
#include "encoding/caption_track.h"
#include "gstreamer/owners.h"
#include "gstreamer/properties.h"
#include "gstreamer/run.h"

namespace gsve::gstreamer {

class Session {
public:
    explicit Session(GstVideoEncoder* element) : element_(element) {}

    // Properties, from any thread.
    void set_setting(guint id, const GValue& value);
    void get_setting(guint id, GValue& value) const;
    void set_adapt(bool on);
    bool adapt() const;
    StructurePtr status() const;
    std::string given(std::string_view key) const;

    // With the stream lock.
    void start();
    void stop();

    /// None where the pictures come at no rate, or have none yet.
    GstClockTime known_picture_duration() const;
    bool has_format(const GstVideoInfo& info) const;
    bool set_format(GstVideoCodecState* state);
    GstFlowReturn handle(CodecFramePtr frame);
    GstFlowReturn finish();
    void flush();

    /// Ends the run where one is open: all its units leave. The next picture opens another.
    GstFlowReturn end_run();

    /// The same, where the times that follow have nothing to do with those before.
    GstFlowReturn end_times();

private:
    /// What waits for the next picture that is encoded, as that of pictures that are not.
    struct Waiting {
        captions::PictureCaptions captions;
        encoding::PictureShape shape;
        bool key = false;
    };

    /// Properties that were set and have not been acted upon.
    struct Changes {
        bool reopens = false;
        bool adapt = false;
        std::vector<encoding::KeyValue> at_once;
    };

    GstObject* object() const { return GST_OBJECT(element_); }
    Changes take_changes();
    bool is_on() const;
    bool choose_codec();
    GstFlowReturn open_run(const encoding::Ancillary& first);
    void open_captions();
    GstFlowReturn encode(CodecFramePtr frame, const std::optional<CountedTimecode>& timecode);
    encoding::Ancillary ancillary_of(GstBuffer* buffer, const std::optional<CountedTimecode>& timecode);
    GstFlowReturn push_out();
    GstFlowReturn recover();
    bool tell_caps();
    void give_time(GstVideoCodecFrame& frame);
    bool went_back(GstClockTime time) const;
    GstClockTime picture_duration() const;
    bool is_late(GstVideoCodecFrame& frame) const;
    GstFlowReturn leave_out(CodecFramePtr frame);
    bool asks_for_other_run(const PictureData& data);
    void take_in(PictureData& data);
    void report_delay();
    void report_losses(const encoding::CaptionCount& all, const std::vector<encoding::LostCaption>& texts);
    void watch_losses();
    void watch_adaptation();
    void end_captions();
    void post(StructurePtr structure);

    GstVideoEncoder* element_;

    mutable std::mutex settings_mutex_;
    GivenSettings settings_;
    Changes changes_;
    bool adapt_ = true;

    CodecStatePtr input_;
    std::string codec_, profile_, level_;
    mutable std::mutex run_mutex_;  ///< of the pointer: the status is asked for on any thread
    std::shared_ptr<Run> run_;
    bool told_caps_ = false;
    std::optional<uint64_t> told_delay_;
    GstClockTime next_time_ = GST_CLOCK_TIME_NONE;
    GstClockTime latest_time_ = GST_CLOCK_TIME_NONE;
    GstClockTime decoded_until_ = 0;  ///< by the runs so far

    std::optional<captions::ParityRepair> parity_;
    std::optional<encoding::CaptionTrack> captions_;
    encoding::CaptionForms caption_forms_;
    captions::FrameRate caption_rates_[2] = {{0, 1}, {0, 1}};  ///< of the source, and encoded
    uint64_t captions_begin_ = 0;          ///< the run's first picture among all that the track knows
    uint64_t captions_begin_encoded_ = 0;  ///< the same, among those that were encoded
    encoding::CaptionCount told_losses_;
    uint64_t pictures_ = 0;  ///< so far, for what is looked at now and then
    bool has_captions_ = false, has_shape_ = false;

    Waiting waiting_;
    encoding::PictureShape held_shape_;
    std::optional<TimecodeFollower> timecodes_;
    int64_t timecodes_begin_ = 0;  ///< the run's first picture among all that it knows
    int told_adaptation_ = 0;
};

}  // namespace gsve::gstreamer
