#pragma once

// Reads emitted units back through libavcodec, which is the judge of what reaches a viewer.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "support/bytes.h"
#include "support/recording_host.h"
#include "support/test_picture.h"

namespace gsve::test {

struct DecodedPicture {
    int64_t pts = AV_NOPTS_VALUE;  ///< of the unit that it was decoded from
    int width = 0;
    int height = 0;
    int format = -1;
    AVPictureType type = AV_PICTURE_TYPE_NONE;
    AVRational sample_aspect_ratio = {0, 1};
    Bytes planes[3];                      ///< rows without padding
    Bytes a53;                            ///< cc_data constructs, three bytes each
    std::optional<int64_t> gop_timecode;  ///< 25 bits as in the GOP header
};

struct FreeDecoder {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

inline DecodedPicture copy_picture(const AVFrame& frame) {
    DecodedPicture picture;
    picture.pts = frame.pts;
    picture.width = frame.width;
    picture.height = frame.height;
    picture.format = frame.format;
    picture.type = frame.pict_type;
    picture.sample_aspect_ratio = frame.sample_aspect_ratio;
    const AVPixFmtDescriptor* format = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    for (int plane = 0; plane < 3; plane++) {
        const int width = plane ? AV_CEIL_RSHIFT(frame.width, format->log2_chroma_w) : frame.width;
        const int height = plane ? AV_CEIL_RSHIFT(frame.height, format->log2_chroma_h) : frame.height;
        for (int row = 0; row < height; row++) {
            const uint8_t* line = frame.data[plane] + static_cast<ptrdiff_t>(row) * frame.linesize[plane];
            picture.planes[plane].insert(picture.planes[plane].end(), line, line + width);
        }
    }
    if (const AVFrameSideData* data = av_frame_get_side_data(&frame, AV_FRAME_DATA_A53_CC))
        picture.a53.assign(data->data, data->data + data->size);
    if (const AVFrameSideData* data = av_frame_get_side_data(&frame, AV_FRAME_DATA_GOP_TIMECODE))
        picture.gop_timecode = *reinterpret_cast<const int64_t*>(data->data);
    return picture;
}

/// The pictures of `units` in display order; with AV_CODEC_FLAG_LOW_DELAY in the order of the units. Every
/// error of the decoder fails the test.
inline std::vector<DecodedPicture> decode(AVCodecID id, const std::vector<Unit>& units, int flags = 0) {
    std::vector<DecodedPicture> pictures;
    const std::unique_ptr<AVCodecContext, FreeDecoder> context(
        avcodec_alloc_context3(avcodec_find_decoder(id)));
    const std::unique_ptr<AVFrame, FreeDecoder> frame(av_frame_alloc());
    const std::unique_ptr<AVPacket, FreeDecoder> packet(av_packet_alloc());
    context->thread_count = 1;
    context->flags |= flags;
    context->err_recognition = AV_EF_EXPLODE;
    if (avcodec_open2(context.get(), nullptr, nullptr) != 0) {
        ADD_FAILURE() << "no decoder";
        return pictures;
    }
    const auto receive_all = [&] {
        while (avcodec_receive_frame(context.get(), frame.get()) == 0) {
            EXPECT_EQ(frame->decode_error_flags, 0);
            pictures.push_back(copy_picture(*frame));
        }
    };
    for (size_t number = 0; number < units.size(); number++) {
        const Bytes& bytes = units[number].bytes;
        if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) != 0) return pictures;
        std::copy(bytes.begin(), bytes.end(), packet->data);
        packet->pts = units[number].pts;
        EXPECT_EQ(avcodec_send_packet(context.get(), packet.get()), 0) << "unit " << number;
        av_packet_unref(packet.get());
        receive_all();
    }
    avcodec_send_packet(context.get(), nullptr);
    receive_all();
    return pictures;
}

/// Peak signal to noise ratio in dB; 99 for equal planes.
inline double psnr(const Bytes& decoded, const Bytes& source) {
    if (decoded.size() != source.size() || source.empty()) return 0;
    double squares = 0;
    for (size_t i = 0; i < source.size(); i++)
        squares += std::pow(static_cast<double>(decoded[i]) - source[i], 2);
    return squares == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * static_cast<double>(source.size()) / squares);
}

/// The worst plane's.
inline double psnr(const DecodedPicture& decoded, const TestPicture& source) {
    return std::min({psnr(decoded.planes[0], source.y), psnr(decoded.planes[1], source.u),
                     psnr(decoded.planes[2], source.v)});
}

}  // namespace gsve::test
