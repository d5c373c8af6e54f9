#pragma once

// libavformat and libavfilter, as a programme uses them: one owner per kind of object, and all that differs
// between FFmpeg's releases.

#include <cstring>
#include <memory>
#include <span>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include "encoding/av.h"

namespace gsve {

struct CloseOutput {
    void operator()(AVFormatContext* output) const {
        if (!(output->oformat->flags & AVFMT_NOFILE)) avio_closep(&output->pb);
        avformat_free_context(output);
    }
};

using InputPtr = std::unique_ptr<AVFormatContext, FreeByAddress<avformat_close_input>>;
using OutputPtr = std::unique_ptr<AVFormatContext, CloseOutput>;
using BitstreamFilterPtr = std::unique_ptr<AVBSFContext, FreeByAddress<av_bsf_free>>;
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, FreeByAddress<avfilter_graph_free>>;
using FilterPadsPtr = std::unique_ptr<AVFilterInOut, FreeByAddress<avfilter_inout_free>>;

/// Tells a buffer source about the pictures that it will get.
inline void describe_frames(AVBufferSrcParameters& parameters, const AVFrame& frame, AVRational time_base,
                            AVRational frame_rate) {
    parameters.format = frame.format;
    parameters.width = frame.width;
    parameters.height = frame.height;
    parameters.time_base = time_base;
    parameters.frame_rate = frame_rate;
    parameters.sample_aspect_ratio = frame.sample_aspect_ratio;
#if LIBAVFILTER_VERSION_MAJOR >= 10
    parameters.color_space = frame.colorspace;
    parameters.color_range = frame.color_range;
#endif
}

/// Tells players of `to` to turn the picture as those of `from` do.
inline void copy_rotation(AVStream& to, const AVStream& from) {
#if LIBAVFORMAT_VERSION_INT >= AV_VERSION_INT(60, 15, 100)
    const AVPacketSideData* matrix = av_packet_side_data_get(
        from.codecpar->coded_side_data, from.codecpar->nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
    if (!matrix) return;
    AVPacketSideData* copy =
        av_packet_side_data_new(&to.codecpar->coded_side_data, &to.codecpar->nb_coded_side_data,
                                AV_PKT_DATA_DISPLAYMATRIX, matrix->size, 0);
    check_memory(copy != nullptr);
    std::memcpy(copy->data, matrix->data, matrix->size);
#else
    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(&from, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (!matrix) return;
    uint8_t* copy = av_stream_new_side_data(&to, AV_PKT_DATA_DISPLAYMATRIX, size);
    check_memory(copy != nullptr);
    std::memcpy(copy, matrix, size);
#endif
}

// What an encoder of sound takes; empty: anything.
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
template <class Value, AVCodecConfig kConfig>
std::span<const Value> supported(const AVCodec& encoder) {
    const void* values = nullptr;
    int count = 0;
    if (avcodec_get_supported_config(nullptr, &encoder, kConfig, 0, &values, &count) < 0) return {};
    return {static_cast<const Value*>(values), static_cast<size_t>(count)};
}
inline std::span<const int> sample_rates(const AVCodec& encoder) {
    return supported<int, AV_CODEC_CONFIG_SAMPLE_RATE>(encoder);
}
inline std::span<const AVChannelLayout> channel_layouts(const AVCodec& encoder) {
    return supported<AVChannelLayout, AV_CODEC_CONFIG_CHANNEL_LAYOUT>(encoder);
}
inline AVSampleFormat first_sample_format(const AVCodec& encoder) {
    return supported<AVSampleFormat, AV_CODEC_CONFIG_SAMPLE_FORMAT>(encoder)[0];
}
#else
inline std::span<const int> sample_rates(const AVCodec& encoder) {
    size_t count = 0;
    while (encoder.supported_samplerates && encoder.supported_samplerates[count]) count++;
    return {encoder.supported_samplerates, count};
}
inline std::span<const AVChannelLayout> channel_layouts(const AVCodec& encoder) {
    size_t count = 0;
    while (encoder.ch_layouts && encoder.ch_layouts[count].nb_channels) count++;
    return {encoder.ch_layouts, count};
}
inline AVSampleFormat first_sample_format(const AVCodec& encoder) { return encoder.sample_fmts[0]; }
#endif

// A number goes with each packet through a decoder, and comes out with the picture that begins in it.
#if LIBAVCODEC_VERSION_MAJOR >= 60
inline void number_frames(AVCodecContext& decoder) { decoder.flags |= AV_CODEC_FLAG_COPY_OPAQUE; }
inline void set_number(AVCodecContext&, AVPacket& packet, int64_t number) {
    packet.opaque = reinterpret_cast<void*>(static_cast<intptr_t>(number));
}
inline int64_t number_of(const AVFrame& frame) { return reinterpret_cast<intptr_t>(frame.opaque); }
#else
inline void number_frames(AVCodecContext&) {}
inline void set_number(AVCodecContext& decoder, AVPacket&, int64_t number) {
    decoder.reordered_opaque = number;
}
inline int64_t number_of(const AVFrame& frame) { return frame.reordered_opaque; }
#endif

}  // namespace gsve
