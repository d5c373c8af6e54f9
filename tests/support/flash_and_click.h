#pragma once

// Clips with a white picture and a click of sound 0.4 s into every second, and when a decoder shows and plays
// them.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace gsve::test {

/// Runs ffmpeg in a directory, as a user would. Throws where it fails.
inline void ffmpeg(const std::string& directory, const std::string& arguments) {
    const std::string command = "cd '" + directory + "' && ffmpeg -nostdin -v error -y " + arguments;
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

/// Sources for ffmpeg: `seconds` of 160x120 pictures at `rate`, and of mono at 48 kHz.
inline std::string flash_and_click(int seconds, const std::string& rate = "25") {
    const std::string duration = ":d=" + std::to_string(seconds);
    return "-f lavfi -i \"color=black:s=160x120:r=" + rate + duration +
           ",drawbox=c=white:t=fill:enable='lt(mod(t+0.601,1),0.07)'\" -f lavfi -i "
           "\"aevalsrc='if(lt(mod(t+0.6,1),0.02),0.8*cos(2*PI*1000*t),0)':s=48000" +
           duration + "\" ";
}

struct Events {
    std::vector<double> flashes, clicks;  ///< seconds, as presented
    int errors = 0;                       ///< packets that did not decode
};

/// The first channel of a frame, from -1 to 1.
inline double sample_of(const AVFrame& frame, int n) {
    const int step =
        av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame.format)) ? 1 : frame.ch_layout.nb_channels;
    const uint8_t* data = frame.extended_data[0];
    switch (av_get_packed_sample_fmt(static_cast<AVSampleFormat>(frame.format))) {
        case AV_SAMPLE_FMT_S16: return reinterpret_cast<const int16_t*>(data)[n * step] / 32768.0;
        case AV_SAMPLE_FMT_S32: return reinterpret_cast<const int32_t*>(data)[n * step] / 2147483648.0;
        case AV_SAMPLE_FMT_FLT: return reinterpret_cast<const float*>(data)[n * step];
        default: throw std::runtime_error("unknown samples");
    }
}

/// Of the best picture and the best sound of a file.
inline Events events_of(const std::string& path) {
    const auto require = [&](int result) {
        if (result < 0) throw std::runtime_error("cannot decode " + path);
        return result;
    };
    AVFormatContext* input = nullptr;
    require(avformat_open_input(&input, path.c_str(), nullptr, nullptr));
    require(avformat_find_stream_info(input, nullptr));
    struct Track {
        int index = -1;
        AVCodecContext* decoder = nullptr;
    } tracks[2];
    for (const AVMediaType type : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO}) {
        const AVCodec* codec = nullptr;
        Track& track = tracks[type == AVMEDIA_TYPE_AUDIO];
        track.index = require(av_find_best_stream(input, type, -1, -1, &codec, 0));
        track.decoder = avcodec_alloc_context3(codec);
        require(avcodec_parameters_to_context(track.decoder, input->streams[track.index]->codecpar));
        track.decoder->pkt_timebase = input->streams[track.index]->time_base;
        require(avcodec_open2(track.decoder, codec, nullptr));
    }

    Events events;
    bool white = false;
    double quiet_since = -1e9;
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    const auto take = [&](const Track& track) {
        while (avcodec_receive_frame(track.decoder, frame) >= 0) {
            const double time = static_cast<double>(frame->best_effort_timestamp) *
                                av_q2d(input->streams[track.index]->time_base);
            if (track.index == tracks[0].index) {
                const bool now =
                    frame->data[0][frame->linesize[0] * (frame->height / 2) + frame->width / 2] > 128;
                if (now && !white) events.flashes.push_back(time);
                white = now;
                continue;
            }
            for (int n = 0; n < frame->nb_samples; n++) {
                if (std::abs(sample_of(*frame, n)) < 0.2) continue;
                const double at = time + static_cast<double>(n) / frame->sample_rate;
                if (at - quiet_since > 0.1) events.clicks.push_back(at);
                quiet_since = at;
            }
        }
    };
    while (av_read_frame(input, packet) >= 0) {
        for (const Track& track : tracks) {
            if (packet->stream_index != track.index) continue;
            events.errors += avcodec_send_packet(track.decoder, packet) < 0;
            take(track);
        }
        av_packet_unref(packet);
    }
    for (Track& track : tracks) {
        avcodec_send_packet(track.decoder, nullptr);
        take(track);
        avcodec_free_context(&track.decoder);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avformat_close_input(&input);
    return events;
}

}  // namespace gsve::test
