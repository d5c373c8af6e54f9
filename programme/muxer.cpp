#include "programme/muxer.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

#include <fmt/format.h>

#include "programme/file_name.h"
#include "programme/output_file.h"
#include "programme/timeline.h"

namespace gsve::programme {
namespace {

void copy_metadata(AVDictionary*& to, const AVDictionary* from) {
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(from, "", entry, AV_DICT_IGNORE_SUFFIX)))
        if (!is_of_the_file(entry->key)) check_memory(av_dict_set(&to, entry->key, entry->value, 0) >= 0);
}

void set_extradata(AVCodecParameters& form, const std::vector<uint8_t>& bytes) {
    if (bytes.empty()) return;
    av_freep(&form.extradata);
    form.extradata_size = 0;
    form.extradata = static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    check_memory(form.extradata != nullptr);
    std::copy(bytes.begin(), bytes.end(), form.extradata);
    form.extradata_size = static_cast<int>(bytes.size());
}

}  // namespace

bool is_of_the_file(std::string_view key) {
    constexpr std::string_view kKeys[] = {"major_brand", "minor_version", "compatible_brands",
                                          "encoder",     "duration",      "handler_name",
                                          "vendor_id",   "timecode",      "bps"};
    constexpr std::string_view kBeginnings[] = {"duration", "_statistics", "number_of_"};
    std::string name(key);  // which containers write in capitals, too
    for (char& letter : name) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return std::find(std::begin(kKeys), std::end(kKeys), name) != std::end(kKeys) ||
           std::any_of(std::begin(kBeginnings), std::end(kBeginnings),
                       [&](std::string_view beginning) { return name.starts_with(beginning); });
}

Muxer::Muxer(const OutputFormat& format, const MuxerTarget& target, encoding::PictureEncoder& encoder,
             const Companions& companions)
    : path_(target.path),
      edit_units_(format.container == Container::kMxf),
      picture_duration_(encoder.frame_rate_divider),
      source_time_base_{encoder.frame_rate_den, encoder.frame_rate_num},
      start_(companions.start),
      time_of_(companions.time_of) {
    AVFormatContext* context = nullptr;
    check(avformat_alloc_output_context2(&context, nullptr, std::string(format.muxer).c_str(),
                                         target.url.c_str()));
    output_.reset(context);
    add_picture(encoder, companions.picture, format.container == Container::kHls);
    for (const Companions::Stream& stream : companions.streams) add(stream);
    describe(companions);
    describe(companions.transport);
    // The multiplexer of several files opens them itself, and does not look whether they were written.
    context->opaque = this;
    context->io_close2 = close_segment;
    if (!(context->oformat->flags & AVFMT_NOFILE))
        check(avio_open(&context->pb, target.url.c_str(), AVIO_FLAG_WRITE));
    context->max_delay = AV_TIME_BASE * 7 / 10;  // a transport stream's clock runs this far ahead
    write_header(format.container, target, companions.transport);
    written_.resize(context->nb_streams);
}

void Muxer::write(const encoding::EncodedUnit& unit) {
    write_waiting(time_of(unit.dts));
    // Lent for the call: nothing is held back for interleaving.
    packet_->data = const_cast<uint8_t*>(unit.bytes.data());
    packet_->size = static_cast<int>(unit.bytes.size());
    packet_->pts = time_of(unit.pts);
    packet_->dts = time_of(unit.dts);
    packet_->duration = av_rescale_q(picture_duration_, source_time_base_, kTimeUnit);
    packet_->flags = unit.key ? AV_PKT_FLAG_KEY : 0;
    picture_end_ = std::max(picture_end_, packet_->pts + packet_->duration);
    write(*packet_, 0);
}

void Muxer::pass(size_t stream, PacketPtr packet) {
    packet->stream_index = static_cast<int>(stream) + 1;
    packet->pos = -1;
    const int64_t time = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    waiting_.emplace(time == AV_NOPTS_VALUE ? latest_ : time, std::move(packet));
}

void Muxer::end_with_picture() { waiting_.erase(waiting_.lower_bound(picture_end_), waiting_.end()); }

void Muxer::finish() {
    write_waiting(std::numeric_limits<int64_t>::max());
    check(av_write_trailer(output_.get()));
    check(segment_error_);
    if (output_->pb) check(avio_closep(&output_->pb));
}

void Muxer::add_picture(encoding::PictureEncoder& encoder, const AVStream* source, bool is_hls) {
    AVStream* stream = avformat_new_stream(output_.get(), nullptr);
    check_memory(stream != nullptr);
    check(avcodec_parameters_from_context(stream->codecpar, encoder.mpeg_context));
    AVCodecParameters& form = *stream->codecpar;
    set_extradata(form, encoder.parameter_sets());
    form.color_primaries = encoder.colour().primaries;
    form.color_trc = encoder.colour().transfer;
    form.color_space = encoder.colour().matrix;
    form.color_range = encoder.colour().range;
    form.chroma_location = encoder.colour().chroma_location;
    // Players of HLS want H.265's parameter sets in front of the samples alone, as this tag promises.
    const bool is_hevc = stream->codecpar->codec_id == AV_CODEC_ID_HEVC;
    stream->codecpar->codec_tag = is_hls && is_hevc ? MKTAG('h', 'v', 'c', '1') : 0;
    const bool interlaced = encoder.input_interlaced && encoder.resize_deinterlace < 0;
    if (!interlaced)
        stream->codecpar->field_order = AV_FIELD_PROGRESSIVE;
    else if (encoder.current_field_order == 2)
        stream->codecpar->field_order = AV_FIELD_BB;
    // MXF has no times: what it cuts the sound by is this unit.
    stream->time_base =
        edit_units_ ? AVRational{encoder.frame_rate_den * static_cast<int>(encoder.frame_rate_divider),
                                 encoder.frame_rate_num}
                    : source_time_base_;
    stream->avg_frame_rate = {encoder.frame_rate_num,
                              encoder.frame_rate_den * static_cast<int>(encoder.frame_rate_divider)};
    stream->sample_aspect_ratio = stream->codecpar->sample_aspect_ratio;
    if (!source) return;
    stream->disposition = source->disposition;
    copy_metadata(stream->metadata, source->metadata);
    copy_rotation(*stream, *source);
}

void Muxer::add(const Companions::Stream& companion) {
    AVStream* stream = avformat_new_stream(output_.get(), nullptr);
    check_memory(stream != nullptr);
    check(avcodec_parameters_copy(stream->codecpar, companion.form));
    stream->codecpar->codec_tag = 0;
    stream->time_base = companion.form->sample_rate > 0 ? AVRational{1, companion.form->sample_rate}
                                                        : companion.source->time_base;
    stream->disposition = companion.source->disposition;
    copy_metadata(stream->metadata, companion.source->metadata);
}

void Muxer::describe(const Companions& companions) {
    if (!companions.timecode.empty())
        check(av_dict_set(&output_->streams[0]->metadata, "timecode", companions.timecode.c_str(), 0));
    if (!companions.input) return;
    copy_metadata(output_->metadata, companions.input->metadata);
    if (companions.program) copy_metadata(output_->metadata, companions.program->metadata);
    for (unsigned n = 0; n < companions.input->nb_chapters; n++)
        add_chapter(*companions.input->chapters[n], companions.zero);
}

void Muxer::add_chapter(const AVChapter& source, int64_t zero) {
    auto* chapter = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
    check_memory(chapter != nullptr);
    av_dynarray_add(&output_->chapters, reinterpret_cast<int*>(&output_->nb_chapters), chapter);
    check_memory(output_->chapters != nullptr);
    const auto at = [&](int64_t time) {
        const int64_t shifted = av_rescale_q(time, source.time_base, kTimeUnit) - zero;
        return av_rescale_q(std::max<int64_t>(shifted, 0), kTimeUnit, source.time_base);
    };
    chapter->id = source.id;
    chapter->time_base = source.time_base;
    chapter->start = at(source.start);
    chapter->end = at(source.end);
    copy_metadata(chapter->metadata, source.metadata);
}

void Muxer::write_header(Container container, const MuxerTarget& target, const TransportChoice& transport) {
    AVDictionary* options = nullptr;
    const auto set = [&](const char* key, const auto& value) {
        check_memory(av_dict_set(&options, key, fmt::format("{}", value).c_str(), 0) >= 0);
    };
    if (container == Container::kMp4 || container == Container::kMov) {
        // In edit lists, a track's start is rounded to this unit: the default's is a millisecond.
        set("movie_timescale", 90'000);
        // Colours that are described in part are written, too.
        std::string flags =
            output_->streams[0]->codecpar->color_space != AVCOL_SPC_UNSPECIFIED ? "+write_colr" : "";
        // What cannot go back to its beginning comes in pieces.
        if (is_standard_stream(target.path)) flags += "+frag_keyframe+delay_moov+default_base_moof";
        if (!flags.empty()) set("movflags", flags);
    }
    if (container == Container::kTransportStream) {
        if (transport.rate > 0) set("muxrate", transport.rate);
        if (transport.program > 0) set("mpegts_service_id", transport.program);
        if (transport.pmt_pid > 0) set("mpegts_pmt_start_pid", transport.pmt_pid);
    }
    for (const auto& [key, value] : target.options) set(key.c_str(), value);
    const int result = avformat_write_header(output_.get(), &options);
    av_dict_free(&options);
    check(result);
}

void Muxer::describe(const TransportChoice& transport) {
    const auto name = [&](const char* key, const std::string& value) {
        if (!value.empty()) check(av_dict_set(&output_->metadata, key, value.c_str(), 0));
    };
    name("service_name", transport.service);
    name("service_provider", transport.provider);
    for (size_t n = 0; n < transport.pids.size() && n < output_->nb_streams; n++)
        output_->streams[n]->id = transport.pids[n];
}

/// On the output's time line.
int64_t Muxer::time_of(int64_t number) const {
    return start_ + (time_of_ ? time_of_(number) : av_rescale_q(number, source_time_base_, kTimeUnit));
}

void Muxer::write_waiting(int64_t up_to) {
    for (; !waiting_.empty() && waiting_.begin()->first <= up_to; waiting_.erase(waiting_.begin()))
        write(*waiting_.begin()->second, waiting_.begin()->second->stream_index);
    latest_ = std::max(latest_, std::min(up_to, std::numeric_limits<int64_t>::max() - 1));
}

void Muxer::write(AVPacket& packet, int index) {
    packet.stream_index = index;
    if (index > 0 && !follows(packet, written_[static_cast<size_t>(index)])) return;
    av_packet_rescale_ts(&packet, kTimeUnit, output_->streams[index]->time_base);
    if (index > 0) make_rise(packet, written_[static_cast<size_t>(index)]);
    if (edit_units_) {
        const PacketPtr kept = new_packet();
        check_memory(av_packet_ref(kept.get(), &packet) >= 0);
        check(av_interleaved_write_frame(output_.get(), kept.get()));
    } else {
        check(av_write_frame(output_.get(), &packet));
    }
    check(segment_error_);
    if (output_->pb) check(output_->pb->error);  // of an earlier packet, which was written only now
}

/// Whether a packet comes after the latest one. Where clocks jump, sound of both recordings may overlap:
/// what has more than its half before what is written already is left out.
bool Muxer::follows(const AVPacket& packet, Written& written) {
    if (packet.dts == AV_NOPTS_VALUE) return true;
    if (packet.dts < written.time && packet.dts + packet.duration / 2 <= written.time) {
        overlapping_++;
        return false;
    }
    written.time = std::max(written.time, packet.dts);
    return true;
}

/// Short packets may have the same time in a coarse unit, which most multiplexers refuse.
void Muxer::make_rise(AVPacket& packet, Written& written) const {
    if (packet.dts == AV_NOPTS_VALUE) return;
    const bool may_repeat = output_->oformat->flags & AVFMT_TS_NONSTRICT;
    if (written.dts != std::numeric_limits<int64_t>::min())
        packet.dts = std::max(packet.dts, written.dts + (may_repeat ? 0 : 1));
    if (packet.pts != AV_NOPTS_VALUE) packet.pts = std::max(packet.pts, packet.dts);
    written.dts = packet.dts;
}

int Muxer::close_segment(AVFormatContext* output, AVIOContext* file) {
    if (!file) return 0;
    avio_flush(file);
    const int before = file->error;
    const int closed = avio_close(file);
    const int error = before < 0 ? before : closed;
    int& kept = static_cast<Muxer*>(output->opaque)->segment_error_;
    if (kept == 0) kept = std::min(error, 0);
    return error;
}

void Muxer::check(int result) const {
    if (result < 0) fail_to_write(path_, result);
}

}  // namespace gsve::programme
