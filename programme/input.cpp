#include "programme/input.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <span>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/timecode.h>
}

#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "programme/picture_rate.h"

namespace gsve::programme {
namespace {

using captions::FrameRate;
using encoding::PictureTimecode;

// How far the packets are read ahead for the first caption. What has captions at all has them in every
// picture, mostly idle ones, in broadcast; in files they may begin with the first words.
constexpr double kLookAheadSeconds = 5;

// What pictures decoded ahead of the encoder may take of the memory: a second of 1080p at 60 pictures/s is
// 187 million bytes.
constexpr size_t kMostBytesAhead = 512'000'000;

/// Display aspect ratio of a picture, small enough that the encoder's products with the picture size fit 32
/// bits. Sources that do not tell are taken to have square samples, as players do.
AVRational display_aspect(const AVFrame& frame, const encoding::SourceDescription& format) {
    constexpr int kMaxTerm = 65535;
    const AVRational sample = frame.sample_aspect_ratio;
    const AVRational known = is_rate(sample) ? sample : AVRational{1, 1};
    AVRational display = {4, 3};
    av_reduce(&display.num, &display.den, static_cast<int64_t>(format.width) * known.num,
              static_cast<int64_t>(format.height) * known.den, kMaxTerm);
    return display;
}

/// A picture that is not resized is encoded at the source's size.
ColourWish colour_wish(ColourWish wish, const AVFrame& frame, const AVStream& stream) {
    wish.interlaced = interlaced(frame) || stream.codecpar->field_order > AV_FIELD_PROGRESSIVE;
    if (wish.output.width <= 0 || wish.output.height <= 0) wish.output = {frame.width, frame.height};
    return wish;
}

/// Nothing for a picture without one, and for one that is impossible at the rate.
std::optional<PictureTimecode> timecode_of(const AVFrame& frame, FrameRate rate) try {
    const bool on_i_picture = frame.pict_type == AV_PICTURE_TYPE_I;
    char text[AV_TIMECODE_STR_SIZE] = {};
    if (const AVFrameSideData* gop = av_frame_get_side_data(&frame, AV_FRAME_DATA_GOP_TIMECODE)) {
        int64_t bits = 0;
        std::memcpy(&bits, gop->data, sizeof bits);
        av_timecode_make_mpeg_tc_string(text, static_cast<uint32_t>(bits));
        return PictureTimecode{captions::parse_timecode(text, rate), true, on_i_picture};
    }
    if (const AVFrameSideData* smpte = av_frame_get_side_data(&frame, AV_FRAME_DATA_S12M_TIMECODE)) {
        uint32_t words[2] = {};  // their number, and the first
        std::memcpy(words, smpte->data, sizeof words);
        if (words[0] == 0) return std::nullopt;
        av_timecode_make_smpte_tc_string2(text, {rate.num, rate.den}, words[1], 0, 0);
        return PictureTimecode{captions::parse_timecode(text, rate), false, on_i_picture};
    }
    return std::nullopt;
} catch (const std::invalid_argument&) {
    return std::nullopt;
}

}  // namespace

encoding::PictureView Picture::view() const {
    encoding::PictureView view;
    for (int plane = 0; plane < 3; plane++) {
        view.planes[plane] = frame->data[plane];
        view.strides[plane] = static_cast<size_t>(frame->linesize[plane]);
    }
    view.number = number;
    return view;
}

Input::Input(const std::string& path, const InputOptions& options, StopRequest stop)
    : packets_(path, std::move(stop), {.choice = options.choice, .container = options.container}),
      decoder_(packets_, path, options.decoder_threads),
      notes_(packets_.plan().notes) {
    decoder_.repeat_for(options.longest_repeat);
    if (options.captions) {
        caption_form_ = packets_.find_captions(kLookAheadSeconds);
        captions_.emplace(caption_form_, packets_.codec().id, own_rate(), packets_.stream().time_base);
        decoder_.on_packet([this](AVPacket& packet) { captions_->packet(packet); });
    }
    first_decoded_ = decode();
    if (!first_decoded_->frame) throw Failure(fmt::format("{}: no picture could be decoded", path));
    const AVFrame& frame = *first_decoded_->frame;
    note_first_timecode(frame);
    choose_rate(options);
    const ColourPlan colour = plan_colour(frame, colour_wish(options.colour, frame, packets_.stream()));
    format_.colour = colour.encoded;
    format_.may_have_shape = may_have_captions(packets_.codec().id);
    first_colour_ = colour_of(frame);
    converter_.emplace(frame, packets_.stream().time_base,
                       Conversion{format_.frame_rate, options.chroma_format, colour});
    notes_ += converter_->notes() + colour.notes;
    if (!advance()) throw Failure(fmt::format("{}: no picture could be decoded", path));
    describe_first();
}

void Input::choose_rate(const InputOptions& options) {
    const bool variable = packets_.timed() && !has_constant_rate(packets_.stream());
    format_.frame_rate = is_rate(options.frame_rate) ? options.frame_rate
                         : variable                  ? encoding::broadcast_rate(own_rate())
                                                     : own_rate();
    if (!variable && av_cmp_q(format_.frame_rate, own_rate()) == 0) return;
    notes_ += fmt::format(
        "the frame rate is {}: made {:.3f} pictures/s by repeating or leaving out pictures\n",
        variable ? "variable" : fmt::format("{:.3f}", av_q2d(own_rate())), av_q2d(format_.frame_rate));
}

/// A container's own time code is meant; that of a GOP header may be what an encoder counts from.
void Input::note_first_timecode(const AVFrame& frame) {
    const auto take = [&](const AVDictionary* metadata) {
        const AVDictionaryEntry* entry = av_dict_get(metadata, "timecode", nullptr, 0);
        if (entry && timecode_.empty()) timecode_ = entry->value;
    };
    take(packets_.stream().metadata);
    take(packets_.format().metadata);
    container_has_timecode_ = !timecode_.empty();
    take(frame.metadata);
}

void Input::describe_first() {
    const AVFrame& frame = *picture_.frame;
    const AVPixFmtDescriptor* pixel = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    format_.chroma_shift_x = pixel->log2_chroma_w;
    format_.chroma_shift_y = pixel->log2_chroma_h;
    format_.interlaced =
        picture_.field_order != 0 || packets_.stream().codecpar->field_order > AV_FIELD_PROGRESSIVE;

    // Every codec may be asked to halve the chroma, and so wants whole pairs of samples and lines; with
    // interlaced coding each field has its own pairs. What is left over goes from the right and the bottom.
    const int columns = std::max(2, 1 << format_.chroma_shift_x);
    const int lines = format_.interlaced ? 4 : 2;
    format_.width = frame.width - frame.width % columns;
    format_.height = frame.height - frame.height % lines;
    if (format_.width <= 0 || format_.height <= 0)
        throw Failure(fmt::format("a picture of {}x{} is too small to encode", frame.width, frame.height));
    if (format_.width != frame.width || format_.height != frame.height)
        notes_ += fmt::format("pictures are cropped from {}x{} to {}x{}: the codec takes even sizes{}\n",
                              frame.width, frame.height, format_.width, format_.height,
                              format_.interlaced ? ", in each field" : "");
    picture_.display_aspect = display_aspect(frame, format_);
}

std::optional<Picture> Input::next() {
    if (!std::exchange(first_pending_, false) && (packets_.stopped() || !advance())) {
        end_threads();
        return std::nullopt;
    }
    picture_.number = produced_++;
    return picture_;
}

/// The last one first: each waits for the one before.
void Input::end_threads() {
    packets_.give_up();
    converting_.reset();
    decoding_.reset();
    packets_.stop_reading();
}

bool Input::begin_at(uint64_t number, const KeyIndex& index) {
    ConstantRate& rate = converter_->rate();
    const auto place = static_cast<int64_t>(number);
    std::optional<KeyPicture> key;
    for (const KeyPicture& other : index.keys)
        if (rate.place_of(decoder_.time_of(other)) <= place && (!key || other.pts > key->pts)) key = other;
    // What has been decoded already is nearer than any key picture in it.
    const bool found = key && decoder_.time_of(*key) > decoder_.end_time();
    if (found) {
        if (!packets_.go_to(*key)) return false;
        decoder_.go_on_from(key->pts);
        rate.begin_at(place);
        first_decoded_.reset();
    }
    for (uint64_t at = found ? number - 1 : 0; at < number; at++)
        if (!advance()) throw Failure(fmt::format("the input has no picture {}", number));
    produced_ = number;
    return true;
}

void Input::work_in_threads() {
    // Enough that an I-picture, which takes long to decode, does not keep the others waiting; few enough that
    // high definition does not fill the memory.
    static constexpr size_t kPictures = 2;
    const auto ahead = [](Found (Input::*step)(), Input* input) {
        return std::make_unique<Ahead<Found>>(kPictures, [=, ended = false]() mutable {
            if (ended) return std::optional<Found>();
            std::optional<Found> found((input->*step)());
            ended = !found->frame && !found->goes_on;
            return found;
        });
    };
    packets_.read_in_thread();
    decoding_ = ahead(&Input::decode, this);
    converting_ = ahead(&Input::convert, this);
}

bool Input::pass_over() {
    constexpr int kAtOnce = 32;
    const PacketPtr packet = new_packet();
    int result = 0;
    for (int n = 0; n < kAtOnce && result >= 0; n++) result = packets_.next(*packet);
    std::vector<PacketPtr> others = packets_.take_others();
    std::move(others.begin(), others.end(), std::back_inserter(converted_.packets));
    return result >= 0;
}

std::vector<PacketPtr> Input::take_packets() { return std::exchange(converted_.packets, {}); }

std::vector<SourceCaptions> Input::take_captions() { return std::exchange(converted_.captions, {}); }

std::unique_ptr<Input> open_input_at(const std::string& path, const InputOptions& options, StopRequest stop,
                                     uint64_t number, const KeyIndex& index) {
    auto input = std::make_unique<Input>(path, options, stop);
    if (input->begin_at(number, index)) return input;
    input = std::make_unique<Input>(path, options, std::move(stop));
    input->begin_at(number, {});
    return input;
}

std::optional<uint64_t> Input::expected_pictures() const {
    if (packets_.stream().nb_frames > 0 && av_cmp_q(format_.frame_rate, own_rate()) == 0)
        return packets_.stream().nb_frames;
    const double seconds =
        packets_.stream().duration > 0   ? packets_.stream().duration * av_q2d(packets_.stream().time_base)
        : packets_.format().duration > 0 ? packets_.format().duration / static_cast<double>(AV_TIME_BASE)
                                         : 0;
    if (seconds <= 0) return std::nullopt;
    return static_cast<uint64_t>(std::llround(seconds * av_q2d(format_.frame_rate)));
}

int64_t Input::origin() const {
    return av_rescale_q(decoder_.origin(), packets_.stream().time_base, kTimeUnit);
}

int64_t Input::time_of(int64_t number) const {
    return av_rescale_q(number, av_inv_q(format_.frame_rate), kTimeUnit) +
           decoder_.skipped_before(number, format_.frame_rate);
}

std::string Input::timing_notes() const {
    std::string notes;
    for (const ClockJump& jump : packets_.clock_jumps())
        notes += fmt::format(
            "the input's clock jumps by {:+.3f} s: what follows goes on {:.3f} s after the first picture\n",
            jump.by, jump.at - static_cast<double>(origin()) * av_q2d(kTimeUnit));
    if (colour_changed_)
        notes +=
            "the input's colour description changes on the way: all is encoded as the first picture has it\n";
    constexpr size_t kMostNamed = 10;
    const std::vector<Pause>& pauses = decoder_.pauses();
    for (const Pause& pause : std::span(pauses).first(std::min(pauses.size(), kMostNamed)))
        notes += fmt::format("the input has no picture for {:.3f} s: {}\n",
                             static_cast<double>(pause.lasted) * av_q2d(packets_.stream().time_base),
                             pause.skipped ? "the output has none either" : "the one before is repeated");
    for (const int late : packets_.late_streams())
        notes += fmt::format(
            "stream {} begins after the output's header was written, and is left out: it is known from the "
            "start only in a file\n",
            late);
    if (pauses.size() > kMostNamed)
        notes += fmt::format("the input has {} more such pauses\n", pauses.size() - kMostNamed);
    return notes;
}

void Input::read_ahead(double seconds) {
    const AVFrame& frame = *converted_.frame;
    const int size =
        av_image_get_buffer_size(static_cast<AVPixelFormat>(frame.format), frame.width, frame.height, 1);
    const auto wanted = static_cast<size_t>(std::ceil(seconds * av_q2d(format_.frame_rate)));
    pictures_ahead_ = std::min(wanted, kMostBytesAhead / static_cast<size_t>(std::max(size, 1)));
}

void Input::Found::add(Found&& later) {
    std::move(later.captions.begin(), later.captions.end(), std::back_inserter(captions));
    std::move(later.packets.begin(), later.packets.end(), std::back_inserter(packets));
    decoded_all |= later.decoded_all;
    if (problem.empty()) problem = std::move(later.problem);
}

/// Makes the next picture the current one.
bool Input::advance() {
    for (;;) {
        std::optional<Found> next = converting_ ? converting_->next() : convert();
        if (!next) return false;
        const bool there = next->frame != nullptr, goes_on = next->goes_on;
        if (there) converted_.frame = std::move(next->frame);
        converted_.add(std::move(*next));
        if (there) break;
        if (!goes_on || packets_.stopped()) return false;
        if (on_packets_) on_packets_();
    }
    const AVFrame& frame = *converted_.frame;
    picture_.frame = &frame;
    picture_.field_order = field_order(frame);
    picture_.shape = shape_of(frame);
    // A sequence that begins without a shape has none.
    const bool begins = frame.pict_type == AV_PICTURE_TYPE_I;
    if (begins || picture_.shape.afd) picture_.held_shape.afd = picture_.shape.afd;
    if (begins || picture_.shape.bars) picture_.held_shape.bars = picture_.shape.bars;
    picture_.display_aspect = display_aspect(frame, format_);
    picture_.timecode =
        container_has_timecode_ ? std::nullopt : timecode_of(frame, encoding::caption_rate(own_rate()));
    return true;
}

/// The next picture at the frame rate.
Input::Found Input::convert() {
    Found found;
    while (!read_all_ && held_.size() <= pictures_ahead_) {
        FramePtr frame = read_picture(found);
        if (found.goes_on) return found;
        read_all_ = !frame;
        if (frame) held_.push_back(std::move(frame));
    }
    if (held_.empty()) return found;
    found.frame = std::move(held_.front());
    held_.pop_front();
    return found;
}

/// The next picture at the frame rate, or null. `found` gets what comes with those that it takes.
FramePtr Input::read_picture(Found& found) {
    FramePtr frame = new_frame();
    for (;;) {
        const int result = converter_->receive(*frame);
        if (result >= 0) return frame;
        if (result == AVERROR_EOF) return nullptr;
        if (result != AVERROR(EAGAIN)) {
            found.problem = fmt::format("cannot convert a picture: {}", av_error_text(result));
            return nullptr;
        }
        std::optional<Found> decoded = std::exchange(first_decoded_, std::nullopt);
        if (!decoded) decoded = decoding_ ? decoding_->next() : decode();
        if (!decoded) return nullptr;
        if (decoded->frame)
            converter_->send(*decoded->frame);
        else if (!decoded->goes_on)
            converter_->finish(decoded->end_time);
        found.goes_on = decoded->goes_on;
        found.add(std::move(*decoded));
        if (found.goes_on) return nullptr;
    }
}

/// The next picture as the decoder makes it.
Input::Found Input::decode() {
    Found found;
    const bool there = decoder_.next();
    if (there) found.problem = change_of_colour(decoder_.frame());
    if (there && found.problem.empty()) {
        if (captions_) captions_->frame(decoder_.frame());
        found.frame = new_frame();
        av_frame_move_ref(found.frame.get(), &decoder_.frame());
    }
    found.goes_on = !there && decoder_.waits();
    if (captions_) found.captions = captions_->take();
    found.packets = packets_.take_others();
    found.end_time = decoder_.end_time();
    found.decoded_all = decoder_.decoded_all();
    return found;
}

/// Why the picture's samples mean what nothing is prepared for; empty where they do not. What else they mean
/// is said once.
std::string Input::change_of_colour(const AVFrame& frame) {
    if (!first_colour_ || colour_changed_) return "";
    const encoding::Colour colour = colour_of(frame);
    if (colour == *first_colour_) return "";
    if (const char* name = high_dynamic_range(frame))
        return fmt::format("the picture becomes one of high dynamic range ({}): encode the parts separately",
                           name);
    const bool described = colour.is_described() && first_colour_->is_described();
    colour_changed_ =
        described && (colour.primaries != first_colour_->primaries ||
                      colour.transfer != first_colour_->transfer || colour.matrix != first_colour_->matrix);
    return "";
}

}  // namespace gsve::programme
