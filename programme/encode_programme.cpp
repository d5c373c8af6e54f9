#include "programme/encode_programme.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "encoding/start_codes.h"
#include "encoding/status.h"
#include "programme/caption_files.h"
#include "programme/caption_services.h"
#include "programme/delivery.h"
#include "programme/programme_parts.h"
#include "programme/quality_meter.h"

namespace gsve::programme {
namespace {

using encoding::Ancillary;
using encoding::PictureEncoder;
using encoding::PictureFate;
using Clock = std::chrono::steady_clock;

/// The key picture of H.265 with which a part begins, whatever stands before it: libx265 codes it as one of
/// clean random access (CRA_NUT), which within a stream refers to the order of the pictures before. As
/// BLA_N_LP it begins the order anew (ITU-T H.265, 7.4.2.2 and 8.1.3); the two have the same syntax.
std::vector<uint8_t> beginning_anew(std::span<const uint8_t> unit) {
    constexpr uint8_t kCra = 21, kBroken = 18;
    std::vector<uint8_t> bytes(unit.begin(), unit.end());
    for (const encoding::Section& nal : encoding::nal_units(unit))
        if ((nal.bytes[0] >> 1 & 0x3F) == kCra)
            bytes[static_cast<size_t>(nal.bytes.data() - unit.data())] = kBroken << 1;
    return bytes;
}

/// libx264 and libx265 let the rate of a picture depend on how far their other threads are.
bool repeats_its_bytes(const PictureEncoder& encoder, bool adapts) {
    return !adapts && (encoder.codec_id == encoding::kMpeg2 || encoder.mpeg_context->thread_count == 1);
}

class ProgrammeEncoding : ProgrammeParts {
public:
    ProgrammeEncoding(const EncodeJob& job, Observer& observer)
        : ProgrammeParts(job, observer),
          services_(encoding::caption_rate(input_->format().frame_rate)),
          tally_(encoding::caption_rate(input_->format().frame_rate)) {}
    EncodeResult run();

private:
    void encode_all();
    void begin_range();
    uint64_t lead_of(const PictureRange& range) const;
    bool is_wanted(int64_t number) const {
        return !job_.range || number >= static_cast<int64_t>(job_.range->begin);
    }
    void send_units_on();
    void encode(const Picture& picture);
    void take_in_captions();
    captions::PictureWrites captions_of(uint64_t number);
    Ancillary ancillary_of(const Picture& picture);
    Picture shown_in_place_of(const Picture& picture);
    void begin_independently(Ancillary& ancillary, uint64_t number);
    void finish();
    EncodeResult result();

    SentServices services_;
    encoding::PictureShape untold_shape_;  ///< of a picture that was left out
    std::optional<Delivery> delivery_;
    std::optional<QualityMeter> quality_;
    uint64_t first_number_ = 0;  ///< of the pictures that the encoder is offered
    FramePtr still_;             ///< of a warm-up
    size_t next_planned_ = 0;    ///< of the captions that the job has for each picture
    Tally tally_;
    Clock::time_point start_;
    double elapsed_ = 0;
};

EncodeResult ProgrammeEncoding::run() {
    open_encoder();
    send_units_on();
    open_captions();
    open_timecodes();
    if (job_.range) begin_range();
    open_companions(measured_loudness());
    open_output();

    start_ = Clock::now();
    observer_.begin(input_->expected_pictures());
    try {
        encode_all();
    } catch (...) {
        given_up_ = true;
        throw;
    }
    finish();
    note(input_->timing_notes());
    note(companions_->notes(*output_));
    if (const uint64_t unreadable = encoder_.unreadable_headers(); unreadable > 0)
        note(fmt::format(
            "{} of the codec's headers cannot be read, and stay as they are: they say nothing of the colour, "
            "and declare the codec's rate alone\n",
            unreadable));
    return result();
}

/// Each on its way to the next: the input's threads, this one, and the delivery's.
void ProgrammeEncoding::encode_all() {
    delivery_.emplace(*companions_, *output_, [this] { given_up_ = true; });
    if (job_.quality) quality_.emplace(encoder_);
    input_->on_packets([this] { delivery_->pass(input_->take_packets()); });
    input_->work_in_threads();
    while (const std::optional<Picture> picture = input_->next()) {
        if (job_.range && picture->number >= job_.range->end) break;
        encode(*picture);
    }
    input_->end_threads();
    tally_.held_back = encoder_.drain();
    delivery_->finish();
}

/// For how many pictures the warm-up is. The one before the range's first is to be one of those that the
/// codec predicts others from, as it is in the whole: else it would have to code one more of these than the
/// whole has, and the bits would be missing behind the join. Fields of captions alternate between pictures
/// where the rate is high, so that the number is even.
uint64_t ProgrammeEncoding::lead_of(const PictureRange& range) const {
    const uint64_t step = encoder_.frame_rate_divider;
    const uint64_t most = std::min(range.begin, range.warm_up) / step;
    const auto run = static_cast<uint64_t>(std::max(encoder_.mpeg_context->max_b_frames, 0)) + 1;
    const auto gop = static_cast<uint64_t>(std::max(encoder_.effective_gop_size, 1));
    // libx264 and libx265 end a GOP wherever it is; of a still picture, see below, that takes nothing.
    const bool may_shift = run > 1 && encoder_.codec_id == encoding::kMpeg2;
    uint64_t best = 0, best_since_key = 0;
    for (uint64_t lead = most; may_shift && 2 * lead > most; lead--) {
        const uint64_t since_key = lead % gop;
        const bool fits = lead % 2 == 0 && lead % run == 1 && since_key >= 2 * run && since_key + run < gop;
        if (!fits || since_key <= best_since_key) continue;
        best = lead;
        best_since_key = since_key;
    }
    if (best > 0) return best * step;
    return (range.begin - (range.begin - most * step) / (2 * step) * (2 * step));
}

/// Brings everything to the state in which the whole programme has it at the first picture of the warm-up:
/// the input, the phase of the frame-rate division, captions and time codes.
void ProgrammeEncoding::begin_range() {
    const PictureRange& range = *job_.range;
    first_number_ = range.begin - lead_of(range);
    if (range.begin % encoder_.frame_rate_divider != 0)
        throw UsageError(
            fmt::format("a range of pictures cannot begin with picture {}, which is left out", range.begin));
    KeyIndex index;
    if (range.key) index.keys = {*range.key};
    if (!input_->begin_at(first_number_, index)) {
        open_input_again();
        input_->begin_at(first_number_, {});
    }
    encoder_.count_gops_from(static_cast<int64_t>(first_number_ / encoder_.frame_rate_divider));
    if (job_.captions.planned) return;
    for (uint64_t number = 0; number < first_number_; number += encoder_.frame_rate_divider) {
        services_.note(static_cast<int64_t>(number),
                       captions_->next(number, number / encoder_.frame_rate_divider));
        captions_->after(PictureFate::kEncoded);
        captions_->emitted({.bytes = {}, .pts = static_cast<int64_t>(number), .ancillary = true});
    }
}

void ProgrammeEncoding::send_units_on() {
    encoder_.send_units_to([this](encoding::EncodedUnit unit) {
        unit.pts += static_cast<int64_t>(first_number_);
        unit.dts += static_cast<int64_t>(first_number_);
        if (quality_) quality_->unit(unit);
        captions_->emitted(unit);
        if (!is_wanted(unit.pts)) return;
        const bool begins =
            job_.range && job_.range->begin > 0 && unit.pts == static_cast<int64_t>(job_.range->begin);
        std::vector<uint8_t> anew;
        if (begins && encoder_.codec_id == encoding::kH265) unit.bytes = anew = beginning_anew(unit.bytes);
        observer_.unit(unit);
        delivery_->write(unit);
        tally_.unit(unit);
    });
}

void ProgrammeEncoding::encode(const Picture& picture) {
    take_in_captions();
    delivery_->pass(input_->take_packets());
    const Ancillary ancillary = ancillary_of(picture);
    encoding::PictureView view = shown_in_place_of(picture).view();
    view.number -= first_number_;
    const PictureFate fate = encoder_.push(view, ancillary);
    if (quality_ && fate == PictureFate::kEncoded) quality_->given(*encoder_.mpeg_frame, picture.number);
    captions_->after(fate);
    if (fate == PictureFate::kDropped && untold_shape_.empty()) untold_shape_ = ancillary.shape;
    if (is_wanted(static_cast<int64_t>(picture.number))) tally_.picture(fate);
    observer_.progress(tally_);
}

/// The captions of all pictures that have been decoded, ahead of those that are encoded.
void ProgrammeEncoding::take_in_captions() {
    for (SourceCaptions& decoded : input_->take_captions()) {
        if (captions_->push(decoded.frame, std::move(decoded.captions)).all() > 0) caption_source_ = "input";
    }
    if (input_->decoded_all()) captions_->finish();
}

/// What goes with a picture that the encoder takes.
captions::PictureWrites ProgrammeEncoding::captions_of(uint64_t number) {
    const uint64_t encoded = first_number_ / encoder_.frame_rate_divider + encoder_.input_frame_count;
    if (!job_.captions.planned) return captions_->next(number, encoded);
    const std::vector<PlannedCaptions::Picture>& pictures = job_.captions.planned->pictures;
    while (next_planned_ < pictures.size() && pictures[next_planned_].number < number) next_planned_++;
    const bool has_some = next_planned_ < pictures.size() && pictures[next_planned_].number == number;
    captions::PictureWrites writes = has_some ? pictures[next_planned_].writes : captions::PictureWrites();
    const auto now = static_cast<int64_t>(encoded);
    writes.due[0] = writes.due[1] = writes.cea708_due = writes.third_due = now;
    return captions_->planned(number, encoded, std::move(writes));
}

Ancillary ProgrammeEncoding::ancillary_of(const Picture& picture) {
    Ancillary ancillary = signalled_by(picture);
    const auto number = static_cast<int64_t>(picture.number);
    if (timecodes_ && job_.timecode == kSourceTimecode) timecodes_->follow(number, picture.timecode);
    if (ancillary.shape.empty()) ancillary.shape = untold_shape_;
    const bool taken = encoder_.takes(picture.number - first_number_);
    untold_shape_ = taken ? encoding::PictureShape() : ancillary.shape;
    if (!taken) return ancillary;
    if (job_.range && job_.range->begin > 0) begin_independently(ancillary, picture.number);
    if (timecodes_)
        ancillary.timecode = captions::gop_timecode(
            timecodes_->at(number / static_cast<int64_t>(encoder_.frame_rate_divider)));
    ancillary.captions = captions_of(picture.number);
    services_.note(number, ancillary.captions);
    // Readers take the order of the fields from the picture's top_field_first, which is 0 in progressive
    // ones.
    const bool top_field_first = picture.field_order == 1 && encoder_.resize_deinterlace < 0;
    if (forms_.scte20) ancillary.scte20 = encoding::scte20_body(ancillary.captions, top_field_first);
    return ancillary;
}

/// The last pictures of a warm-up are the one before them once more. To end a GOP before a key picture takes
/// one more of the pictures that others are predicted from than to go on to it, as the whole does; of a still
/// picture that takes no bits, and the rate control then is where it is in the whole.
Picture ProgrammeEncoding::shown_in_place_of(const Picture& picture) {
    if (!job_.range || picture.number >= job_.range->begin) return picture;
    const auto held = static_cast<uint64_t>(std::max(encoder_.b_frames, 0)) * encoder_.frame_rate_divider;
    Picture shown = picture;
    if (picture.number + held < job_.range->begin)
        still_.reset(av_frame_clone(picture.frame));
    else if (still_)
        shown.frame = still_.get();
    return shown;
}

/// The first picture of a range is a key picture, and none that is shown before it is coded after it.
void ProgrammeEncoding::begin_independently(Ancillary& ancillary, uint64_t number) {
    const uint64_t begin = job_.range->begin;
    const uint64_t reach =
        (static_cast<uint64_t>(std::max(encoder_.b_frames, 0)) + 2) * encoder_.frame_rate_divider;
    ancillary.key = number == begin;
    encoder_.close_gops(number + reach >= begin && number <= begin + reach);
}

void ProgrammeEncoding::finish() {
    companions_->finish(*output_, input_->origin() + input_->time_of(static_cast<int64_t>(tally_.pictures)));
    output_->declare_captions(services_.names());
    // Packets are read ahead of the pictures, and more so the farther the codec looks ahead.
    if (observer_.stop_reason() != 0) output_->end_with_picture();
    output_->finish();
    elapsed_ = std::chrono::duration<double>(Clock::now() - start_).count();
}

EncodeResult ProgrammeEncoding::result() {
    EncodeResult result;
    result.job = job_;
    result.codec = gsve_encoder_str[encoder_.codec_id];
    result.width = encoder_.output_width;
    result.height = encoder_.output_height;
    result.frame_rate = encoding::caption_rate(encoder_.encoded_rate());
    result.adapts_to_load = encoder_.codec_id == encoding::kMpeg2 && job_.adapt;
    result.repeatable = repeats_its_bytes(encoder_, result.adapts_to_load);
    result.streams = companions_->accounts();
    result.captions =
        captions_->account(first_number_ / encoder_.frame_rate_divider + encoder_.input_frame_count);
    result.captions.source = caption_source_;
    result.captions.parity = input_->parity_damage();
    result.captions.warnings = count_warnings(caption_report_);
    if (forms_.cc) result.captions.pairs_after_last_cc = encoder_.pairs_after_last_cc();
    result.timecode = first_timecode_;
    result.stopped_by = observer_.stop_reason();
    if (result.stopped_by == 0 && !job_.range && input_->decoded() != tally_.pictures)
        result.source_pictures = input_->decoded();
    result.status = encoding::status_pairs(encoder_, encoder_.output_name());
    result.tally = tally_;
    result.elapsed = elapsed_;
    if (quality_) result.quality = quality_->finish();
    std::erase_if(result.quality, [this](const PictureQuality& one) { return !is_wanted(one.number); });
    result.notes = notes_;
    result.problem = input_->problem();
    result.damage = input_->damage();
    return result;
}

}  // namespace

void Observer::note(std::string_view) {}
void Observer::warn(std::string_view) {}
void Observer::begin(std::optional<uint64_t>) {}
void Observer::progress(const Tally&) {}
void Observer::unit(const encoding::EncodedUnit&) {}
int Observer::stop_reason() { return 0; }

EncodeResult encode_programme(const EncodeJob& job, Observer& observer) {
    check(job);
    return ProgrammeEncoding(job, observer).run();
}

}  // namespace gsve::programme
