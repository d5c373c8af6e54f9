#include "gstreamer/run.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/advice.h"
#include "encoding/error.h"
#include "encoding/status.h"
#include "encoding/status_text.h"
#include "encoding/vbv_delay.h"
#include "gstreamer/caps.h"
#include "gstreamer/properties.h"

namespace gsve::gstreamer {
namespace {

using encoding::Ancillary;
using encoding::PictureFate;

encoding::PictureView view_of(const GstVideoFrame& picture, uint64_t number) {
    encoding::PictureView view;
    for (int plane = 0; plane < 3; plane++) {
        view.planes[plane] = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&picture, plane));
        view.strides[plane] = static_cast<size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&picture, plane));
    }
    view.number = number;
    return view;
}

/// Of a picture of which one field alone is to be seen: that field, in the place of both.
class FieldTwice {
public:
    FieldTwice(const GstVideoFrame& picture, int field) {
        for (int plane = 0; plane < 3; plane++) {
            const int height = GST_VIDEO_FRAME_COMP_HEIGHT(&picture, plane);
            const auto row = static_cast<size_t>(GST_VIDEO_FRAME_COMP_WIDTH(&picture, plane));
            const auto* const from = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&picture, plane));
            const auto stride = static_cast<ptrdiff_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&picture, plane));
            strides_[plane] = row;
            planes_[plane].resize(row * static_cast<size_t>(height));
            for (int line = 0; line < height; line++) {
                const int seen = std::min((line & ~1) + field, (height - 1 - field) / 2 * 2 + field);
                std::memcpy(planes_[plane].data() + static_cast<size_t>(line) * row, from + seen * stride,
                            row);
            }
        }
    }

    encoding::PictureView view(uint64_t number) const {
        encoding::PictureView view;
        for (int plane = 0; plane < 3; plane++) {
            view.planes[plane] = planes_[plane].data();
            view.strides[plane] = strides_[plane];
        }
        view.number = number;
        return view;
    }

private:
    std::vector<uint8_t> planes_[3];
    size_t strides_[3] = {};
};

/// As far as the codec knows before it has got a picture.
uint64_t expected_delay(const AVCodecContext& codec) {
    const int reordering = codec.delay > 0 ? codec.delay : std::max(codec.max_b_frames, 0);
    const bool by_threads = codec.codec_id != AV_CODEC_ID_MPEG2VIDEO && (codec.thread_type & FF_THREAD_FRAME);
    return static_cast<uint64_t>(reordering + (by_threads ? std::max(codec.thread_count - 1, 0) : 0));
}

/// More than the codec ever holds back: MPEG-2 for its B-pictures alone, the others for looking ahead, too.
size_t most_held_back(const AVCodecContext& codec) {
    constexpr size_t kSlack = 32, kLongestLookahead = 400;
    return codec.codec_id == AV_CODEC_ID_MPEG2VIDEO
               ? static_cast<size_t>(std::max(codec.max_b_frames, 0)) + kSlack
               : kLongestLookahead;
}

/// libx265 writes past its memory where a row has less than four blocks of its look-ahead.
void refuse_narrow_h265(const encoding::PictureEncoder& encoder) {
    constexpr int kNarrowest = 64;
    const int width = encoder.resize_width > 0 ? encoder.resize_width : encoder.input_width;
    if (encoder.codec_id == encoding::kH265 && width < kNarrowest)
        throw UsageError(
            fmt::format("H.265 takes pictures from {} samples of width on, not of {}.", kNarrowest, width));
}

std::vector<std::string> keys_of(const std::vector<encoding::KeyValue>& settings) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : settings) keys.push_back(key);
    return keys;
}

}  // namespace

Ancillary signalled_by(const GstVideoInfo& info, GstBuffer* buffer) {
    Ancillary ancillary;
    ancillary.display_aspect = display_aspect(info);
    ancillary.field_order = field_order(info, buffer);
    return ancillary;
}

Run::Run(GstObject* element, const RunPlan& plan, const Ancillary& first)
    : element_(element),
      info_(plan.info),
      encoder_(plan.name),
      decoded_until_(plan.decoded_until),
      latest_decoding_(plan.decoded_until) {
    const LogScope log(element_);
    encoding::SourceDescription source = source_of(plan.info);
    source.may_have_shape = plan.has_shape;
    encoder_.describe_source(source);
    encoder_.adapt_to_load(plan.adapts);
    encoder_.apply("enable", "1");
    encoder_.apply("encoder", plan.codec);
    encoding::check_together(plan.settings);
    for (const auto& [key, value] : plan.settings)
        if (key != "encoder" && key != "enable") encoder_.apply(key, value);
    choose_caption_forms(encoder_, {.wanted = true, .present = plan.has_captions, .scte20 = false},
                         keys_of(plan.settings));
    refuse_narrow_h265(encoder_);
    avoid_long_pictures();
    encoder_.send_units_to([this](const encoding::EncodedUnit& unit) { receive(unit); });
    open(first);
    if (const std::string reason = in_properties(stuffing_warning(encoder_)); !reason.empty()) {
        encoder_.client_unref();
        take_remedy("min bitrate", "0", reason);
        open(first);
    }
    codec_log_.emplace(encoder_.mpeg_context, element_);
    forms_ = caption_forms(encoder_, false);
    encoder_.carry_line_rate(forms_.line_rate);
    check_caption_settings(encoder_, forms_);
    delay_ = expected_delay(*encoder_.mpeg_context) * encoder_.frame_rate_divider;
    most_held_back_ = most_held_back(*encoder_.mpeg_context);
}

Run::~Run() {
    const LogScope log(element_);
    codec_log_.reset();
    encoder_.free_encoder();
}

void Run::open(const Ancillary& first) {
    if (encoder_.open(first)) return;
    const std::string notes = encoding::one_line(encoder_.last_notes);
    throw UsageError(fmt::format(
        "The {} encoder does not open: {}{}; {}.", gsve_encoder_str[encoder_.codec_id], encoder_.last_error,
        notes.empty() ? "" : fmt::format(" ({})", notes), in_properties(opening_advice(encoder_))));
}

void Run::take_remedy(const char* key, const std::string& value, const std::string& reason) {
    encoder_.apply(key, value);
    remedies_.push_back({key, value, reason});
}

/// Without the claim of a constant rate, MPEG-2 states no delays, and a picture may take as long as it needs.
/// Where the rate is next to nothing, that is no claim, and the buffer has to be beyond what can be stated.
void Run::avoid_long_pictures() {
    const std::string reason = in_properties(long_picture_warning(encoder_));
    if (reason.empty()) return;
    take_remedy("min bitrate", "0", reason);
    const encoding::VbvDelayAdvice advice = encoding::vbv_delay_advice(encoder_);
    if (advice.needed) take_remedy("buffer size", std::to_string(advice.buffer_size), reason);
}

PictureFate Run::push(CodecFramePtr frame, const GstVideoFrame& picture, Ancillary ancillary) {
    const auto number = static_cast<int64_t>(next_number_++);
    if (!GST_CLOCK_TIME_IS_VALID(first_time_)) first_time_ = frame->pts;
    times_[number] = frame->pts;
    GstBuffer* const buffer = frame->input_buffer;
    const bool one_field =
        ancillary.field_order > 0 && GST_BUFFER_FLAG_IS_SET(buffer, GST_VIDEO_BUFFER_FLAG_ONEFIELD);
    in_codec_.emplace(number, std::move(frame));

    const std::lock_guard lock(mutex_);
    const LogScope log(element_);
    PictureFate fate;
    if (one_field) {
        const FieldTwice twice(picture, ancillary.field_order - 1);
        fate = encoder_.push(twice.view(static_cast<uint64_t>(number)), ancillary);
    } else {
        fate = encoder_.push(view_of(picture, static_cast<uint64_t>(number)), ancillary);
    }
    if (fate == PictureFate::kEncoded) return fate;
    dropped_.push_back(std::move(in_codec_.extract(number).mapped()));
    return fate;
}

void Run::drain() {
    {
        const std::lock_guard lock(mutex_);
        const LogScope log(element_);
        encoder_.drain();
    }
    drop_before(INT64_MAX);
}

void Run::apply(const encoding::KeyValue& setting) {
    const std::lock_guard lock(mutex_);
    const LogScope log(element_);
    encoder_.apply(setting.first, setting.second);
}

void Run::adapt_to_load(bool on) {
    const std::lock_guard lock(mutex_);
    encoder_.adapt_to_load(on);
}

std::vector<std::pair<std::string, std::string>> Run::status() {
    const std::lock_guard lock(mutex_);
    return encoding::status_pairs(encoder_, encoder_.output_name());
}

void Run::receive(const encoding::EncodedUnit& unit) {
    const auto found = in_codec_.find(unit.pts);
    if (found == in_codec_.end()) {
        GST_CAT_WARNING_OBJECT(gsveenc_debug, element_,
                               "a unit of picture %" G_GINT64_FORMAT ", which is not there", unit.pts);
        return;
    }
    if (!std::exchange(seen_unit_, true)) {
        first_unit_.assign(unit.bytes.begin(), unit.bytes.end());
        delay_ = 0;
        lead_ = std::max<int64_t>(-unit.dts, 0);
    }
    delay_ = std::max(delay_, next_number_ - 1 - static_cast<uint64_t>(unit.pts));
    drop_before(unit.dts);

    CodecFramePtr frame = std::move(in_codec_.extract(found).mapped());
    // Where times stand still or go back, decoding goes on.
    latest_decoding_ = std::max(latest_decoding_, decoding_time(unit.dts));
    frame->dts = std::min(latest_decoding_, frame->pts);
    times_.erase(times_.begin(), times_.lower_bound(unit.dts));
    if (unit.key) GST_VIDEO_CODEC_FRAME_SET_SYNC_POINT(frame.get());
    if (captions_) {
        encoding::EncodedUnit counted = unit;
        counted.pts += static_cast<int64_t>(captions_begin_);
        captions_->emitted(counted);
    }
    finished_.push_back(
        {std::move(frame), BufferPtr(gst_buffer_new_memdup(unit.bytes.data(), unit.bytes.size()))});
}

/// A picture that is shown before another one is decoded has left the codec, or never will.
void Run::drop_before(int64_t number) {
    const auto end = in_codec_.lower_bound(number);
    for (auto frame = in_codec_.begin(); frame != end; ++frame) {
        dropped_.push_back(std::move(frame->second));
        lost_++;
    }
    in_codec_.erase(in_codec_.begin(), end);
}

/// That of a picture, or of one in front of the first. Where a run before has less room for those than this
/// one needs, they share what there is.
GstClockTime Run::decoding_time(int64_t number) const {
    if (const auto known = times_.find(number); known != times_.end()) return known->second;
    if (number >= 0) return latest_decoding_;
    const AVRational rate = frame_rate_of(info_);
    const auto seconds_of = [rate](int64_t pictures) {
        return gst_util_uint64_scale(static_cast<guint64>(pictures),
                                     GST_SECOND * static_cast<guint64>(rate.den),
                                     static_cast<guint64>(rate.num));
    };
    const GstClockTime room = first_time_ - std::min(decoded_until_, first_time_);
    const auto step = static_cast<int64_t>(encoder_.frame_rate_divider);
    const GstClockTime wanted = seconds_of(lead_ + step);
    if (wanted <= room) return first_time_ - seconds_of(-number);
    return decoded_until_ + gst_util_uint64_scale(room, static_cast<guint64>(lead_ + step + number),
                                                  static_cast<guint64>(lead_ + step));
}

}  // namespace gsve::gstreamer
