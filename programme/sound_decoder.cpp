#include "programme/sound_decoder.h"

#include <cmath>
#include <new>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/timeline.h"

namespace gsve::programme {
namespace {

/// The filters that apply a level to samples of any form; empty, or with a comma behind.
std::string level_filters(const Level& level, int rate) {
    if (level == Level()) return "";
    std::string filters =
        fmt::format("aformat=sample_fmts=fltp,volume=volume={:.4f}dB:precision=float,", level.gain);
    // Between samples the wave goes higher than they tell. At four times the rate it hardly does.
    if (level.ceiling)
        filters += fmt::format("aresample={},alimiter=limit={:.6f}:level=false:latency=true,aresample={},",
                               rate * 4, std::pow(10.0, *level.ceiling / 20), rate);
    return filters;
}

}  // namespace

SoundDecoder::SoundDecoder(const AVStream& source) : source_(source) {
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

SampleForm SoundDecoder::source_form() const {
    // Channels in no particular order get one that has a name.
    AVChannelLayout layout = decoder_->ch_layout;
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) av_channel_layout_default(&layout, layout.nb_channels);
    return {.rate = decoder_->sample_rate, .format = decoder_->sample_fmt, .layout = name_of(layout)};
}

void SoundDecoder::give(const SampleForm& form, const Level& level, std::optional<int64_t> begin, Sink sink) {
    form_ = form;
    level_ = level;
    begin_ = begin;
    sink_ = std::move(sink);
}

void SoundDecoder::push(const AVPacket* packet) {
    // What is spliced follows at its own sample, however little it is off.
    if (packet && begins_clock(*packet)) close_graph();
    decode(packet);
    if (!packet) close_graph();
}

void SoundDecoder::decode(const AVPacket* packet) {
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
void SoundDecoder::filter(AVFrame* frame) {
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&frame->ch_layout, frame->ch_layout.nb_channels);
    const SampleForm form = form_of(*frame);
    if (graph_ && form != decoded_form_) close_graph();
    if (!graph_) build_graph(form);
    if (av_buffersrc_add_frame(in_, frame) < 0) throw std::bad_alloc();
    take_filtered();
}

void SoundDecoder::build_graph(const SampleForm& decoded) {
    decoded_form_ = decoded;
    graph_.reset(avfilter_graph_alloc());
    check_memory(graph_ != nullptr);
    // Steps of 20 ms and more are pauses or overlaps, and are filled or cut to the sample; smaller deviations
    // are the roundings of a container, unless they grow. What is made anew goes on at the sample where the
    // filters before it ended, told in samples of the source.
    const std::string first =
        begin_ ? fmt::format(":first_pts={}", av_rescale(*begin_ + given_, decoded.rate, form_.rate)) : "";
    const std::string filters = fmt::format(
        "abuffer=time_base={}/{}:{},aresample={}:async=1000:min_comp=0.005:min_hard_comp=0.02{},"
        "aformat=sample_rates={}:channel_layouts={},{}aformat=sample_fmts={},abuffersink",
        source_.time_base.num, source_.time_base.den, filter_text(decoded), form_.rate, first, form_.rate,
        form_.layout, level_filters(level_, form_.rate), av_get_sample_fmt_name(form_.format));
    GraphEnds ends;
    if (const int error = make_sound_graph(*graph_, filters, ends); error < 0)
        throw Failure(fmt::format("cannot convert stream {}: {}", source_.index, av_error_text(error)));
    in_ = ends.in;
    out_ = ends.out;
}

/// Takes the rest out of the filters.
void SoundDecoder::close_graph() {
    if (!graph_) return;
    check_memory(av_buffersrc_add_frame(in_, nullptr) >= 0);
    take_filtered();
    graph_.reset();
}

void SoundDecoder::take_filtered() {
    while (av_buffersink_get_frame(out_, filtered_.get()) >= 0) {
        if (!begin_)
            begin_ = filtered_->pts == AV_NOPTS_VALUE
                         ? 0
                         : av_rescale_q(filtered_->pts, av_buffersink_get_time_base(out_), {1, form_.rate});
        given_ += filtered_->nb_samples;
        sink_(*filtered_);
        av_frame_unref(filtered_.get());
    }
}

int make_sound_graph(AVFilterGraph& graph, const std::string& filters, GraphEnds& ends) {
    AVFilterInOut *inputs = nullptr, *outputs = nullptr;
    int error = avfilter_graph_parse2(&graph, filters.c_str(), &inputs, &outputs);
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    if (error >= 0) error = avfilter_graph_config(&graph, nullptr);
    if (error < 0) return error;
    for (unsigned n = 0; n < graph.nb_filters; n++) {
        const std::string_view filter = graph.filters[n]->filter->name;
        if (filter == "abuffer") ends.in = graph.filters[n];
        if (filter == "abuffersink") ends.out = graph.filters[n];
    }
    return 0;
}

}  // namespace gsve::programme
