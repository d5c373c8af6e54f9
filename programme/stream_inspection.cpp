#include "programme/stream_inspection.h"

#include <algorithm>
#include <map>
#include <new>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "encoding/coded_unit.h"
#include "encoding/error.h"
#include "programme/error_counter.h"
#include "programme/open_input.h"
#include "programme/picture_rate.h"

namespace gsve::programme {
namespace {

/// What is kept of a coded unit until its picture comes out of the decoder.
struct CodedUnit {
    int64_t pts = AV_NOPTS_VALUE;
    size_t bytes = 0;
    bool refused = false;
    bool complained = false;
    bool shown = false;
    encoding::UnitContents contents;
};

class StreamReader {
public:
    explicit StreamReader(const std::string& path);
    InspectedStream read();

private:
    void open_decoder(const AVCodec& codec);
    void read_packet(AVPacket& packet);
    void read_coded_unit(AVPacket& packet);
    void decode(const AVPacket* unit);
    void receive_pictures();
    void note_complaints();
    void add_picture(const AVFrame& frame);
    void add_captions(const AVFrame& frame, CodedUnit& unit, InspectedPicture& picture) const;
    void settle_damage();
    void set_times();
    void collect_gops();

    std::string path_;
    ErrorCounter errors_;
    uint64_t known_errors_ = 0;
    InputPtr input_;
    AVStream* video_ = nullptr;
    BitstreamFilterPtr start_codes_;  ///< H.264 and H.265
    CodecContextPtr decoder_;
    FramePtr frame_;
    std::vector<CodedUnit> units_;
    InspectedStream stream_;
};

StreamReader::StreamReader(const std::string& path) : path_(path), frame_(av_frame_alloc()) {
    if (!frame_) throw std::bad_alloc();
    VideoInput input = open_video_input(path);
    input_ = std::move(input.format);
    video_ = input.stream;
    open_decoder(*input.codec);

    stream_.format = input_->iformat->name;
    stream_.codec = avcodec_get_name(input.codec->id);
    stream_.mpeg_video = encoding::is_mpeg_video(input.codec->id);
    const AVRational rate = picture_rate(input_.get(), video_);
    stream_.rate = {rate.num, rate.den};
}

void StreamReader::open_decoder(const AVCodec& codec) {
    const AVCodecParameters* parameters = video_->codecpar;
    const char* filter_name = codec.id == AV_CODEC_ID_H264   ? "h264_mp4toannexb"
                              : codec.id == AV_CODEC_ID_HEVC ? "hevc_mp4toannexb"
                                                             : nullptr;
    if (filter_name) {
        AVBSFContext* filter = nullptr;
        if (av_bsf_alloc(av_bsf_get_by_name(filter_name), &filter) < 0) throw std::bad_alloc();
        start_codes_.reset(filter);
        filter->time_base_in = video_->time_base;
        if (avcodec_parameters_copy(filter->par_in, parameters) < 0) throw std::bad_alloc();
        if (const int error = av_bsf_init(filter); error < 0)
            throw Failure(fmt::format("cannot decode {}: {}", path_, av_error_text(error)));
        parameters = filter->par_out;
    }
    decoder_.reset(avcodec_alloc_context3(&codec));
    if (!decoder_ || avcodec_parameters_to_context(decoder_.get(), parameters) < 0) throw std::bad_alloc();
    // Threads by frame would report a unit's damage while another unit is decoded.
    decoder_->thread_count = 0;
    decoder_->thread_type = FF_THREAD_SLICE;
    if (const int error = avcodec_open2(decoder_.get(), &codec, nullptr); error < 0)
        throw Failure(fmt::format("cannot decode {}: {}", path_, av_error_text(error)));
    errors_.watch(decoder_.get());
}

InspectedStream StreamReader::read() {
    const PacketPtr packet(av_packet_alloc());
    if (!packet) throw std::bad_alloc();
    for (;;) {
        const int result = av_read_frame(input_.get(), packet.get());
        if (result == AVERROR_EOF) break;
        if (result < 0) {
            stream_.problem = fmt::format("the file cannot be read further: {}", av_error_text(result));
            break;
        }
        if (packet->stream_index == video_->index) read_packet(*packet);
        av_packet_unref(packet.get());
    }
    decode(nullptr);
    if (stream_.pictures.empty()) throw Failure(fmt::format("{}: no picture could be decoded", path_));
    settle_damage();
    set_times();
    collect_gops();
    return std::move(stream_);
}

void StreamReader::read_packet(AVPacket& packet) {
    if (!start_codes_) return read_coded_unit(packet);
    const bool taken = av_bsf_send_packet(start_codes_.get(), &packet) == 0;
    int result = taken ? 0 : AVERROR_INVALIDDATA;
    while (result >= 0 && (result = av_bsf_receive_packet(start_codes_.get(), &packet)) >= 0) {
        read_coded_unit(packet);
        av_packet_unref(&packet);
    }
    if (result != AVERROR(EAGAIN)) stream_.lost_units++;
}

void StreamReader::read_coded_unit(AVPacket& packet) {
    if (packet.size <= 0) return;  // to a decoder, the end of the stream
    const std::span<const uint8_t> bytes = bytes_of(packet);
    const bool key = packet.flags & AV_PKT_FLAG_KEY;
    units_.push_back({.pts = packet.pts,
                      .bytes = bytes.size(),
                      .refused = false,
                      .complained = false,
                      .shown = false,
                      .contents = encoding::read_unit(decoder_->codec_id, bytes, key)});
    // The decoder hands each unit's time on to its picture. The unit's number in its place leads from the
    // picture back to the unit, in streams without times too.
    packet.pts = static_cast<int64_t>(units_.size()) - 1;
    packet.dts = AV_NOPTS_VALUE;
    decode(&packet);
}

void StreamReader::decode(const AVPacket* unit) {
    const int result = avcodec_send_packet(decoder_.get(), unit);
    if (result < 0 && unit) units_.back().refused = true;
    receive_pictures();
    note_complaints();
}

void StreamReader::receive_pictures() {
    for (;;) {
        const int result = avcodec_receive_frame(decoder_.get(), frame_.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
        if (result >= 0) {
            add_picture(*frame_);
        } else {
            if (!units_.empty()) units_.back().refused = true;
            if (result != AVERROR_INVALIDDATA) return;
        }
    }
}

/// Errors since the last unit are about the unit just decoded.
void StreamReader::note_complaints() {
    if (errors_.errors() != known_errors_ && !units_.empty()) units_.back().complained = true;
    known_errors_ = errors_.errors();
}

void StreamReader::add_picture(const AVFrame& frame) {
    if (stream_.pictures.empty()) {
        stream_.width = frame.width;
        stream_.height = frame.height;
    }
    InspectedPicture picture;
    picture.type = av_get_picture_type_char(frame.pict_type);
    picture.field_order = field_order(frame);
    picture.top_field_first = top_field_first(frame);
    picture.damaged = frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT);
    picture.unit = frame.pts;
    if (picture.unit < 0 || picture.unit >= static_cast<int64_t>(units_.size()))
        picture.unit = static_cast<int64_t>(units_.size()) - 1;  // of a decoder that loses its times
    CodedUnit& unit = units_[static_cast<size_t>(picture.unit)];
    picture.bytes = unit.bytes;
    add_captions(frame, unit, picture);
    unit.shown = true;
    stream_.pictures.push_back(std::move(picture));
}

void StreamReader::add_captions(const AVFrame& frame, CodedUnit& unit, InspectedPicture& picture) const {
    if (!unit.shown) picture.captions = std::move(unit.contents.captions);
    if (stream_.mpeg_video) return;
    if (const AVFrameSideData* data = av_frame_get_side_data(&frame, AV_FRAME_DATA_A53_CC))
        picture.captions.cc_data.emplace(data->data, data->data + data->size);
}

/// Once all units are decoded, as a complaint may come after the picture.
void StreamReader::settle_damage() {
    for (InspectedPicture& picture : stream_.pictures) {
        const CodedUnit& unit = units_[static_cast<size_t>(picture.unit)];
        picture.damaged |= unit.refused || unit.complained;
    }
    stream_.lost_units += static_cast<uint64_t>(std::count_if(
        units_.begin(), units_.end(), [](const CodedUnit& u) { return u.refused && !u.shown; }));
}

/// From the container where it has a rising time for every picture, else from the frame rate.
void StreamReader::set_times() {
    std::vector<InspectedPicture>& pictures = stream_.pictures;
    const auto pts = [&](const InspectedPicture& p) { return units_[static_cast<size_t>(p.unit)].pts; };
    bool timed = !(input_->iformat->flags & AVFMT_NOTIMESTAMPS) && pts(pictures[0]) != AV_NOPTS_VALUE;
    for (size_t n = 1; n < pictures.size() && timed; n++)
        timed = pts(pictures[n]) != AV_NOPTS_VALUE && pts(pictures[n]) > pts(pictures[n - 1]);
    for (size_t n = 0; n < pictures.size(); n++) {
        pictures[n].time =
            timed ? static_cast<double>(pts(pictures[n]) - pts(pictures[0])) * av_q2d(video_->time_base)
                  : static_cast<double>(n) / stream_.rate.per_second();
    }
}

void StreamReader::collect_gops() {
    std::map<int64_t, int64_t> number_of_unit;
    for (size_t n = 0; n < stream_.pictures.size(); n++)
        number_of_unit.emplace(stream_.pictures[n].unit, static_cast<int64_t>(n));
    std::optional<encoding::GopStart> start;  // waits for the group's first picture that came out
    for (size_t index = 0; index < units_.size(); index++) {
        if (units_[index].contents.gop) start = units_[index].contents.gop;
        const auto found = number_of_unit.find(static_cast<int64_t>(index));
        if (found == number_of_unit.end()) continue;
        if (start) stream_.gops.push_back({*std::exchange(start, std::nullopt), found->second, {}});
        if (!stream_.gops.empty())
            stream_.gops.back().types += stream_.pictures[static_cast<size_t>(found->second)].type;
    }
}

}  // namespace

InspectedStream read_stream(const std::string& path) { return StreamReader(path).read(); }

}  // namespace gsve::programme
