#include "gstreamer/session.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "encoding/status_text.h"
#include "gstreamer/caps.h"

namespace gsve::gstreamer {
namespace {

using encoding::Ancillary;
using encoding::CaptionCount;
using encoding::PictureFate;

/// The planes of a buffer, wherever they lie in it, for as long as they are read.
class MappedPicture {
public:
    MappedPicture(const GstVideoInfo& info, GstBuffer* buffer)
        : mapped_(gst_video_frame_map(&frame_, &info, buffer, GST_MAP_READ)) {}
    ~MappedPicture() {
        if (mapped_) gst_video_frame_unmap(&frame_);
    }
    MappedPicture(const MappedPicture&) = delete;
    MappedPicture& operator=(const MappedPicture&) = delete;

    explicit operator bool() const { return mapped_; }
    const GstVideoFrame& operator*() const { return frame_; }

private:
    GstVideoFrame frame_{};
    bool mapped_;
};

/// What happened first of two bad things is what the caller hears of.
GstFlowReturn first_bad(GstFlowReturn a, GstFlowReturn b) { return a == GST_FLOW_OK ? b : a; }

void append(captions::PictureCaptions& sum, captions::PictureCaptions& more) {
    for (int field = 0; field < captions::kFields; field++)
        sum.fields[field].insert(sum.fields[field].end(), more.fields[field].begin(),
                                 more.fields[field].end());
    sum.cea708.insert(sum.cea708.end(), more.cea708.begin(), more.cea708.end());
}

/// What is new about a picture's shape takes the place of what was said of earlier ones.
void overlay(encoding::PictureShape& shape, const encoding::PictureShape& news) {
    if (news.afd) shape.afd = news.afd;
    if (news.bars) shape.bars = news.bars;
}

}  // namespace

// Properties

void Session::set_setting(guint id, const GValue& value) {
    const std::lock_guard lock(settings_mutex_);
    try {
        encoding::KeyValue setting = settings_.set(id, value);
        if (encoding::works_on_open_encoder(setting.first))
            changes_.at_once.push_back(std::move(setting));
        else
            changes_.reopens = true;
    } catch (const UsageError& error) {
        GST_CAT_WARNING_OBJECT(gsveenc_debug, object(), "%s; the property stays as it was",
                               in_properties(error.what()).c_str());
    }
}

void Session::get_setting(guint id, GValue& value) const {
    const std::lock_guard lock(settings_mutex_);
    settings_.get(id, value);
}

void Session::set_adapt(bool on) {
    const std::lock_guard lock(settings_mutex_);
    adapt_ = on;
    changes_.adapt = true;
}

bool Session::adapt() const {
    const std::lock_guard lock(settings_mutex_);
    return adapt_;
}

std::string Session::given(std::string_view key) const {
    const std::lock_guard lock(settings_mutex_);
    return settings_.given(key);
}

StructurePtr Session::status() const {
    StructurePtr structure(gst_structure_new_empty("gsveenc-status"));
    std::shared_ptr<Run> run;
    {
        const std::lock_guard lock(run_mutex_);
        run = run_;
    }
    gst_structure_set(structure.get(), "open", G_TYPE_BOOLEAN, run != nullptr, nullptr);
    if (!run) return structure;
    for (const auto& [name, value] : run->status()) {
        std::string field(encoding::pair_subject(name));
        std::ranges::replace(field, ' ', '-');
        gst_structure_set(structure.get(), field.c_str(), G_TYPE_STRING, value.c_str(), nullptr);
    }
    return structure;
}

Session::Changes Session::take_changes() {
    const std::lock_guard lock(settings_mutex_);
    return std::exchange(changes_, {});
}

bool Session::is_on() const {
    const std::lock_guard lock(settings_mutex_);
    return settings_.given("enable") != "0" && settings_.given("encoder") != "none";
}

// From start to stop

void Session::start() {
    // Decoding begins before the first picture is shown, and may not begin before all time.
    gst_video_encoder_set_min_pts(element_, GST_SECOND * 60 * 60 * 1000);
}

void Session::stop() {
    flush();
    input_.reset();
    told_delay_.reset();
    has_captions_ = has_shape_ = false;
}

/// Pictures of one view may say so, or not.
bool Session::has_format(const GstVideoInfo& info) const {
    if (!input_) return false;
    const auto plain = [](GstVideoInfo any) {
        if (GST_VIDEO_INFO_MULTIVIEW_MODE(&any) == GST_VIDEO_MULTIVIEW_MODE_NONE)
            GST_VIDEO_INFO_MULTIVIEW_MODE(&any) = GST_VIDEO_MULTIVIEW_MODE_MONO;
        return any;
    };
    const GstVideoInfo before = plain(input_->info), now = plain(info);
    return gst_video_info_is_equal(&before, &now);
}

bool Session::set_format(GstVideoCodecState* state) {
    const GstVideoInterlaceMode mode = GST_VIDEO_INFO_INTERLACE_MODE(&state->info);
    if (mode != GST_VIDEO_INTERLACE_MODE_PROGRESSIVE && mode != GST_VIDEO_INTERLACE_MODE_INTERLEAVED &&
        mode != GST_VIDEO_INTERLACE_MODE_MIXED) {
        GST_ELEMENT_ERROR(element_, STREAM, FORMAT, ("Fields have to come interleaved, in one buffer."),
                          (nullptr));
        return false;
    }
    const bool same = has_format(state->info);
    if (!same) end_run();
    input_.reset(gst_video_codec_state_ref(state));
    if (same) return true;
    held_shape_ = {};
    if (!choose_codec()) return false;
    // The profile is known once there is a unit; this much may be asked for earlier.
    const int id = codec_ == "mpeg-2"  ? encoding::kMpeg2
                   : codec_ == "h.264" ? encoding::kH264
                                       : encoding::kH265;
    gst_video_codec_state_unref(
        gst_video_encoder_set_output_state(element_, stream_caps(id, {}).release(), input_.get()));
    return true;
}

/// The codec, and what the caps downstream ask of it.
bool Session::choose_codec() {
    const CapsPtr downstream(gst_pad_get_allowed_caps(GST_VIDEO_ENCODER_SRC_PAD(element_)));
    const CapsPtr own(gst_pad_get_pad_template_caps(GST_VIDEO_ENCODER_SRC_PAD(element_)));
    const GstCaps* const caps = downstream ? downstream.get() : own.get();
    const std::string wanted = given("encoder");
    codec_ = codec_for(caps, wanted == "none" ? "" : wanted);
    if (codec_.empty()) {
        GST_ELEMENT_ERROR(
            element_, STREAM, FORMAT,
            ("Nothing downstream takes %s.", wanted.empty() ? "MPEG-2, H.264 or H.265" : wanted.c_str()),
            ("downstream: %" GST_PTR_FORMAT, caps));
        return false;
    }
    profile_ = profile_asked(caps, codec_);
    level_ = level_asked(caps, codec_);
    return true;
}

GstFlowReturn Session::finish() {
    const GstFlowReturn flow = end_run();
    end_captions();
    return flow;
}

void Session::flush() {
    {
        const std::lock_guard lock(run_mutex_);
        run_.reset();
    }
    captions_.reset();
    parity_.reset();
    timecodes_.reset();
    waiting_ = {};
    held_shape_ = {};
    next_time_ = latest_time_ = GST_CLOCK_TIME_NONE;
    decoded_until_ = 0;
}

// One picture

GstFlowReturn Session::handle(CodecFramePtr frame) {
    GstFlowReturn flow = GST_FLOW_OK;
    const Changes changes = take_changes();
    give_time(*frame);
    if (went_back(frame->pts))
        flow = end_times();
    else if (run_ && changes.reopens)
        flow = end_run();
    latest_time_ = frame->pts;
    if (run_) {
        for (const encoding::KeyValue& setting : changes.at_once) run_->apply(setting);
        if (changes.adapt) run_->adapt_to_load(adapt());
    }

    PictureData data = picture_data(frame->input_buffer);
    const bool other_run = asks_for_other_run(data);
    waiting_.key |= GST_VIDEO_CODEC_FRAME_IS_FORCE_KEYFRAME(frame.get());
    if (!is_on()) {
        waiting_ = {};
        return first_bad(flow, leave_out(std::move(frame)));
    }
    take_in(data);
    if (flow != GST_FLOW_OK || is_late(*frame)) return first_bad(flow, leave_out(std::move(frame)));
    if (run_ && other_run) flow = end_run();
    if (!run_) flow = first_bad(flow, open_run(signalled_by(input_->info, frame->input_buffer)));
    if (flow != GST_FLOW_OK) return first_bad(flow, leave_out(std::move(frame)));
    return encode(std::move(frame), data.timecode);
}

GstClockTime Session::picture_duration() const {
    const AVRational rate = frame_rate_of(input_->info);
    return gst_util_uint64_scale_int_round(GST_SECOND, rate.den, rate.num);
}

GstClockTime Session::known_picture_duration() const {
    return input_ && GST_VIDEO_INFO_FPS_N(&input_->info) > 0 ? picture_duration() : GST_CLOCK_TIME_NONE;
}

/// A picture that says no time follows the one before it.
void Session::give_time(GstVideoCodecFrame& frame) {
    // Where nobody tells a time, the first one leaves room for the decoding of those that are held back.
    constexpr guint64 kMostHeldBack = 20;
    const GstClockTime usual = picture_duration();
    if (!GST_CLOCK_TIME_IS_VALID(frame.duration)) frame.duration = usual;
    // The base class moves times so that none of decoding is negative, and also those that there are not.
    if (!GST_BUFFER_PTS_IS_VALID(frame.input_buffer))
        frame.pts = GST_CLOCK_TIME_IS_VALID(next_time_)
                        ? next_time_
                        : element_->input_segment.start + kMostHeldBack * usual;
    next_time_ = frame.pts + frame.duration;
}

/// Units of two times would be mixed as the codec reorders them.
bool Session::went_back(GstClockTime time) const {
    return GST_CLOCK_TIME_IS_VALID(latest_time_) && time < latest_time_;
}

/// Too late to be shown. Key pictures that somebody waits for are sent.
bool Session::is_late(GstVideoCodecFrame& frame) const {
    GstClockTimeDiff left = gst_video_encoder_get_max_encode_time(element_, &frame);
    // GStreamer 1.22 takes the time by which start() moves the first picture for time that is left.
    const GstClockTime own = GST_BUFFER_PTS(frame.input_buffer);
    const GstClockTime moved = GST_CLOCK_TIME_IS_VALID(own) && frame.pts > own ? frame.pts - own : 0;
    if (left != G_MAXINT64 && frame.deadline >= moved) left -= static_cast<GstClockTimeDiff>(moved);
    return !waiting_.key && left < 0;
}

GstFlowReturn Session::leave_out(CodecFramePtr frame) {
    return gst_video_encoder_finish_frame(element_, frame.release());
}

/// Whether captions or shapes come that the run has no form or no room for.
bool Session::asks_for_other_run(const PictureData& data) {
    for (const std::string& fault : data.damage)
        GST_CAT_WARNING_OBJECT(gsveenc_debug, object(), "captions: %s", fault.c_str());
    const bool captions_begin =
        data.has_captions && !std::exchange(has_captions_, has_captions_ || data.has_captions);
    const bool shape_begins =
        !data.shape.empty() && !std::exchange(has_shape_, has_shape_ || !data.shape.empty());
    const bool no_form = run_ && !run_->forms().cc_data && given("enable cea-708").empty();
    return (captions_begin && no_form) || shape_begins;
}

void Session::take_in(PictureData& data) {
    append(waiting_.captions, data.captions);
    overlay(waiting_.shape, data.shape);
    overlay(held_shape_, data.shape);
}

GstFlowReturn Session::open_run(const Ancillary& first) {
    if (!choose_codec()) return GST_FLOW_NOT_NEGOTIATED;
    RunPlan plan;
    plan.name = GST_OBJECT_NAME(element_);
    plan.info = input_->info;
    plan.codec = codec_;
    plan.adapts = adapt();
    plan.has_captions = has_captions_;
    plan.has_shape = has_shape_;
    plan.decoded_until = decoded_until_;
    {
        const std::lock_guard lock(settings_mutex_);
        plan.settings = settings_.all();
        const auto asked = [&](const char* key, const std::string& value) {
            if (!value.empty() && settings_.given(key).empty()) plan.settings.emplace_back(key, value);
        };
        asked("h.264 profile", profile_);
        asked("h.264 level", level_);
    }
    std::shared_ptr<Run> run;
    try {
        run = std::make_shared<Run>(object(), plan, first);
    } catch (const UsageError& error) {
        GST_ELEMENT_ERROR(element_, LIBRARY, SETTINGS, ("%s", in_properties(error.what()).c_str()),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    {
        const std::lock_guard lock(run_mutex_);
        run_ = std::move(run);
    }
    for (const Remedy& remedy : run_->remedies()) {
        GST_ELEMENT_WARNING(element_, LIBRARY, SETTINGS,
                            ("%s was set to %s: %s", property_name(remedy.key).c_str(), remedy.value.c_str(),
                             remedy.reason.c_str()),
                            (nullptr));
        post(StructurePtr(gst_structure_new("gsveenc-remedy", "setting", G_TYPE_STRING, remedy.key.c_str(),
                                            "value", G_TYPE_STRING, remedy.value.c_str(), "reason",
                                            G_TYPE_STRING, remedy.reason.c_str(), nullptr)));
    }
    if (codec_ == "mpeg-2" && input_->info.colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255)
        GST_ELEMENT_WARNING(
            element_, STREAM, FORMAT,
            ("MPEG-2 has the narrow range alone: bring the pictures to it with videoconvert and "
             "a colorimetry such as bt709"),
            (nullptr));
    told_caps_ = false;
    told_adaptation_ = 0;
    open_captions();
    report_delay();
    return GST_FLOW_OK;
}

/// The captions of the runs before go on where they go out in the same form.
void Session::open_captions() {
    const encoding::CaptionForms& forms = run_->forms();
    encoding::PictureEncoder& encoder = run_->encoder();
    const captions::FrameRate source = encoding::caption_rate(frame_rate_of(input_->info));
    const captions::FrameRate encoded = encoding::caption_rate(encoder.encoded_rate());
    const auto divider = static_cast<uint64_t>(encoder.frame_rate_divider);
    const bool same_rates = captions_ && caption_rates_[0] == source && caption_rates_[1] == encoded;
    if (!same_rates || !timecodes_) {
        timecodes_.emplace(source, encoded, static_cast<int64_t>(divider));
        timecodes_begin_ = 0;
    }
    const bool same_forms = forms.cc == caption_forms_.cc && forms.cc_data == caption_forms_.cc_data &&
                            forms.line_rate == caption_forms_.line_rate;
    if (same_rates && same_forms) {
        // Pictures take turns with the fields, or with two and three pairs, from the first one of a run.
        const uint64_t encoded_pictures = (captions_begin_ + divider - 1) / divider;
        captions_begin_encoded_ = (encoded_pictures + 1) / 2 * 2;
        captions_begin_ = captions_begin_encoded_ * divider;
    } else {
        end_captions();
        captions_.emplace(forms, source, encoded);
        parity_.emplace(source);
        captions_begin_ = captions_begin_encoded_ = 0;
    }
    caption_forms_ = forms;
    caption_rates_[0] = source;
    caption_rates_[1] = encoded;
    run_->follow_captions(&*captions_, captions_begin_);
}

Ancillary Session::ancillary_of(GstBuffer* buffer, const std::optional<CountedTimecode>& timecode) {
    Ancillary ancillary = signalled_by(input_->info, buffer);
    const uint64_t number = run_->next_number(), known_number = captions_begin_ + number;
    captions_->push(static_cast<int64_t>(known_number),
                    parity_->repair(std::exchange(waiting_.captions, {})));
    ancillary.shape = waiting_.shape;
    ancillary.held_shape = held_shape_;
    ancillary.key = waiting_.key;
    if (!run_->takes_next()) return ancillary;
    ancillary.captions =
        captions_->next(known_number, captions_begin_encoded_ + run_->encoder().input_frame_count);
    ancillary.timecode = timecodes_->next(timecodes_begin_ + static_cast<int64_t>(number), timecode);
    return ancillary;
}

GstFlowReturn Session::encode(CodecFramePtr frame, const std::optional<CountedTimecode>& timecode) try {
    const MappedPicture picture(input_->info, frame->input_buffer);
    if (!picture) {
        GST_ELEMENT_ERROR(element_, STREAM, FORMAT, ("A picture cannot be read."), (nullptr));
        leave_out(std::move(frame));
        return GST_FLOW_ERROR;
    }
    // A picture stands for those that the frame-rate limit leaves out behind it.
    frame->duration *= run_->encoder().frame_rate_divider;
    const bool taken = run_->takes_next();
    Ancillary ancillary = ancillary_of(frame->input_buffer, timecode);
    const PictureFate fate = run_->push(std::move(frame), *picture, std::move(ancillary));
    if (taken) captions_->after(fate);
    if (fate == PictureFate::kEncoded) {
        waiting_.shape = {};
        waiting_.key = false;
    }
    const GstFlowReturn flow = push_out();
    report_delay();
    constexpr uint64_t kNowAndThen = 100;
    if (++pictures_ % kNowAndThen == 0) watch_losses();
    watch_adaptation();
    return run_->is_stuck() ? first_bad(flow, recover()) : flow;
} catch (const Failure& failure) {
    push_out();
    GST_ELEMENT_ERROR(element_, STREAM, ENCODE, ("%s", in_properties(failure.what()).c_str()), (nullptr));
    return GST_FLOW_ERROR;
}

/// The codec has refused pictures. Where it takes others, a new run goes on without those.
GstFlowReturn Session::recover() {
    if (!run_->has_given_units()) {
        GST_ELEMENT_ERROR(element_, STREAM, ENCODE,
                          ("The codec refuses all pictures; GST_DEBUG=gsveenc:5 shows what it says."),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    GST_ELEMENT_WARNING(
        element_, STREAM, ENCODE,
        ("The codec has refused pictures, and is opened anew; GST_DEBUG=gsveenc:5 shows what it says."),
        (nullptr));
    return end_run();
}

GstFlowReturn Session::end_run() {
    if (!run_) return GST_FLOW_OK;
    GstFlowReturn flow = GST_FLOW_OK;
    try {
        run_->drain();
    } catch (const Failure& failure) {
        GST_ELEMENT_ERROR(element_, STREAM, ENCODE, ("%s", in_properties(failure.what()).c_str()), (nullptr));
        flow = GST_FLOW_ERROR;
    }
    flow = first_bad(flow, push_out());
    if (const uint64_t lost = run_->lost(); lost > 0)
        GST_ELEMENT_WARNING(
            element_, STREAM, ENCODE,
            ("%" G_GUINT64_FORMAT
             " pictures went into the codec and never came out; GST_DEBUG=gsveenc:5 shows what it says.",
             lost),
            (nullptr));
    captions_begin_ += run_->next_number();
    timecodes_begin_ += static_cast<int64_t>(run_->next_number());
    decoded_until_ = run_->latest_decoding();
    const std::lock_guard lock(run_mutex_);
    run_.reset();
    return flow;
}

GstFlowReturn Session::end_times() {
    const GstFlowReturn flow = end_run();
    next_time_ = latest_time_ = GST_CLOCK_TIME_NONE;
    decoded_until_ = 0;
    return flow;
}

/// Everything that the run has finished with, downstream.
GstFlowReturn Session::push_out() {
    GstFlowReturn flow = GST_FLOW_OK;
    for (CodecFramePtr& frame : run_->take_dropped()) flow = first_bad(flow, leave_out(std::move(frame)));
    for (FinishedUnit& unit : run_->take_units()) {
        unit.frame->output_buffer = unit.bytes.release();
        // A flush on its way lets no caps through, and is no fault of theirs.
        if (!told_caps_ && !tell_caps())
            flow = first_bad(flow, GST_PAD_IS_FLUSHING(GST_VIDEO_ENCODER_SRC_PAD(element_))
                                       ? GST_FLOW_FLUSHING
                                       : GST_FLOW_NOT_NEGOTIATED);
        flow = first_bad(flow, gst_video_encoder_finish_frame(element_, unit.frame.release()));
    }
    return flow;
}

bool Session::tell_caps() {
    told_caps_ = true;
    CapsPtr caps = stream_caps(run_->encoder().codec_id, run_->first_unit());
    const CapsPtr downstream(gst_pad_get_allowed_caps(GST_VIDEO_ENCODER_SRC_PAD(element_)));
    if (downstream) call_by_profile_taken(caps.get(), downstream.get());
    const CodecStatePtr state(gst_video_encoder_set_output_state(element_, caps.release(), input_.get()));
    describe_output(state->info, run_->encoder());
    return gst_video_encoder_negotiate(element_);
}

// What the application hears

void Session::report_delay() {
    const uint64_t delay = run_->delay();
    const bool fresh = !told_delay_ || *told_delay_ != delay;
    if (!fresh) return;
    told_delay_ = delay;
    const AVRational rate = frame_rate_of(input_->info);
    const GstClockTime latency = gst_util_uint64_scale(delay, GST_SECOND * static_cast<guint64>(rate.den),
                                                       static_cast<guint64>(rate.num));
    gst_video_encoder_set_latency(element_, latency, latency);
}

void Session::post(StructurePtr structure) {
    gst_element_post_message(GST_ELEMENT(element_), gst_message_new_element(object(), structure.release()));
}

/// `all`: of the whole track; what was told before is not told again.
void Session::report_losses(const CaptionCount& all, const std::vector<encoding::LostCaption>& texts) {
    const CaptionCount news = {all.pairs - std::min(all.pairs, told_losses_.pairs),
                               all.constructs - std::min(all.constructs, told_losses_.constructs)};
    if (news.all() == 0) return;
    told_losses_ = all;
    StructurePtr structure(gst_structure_new("gsveenc-captions-lost", "pairs", G_TYPE_UINT64, news.pairs,
                                             "constructs", G_TYPE_UINT64, news.constructs, nullptr));
    GValue list = G_VALUE_INIT;
    g_value_init(&list, GST_TYPE_ARRAY);
    for (const encoding::LostCaption& caption : texts) {
        GValue text = G_VALUE_INIT;
        g_value_init(&text, G_TYPE_STRING);
        g_value_set_string(&text, caption.text.c_str());
        gst_value_array_append_and_take_value(&list, &text);
    }
    gst_structure_take_value(structure.get(), "captions", &list);
    post(std::move(structure));
}

void Session::watch_losses() { report_losses(captions_->lost(), {}); }

/// No more captions come to the track.
void Session::end_captions() {
    if (!captions_) return;
    captions_->finish();
    const encoding::CaptionAccount account = captions_->account(captions_begin_encoded_);
    CaptionCount lost = account.without_form;
    lost += account.expired;
    lost += account.left_over;
    report_losses(lost, account.lost);
    captions_.reset();
    told_losses_ = {};
}

/// Tells where MPEG-2 begins to coarsen pictures, each time by a further half, and where it no longer does.
void Session::watch_adaptation() {
    const encoding::PictureEncoder& encoder = run_->encoder();
    const double set = encoder.spatial_complexity_masking, now = encoder.saved_spatial_masking;
    if (encoder.codec_id != encoding::kMpeg2 || set <= 0) return;
    const int level = static_cast<int>(std::floor(std::log2(std::max(now / set, 1.0)) * 2));
    // Between two levels it may go to and fro.
    const bool settled =
        level > told_adaptation_ || level < told_adaptation_ - 1 || (level == 0 && now <= set);
    if (level == told_adaptation_ || !settled) return;
    told_adaptation_ = level;
    post(StructurePtr(gst_structure_new("gsveenc-adaptation", "active", G_TYPE_BOOLEAN, level > 0,
                                        "spatial-complexity-masking", G_TYPE_DOUBLE, now, "as-set",
                                        G_TYPE_DOUBLE, set, "over-bit-rate", G_TYPE_DOUBLE,
                                        encoder.drop_level, nullptr)));
}

}  // namespace gsve::gstreamer
