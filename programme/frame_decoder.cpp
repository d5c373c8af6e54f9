#include "programme/frame_decoder.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/damage_witnesses.h"
#include "programme/picture_rate.h"

namespace gsve::programme {
namespace {

// What is still one clock, in seconds.

// What is worth to be told of, in seconds.
constexpr double kPause = 2;

/// More pictures than any decoder holds.
constexpr int64_t kMostInDecoder = 256;

/// Slices of a picture decoded by several threads cost more in waking these than they gain, where decoding
/// goes on beside the encoding. Whole pictures do not. 0: as many as there are processors.
int usual_threads(const AVCodec& codec) { return codec.capabilities & AV_CODEC_CAP_FRAME_THREADS ? 0 : 1; }

/// The container's word comes first.
AVRational sample_aspect(AVRational of_container, AVRational of_picture) {
    for (AVRational aspect : {of_container, of_picture}) {
        av_reduce(&aspect.num, &aspect.den, aspect.num, aspect.den, std::numeric_limits<int>::max());
        if (is_rate(aspect)) return aspect;
    }
    return {0, 1};
}

// The keys of a frame's metadata under which its shape travels.
constexpr const char *kAfdKey = "gsve.afd", *kBarsKey = "gsve.bars";

}  // namespace

encoding::PictureShape shape_of(const AVFrame& frame) {
    encoding::PictureShape shape;
    if (const AVDictionaryEntry* afd = av_dict_get(frame.metadata, kAfdKey, nullptr, 0))
        shape.afd = std::atoi(afd->value);
    if (const AVDictionaryEntry* entry = av_dict_get(frame.metadata, kBarsKey, nullptr, 0)) {
        int numbers[4] = {-1, -1, -1, -1};
        std::sscanf(entry->value, "%d %d %d %d", &numbers[0], &numbers[1], &numbers[2], &numbers[3]);
        const auto known = [](int number) { return number < 0 ? std::nullopt : std::optional(number); };
        shape.bars =
            encoding::Bars{known(numbers[0]), known(numbers[1]), known(numbers[2]), known(numbers[3])};
    }
    return shape;
}

FrameDecoder::FrameDecoder(PacketSource& source, const std::string& path, int threads)
    : source_(source),
      own_rate_(picture_rate(&source.format(), &source.stream())),
      finder_(1 / av_q2d(own_rate_)),
      decoder_(avcodec_alloc_context3(&source.codec())) {
    check_memory(decoder_ && avcodec_parameters_to_context(decoder_.get(), source.stream().codecpar) >= 0);
    decoder_->pkt_timebase = source.stream().time_base;
    decoder_->thread_count = threads > 0 ? threads : usual_threads(source.codec());
    number_frames(*decoder_);
    if (const int error = avcodec_open2(decoder_.get(), &source.codec(), nullptr); error < 0)
        throw Failure(fmt::format("cannot decode {}: {}", path, av_error_text(error)));
}

bool FrameDecoder::next() {
    for (;;) {
        const int result = avcodec_receive_frame(decoder_.get(), frame_.get());
        if (result == AVERROR(EAGAIN)) {
            if (!feed()) return false;
            continue;
        }
        note_complaints();
        if (result == AVERROR_INVALIDDATA) {
            finder_.refused();
            continue;
        }
        if (result == AVERROR_EOF) {
            decoded_all_ = true;
            return false;
        }
        if (result < 0) return fail(result);
        AVFrame& frame = *frame_;
        frame.sample_aspect_ratio = sample_aspect(source_.sample_aspect(), frame.sample_aspect_ratio);
        if (changes_shape(frame)) return false;
        const int64_t unit = number_of(frame);
        if (begin_ && frame.best_effort_timestamp + offset_ < *begin_) continue;
        attach_shape(frame, unit);
        frame.pts = continuous_time(frame);
        note_shown(frame, unit);
        decoded_++;
        return true;
    }
}

/// Gives the decoder the next packet of the stream, or the end of the stream.
bool FrameDecoder::feed() {
    const int result = source_.next(*packet_);
    waits_ = result == AVERROR(EAGAIN);
    if (waits_) return false;
    if (result < 0) {
        read_all_ = true;
        interrupted_ = result == AVERROR_EXIT;
        if (result != AVERROR_EOF && result != AVERROR_EXIT)
            problem_ = fmt::format("the input cannot be read further: {}", av_error_text(result));
        const int flushed = avcodec_send_packet(decoder_.get(), nullptr);
        return flushed == 0 || fail(flushed);
    }
    const encoding::PictureShape shape = encoding::read_shape(decoder_->codec_id, bytes_of(*packet_));
    if (on_packet_) on_packet_(*packet_);
    const int64_t unit = finder_.sent({.key = (packet_->flags & AV_PKT_FLAG_KEY) != 0,
                                       .flagged = (packet_->flags & AV_PKT_FLAG_CORRUPT) != 0});
    if (!shape.empty()) shapes_[unit] = shape;
    shapes_.erase(shapes_.begin(), shapes_.lower_bound(unit - kMostInDecoder));
    source_.log().expect(*decoder_, unit);
    set_number(*decoder_, *packet_, unit);
    const int sent = avcodec_send_packet(decoder_.get(), packet_.get());
    note_complaints();
    if (sent == AVERROR_INVALIDDATA) finder_.refused();
    return sent == 0 || sent == AVERROR_INVALIDDATA || fail(sent);
}

void FrameDecoder::go_on_from(int64_t pts) {
    avcodec_flush_buffers(decoder_.get());
    decoded_all_ = read_all_ = false;
    begin_ = time_ = next_time_ = pts - origin_;
}

/// Ends decoding, before the stream's end.
bool FrameDecoder::fail(int error) {
    problem_ = fmt::format("the input cannot be decoded further: {}", av_error_text(error));
    return false;
}

void FrameDecoder::note_complaints() {
    for (const auto& [unit, complaints] : source_.log().take()) finder_.complained(unit, complaints);
}

void FrameDecoder::note_shown(const AVFrame& frame, int64_t unit) {
    if (const unsigned complaints = complaints_of(frame)) finder_.complained(unit, complaints);
    finder_.shown(unit, {.begin = seconds(frame.pts),
                         .missing = std::llround(seconds(gap_) * av_q2d(own_rate_)),
                         .damaged = (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0});
}

Damage FrameDecoder::damage() {
    Damage damage = finder_.finish();
    if (!read_all_ || interrupted_ || source_.stopped()) return damage;
    damage.early_end = early_end(source_, finder_, seconds(next_time_));
    return damage;
}

/// The picture's time in the stream's unit, from 0. Elementary streams have no times: their fields are
/// counted.
int64_t FrameDecoder::continuous_time(const AVFrame& frame) {
    const AVRational time_base = source_.stream().time_base;
    const bool known = source_.timed() && frame.best_effort_timestamp != AV_NOPTS_VALUE;
    if (known && !std::exchange(placed_, true)) {
        offset_ = next_time_ - frame.best_effort_timestamp;
        origin_ = -offset_;
    }
    int64_t time = known ? frame.best_effort_timestamp + offset_ : next_time_;
    // A rate that the container guessed too low does not make the next picture come too early.
    const bool restarted = decoded_ > 0 && seconds(time - time_) < -kLargestStepBack;
    const bool skipped = seconds(time - next_time_) > longest_repeat_;
    if (skipped || seconds(time - next_time_) >= kPause) {
        const std::lock_guard lock(pauses_mutex_);
        pauses_.push_back(
            {.at = skipped ? next_time_ : time, .lasted = time - next_time_, .skipped = skipped});
    }
    if (restarted || skipped) {
        offset_ -= time - next_time_;
        time = next_time_;
    }
    gap_ = std::max<int64_t>(time - next_time_, 0);
    time_ = time;
    const AVRational field_duration = {own_rate_.den, 2 * own_rate_.num};
    next_time_ = time + av_rescale_q(2 + frame.repeat_pict, field_duration, time_base);
    return time;
}

int64_t FrameDecoder::skipped_before(int64_t number, AVRational frame_rate) const {
    const AVRational unit = source_.stream().time_base, picture = av_inv_q(frame_rate);
    int64_t time = 0;
    const std::lock_guard lock(pauses_mutex_);
    for (const Pause& pause : pauses_)
        if (pause.skipped && number >= av_rescale_q(pause.at, unit, picture))
            time += av_rescale_q(pause.lasted, unit, kTimeUnit);
    return time;
}

bool FrameDecoder::changes_shape(const AVFrame& frame) {
    const Shape shape = {frame.width, frame.height, frame.format};
    if (decoded_ == 0) shape_ = shape;
    if (shape == shape_) return false;
    problem_ = fmt::format(
        "the picture changes from {}x{} to {}x{} ({}) after {} pictures: encode the parts separately",
        shape_.width, shape_.height, shape.width, shape.height,
        av_get_pix_fmt_name(static_cast<AVPixelFormat>(shape.format)), decoded_);
    return true;
}

/// The decoder's own word of the active format is of the picture for certain; of bars it has none.
void FrameDecoder::attach_shape(AVFrame& frame, int64_t unit) {
    encoding::PictureShape shape;
    if (const auto found = shapes_.find(unit); found != shapes_.end()) shape = found->second;
    const AVFrameSideData* afd = av_frame_get_side_data(&frame, AV_FRAME_DATA_AFD);
    if (afd && afd->size > 0) shape.afd = afd->data[0];
    const auto set = [&](const char* key, const std::string& value) {
        check_memory(av_dict_set(&frame.metadata, key, value.c_str(), 0) >= 0);
    };
    if (shape.afd) set(kAfdKey, std::to_string(*shape.afd));
    if (!shape.bars) return;
    const encoding::Bars& bars = *shape.bars;
    set(kBarsKey, fmt::format("{} {} {} {}", bars.top_end.value_or(-1), bars.bottom_begin.value_or(-1),
                              bars.left_end.value_or(-1), bars.right_begin.value_or(-1)));
}

}  // namespace gsve::programme
