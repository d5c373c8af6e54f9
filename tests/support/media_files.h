#pragma once

// Media files made from others: remultiplexed, cut, and with parts lost.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "support/scratch.h"

namespace gsve::test {

inline void write_bytes(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    file << bytes;
    if (!file) throw std::runtime_error("cannot write " + path);
}

/// Does with each packet of the copy what it wants; the times are those of the packet's stream already.
using WritePacket = std::function<void(AVFormatContext&, AVPacket&)>;

/// Copies the only stream of a file, by default as it is. `movflags`: of the MP4 multiplexer.
inline void remultiplex(const std::string& from, const std::string& to, const char* movflags = nullptr,
                        const WritePacket& write = {}) {
    const auto check = [](int result, const char* what) {
        if (result < 0) throw std::runtime_error(std::string(what) + " failed");
    };
    AVFormatContext* input = nullptr;
    AVFormatContext* output = nullptr;
    check(avformat_open_input(&input, from.c_str(), nullptr, nullptr), "open");
    check(avformat_find_stream_info(input, nullptr), "stream info");
    check(avformat_alloc_output_context2(&output, nullptr, nullptr, to.c_str()), "multiplexer");
    AVStream* stream = avformat_new_stream(output, nullptr);
    check(avcodec_parameters_copy(stream->codecpar, input->streams[0]->codecpar), "parameters");
    stream->codecpar->codec_tag = 0;
    stream->time_base = input->streams[0]->time_base;
    AVDictionary* options = nullptr;
    if (movflags) av_dict_set(&options, "movflags", movflags, 0);
    check(avio_open(&output->pb, to.c_str(), AVIO_FLAG_WRITE), "file");
    check(avformat_write_header(output, &options), "header");
    av_dict_free(&options);
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(input, packet) >= 0) {
        av_packet_rescale_ts(packet, input->streams[0]->time_base, stream->time_base);
        packet->pos = -1;
        if (write)
            write(*output, *packet);
        else
            check(av_write_frame(output, packet), "packet");
        av_packet_unref(packet);
    }
    check(av_write_trailer(output), "trailer");
    av_packet_free(&packet);
    avio_closep(&output->pb);
    avformat_free_context(output);
    avformat_close_input(&input);
}

/// Puts an elementary stream of 25 pictures/s, decoded in the order of display, into a transport stream.
inline void write_transport_stream(const std::string& from, const std::string& to) {
    constexpr int64_t kPicture = 90'000 / 25;
    int64_t time = 0;
    remultiplex(from, to, nullptr, [&](AVFormatContext& output, AVPacket& packet) {
        packet.dts = time += kPicture;
        packet.pts = packet.dts + kPicture;
        if (av_write_frame(&output, &packet) < 0) throw std::runtime_error("packet failed");
    });
}

/// Writes each NAL unit of a packet, with its length of four bytes, as a sample of its own. Returns
/// their number.
inline size_t write_nal_by_nal(AVFormatContext& output, AVPacket& packet) {
    constexpr int kLength = 4;
    AVPacket* sample = av_packet_alloc();
    size_t number = 0;
    for (int at = 0; at + kLength <= packet.size; number++) {
        int size = kLength;
        for (int n = 0, length = 0; n < kLength; n++) {
            length = length << 8 | packet.data[at + n];
            if (n == kLength - 1) size += length;
        }
        if (size > packet.size - at || av_new_packet(sample, size) < 0)
            throw std::runtime_error("no NAL unit");
        std::memcpy(sample->data, packet.data + at, static_cast<size_t>(size));
        sample->pts = packet.pts + static_cast<int64_t>(number);
        sample->dts = packet.dts + static_cast<int64_t>(number);
        sample->flags = packet.flags;
        if (av_write_frame(&output, sample) < 0) throw std::runtime_error("sample");
        av_packet_unref(sample);
        at += size;
    }
    av_packet_free(&sample);
    return number;
}

constexpr size_t kTransportPacket = 188;

/// A transport stream without the packets that `lost` names by their place; and the places of what it lost,
/// in units of its own, by the presentation time of the picture that each was of, in seconds.
struct Lossy {
    std::string bytes;
    std::vector<double> times;
};

/// `pid`: of the video.
inline Lossy lose_packets(const std::string& stream, int pid, const std::function<bool(size_t)>& lost) {
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(stream[at]); };
    const auto time_of = [&](size_t payload) -> std::optional<double> {
        // ISO/IEC 13818-1, 2.4.3.6: packet_start_code_prefix, stream_id, length, flags, then the PTS.
        if (byte(payload) != 0 || byte(payload + 1) != 0 || byte(payload + 2) != 1) return std::nullopt;
        if (!(byte(payload + 7) & 0x80)) return std::nullopt;
        const size_t at = payload + 9;
        const int64_t pts = static_cast<int64_t>(byte(at) >> 1 & 7) << 30 | byte(at + 1) << 22 |
                            (byte(at + 2) >> 1) << 15 | byte(at + 3) << 7 | byte(at + 4) >> 1;
        return static_cast<double>(pts) / 90000;
    };
    Lossy result;
    std::optional<double> first, now;
    for (size_t place = 0; (place + 1) * kTransportPacket <= stream.size(); place++) {
        const size_t at = place * kTransportPacket;
        const bool of_video = ((byte(at + 1) & 0x1F) << 8 | byte(at + 2)) == pid;
        if (of_video && (byte(at + 1) & 0x40)) {
            const size_t adaptation = byte(at + 3) & 0x20 ? 1 + byte(at + 4) : 0;
            now = time_of(at + 4 + adaptation);
            if (!first || (now && *now < *first)) first = now;
        }
        if (!lost(place))
            result.bytes += stream.substr(at, kTransportPacket);
        else if (of_video && now)
            result.times.push_back(*now);
    }
    for (double& time : result.times) time -= *first;
    return result;
}

}  // namespace gsve::test
