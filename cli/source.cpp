#include "source.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <new>
#include <string_view>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavutil/imgutils.h>
}

#include "captions/cc_data.h"
#include "error.h"
#include "input.h"
#include "inspect_unit.h"
#include "stop.h"

namespace gsve::cli {
namespace {

// Rates that every codec here can signal (MPEG-2 frame_rate_code has no others), in ascending order.
constexpr std::array<AVRational, 8> kBroadcastRates = {
    {{24000, 1001}, {24, 1}, {25, 1}, {30000, 1001}, {30, 1}, {50, 1}, {60000, 1001}, {60, 1}}};

// What is still one clock, in seconds. Beyond, a recording has been spliced or its clock restarted.
constexpr double kLargestStepBack = 0.5;
constexpr double kLargestGap = 10;

// How far the packets are read ahead for the first caption. What has captions at all has them in every
// picture, mostly idle ones, in broadcast; in files they may begin with the first words.
constexpr double kLookAheadSeconds = 5;

// What pictures decoded ahead of the encoder may take of the memory: a second of 1080p at 60 pictures/s is
// 187 million bytes.
constexpr size_t kMostBytesAhead = 512'000'000;

/// Formats that go to the encoder untouched. True 4:1:0 is not among them: the encoder's 4:1:0 has two luma
/// lines to a chroma line, FFmpeg's has four. 4:1:1 needs a chroma format to be encoded in: no codec has it.
bool taken_as_it_is(int format, const std::string& chroma_format) {
    return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUV422P || format == AV_PIX_FMT_YUV444P ||
           (format == AV_PIX_FMT_YUV411P && !chroma_format.empty());
}

/// What everything else is converted to: the chroma format that will be encoded.
const char* conversion_target(std::string_view chroma_format) {
    if (chroma_format == "4:4:4") return "yuv444p";
    if (chroma_format == "4:2:2") return "yuv422p";
    return "yuv420p";
}

bool valid(AVRational rate) { return rate.num > 0 && rate.den > 0; }

/// Whether the container's two estimates agree: the rate that all timestamps fit and the average one. An
/// interlaced stream may have the former counted in fields.
bool constant_rate(const AVStream& stream) {
    if (!valid(stream.r_frame_rate) || !valid(stream.avg_frame_rate)) return true;
    const double ratio = av_q2d(stream.r_frame_rate) / av_q2d(stream.avg_frame_rate);
    return std::abs(ratio - 1) < 0.001 || std::abs(ratio - 2) < 0.002;
}

/// Display aspect ratio of a picture, small enough that the encoder's products with the picture size fit 32
/// bits. Sources that do not tell are taken to have square samples, as players do.
AVRational display_aspect(const AVFrame& frame, const SourceFormat& format) {
    constexpr int kMaxTerm = 65535;
    const AVRational sample = frame.sample_aspect_ratio;
    const AVRational known = valid(sample) ? sample : AVRational{1, 1};
    AVRational display = {4, 3};
    av_reduce(&display.num, &display.den, static_cast<int64_t>(format.width) * known.num,
              static_cast<int64_t>(format.height) * known.den, kMaxTerm);
    return display;
}

int interrupted(void*) { return stop_signal() != 0; }

/// Reads the file up to its first captions.
std::optional<CaptionForm> captions_in_file(const std::string& path) {
    const VideoInput video = open_video_input(path, {interrupted, nullptr});
    const PacketPtr packet(av_packet_alloc());
    if (!packet) throw std::bad_alloc();
    std::optional<CaptionForm> form;
    while (!form && av_read_frame(video.format.get(), packet.get()) >= 0) {
        if (packet->stream_index == video.stream->index)
            form = caption_form(video.stream->codecpar->codec_id, bytes_of(*packet));
        av_packet_unref(packet.get());
    }
    return form;
}

}  // namespace

AVRational picture_rate(AVFormatContext* input, AVStream* stream) {
    const AVRational guess = av_guess_frame_rate(input, stream, nullptr);
    // Elementary streams have no times to take an average of; FFmpeg 7 says 25 for all of them.
    const bool timed = !(input->iformat->flags & AVFMT_NOTIMESTAMPS);
    const AVRational average = timed ? stream->avg_frame_rate : AVRational{0, 1};
    const bool counts_fields =
        valid(guess) && valid(average) && std::abs(av_q2d(guess) / av_q2d(average) - 2) < 0.002;
    return counts_fields ? average : valid(guess) ? guess : AVRational{25, 1};
}

AVRational broadcast_rate(AVRational rate) {
    for (const AVRational candidate : kBroadcastRates)
        if (av_q2d(candidate) > 0.9995 * av_q2d(rate)) return candidate;
    return kBroadcastRates.back();
}

Source::Source(const std::string& path, const SourceOptions& options)
    : packet_(av_packet_alloc()), decoded_frame_(av_frame_alloc()), filtered_frame_(av_frame_alloc()) {
    if (!packet_ || !decoded_frame_ || !filtered_frame_) throw std::bad_alloc();
    open(path);
    if (options.captions) look_for_captions(path);
    if (!decode()) throw Failure(fmt::format("{}: no picture could be decoded", path));
    frame_waits_ = true;
    shape_width_ = decoded_frame_->width;
    shape_height_ = decoded_frame_->height;
    shape_format_ = decoded_frame_->format;
    convert_if_needed(options);
    if (!advance()) throw Failure(fmt::format("{}: no picture could be decoded", path));
    describe_first();
}

void Source::open(const std::string& path) {
    VideoInput video = open_video_input(path, {interrupted, nullptr});
    input_ = std::move(video.format);
    stream_ = video.stream;
    AVFormatContext* const context = input_.get();
    const AVCodec* const codec = video.codec;
    if (context->nb_streams > 1)
        notes_ += fmt::format("only video is carried: stream {} of {} is encoded\n", stream_->index,
                              context->nb_streams);

    decoder_.reset(avcodec_alloc_context3(codec));
    if (!decoder_ || avcodec_parameters_to_context(decoder_.get(), stream_->codecpar) < 0)
        throw std::bad_alloc();
    decoder_->pkt_timebase = stream_->time_base;
    timed_ = !(context->iformat->flags & AVFMT_NOTIMESTAMPS);
    own_rate_ = picture_rate(context, stream_);
    decoder_->thread_count = 0;
    if (const int error = avcodec_open2(decoder_.get(), codec, nullptr); error < 0)
        throw Failure(fmt::format("cannot decode {}: {}", path, av_error_text(error)));
}

void Source::convert_if_needed(const SourceOptions& options) {
    const bool variable = timed_ && !constant_rate(*stream_);
    format_.frame_rate = valid(options.frame_rate) ? options.frame_rate
                         : variable                ? broadcast_rate(own_rate_)
                                                   : own_rate_;
    const bool changed = variable || av_cmp_q(format_.frame_rate, own_rate_) != 0;
    // Containers also call a rate constant that is not, and any picture may last for three fields or two
    // frames.
    std::string filters = fmt::format("fps={}/{}", format_.frame_rate.num, format_.frame_rate.den);
    if (changed) {
        notes_ += fmt::format(
            "the frame rate is {}: made {:.3f} pictures/s by repeating or leaving out pictures\n",
            variable ? "variable" : fmt::format("{:.3f}", av_q2d(own_rate_)), av_q2d(format_.frame_rate));
    }
    if (!taken_as_it_is(shape_format_, options.chroma_format)) {
        const char* target = conversion_target(options.chroma_format);
        filters += fmt::format(",scale=interl=-1,format={}", target);
        notes_ += fmt::format("pictures are converted from {} to {}\n",
                              av_get_pix_fmt_name(static_cast<AVPixelFormat>(shape_format_)), target);
    }
    build_graph(filters, own_rate_);
}

void Source::build_graph(const std::string& description, AVRational frame_rate) {
    graph_.reset(avfilter_graph_alloc());
    if (!graph_) throw std::bad_alloc();
    graph_in_ = avfilter_graph_alloc_filter(graph_.get(), avfilter_get_by_name("buffer"), "in");
    AVBufferSrcParameters* parameters = av_buffersrc_parameters_alloc();
    if (!graph_in_ || !parameters) throw std::bad_alloc();
    describe_frames(*parameters, *decoded_frame_, stream_->time_base, frame_rate);
    int error = av_buffersrc_parameters_set(graph_in_, parameters);
    av_free(parameters);
    if (error >= 0) error = avfilter_init_str(graph_in_, nullptr);
    if (error >= 0)
        error = avfilter_graph_create_filter(&graph_out_, avfilter_get_by_name("buffersink"), "out", nullptr,
                                             nullptr, graph_.get());
    if (error >= 0) {
        // Seen from the description: its open input is our source's output, and the other way round.
        FilterPadsPtr outputs(avfilter_inout_alloc()), inputs(avfilter_inout_alloc());
        if (!outputs || !inputs) throw std::bad_alloc();
        *outputs = {av_strdup("in"), graph_in_, 0, nullptr};
        *inputs = {av_strdup("out"), graph_out_, 0, nullptr};
        AVFilterInOut* open_outputs = outputs.release();
        AVFilterInOut* open_inputs = inputs.release();
        error =
            avfilter_graph_parse_ptr(graph_.get(), description.c_str(), &open_inputs, &open_outputs, nullptr);
        outputs.reset(open_outputs);
        inputs.reset(open_inputs);
    }
    if (error >= 0) error = avfilter_graph_config(graph_.get(), nullptr);
    if (error < 0) throw Failure(fmt::format("cannot convert the pictures: {}", av_error_text(error)));
}

void Source::describe_first() {
    const AVFrame& frame = *picture_.frame;
    const AVPixFmtDescriptor* pixel = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    format_.chroma_shift_x = pixel->log2_chroma_w;
    format_.chroma_shift_y = pixel->log2_chroma_h;
    format_.interlaced = picture_.field_order != 0 || stream_->codecpar->field_order > AV_FIELD_PROGRESSIVE;

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

std::optional<Picture> Source::next() {
    if (first_pending_)
        first_pending_ = false;
    else if (stop_signal() || !advance())
        return std::nullopt;
    picture_.number = produced_++;
    return picture_;
}

std::optional<uint64_t> Source::expected_pictures() const {
    if (stream_->nb_frames > 0 && av_cmp_q(format_.frame_rate, own_rate_) == 0) return stream_->nb_frames;
    const double seconds = stream_->duration > 0  ? stream_->duration * av_q2d(stream_->time_base)
                           : input_->duration > 0 ? input_->duration / static_cast<double>(AV_TIME_BASE)
                                                  : 0;
    if (seconds <= 0) return std::nullopt;
    return static_cast<uint64_t>(std::llround(seconds * av_q2d(format_.frame_rate)));
}

void Source::read_ahead(double seconds) {
    const AVFrame& frame = *current_;
    const int size =
        av_image_get_buffer_size(static_cast<AVPixelFormat>(frame.format), frame.width, frame.height, 1);
    const auto wanted = static_cast<size_t>(std::ceil(seconds * av_q2d(format_.frame_rate)));
    pictures_ahead_ = std::min(wanted, kMostBytesAhead / static_cast<size_t>(std::max(size, 1)));
}

/// Makes the next picture the current one.
bool Source::advance() {
    while (!read_all_ && held_.size() <= pictures_ahead_) {
        FramePtr frame = read_picture();
        read_all_ = !frame;
        if (frame) held_.push_back(std::move(frame));
    }
    if (held_.empty()) return false;
    current_ = std::move(held_.front());
    held_.pop_front();
    picture_.frame = current_.get();
    picture_.field_order = field_order(*current_);
    picture_.display_aspect = display_aspect(*current_, format_);
    return true;
}

FramePtr Source::read_picture() {
    if (!(graph_ ? read_filtered() : decode())) return nullptr;
    FramePtr frame(av_frame_alloc());
    if (!frame) throw std::bad_alloc();
    av_frame_move_ref(frame.get(), graph_ ? filtered_frame_.get() : decoded_frame_.get());
    return frame;
}

bool Source::read_filtered() {
    for (;;) {
        av_frame_unref(filtered_frame_.get());
        const int result = av_buffersink_get_frame(graph_out_, filtered_frame_.get());
        if (result >= 0) return true;
        if (result != AVERROR(EAGAIN)) return false;
        // The end of the stream is the last picture's end, or the last picture would have no time to be
        // shown.
        const int error = decode() ? av_buffersrc_add_frame(graph_in_, decoded_frame_.get())
                                   : av_buffersrc_close(graph_in_, next_time_, 0);
        if (error < 0) {
            problem_ = fmt::format("cannot convert a picture: {}", av_error_text(error));
            return false;
        }
    }
}

/// Decodes the next picture into decoded_frame_.
bool Source::decode() {
    if (frame_waits_) {
        frame_waits_ = false;
        return true;
    }
    for (;;) {
        const int result = avcodec_receive_frame(decoder_.get(), decoded_frame_.get());
        if (result == AVERROR(EAGAIN)) {
            if (!feed_decoder()) return false;
            continue;
        }
        if (result == AVERROR_INVALIDDATA) continue;  // a damaged picture; FFmpeg has said so
        if (result < 0) {
            decoded_all_ = true;
            return false;
        }
        AVFrame& frame = *decoded_frame_;
        frame.sample_aspect_ratio = av_guess_sample_aspect_ratio(input_.get(), stream_, &frame);
        if (!same_shape(frame)) {
            problem_ = fmt::format(
                "the picture changes from {}x{} to {}x{} ({}) after {} pictures: encode the parts "
                "separately",
                shape_width_, shape_height_, frame.width, frame.height,
                av_get_pix_fmt_name(static_cast<AVPixelFormat>(frame.format)), decoded_);
            return false;
        }
        frame.pts = continuous_time(frame);
        note_side_data(frame);
        decoded_++;
        return true;
    }
}

/// The picture's time in the stream's unit, from 0, lest small errors meet the rounding between two pictures.
/// Elementary streams have no times: their fields are counted. Where a broadcast's clock starts anew, time
/// goes on.
int64_t Source::continuous_time(const AVFrame& frame) {
    const bool known = timed_ && frame.best_effort_timestamp != AV_NOPTS_VALUE;
    int64_t time = known ? frame.best_effort_timestamp + clock_offset_ : next_time_;
    const double jump = static_cast<double>(time - next_time_) * av_q2d(stream_->time_base);
    if (decoded_ == 0 || jump < -kLargestStepBack || jump > kLargestGap) {
        clock_offset_ -= time - next_time_;
        time = next_time_;
    }
    next_time_ = time + av_rescale_q(2 + frame.repeat_pict, field_duration(), stream_->time_base);
    return time;
}

/// Gives the decoder the next packet of the stream, or the end of the stream.
bool Source::feed_decoder() {
    for (;;) {
        const int result = read_packet();
        if (result < 0) {
            if (result != AVERROR_EOF && result != AVERROR_EXIT)
                problem_ = fmt::format("the input cannot be read further: {}", av_error_text(result));
            return avcodec_send_packet(decoder_.get(), nullptr) == 0;
        }
        if (packet_->stream_index != stream_->index) continue;
        if (collect_captions_ && is_mpeg_video(decoder_->codec_id))
            if (const auto run = caption_filter_.filter(decoder_->codec_id, *packet_)) note_cc_run(*run);
        const int sent = avcodec_send_packet(decoder_.get(), packet_.get());
        if (sent == 0 || sent == AVERROR_INVALIDDATA) return true;
        problem_ = fmt::format("the input cannot be decoded further: {}", av_error_text(sent));
        return false;
    }
}

/// Makes the next packet of the input the current one.
int Source::read_packet() {
    av_packet_unref(packet_.get());
    if (ahead_.empty()) return av_read_frame(input_.get(), packet_.get());
    av_packet_move_ref(packet_.get(), ahead_.front().get());
    ahead_.pop_front();
    return 0;
}

/// Reads packets until one has captions, and keeps them for the decoder. A file can be read twice.
void Source::look_for_captions(const std::string& path) {
    collect_captions_ = true;
    const AVCodecID codec = stream_->codecpar->codec_id;
    double pictures_left = may_have_captions(codec) ? kLookAheadSeconds * av_q2d(own_rate_) : 0;
    while (pictures_left > 0 && !caption_form_) {
        PacketPtr packet(av_packet_alloc());
        if (!packet) throw std::bad_alloc();
        if (av_read_frame(input_.get(), packet.get()) < 0) return;  // the decoder will meet the same end
        if (packet->stream_index != stream_->index) continue;
        caption_form_ = caption_form(codec, bytes_of(*packet));
        pictures_left--;
        ahead_.push_back(std::move(packet));
    }
    std::error_code none;
    if (may_have_captions(codec) && !caption_form_ && std::filesystem::is_regular_file(path, none))
        caption_form_ = captions_in_file(path);
    cc_in_use_ = caption_form_ == CaptionForm::kCc;
}

int Source::captions_behind() const {
    // "CC" comes after as many frames, and the pictures that a decoder reorders. Else, a picture that begins
    // with a field 2 has the pair of the frame that it begins in the middle of.
    constexpr int kLongestCcRun = 63, kReordering = 4, kHalfFrame = 1;
    return caption_form_ == CaptionForm::kCc ? kLongestCcRun + kReordering : kHalfFrame;
}

/// Takes note of what came beside a decoded picture.
void Source::note_side_data(const AVFrame& frame) {
    if (decoded_ == 0) {
        for (const AVDictionary* metadata : {frame.metadata, stream_->metadata, input_->metadata})
            if (const AVDictionaryEntry* entry = av_dict_get(metadata, "timecode", nullptr, 0);
                entry && timecode_.empty())
                timecode_ = entry->value;
    }
    if (collect_captions_) note_captions(frame);
}

/// A picture without captions is noted too: it tells that there was a pause.
void Source::note_captions(const AVFrame& frame) {
    // With film in 60 Hz video, every second picture is shown for three fields, and the next one then begins
    // with a field 2: field 1's first pair is for the frame after that.
    three_fields_ |= frame.repeat_pict % 2 == 1;
    const int64_t begin = three_fields_
                              ? av_rescale_q(frame.pts, stream_->time_base, field_duration())
                              : 2 * av_rescale_q(frame.pts, stream_->time_base, av_inv_q(own_rate_));
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
        add_captions(frames[earlier], std::move(first));
    }
    add_captions(frames[1 - earlier], std::move(found));
}

void Source::note_cc_run(const CcRun& run) {
    cc_in_use_ = true;
    const int step = captions::FieldSlots({own_rate_.num, own_rate_.den}, 0).step();
    int64_t frame = cc_clock_.begin(next_frame_, static_cast<int64_t>(run.size()) * step);
    for (const auto& [field_1, field_2] : run) {
        add_captions(frame, {{{field_1}, {field_2}}, {}});
        frame += step;
    }
}

void Source::add_captions(int64_t frame, captions::PictureCaptions captions) {
    caption_frame_ = std::max(frame, caption_frame_);
    captions_.push_back({caption_frame_, std::move(captions)});
}

AVRational Source::field_duration() const { return {own_rate_.den, 2 * own_rate_.num}; }

bool Source::same_shape(const AVFrame& frame) const {
    return shape_format_ == AV_PIX_FMT_NONE ||
           (frame.width == shape_width_ && frame.height == shape_height_ && frame.format == shape_format_);
}

}  // namespace gsve::cli
