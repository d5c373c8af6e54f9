#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

extern "C" {
#include <libavutil/audio_fifo.h>
}

#include "encoding/error.h"
#include "programme/ac3_metadata.h"
#include "programme/stream_converter.h"
#include "programme/timeline.h"

namespace gsve::programme {
namespace {

/// A channel layout that is freed.
struct Layout {
    Layout() = default;
    explicit Layout(const AVChannelLayout& from) { check_memory(av_channel_layout_copy(&value, &from) >= 0); }
    Layout(const Layout&) = delete;
    Layout& operator=(const Layout&) = delete;
    ~Layout() { av_channel_layout_uninit(&value); }

    AVChannelLayout value = {};
};

std::string name_of(const AVChannelLayout& layout) {
    std::array<char, 128> name = {};
    av_channel_layout_describe(&layout, name.data(), name.size());
    return name.data();
}

/// The source's channels in an order that has a name.
AVChannelLayout known_layout(const AVChannelLayout& layout) {
    AVChannelLayout known = layout;
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_default(&known, layout.nb_channels);
    return known;
}

/// What the encoder takes of the wanted layout, or, where none was asked for, the most channels of the
/// source's.
AVChannelLayout choose_layout(const AVCodec& encoder, const AVChannelLayout& source,
                              const std::string& wanted) {
    AVChannelLayout layout = known_layout(source);
    if (!wanted.empty() && av_channel_layout_from_string(&layout, wanted.c_str()) < 0)
        throw UsageError(
            fmt::format("--sound-layout takes a layout such as mono, stereo or 5.1, not \"{}\"", wanted));
    const auto supported = channel_layouts(encoder);
    if (supported.empty()) return layout;
    const AVChannelLayout* best = nullptr;
    for (const AVChannelLayout& other : supported) {
        if (av_channel_layout_compare(&other, &layout) == 0) return layout;
        if (other.nb_channels <= layout.nb_channels && (!best || other.nb_channels > best->nb_channels))
            best = &other;
    }
    if (!wanted.empty() || !best) {
        std::vector<std::string> names;
        for (const AVChannelLayout& other : supported) names.push_back(name_of(other));
        throw UsageError(fmt::format("--sound-layout: {} does not take {}; it takes {}", encoder.name,
                                     name_of(layout), fmt::join(names, ", ")));
    }
    return *best;
}

/// The rate itself, or the lowest that the encoder takes above it, or its highest.
int choose_rate(const AVCodec& encoder, int source, int wanted) {
    const auto supported = sample_rates(encoder);
    const int rate = wanted > 0 ? wanted : source;
    if (supported.empty() || std::find(supported.begin(), supported.end(), rate) != supported.end())
        return rate;
    if (wanted > 0)
        throw UsageError(fmt::format("--sound-rate: {} does not take {} samples/s; it takes {}", encoder.name,
                                     wanted, fmt::join(supported, ", ")));
    int best = *std::max_element(supported.begin(), supported.end());
    for (const int other : supported)
        if (other >= rate) best = std::min(best, other);
    return best;
}

/// What is usual for broadcast, in bits/s.
int64_t usual_bit_rate(const std::string& codec, int channels) {
    if (codec == "aac") return 80'000 * std::max(channels, 1);
    if (codec == "mp2") return channels > 1 ? 256'000 : 128'000;
    if (codec == "eac3") return channels > 2 ? 384'000 : channels > 1 ? 192'000 : 96'000;
    return channels > 2 ? 448'000 : channels > 1 ? 192'000 : 96'000;
}

/// As the filter graph's source is told of it.
std::string form_of(const AVFrame& frame) {
    return fmt::format("sample_rate={}:sample_fmt={}:channel_layout={}", frame.sample_rate,
                       av_get_sample_fmt_name(static_cast<AVSampleFormat>(frame.format)),
                       name_of(frame.ch_layout));
}

struct FreeSamples {
    void operator()(AVAudioFifo* samples) const { av_audio_fifo_free(samples); }
};
using SamplesPtr = std::unique_ptr<AVAudioFifo, FreeSamples>;

class SoundConverter final : public StreamConverter {
public:
    SoundConverter(const AVStream& source, const AVPacket* first, const SoundForm& form);

    const AVCodecParameters& form() const override { return *form_; }
    AVRational time_base() const override { return encoder_->time_base; }
    std::vector<PacketPtr> convert(const AVPacket* packet) override;
    uint64_t refused() const override { return refused_; }

private:
    void open_decoder();
    void open_encoder(const SoundChoice& choice, const std::optional<Ac3Metadata>& metadata,
                      bool global_header);
    void decode(const AVPacket* packet);
    void filter(AVFrame* frame);
    void build_graph(int source_rate);
    void close_graph();
    void take_filtered();
    void encode_samples(int count);
    void encode(AVFrame* frame);

    const AVStream& source_;
    CodecContextPtr decoder_;
    CodecContextPtr encoder_;
    ParametersPtr form_;
    FilterGraphPtr graph_;
    std::string decoded_form_;  ///< that graph_ takes
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
    FramePtr frame_ = new_frame();
    FramePtr filtered_ = new_frame();
    SamplesPtr samples_;              ///< filtered, and not yet encoded
    int64_t place_ = AV_NOPTS_VALUE;  ///< of the first of them, in samples on the input's time line
    uint64_t refused_ = 0;
    std::vector<PacketPtr> packets_;
};

SoundConverter::SoundConverter(const AVStream& source, const AVPacket* first, const SoundForm& form)
    : source_(source) {
    open_decoder();
    const auto metadata = first ? ac3_metadata(bytes_of(*first)) : std::nullopt;
    open_encoder(form.choice, metadata, form.global_header);
    if (form.begin) place_ = av_rescale_q(*form.begin, kTimeUnit, encoder_->time_base);
    samples_.reset(av_audio_fifo_alloc(encoder_->sample_fmt, encoder_->ch_layout.nb_channels, 1));
    check_memory(samples_ != nullptr);
}

void SoundConverter::open_decoder() {
    const AVCodec* codec = avcodec_find_decoder(source_.codecpar->codec_id);
    decoder_.reset(avcodec_alloc_context3(codec));
    check_memory(decoder_ && avcodec_parameters_to_context(decoder_.get(), source_.codecpar) >= 0);
    decoder_->pkt_timebase = source_.time_base;
    if (const int error = avcodec_open2(decoder_.get(), codec, nullptr); error < 0)
        throw Failure(fmt::format("stream {} cannot be decoded: {}; --streams or --no-sound leaves it out",
                                  source_.index, av_error_text(error)));
    if (decoder_->sample_rate <= 0 || decoder_->ch_layout.nb_channels <= 0)
        throw Failure(
            fmt::format("stream {} does not tell its sample rate and channels; --streams or --no-sound "
                        "leaves it out",
                        source_.index));
}

void SoundConverter::open_encoder(const SoundChoice& choice, const std::optional<Ac3Metadata>& metadata,
                                  bool global_header) {
    const std::string& name = choice.codec;
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (!codec) throw UsageError(fmt::format("--sound: FFmpeg has no encoder {} here", name));
    encoder_.reset(avcodec_alloc_context3(codec));
    check_memory(encoder_ != nullptr);
    const Layout layout(choose_layout(*codec, decoder_->ch_layout, choice.layout));
    check_memory(av_channel_layout_copy(&encoder_->ch_layout, &layout.value) >= 0);
    encoder_->sample_rate = choose_rate(*codec, decoder_->sample_rate, choice.sample_rate);
    encoder_->sample_fmt = first_sample_format(*codec);
    encoder_->time_base = {1, encoder_->sample_rate};
    encoder_->bit_rate =
        choice.bit_rate > 0 ? choice.bit_rate : usual_bit_rate(name, layout.value.nb_channels);
    encoder_->strict_std_compliance = FF_COMPLIANCE_NORMAL;
    if (global_header) encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (metadata) set_metadata(*encoder_, *metadata);
    if (const int error = avcodec_open2(encoder_.get(), codec, nullptr); error < 0)
        throw Failure(fmt::format(
            "the {} encoder does not open for {} at {} samples/s and {} bits/s: {}; change "
            "--sound-bitrate, --sound-layout or --sound-rate",
            name, name_of(layout.value), encoder_->sample_rate, encoder_->bit_rate, av_error_text(error)));
    form_.reset(avcodec_parameters_alloc());
    check_memory(form_ && avcodec_parameters_from_context(form_.get(), encoder_.get()) >= 0);
}

std::vector<PacketPtr> SoundConverter::convert(const AVPacket* packet) {
    // What is spliced follows at its own sample, however little it is off.
    if (packet && begins_clock(*packet)) close_graph();
    decode(packet);
    if (!packet) {
        close_graph();
        encode_samples(av_audio_fifo_size(samples_.get()));
        encode(nullptr);
    }
    return std::exchange(packets_, {});
}

void SoundConverter::decode(const AVPacket* packet) {
    const int sent = avcodec_send_packet(decoder_.get(), packet);
    refused_ += packet && sent < 0;
    for (;;) {
        const int result = avcodec_receive_frame(decoder_.get(), frame_.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
        if (result < 0) {
            refused_++;
            return;
        }
        frame_->pts = frame_->best_effort_timestamp;
        filter(frame_.get());
        av_frame_unref(frame_.get());
    }
}

/// Takes a decoded frame. Where the sound changes its form, the filters are made anew; what comes out stays.
void SoundConverter::filter(AVFrame* frame) {
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&frame->ch_layout, frame->ch_layout.nb_channels);
    const std::string form = form_of(*frame);
    if (graph_ && form != decoded_form_) close_graph();
    decoded_form_ = form;
    if (!graph_) build_graph(frame->sample_rate);
    if (av_buffersrc_add_frame(in_, frame) < 0) throw std::bad_alloc();
    take_filtered();
}

void SoundConverter::build_graph(int source_rate) {
    graph_.reset(avfilter_graph_alloc());
    check_memory(graph_ != nullptr);
    // Steps of 20 ms and more are pauses or overlaps, and are filled or cut to the sample; smaller deviations
    // are the roundings of a container, unless they grow.
    // What is made anew goes on at the sample where the filters before it ended, told in samples of the
    // source.
    const int64_t end = place_ == AV_NOPTS_VALUE ? 0 : place_ + av_audio_fifo_size(samples_.get());
    const std::string first =
        place_ != AV_NOPTS_VALUE
            ? fmt::format(":first_pts={}", av_rescale(end, source_rate, encoder_->sample_rate))
            : "";
    const std::string filters = fmt::format(
        "abuffer=time_base={}/{}:{},aresample={}:async=1000:min_comp=0.005:min_hard_comp=0.02{},"
        "aformat=sample_fmts={}:sample_rates={}:channel_layouts={},abuffersink",
        source_.time_base.num, source_.time_base.den, decoded_form_, encoder_->sample_rate, first,
        av_get_sample_fmt_name(encoder_->sample_fmt), encoder_->sample_rate, name_of(encoder_->ch_layout));
    AVFilterInOut *inputs = nullptr, *outputs = nullptr;
    int error = avfilter_graph_parse2(graph_.get(), filters.c_str(), &inputs, &outputs);
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    if (error >= 0) error = avfilter_graph_config(graph_.get(), nullptr);
    if (error < 0)
        throw Failure(fmt::format("cannot convert stream {}: {}", source_.index, av_error_text(error)));
    for (unsigned n = 0; n < graph_->nb_filters; n++) {
        const std::string_view filter = graph_->filters[n]->filter->name;
        if (filter == "abuffer") in_ = graph_->filters[n];
        if (filter == "abuffersink") out_ = graph_->filters[n];
    }
}

/// Takes the rest out of the filters.
void SoundConverter::close_graph() {
    if (!graph_) return;
    check_memory(av_buffersrc_add_frame(in_, nullptr) >= 0);
    take_filtered();
    graph_.reset();
}

void SoundConverter::take_filtered() {
    while (av_buffersink_get_frame(out_, filtered_.get()) >= 0) {
        if (place_ == AV_NOPTS_VALUE)
            place_ =
                filtered_->pts == AV_NOPTS_VALUE
                    ? 0
                    : av_rescale_q(filtered_->pts, av_buffersink_get_time_base(out_), encoder_->time_base);
        const int count = filtered_->nb_samples;
        void** const data = reinterpret_cast<void**>(filtered_->extended_data);
        check_memory(av_audio_fifo_write(samples_.get(), data, count) == count);
        av_frame_unref(filtered_.get());
    }
    const int whole = encoder_->frame_size;
    while (whole > 0 && av_audio_fifo_size(samples_.get()) >= whole) encode_samples(whole);
    if (whole == 0) encode_samples(av_audio_fifo_size(samples_.get()));
}

void SoundConverter::encode_samples(int count) {
    if (count == 0) return;
    const FramePtr frame = new_frame();
    frame->format = encoder_->sample_fmt;
    frame->sample_rate = encoder_->sample_rate;
    frame->nb_samples = count;
    check_memory(av_channel_layout_copy(&frame->ch_layout, &encoder_->ch_layout) >= 0 &&
                 av_frame_get_buffer(frame.get(), 0) >= 0);
    void** const data = reinterpret_cast<void**>(frame->extended_data);
    check_memory(av_audio_fifo_read(samples_.get(), data, count) == count);
    frame->pts = place_;
    place_ += count;
    encode(frame.get());
}

void SoundConverter::encode(AVFrame* frame) {
    if (avcodec_send_frame(encoder_.get(), frame) < 0) {
        refused_++;
        return;
    }
    for (;;) {
        PacketPtr packet = new_packet();
        if (avcodec_receive_packet(encoder_.get(), packet.get()) < 0) return;
        packets_.push_back(std::move(packet));
    }
}

}  // namespace

std::unique_ptr<StreamConverter> convert_sound(const AVStream& source, const AVPacket* first,
                                               const SoundForm& form) {
    return std::make_unique<SoundConverter>(source, first, form);
}

}  // namespace gsve::programme
