#pragma once

// libavcodec and libavutil outside of the encoder: one owner per kind of object, and all that differs between
// FFmpeg's releases.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
}

namespace gsve {

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

using FramePtr = std::unique_ptr<AVFrame, FreeByAddress<av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, FreeByAddress<av_packet_free>>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, FreeByAddress<avcodec_free_context>>;
using ParametersPtr = std::unique_ptr<AVCodecParameters, FreeByAddress<avcodec_parameters_free>>;
using ParserPtr = std::unique_ptr<AVCodecParserContext, CloseParser>;

/// Throws std::bad_alloc where memory was asked for and is not `there`.
inline void check_memory(bool there) {
    if (!there) throw std::bad_alloc();
}

inline FramePtr new_frame() {
    FramePtr frame(av_frame_alloc());
    check_memory(frame != nullptr);
    return frame;
}

inline PacketPtr new_packet() {
    PacketPtr packet(av_packet_alloc());
    check_memory(packet != nullptr);
    return packet;
}

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

}  // namespace gsve
