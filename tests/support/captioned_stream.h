#pragma once

// Elementary streams with captions and time codes, made by a host that drives the encoder itself.

#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "captions/schedule.h"
#include "captions/scte20.h"
#include "captions/timecode.h"
#include "support/bytes.h"
#include "support/recording_host.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace gsve::test {

struct CaptionedStreamOptions {
    std::string codec = "mpeg-2";
    captions::Schedule schedule = {};  ///< its rate is the stream's
    unsigned pictures = 100;
    bool interlaced = false;  ///< top field first
    bool scte20 = false;      ///< the byte pairs as SCTE-20 too
    std::optional<captions::Timecode> timecode = {};
    std::vector<std::pair<const char*, const char*>> settings = {};
};

/// What the schedule has for each picture goes to the encoder right before that picture. Captions of pictures
/// that the codec still holds at the end do not reach the stream: the schedule is to end half a second
/// before.
class CaptionedStream {
public:
    explicit CaptionedStream(const CaptionedStreamOptions& options) : options_(options) {
        av_log_set_level(AV_LOG_QUIET);
        describe_source(host_, 176, 144, options.schedule.rate.num, options.schedule.rate.den);
        host_.input_interlaced = options.interlaced;
        configure(host_, {{"encoder", options.codec.c_str()},
                          {"enable", "1"},
                          {"bitrate", "1500000"},
                          {"enable cea-708", "1"},
                          {"enable eia-608", "0"},
                          {"b frames", "2"},
                          {"gop size", "15"},
                          {"h.264 profile", "main"}});
        configure(host_, options.settings);
        stderr_of([&] { encode(); });
    }

    const std::vector<Unit>& units() const { return host_.units; }

    /// Units that came while pictures went in. The others were drained and carry nothing.
    size_t undrained() const { return undrained_; }

    void write_to(const std::string& path) const {
        std::ofstream file(path, std::ios::binary);
        for (const Unit& unit : host_.units)
            file.write(reinterpret_cast<const char*>(unit.bytes.data()),
                       static_cast<std::streamsize>(unit.bytes.size()));
        if (!file) throw std::runtime_error("cannot write " + path);
    }

private:
    void encode() {
        if (!host_.client_addref()) throw std::runtime_error(host_.last_error);
        for (unsigned number = 0; number < options_.pictures; number++) {
            write_captions(number);
            const TestPicture picture(176, 144, 1, 1, number);
            if (!host_.write_video(picture.y.data(), 176, picture.u.data(), 88, picture.v.data(), 88,
                                   options_.interlaced ? 0 : -1, number))
                throw std::runtime_error("write_video failed");
        }
        undrained_ = host_.units.size();
        while (host_.flush_delayed_video()) {
        }
        host_.client_unref();
    }

    void write_captions(unsigned number) {
        captions::Word words[2] = {0, 0};
        for (const captions::Eia608Event& event : options_.schedule.eia608) {
            if (event.frame != number) continue;
            words[event.field] = event.word;
            host_.write_eia608(event.field, event.word);
        }
        for (const captions::Cea708Event& event : options_.schedule.cea708) {
            if (event.frame != number) continue;
            std::vector<zeph_cea708_word> constructs;
            for (const captions::Cea708Construct& c : event.constructs)
                constructs.push_back({c.header, static_cast<uint16_t>(c.data_1 << 8 | c.data_2)});
            host_.write_cea708(static_cast<unsigned>(constructs.size()), constructs.data());
        }
        if (options_.scte20) {
            // Interlaced pictures show the top field first; in progressive ones the flag is clear.
            const auto constructs = captions::scte20_constructs(words[0], words[1], options_.interlaced);
            Bytes body = captions::compose_scte20(constructs);
            host_.write_scte20(body.data(), body.size());
        }
        if (options_.timecode) {
            const captions::TimecodeCounter counter(*options_.timecode, options_.schedule.rate);
            const captions::GopTimecode code = captions::gop_timecode(counter.at(number));
            mpeg2_gop_timecode_t record;
            record.valid = 1;
            record.drop_frame_flag = code.drop_frame_flag;
            record.hours = code.hours;
            record.minutes = code.minutes;
            record.seconds = code.seconds;
            record.pictures = code.pictures;
            host_.write_mpeg2_gop_timecode(record);
        }
    }

    CaptionedStreamOptions options_;
    RecordingHost host_;
    size_t undrained_ = 0;
};

/// Constructs of one CTA-708 packet with a single service block: define window 0, then `text`, then ETX.
inline std::vector<captions::Cea708Construct> service_packet(int service, int sequence,
                                                             const std::string& text) {
    Bytes block = from_hex("98 38 00 00 0A 1F 11");  // DefineWindow 0: visible, a row of 32 columns
    block.insert(block.end(), text.begin(), text.end());
    block.push_back(0x03);
    Bytes packet = {0, static_cast<uint8_t>(service << 5 | static_cast<int>(block.size()))};
    packet = packet + block;
    if (packet.size() % 2) packet.push_back(0);
    packet[0] = static_cast<uint8_t>(sequence << 6 | static_cast<int>(packet.size() / 2));
    std::vector<captions::Cea708Construct> constructs;
    for (size_t i = 0; i < packet.size(); i += 2)
        constructs.push_back(
            {i == 0 ? captions::kHeaderDtvccStart : captions::kHeaderDtvccData, packet[i], packet[i + 1]});
    return constructs;
}

}  // namespace gsve::test
