#pragma once

// Film as MPEG-2 tells it to receivers at 60 Hz: pictures that are to be shown for two and three fields.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "captions/line21.h"
#include "support/clip.h"

namespace gsve::test {

inline unsigned byte_at(const std::string& bytes, size_t at) { return static_cast<uint8_t>(bytes.at(at)); }

inline const std::string kCc = {0, 0, 1, '\xB2', 'C', 'C', 1, '\xF8'};  ///< of "CC" user data
inline const std::string kCcData = "GA94\3";                            ///< of ATSC A/53 caption data

/// Film as 60 Hz video: the pictures of a progressive stream at 24 pictures/s without B-pictures, shown for
/// two and three fields by turns, with the byte pairs of 30 frames/s as A/53 data in each picture or, as on
/// DVD, as "CC" user data in front of the pictures of each GOP.
class SoftTelecine {
public:
    SoftTelecine(std::string progressive, bool dvd, std::vector<captions::Word> field_1 = {},
                 std::vector<captions::Word> field_2 = {})
        : film_(std::move(progressive)), dvd_(dvd), pairs_{std::move(field_1), std::move(field_2)} {
        std::vector<size_t> units;
        for (size_t at = film_.find(kPrefix); at != std::string::npos; at = film_.find(kPrefix, at + 3))
            units.push_back(at);
        for (size_t n = 0; n < units.size(); n++) {
            if (dvd_ && type(units[n]) == kGop) gop_pictures_ = pictures_before_next_gop(units, n + 1);
            add(film_.substr(units[n], (n + 1 < units.size() ? units[n + 1] : film_.size()) - units[n]));
        }
    }

    const std::string& stream() const { return stream_; }

    /// In which field picture `picture` begins.
    static int first_field(int picture) { return picture * 5 / 2; }

private:
    static constexpr int kSequence = 0xB3, kExtension = 0xB5, kGop = 0xB8, kPicture = 0x00;
    const std::string kPrefix = {0, 0, 1};

    unsigned type(size_t at) const { return byte_at(film_, at + 3); }

    int pictures_before_next_gop(const std::vector<size_t>& units, size_t n) const {
        int pictures = 0;
        for (; n < units.size() && type(units[n]) != kGop; n++) pictures += type(units[n]) == kPicture;
        return pictures;
    }

    std::string triple(int header, int field, size_t frame) const {
        const captions::Word word = frame < pairs_[field].size() ? pairs_[field][frame] : captions::kNullPair;
        return {static_cast<char>(header), static_cast<char>(word >> 8), static_cast<char>(word & 0xFF)};
    }

    void add(std::string unit) {
        constexpr char k29_97Code = 4;
        const unsigned extension = byte_at(unit, 4) >> 4;
        const bool is_extension = byte_at(unit, 3) == kExtension;
        if (byte_at(unit, 3) == kSequence) unit[7] = static_cast<char>((unit[7] & 0xF0) | k29_97Code);
        if (is_extension && extension == 1) unit[5] &= ~0x08;  // progressive_sequence
        if (is_extension && extension == 8) {
            const int begin = first_field(picture_), end = first_field(++picture_);
            // top_field_first and repeat_first_field
            unit[7] = static_cast<char>((unit[7] & ~0x82) | (begin % 2 ? 0 : 0x80) | (end - begin - 2) << 1);
            if (!dvd_) unit += cc_data(begin, end);
        }
        if (dvd_ && byte_at(unit, 3) == kGop)
            unit += cc((first_field(picture_) + 1) / 2, (first_field(picture_ + gop_pictures_) + 1) / 2);
        stream_ += unit;
    }

    std::string cc_data(int begin, int end) const {
        std::string triples;
        for (int field = begin; field < end; field++)
            triples += triple(0xFC + field % 2, field % 2, static_cast<size_t>(field / 2));
        return std::string{0, 0, 1, '\xB2'} + kCcData + static_cast<char>(0x40 | (end - begin)) + '\xFF' +
               triples + '\xFF';
    }

    std::string cc(int begin, int end) const {
        std::string data = kCc + static_cast<char>(0x80 | (end - begin) * 2);
        for (int frame = begin; frame < end; frame++)
            data += triple(0xFF, 0, static_cast<size_t>(frame)) + triple(0xFE, 1, static_cast<size_t>(frame));
        return data;
    }

    std::string film_;
    bool dvd_;
    std::vector<captions::Word> pairs_[2];
    std::string stream_;
    int picture_ = 0;
    int gop_pictures_ = 0;
};

/// Puts the pictures of such an elementary stream into a container, each with the time of its first field.
inline void put_into_container(const std::string& stream, const std::string& path) {
    AVFormatContext *input = nullptr, *output = nullptr;
    require(avformat_open_input(&input, stream.c_str(), nullptr, nullptr), "open");
    require(avformat_find_stream_info(input, nullptr), "stream info");
    require(avformat_alloc_output_context2(&output, nullptr, nullptr, path.c_str()), "container");
    AVStream* video = avformat_new_stream(output, nullptr);
    avcodec_parameters_copy(video->codecpar, input->streams[0]->codecpar);
    require(avio_open(&output->pb, path.c_str(), AVIO_FLAG_WRITE), "create");
    require(avformat_write_header(output, nullptr), "header");
    AVPacket* packet = av_packet_alloc();
    for (int picture = 0; av_read_frame(input, packet) == 0; picture++) {
        const int begin = SoftTelecine::first_field(picture);
        packet->pts = packet->dts = begin;
        packet->duration = SoftTelecine::first_field(picture + 1) - begin;
        av_packet_rescale_ts(packet, {1001, 60000}, video->time_base);
        require(av_interleaved_write_frame(output, packet), "write");
    }
    require(av_write_trailer(output), "trailer");
    av_packet_free(&packet);
    avio_closep(&output->pb);
    avformat_free_context(output);
    avformat_close_input(&input);
}

}  // namespace gsve::test
