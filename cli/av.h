#pragma once

// FFmpeg, as the program uses it: one owner per kind of object, and all that differs between FFmpeg 5.1, 6
// and 7.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
}

namespace gsve::cli {

/// Deleter for objects that FFmpeg frees through the address of their pointer.
template <auto kFree>
struct FreeByAddress {
    template <class Object>
    void operator()(Object* object) const {
        kFree(&object);
    }
};

struct CloseParser {
    void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
};

struct CloseOutput {
    void operator()(AVFormatContext* output) const {
        if (!(output->oformat->flags & AVFMT_NOFILE)) avio_closep(&output->pb);
        avformat_free_context(output);
    }
};

using FramePtr = std::unique_ptr<AVFrame, FreeByAddress<av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, FreeByAddress<av_packet_free>>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeByAddress<avcodec_free_context>>;
using ParametersPtr = std::unique_ptr<AVCodecParameters, FreeByAddress<avcodec_parameters_free>>;
using ParserPtr = std::unique_ptr<AVCodecParserContext, CloseParser>;
using InputPtr = std::unique_ptr<AVFormatContext, FreeByAddress<avformat_close_input>>;
using OutputPtr = std::unique_ptr<AVFormatContext, CloseOutput>;
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, FreeByAddress<avfilter_graph_free>>;
using FilterPadsPtr = std::unique_ptr<AVFilterInOut, FreeByAddress<avfilter_inout_free>>;

inline std::span<const uint8_t> bytes_of(const AVPacket& packet) {
    return {packet.data, static_cast<size_t>(packet.size)};
}

/// FFmpeg's words for one of its error codes.
inline std::string av_error_text(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    return av_strerror(code, text, sizeof text) == 0 ? text : "error " + std::to_string(code);
}

#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(58, 7, 100)
inline bool interlaced(const AVFrame& frame) { return frame.flags & AV_FRAME_FLAG_INTERLACED; }
inline bool top_field_first(const AVFrame& frame) { return frame.flags & AV_FRAME_FLAG_TOP_FIELD_FIRST; }
#else
inline bool interlaced(const AVFrame& frame) { return frame.interlaced_frame; }
inline bool top_field_first(const AVFrame& frame) { return frame.top_field_first; }
#endif

/// Field order of a decoded picture: 0 progressive, 1 top field first, 2 bottom field first.
inline int field_order(const AVFrame& frame) {
    return !interlaced(frame) ? 0 : top_field_first(frame) ? 1 : 2;
}

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

}  // namespace gsve::cli
