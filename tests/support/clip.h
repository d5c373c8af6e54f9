#pragma once

// Small clips: written with pictures that can be told apart, and read back as a player would.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include "support/frame_marks.h"
#include "support/test_picture.h"

namespace gsve::test {

struct ClipFormat {
    int width = 128;
    int height = 96;
    int shift_x = 1;
    int shift_y = 1;
    AVRational rate = {25, 1};
    AVRational sample_aspect = {1, 1};
    char interlacing = 'p';  ///< p progressive, t top field first, b bottom field first
};

inline TestPicture clip_picture(const ClipFormat& format, unsigned number) {
    // A chroma plane of an odd size has the sample that covers the last half pair.
    const int even_width = (format.width + (1 << format.shift_x) - 1) >> format.shift_x << format.shift_x;
    const int even_height = (format.height + (1 << format.shift_y) - 1) >> format.shift_y << format.shift_y;
    TestPicture picture(even_width, even_height, format.shift_x, format.shift_y, number);
    return picture;
}

inline void write_luma_rows(std::string& out, const TestPicture& picture, const ClipFormat& format) {
    for (int row = 0; row < format.height; row++)
        out.append(reinterpret_cast<const char*>(&picture.y[static_cast<size_t>(row) * picture.width]),
                   format.width);
}

/// YUV4MPEG2, the plainest of formats, as text and planes.
inline std::string y4m_header(const ClipFormat& f) {
    const char* chroma = f.shift_x == 2 ? "411" : f.shift_x == 0 ? "444" : f.shift_y == 0 ? "422" : "420jpeg";
    char text[200];
    std::snprintf(text, sizeof text, "YUV4MPEG2 W%d H%d F%d:%d I%c A%d:%d C%s\n", f.width, f.height,
                  f.rate.num, f.rate.den, f.interlacing, f.sample_aspect.num, f.sample_aspect.den, chroma);
    return text;
}

inline std::string y4m_picture(const ClipFormat& format, unsigned number) {
    const TestPicture picture = clip_picture(format, number);
    std::string out = "FRAME\n";
    write_luma_rows(out, picture, format);
    out.append(reinterpret_cast<const char*>(picture.u.data()), picture.u.size());
    out.append(reinterpret_cast<const char*>(picture.v.data()), picture.v.size());
    return out;
}

inline void write_y4m(const std::string& path, const ClipFormat& format, unsigned pictures) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
    std::string bytes = y4m_header(format);
    for (unsigned n = 0; n < pictures; n++) bytes += y4m_picture(format, n);
    if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        throw std::runtime_error("cannot write " + path);
}

inline void require(int result, const char* what) {
    if (result < 0) throw std::runtime_error(std::string(what) + " failed");
}

/// FFV1 (lossless) in Matroska: picture n at times_ms[n]. With `sound`, a second of silence beside it.
inline void write_mkv(const std::string& path, const ClipFormat& format, const std::vector<int64_t>& times_ms,
                      AVPixelFormat pixel_format = AV_PIX_FMT_YUV420P, bool sound = false) {
    AVFormatContext* muxer = nullptr;
    require(avformat_alloc_output_context2(&muxer, nullptr, "matroska", path.c_str()), "muxer");
    AVCodecContext* encoder = avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_FFV1));
    encoder->width = format.width;
    encoder->height = format.height;
    encoder->pix_fmt = pixel_format;
    encoder->time_base = {1, 1000};
    encoder->sample_aspect_ratio = format.sample_aspect;
    require(avcodec_open2(encoder, nullptr, nullptr), "FFV1");
    AVStream* stream = avformat_new_stream(muxer, nullptr);
    avcodec_parameters_from_context(stream->codecpar, encoder);
    stream->time_base = {1, 1000};
    if (sound) {
        AVCodecParameters* audio = avformat_new_stream(muxer, nullptr)->codecpar;
        audio->codec_type = AVMEDIA_TYPE_AUDIO;
        audio->codec_id = AV_CODEC_ID_PCM_S16LE;
        audio->sample_rate = 8000;
        audio->format = AV_SAMPLE_FMT_S16;
        audio->bits_per_coded_sample = 16;
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(59, 24, 100)
        audio->ch_layout = AV_CHANNEL_LAYOUT_MONO;
#endif
        audio->block_align = 2;
    }
    require(avio_open(&muxer->pb, path.c_str(), AVIO_FLAG_WRITE), "file");
    require(avformat_write_header(muxer, nullptr), "header");

    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    const auto write_packets = [&] {
        while (avcodec_receive_packet(encoder, packet) == 0) {
            packet->stream_index = 0;
            av_packet_rescale_ts(packet, {1, 1000}, stream->time_base);
            require(av_interleaved_write_frame(muxer, packet), "packet");
        }
    };
    const int bytes_per_sample = av_pix_fmt_desc_get(pixel_format)->comp[0].depth > 8 ? 2 : 1;
    for (size_t n = 0; n < times_ms.size(); n++) {
        const TestPicture picture = clip_picture(format, static_cast<unsigned>(n));
        frame->width = format.width;
        frame->height = format.height;
        frame->format = pixel_format;
        require(av_frame_get_buffer(frame, 0), "frame");
        const std::vector<uint8_t>* planes[3] = {&picture.y, &picture.u, &picture.v};
        for (int plane = 0; plane < 3; plane++) {
            const int width = plane ? picture.chroma_width : format.width;
            const int height = plane ? picture.chroma_height : format.height;
            const int source_stride = plane ? picture.chroma_width : picture.width;
            for (int row = 0; row < height; row++)
                for (int column = 0; column < width; column++) {
                    const uint8_t sample =
                        (*planes[plane])[static_cast<size_t>(row) * source_stride + column];
                    uint8_t* to =
                        frame->data[plane] + row * frame->linesize[plane] + column * bytes_per_sample;
                    const uint16_t wide = static_cast<uint16_t>(sample << 2);
                    std::memcpy(to, bytes_per_sample == 2 ? reinterpret_cast<const void*>(&wide) : &sample,
                                bytes_per_sample);
                }
        }
        frame->pts = times_ms[n];
        require(avcodec_send_frame(encoder, frame), "send");
        av_frame_unref(frame);
        write_packets();
    }
    require(avcodec_send_frame(encoder, nullptr), "flush");
    write_packets();
    if (sound) {
        av_packet_unref(packet);
        require(av_new_packet(packet, 16000), "sound");
        std::memset(packet->data, 0, packet->size);
        packet->stream_index = 1;
        packet->pts = packet->dts = 0;
        require(av_interleaved_write_frame(muxer, packet), "sound");
    }
    require(av_write_trailer(muxer), "trailer");
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&encoder);
    avio_closep(&muxer->pb);
    avformat_free_context(muxer);
}

/// A decoded picture, in display order.
struct ClipPicture {
    double seconds = 0;  ///< presentation time, as the container has it
    int width = 0, height = 0;
    AVPixelFormat format = AV_PIX_FMT_NONE;
    AVRational sample_aspect = {0, 1};
    bool interlaced = false, top_field_first = false;
    char type = '?';
    std::vector<uint8_t> luma;
};

struct DecodedClip {
    AVCodecID codec = AV_CODEC_ID_NONE;
    AVFieldOrder field_order = AV_FIELD_UNKNOWN;
    AVRational time_base = {1, 1};
    std::vector<ClipPicture> pictures;
    std::vector<int64_t> packet_pts, packet_dts;
    int errors = 0;  ///< packets or pictures that the decoder found damaged
};

inline DecodedClip decode_clip(const std::string& path) {
    AVFormatContext* input = nullptr;
    require(avformat_open_input(&input, path.c_str(), nullptr, nullptr), "open");
    require(avformat_find_stream_info(input, nullptr), "stream info");
    const AVCodec* codec = nullptr;
    const int index = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    require(index, "video stream");
    AVStream* stream = input->streams[index];
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(decoder, stream->codecpar);
    decoder->thread_count = 1;
    decoder->err_recognition = AV_EF_EXPLODE;  // not AV_EF_BITSTREAM, which takes MPEG-2 stuffing for damage
    require(avcodec_open2(decoder, codec, nullptr), "decoder");

    DecodedClip clip;
    clip.codec = stream->codecpar->codec_id;
    clip.field_order = stream->codecpar->field_order;
    clip.time_base = stream->time_base;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const auto take_pictures = [&] {
        int result;
        while ((result = avcodec_receive_frame(decoder, frame)) == 0) {
            ClipPicture picture;
            clip.errors += frame->decode_error_flags != 0;
            picture.seconds = static_cast<double>(frame->best_effort_timestamp) * av_q2d(stream->time_base);
            picture.width = frame->width;
            picture.height = frame->height;
            picture.format = static_cast<AVPixelFormat>(frame->format);
            picture.sample_aspect = av_guess_sample_aspect_ratio(input, stream, frame);
            picture.interlaced = marks_of(*frame).interlaced;
            picture.top_field_first = marks_of(*frame).top_field_first;
            picture.type = av_get_picture_type_char(frame->pict_type);
            for (int row = 0; row < frame->height; row++)
                picture.luma.insert(picture.luma.end(), frame->data[0] + row * frame->linesize[0],
                                    frame->data[0] + row * frame->linesize[0] + frame->width);
            clip.pictures.push_back(std::move(picture));
        }
        clip.errors += result != AVERROR(EAGAIN) && result != AVERROR_EOF;
    };
    while (av_read_frame(input, packet) == 0) {
        if (packet->stream_index == index) {
            clip.packet_pts.push_back(packet->pts);
            clip.packet_dts.push_back(packet->dts);
            clip.errors += avcodec_send_packet(decoder, packet) < 0;
            take_pictures();
        }
        av_packet_unref(packet);
    }
    avcodec_send_packet(decoder, nullptr);
    take_pictures();
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&input);
    return clip;
}

/// Luma PSNR of a decoded picture against picture `number` of the clip, over the decoded size.
inline double luma_psnr(const ClipPicture& decoded, const ClipFormat& format, unsigned number) {
    const TestPicture source = clip_picture(format, number);
    int64_t squares = 0;
    for (int row = 0; row < decoded.height; row++) {
        const uint8_t* const a = decoded.luma.data() + static_cast<size_t>(row) * decoded.width;
        const uint8_t* const b = source.y.data() + static_cast<size_t>(row) * source.width;
        for (int column = 0; column < decoded.width; column++)
            squares += (a[column] - b[column]) * (a[column] - b[column]);
    }
    const double mean = static_cast<double>(squares) / (static_cast<double>(decoded.width) * decoded.height);
    return mean > 0 ? 10 * std::log10(255 * 255 / mean) : 100;
}

/// The number of the clip's picture that a decoded one shows.
inline unsigned recognise(const ClipPicture& decoded, const ClipFormat& format, unsigned pictures) {
    unsigned best = 0;
    double best_psnr = -1;
    for (unsigned n = 0; n < pictures; n++)
        if (const double psnr = luma_psnr(decoded, format, n); psnr > best_psnr) best = n, best_psnr = psnr;
    return best;
}

}  // namespace gsve::test
