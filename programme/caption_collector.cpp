#include "programme/caption_collector.h"

#include <algorithm>

#include "captions/cc_data.h"
#include "encoding/coded_unit.h"

namespace gsve::programme {

CaptionCollector::CaptionCollector(std::optional<CaptionForm> form, AVCodecID codec, AVRational rate,
                                   AVRational time_base)
    : form_(form),
      codec_(codec),
      rate_(rate),
      time_base_(time_base),
      parity_({rate.num, rate.den}),
      cc_in_use_(form == CaptionForm::kCc) {}

int CaptionCollector::behind() const {
    // "CC" comes after as many frames, and the pictures that a decoder reorders. Else, a picture that begins
    // with a field 2 has the pair of the frame that it begins in the middle of.
    constexpr int kLongestCcRun = 63, kReordering = 4, kHalfFrame = 1;
    return form_ == CaptionForm::kCc ? kLongestCcRun + kReordering : kHalfFrame;
}

void CaptionCollector::packet(AVPacket& packet) {
    if (!encoding::is_mpeg_video(codec_)) return;
    if (const auto run = filter_.filter(codec_, packet)) add_cc_run(*run);
}

void CaptionCollector::frame(const AVFrame& frame) {
    // With film in 60 Hz video, every second picture is shown for three fields, and the next one then begins
    // with a field 2: field 1's first pair is for the frame after that.
    three_fields_ |= frame.repeat_pict % 2 == 1;
    const AVRational field_duration = {rate_.den, 2 * rate_.num};
    const int64_t begin = three_fields_ ? av_rescale_q(frame.pts, time_base_, field_duration)
                                        : 2 * av_rescale_q(frame.pts, time_base_, av_inv_q(rate_));
    const bool top_first = top_field_first(frame);
    const int64_t frames[] = {(begin + !top_first) / 2, (begin + top_first) / 2};
    next_frame_ = (begin + 2 + frame.repeat_pict) / 2;

    const AVFrameSideData* cc = av_frame_get_side_data(&frame, AV_FRAME_DATA_A53_CC);
    if (cc) cc_in_use_ = false;
    if (cc_in_use_) return;
    captions::PictureCaptions found;
    if (cc) found = captions::parse_cc_data({cc->data, cc->size}).captions;
    const int earlier = frames[1] < frames[0] ? 1 : 0;
    if (frames[earlier] < frames[1 - earlier]) {
        captions::PictureCaptions first;
        first.fields[earlier] = std::exchange(found.fields[earlier], {});
        add(frames[earlier], std::move(first));
    }
    add(frames[1 - earlier], std::move(found));
}

void CaptionCollector::add_cc_run(const CcRun& run) {
    cc_in_use_ = true;
    const int step = captions::FieldSlots({rate_.num, rate_.den}, 0).step();
    int64_t frame = cc_clock_.begin(next_frame_, static_cast<int64_t>(run.size()) * step);
    for (const auto& [field_1, field_2] : run) {
        add(frame, {{{field_1}, {field_2}}, {}});
        frame += step;
    }
}

void CaptionCollector::add(int64_t frame, captions::PictureCaptions captions) {
    newest_frame_ = std::max(frame, newest_frame_);
    captions_.push_back({newest_frame_, parity_.repair(std::move(captions))});
}

}  // namespace gsve::programme
