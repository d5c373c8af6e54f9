#include "programme/stream_inspection.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "encoding/coded_unit.h"
#include "encoding/error.h"
#include "programme/buffer_checker.h"
#include "programme/damage_witnesses.h"
#include "programme/packet_source.h"
#include "programme/picture_rate.h"

namespace gsve::programme {
namespace {

/// What is kept of a coded unit until its picture comes out of the decoder.
struct CodedUnit {
    int64_t pts = AV_NOPTS_VALUE;
    size_t bytes = 0;
    DamageFinder::Sent sent;
    bool refused = false;
    unsigned complaints = 0;
    bool shown = false;
    encoding::UnitContents contents;
};

class StreamReader {
public:
    StreamReader(const std::string& path, bool check_buffer);
    InspectedStream read();

private:
    void open_decoder(const AVCodec& codec);
    void read_packet(AVPacket& packet);
    void read_coded_unit(AVPacket& packet);
    void decode(const AVPacket* unit);
    void receive_pictures();
    void note_complaints();
    void note_refusal();
    void add_picture(const AVFrame& frame);
    void add_captions(const AVFrame& frame, CodedUnit& unit, InspectedPicture& picture) const;
    void set_times();
    void find_damage();
    DamageFinder::Shown shown(size_t number) const;
    void collect_gops();

    std::string path_;
    PacketSource source_;
    const AVStream* video_;
    BitstreamFilterPtr start_codes_;  ///< H.264 and H.265
    CodecContextPtr decoder_;
    FramePtr frame_ = new_frame();
    std::vector<CodedUnit> units_;
    std::optional<BufferChecker> buffer_;
    std::vector<int> fields_;  ///< for how many each picture is shown
    bool timed_ = false;       ///< the container has the pictures' times
    InspectedStream stream_;
};

StreamReader::StreamReader(const std::string& path, bool check_buffer)
    : path_(path),
      source_(path, {},
              {.choice = {}, .container = Container::kElementary, .lines = DecoderLog::Lines::kSwallowed}),
      video_(&source_.stream()) {
    if (check_buffer) buffer_.emplace(source_.codec().id);
    open_decoder(source_.codec());

    stream_.format = source_.format().iformat->name;
    stream_.codec = avcodec_get_name(source_.codec().id);
    stream_.mpeg_video = encoding::is_mpeg_video(source_.codec().id);
    const AVRational rate = picture_rate(&source_.format(), &source_.stream());
    stream_.rate = {rate.num, rate.den};
}

void StreamReader::open_decoder(const AVCodec& codec) {
    const AVCodecParameters* parameters = video_->codecpar;
    const char* filter_name = codec.id == AV_CODEC_ID_H264   ? "h264_mp4toannexb"
                              : codec.id == AV_CODEC_ID_HEVC ? "hevc_mp4toannexb"
                                                             : nullptr;
    if (filter_name) {
        AVBSFContext* filter = nullptr;
        check_memory(av_bsf_alloc(av_bsf_get_by_name(filter_name), &filter) >= 0);
        start_codes_.reset(filter);
        filter->time_base_in = video_->time_base;
        check_memory(avcodec_parameters_copy(filter->par_in, parameters) >= 0);
        if (const int error = av_bsf_init(filter); error < 0)
            throw Failure(fmt::format("cannot decode {}: {}", path_, av_error_text(error)));
        parameters = filter->par_out;
        if (buffer_ && parameters->extradata_size > 0)
            buffer_->headers({parameters->extradata, static_cast<size_t>(parameters->extradata_size)});
    }
    decoder_.reset(avcodec_alloc_context3(&codec));
    check_memory(decoder_ && avcodec_parameters_to_context(decoder_.get(), parameters) >= 0);
    decoder_->thread_count = 0;
    if (const int error = avcodec_open2(decoder_.get(), &codec, nullptr); error < 0)
        throw Failure(fmt::format("cannot decode {}: {}", path_, av_error_text(error)));
}

InspectedStream StreamReader::read() {
    const PacketPtr packet = new_packet();
    for (;;) {
        const int result = source_.next(*packet);
        if (result == AVERROR_EOF) break;
        if (result < 0) {
            stream_.problem = fmt::format("the file cannot be read further: {}", av_error_text(result));
            break;
        }
        read_packet(*packet);
        av_packet_unref(packet.get());
    }
    decode(nullptr);
    if (stream_.pictures.empty()) throw Failure(fmt::format("{}: no picture could be decoded", path_));
    set_times();
    find_damage();
    collect_gops();
    if (buffer_) {
        constexpr uint8_t kDecoderConfiguration = 1;  // ISO/IEC 14496-15, 5.3.3: its version
        const AVCodecParameters& form = *video_->codecpar;
        stream_.buffer = buffer_->finish();
        stream_.buffer->approximate =
            start_codes_ && form.extradata_size > 0 && form.extradata[0] == kDecoderConfiguration;
    }
    return std::move(stream_);
}

void StreamReader::read_packet(AVPacket& packet) {
    if (!start_codes_) return read_coded_unit(packet);
    const bool key = packet.flags & AV_PKT_FLAG_KEY;
    const bool taken = av_bsf_send_packet(start_codes_.get(), &packet) == 0;
    int result = taken ? 0 : AVERROR_INVALIDDATA;
    while (result >= 0 && (result = av_bsf_receive_packet(start_codes_.get(), &packet)) >= 0) {
        read_coded_unit(packet);
        av_packet_unref(&packet);
    }
    if (result == AVERROR(EAGAIN)) return;
    CodedUnit& refused = units_.emplace_back();
    refused.sent.key = key;
    refused.refused = true;
    if (buffer_) buffer_->unit({});
}

void StreamReader::read_coded_unit(AVPacket& packet) {
    if (packet.size <= 0) return;  // to a decoder, the end of the stream
    const std::span<const uint8_t> bytes = bytes_of(packet);
    const bool key = packet.flags & AV_PKT_FLAG_KEY;
    if (buffer_) buffer_->unit(bytes);
    units_.push_back({.pts = packet.pts,
                      .bytes = bytes.size(),
                      .sent = {.key = key, .flagged = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0},
                      .refused = false,
                      .complaints = 0,
                      .shown = false,
                      .contents = encoding::read_unit(decoder_->codec_id, bytes, key)});
    // The decoder hands each unit's time on to its picture. The unit's number in its place leads from the
    // picture back to the unit, in streams without times too.
    packet.pts = static_cast<int64_t>(units_.size()) - 1;
    packet.dts = AV_NOPTS_VALUE;
    source_.log().expect(*decoder_, packet.pts);
    decode(&packet);
}

void StreamReader::decode(const AVPacket* unit) {
    const int result = avcodec_send_packet(decoder_.get(), unit);
    note_complaints();
    if (result == AVERROR_INVALIDDATA || (result < 0 && unit))
        note_refusal();
    else if (result < 0)
        stream_.problem = fmt::format("the file cannot be decoded further: {}", av_error_text(result));
    receive_pictures();
}

void StreamReader::receive_pictures() {
    for (;;) {
        const int result = avcodec_receive_frame(decoder_.get(), frame_.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
        note_complaints();
        if (result >= 0) {
            add_picture(*frame_);
        } else {
            note_refusal();
            if (result != AVERROR_INVALIDDATA) return;
        }
    }
}

/// A decoder with threads gives a unit up while it is given a later one.
void StreamReader::note_refusal() {
    if (units_.empty()) return;
    constexpr ptrdiff_t kLate = 64;
    const auto late = units_.end() - std::min<ptrdiff_t>(kLate, std::ssize(units_));
    const auto refused = std::find_if(
        late, units_.end(), [](const CodedUnit& u) { return u.complaints && !u.refused && !u.shown; });
    (refused == units_.end() ? units_.back() : *refused).refused = true;
}

void StreamReader::note_complaints() {
    for (const auto& [unit, complaints] : source_.log().take())
        units_[static_cast<size_t>(unit)].complaints |= complaints;
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
    picture.damaged = frame.flags & AV_FRAME_FLAG_CORRUPT;
    picture.unit = frame.pts;
    if (picture.unit < 0 || picture.unit >= static_cast<int64_t>(units_.size()))
        picture.unit = static_cast<int64_t>(units_.size()) - 1;  // of a decoder that loses its times
    CodedUnit& unit = units_[static_cast<size_t>(picture.unit)];
    picture.bytes = unit.bytes;
    add_captions(frame, unit, picture);
    unit.shown = true;
    unit.complaints |= complaints_of(frame);
    fields_.push_back(2 + frame.repeat_pict);
    stream_.pictures.push_back(std::move(picture));
}

void StreamReader::add_captions(const AVFrame& frame, CodedUnit& unit, InspectedPicture& picture) const {
    if (!unit.shown) picture.captions = std::move(unit.contents.captions);
    if (stream_.mpeg_video) return;
    if (const AVFrameSideData* data = av_frame_get_side_data(&frame, AV_FRAME_DATA_A53_CC))
        picture.captions.cc_data.emplace(data->data, data->data + data->size);
}

/// From the container where it has a rising time for every picture, else from the frame rate.
void StreamReader::set_times() {
    std::vector<InspectedPicture>& pictures = stream_.pictures;
    const auto pts = [&](const InspectedPicture& p) { return units_[static_cast<size_t>(p.unit)].pts; };
    timed_ = source_.timed() && pts(pictures[0]) != AV_NOPTS_VALUE;
    for (size_t n = 1; n < pictures.size() && timed_; n++)
        timed_ = pts(pictures[n]) != AV_NOPTS_VALUE && pts(pictures[n]) > pts(pictures[n - 1]);
    for (size_t n = 0; n < pictures.size(); n++) {
        pictures[n].time =
            timed_ ? static_cast<double>(pts(pictures[n]) - pts(pictures[0])) * av_q2d(video_->time_base)
                   : static_cast<double>(n) / stream_.rate.per_second();
    }
}

/// Once all units are decoded and all times are known.
void StreamReader::find_damage() {
    DamageFinder finder(1 / stream_.rate.per_second());
    std::vector<bool> damaged(units_.size());
    finder.on_damaged([&](int64_t unit) { damaged[static_cast<size_t>(unit)] = true; });
    std::vector<InspectedPicture>& pictures = stream_.pictures;
    size_t next = 0;
    for (const CodedUnit& unit : units_) {
        const int64_t number = finder.sent(unit.sent);
        finder.complained(number, unit.complaints);
        if (unit.refused) finder.refused(number);
        for (; next < pictures.size() && pictures[next].unit <= number; next++)
            finder.shown(pictures[next].unit, shown(next));
    }
    stream_.damage = finder.finish();
    for (InspectedPicture& picture : pictures) picture.damaged = damaged[static_cast<size_t>(picture.unit)];
    const double end = pictures.back().time + 1 / stream_.rate.per_second();
    stream_.damage.early_end = early_end(source_, finder, end);
}

DamageFinder::Shown StreamReader::shown(size_t number) const {
    const InspectedPicture& picture = stream_.pictures[number];
    DamageFinder::Shown shown = {.begin = picture.time, .missing = 0, .damaged = picture.damaged};
    if (!timed_ || number == 0) return shown;
    const double rate = stream_.rate.per_second();
    const double expected = stream_.pictures[number - 1].time + fields_[number - 1] / (2 * rate);
    if (picture.time - expected <= kLargestGap)
        shown.missing = std::llround((picture.time - expected) * rate);
    return shown;
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

InspectedStream read_stream(const std::string& path, bool check_buffer) {
    return StreamReader(path, check_buffer).read();
}

}  // namespace gsve::programme
