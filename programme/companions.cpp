#include "programme/companions.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavutil/intreadwrite.h>
}

namespace gsve::programme {
namespace {

/// When the sound of a packet is first heard, in its stream's unit. Samples that only start the decoder up
/// are not.
int64_t first_heard(const AVPacket& packet, const AVStream& stream) {
    size_t size = 0;
    const uint8_t* skip = av_packet_get_side_data(&packet, AV_PKT_DATA_SKIP_SAMPLES, &size);
    if (!skip || size < 4 || stream.codecpar->sample_rate <= 0) return packet.pts;
    return packet.pts + av_rescale_q(AV_RL32(skip), {1, stream.codecpar->sample_rate}, stream.time_base);
}

/// Bytes of a sample of all channels, where sound is not compressed; else 0.
int bytes_per_sample(const AVCodecParameters& stream) {
    if (stream.codec_type != AVMEDIA_TYPE_AUDIO) return 0;
    return av_get_exact_bits_per_sample(stream.codec_id) / 8 * stream.ch_layout.nb_channels;
}

/// By an edit list: the packet is there for the decoder alone.
bool is_left_out(const AVPacket& packet) { return packet.flags & AV_PKT_FLAG_DISCARD; }

}  // namespace

CompanionStreams::CompanionStreams(Input& input, const SoundChoice& sound, const OutputFormat& format,
                                   std::map<int, Loudness> loudness)
    : input_(input), loudness_(std::move(loudness)), first_(input.take_packets()), zero_(input.origin()) {
    for (const PlannedStream& planned : input.plan().others) {
        const AVStream& source = *input.container().streams[planned.index];
        streams_.push_back(
            {.index = planned.index,
             .source = &source,
             .converter = converter_of(planned, source, sound, format),
             .counts_samples = format.container == Container::kMov && bytes_per_sample(*source.codecpar) > 0,
             .next = AV_NOPTS_VALUE,
             .start_up = nullptr,
             .damaged = 0,
             .written = 0,
             .end = zero_});
    }
    int64_t earliest = zero_;
    for (const PacketPtr& packet : first_) {
        const Stream* stream = find(packet->stream_index);
        const bool is_sound = stream && stream->source->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        if (is_sound && packet->pts != AV_NOPTS_VALUE && !is_left_out(*packet))
            earliest = std::min(earliest, av_rescale_q(first_heard(*packet, *stream->source),
                                                       stream->source->time_base, kTimeUnit));
    }
    // MXF has its sound cut into what goes with each picture.
    as_long_as_picture_ = format.container == Container::kMxf;
    if (as_long_as_picture_)
        heard_before_ = zero_ - earliest;
    else
        zero_ = earliest;
}

std::unique_ptr<StreamConverter> CompanionStreams::converter_of(const PlannedStream& planned,
                                                                const AVStream& source,
                                                                const SoundChoice& sound,
                                                                const OutputFormat& format) const {
    if (source.codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
        return planned.treatment == Treatment::kCarried
                   ? nullptr
                   : convert_text(source,
                                  std::string(conversion_of(source.codecpar->codec_type, format.container)));
    std::optional<SoundForm> form = sound_form(source, planned.treatment, sound, format);
    if (!form) {
        // libavformat's multiplexers repack it themselves, but for this one.
        const bool has_headers =
            source.codecpar->codec_id == AV_CODEC_ID_AAC && source.codecpar->extradata_size == 0;
        return has_headers && format.container == Container::kHls && format.fragments
                   ? repack_aac(source, first_of(planned.index))
                   : nullptr;
    }
    if (format.container == Container::kMxf) form->begin = input_.origin();
    if (const auto measured = loudness_.find(planned.index); measured != loudness_.end())
        form->level = level_for(sound, measured->second);
    return convert_sound(source, first_of(planned.index), *form);
}

const AVPacket* CompanionStreams::first_of(int index) const {
    const auto first = std::find_if(first_.begin(), first_.end(),
                                    [&](const PacketPtr& packet) { return packet->stream_index == index; });
    return first == first_.end() ? nullptr : first->get();
}

Companions CompanionStreams::companions() const {
    Companions companions;
    companions.input = &input_.container();
    companions.program = input_.plan().program;
    for (const Stream& stream : streams_)
        companions.streams.push_back({.form = &stream.form(), .source = stream.source});
    companions.start = input_.origin() - zero_;
    companions.zero = zero_;
    companions.time_of = [this](int64_t number) { return input_.time_of(number); };
    return companions;
}

void CompanionStreams::pass(Output& output) {
    std::vector<PacketPtr> packets = std::exchange(first_, {});
    for (PacketPtr& packet : input_.take_packets()) packets.push_back(std::move(packet));
    for (PacketPtr& packet : packets) {
        Stream* stream = find(packet->stream_index);
        if (!stream) continue;
        stream->damaged += (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;
        if (!stream->converter) {
            carry(output, *stream, std::move(packet));
            continue;
        }
        for (PacketPtr& converted : stream->converter->convert(packet.get()))
            pass(output, *stream, std::move(converted));
    }
}

void CompanionStreams::finish(Output& output, int64_t end) {
    pass(output);
    for (Stream& stream : streams_) {
        if (!stream.converter) continue;
        if (as_long_as_picture_) stream.converter->end_at(end);
        for (PacketPtr& converted : stream.converter->convert(nullptr))
            pass(output, stream, std::move(converted));
        if (as_long_as_picture_) heard_after_ = std::max(heard_after_, stream.end - end);
    }
}

/// Of what an edit list leaves out, the packet that the decoder of the first one heard starts up with is
/// carried.
void CompanionStreams::carry(Output& output, Stream& stream, PacketPtr packet) {
    if (is_left_out(*packet)) {
        stream.start_up = std::move(packet);
        return;
    }
    if (stream.start_up) pass(output, stream, std::move(stream.start_up));
    if (stream.counts_samples) fill_pause(output, stream, *packet);
    pass(output, stream, std::move(packet));
}

/// Where a container tells the time by counting samples, silence keeps what comes after a pause in its place.
/// Steps below a hundredth of a second are roundings.
void CompanionStreams::fill_pause(Output& output, Stream& stream, const AVPacket& packet) {
    const AVCodecParameters& form = *stream.source->codecpar;
    const AVRational unit = stream.source->time_base, sample = {1, form.sample_rate};
    int64_t missing =
        stream.next == AV_NOPTS_VALUE ? 0 : av_rescale_q(packet.pts - stream.next, unit, sample);
    if (missing < form.sample_rate / 100) missing = 0;
    for (int64_t place = av_rescale_q(stream.next, unit, sample); missing > 0;) {
        const int64_t samples = std::min<int64_t>(missing, form.sample_rate);
        PacketPtr silence = new_packet();
        const auto bytes = static_cast<size_t>(samples) * static_cast<size_t>(bytes_per_sample(form));
        check_memory(av_new_packet(silence.get(), static_cast<int>(bytes)) >= 0);
        std::memset(silence->data, form.codec_id == AV_CODEC_ID_PCM_U8 ? 0x80 : 0, bytes);
        silence->pts = silence->dts = av_rescale_q(place, sample, unit);
        silence->duration = av_rescale_q(samples, sample, unit);
        silence->flags = AV_PKT_FLAG_KEY;
        pass(output, stream, std::move(silence));
        place += samples;
        missing -= samples;
    }
    stream.next = packet.pts + av_rescale_q(packet.size / bytes_per_sample(form), sample, unit);
}

void CompanionStreams::pass(Output& output, Stream& stream, PacketPtr packet) {
    place(*packet, stream);
    stream.written++;
    if (packet->pts != AV_NOPTS_VALUE) stream.end = packet->pts + packet->duration + zero_;
    output.pass(static_cast<size_t>(&stream - streams_.data()), std::move(packet));
}

std::string CompanionStreams::notes(const Output& output) const {
    std::string notes;
    const auto note_cut = [&](int64_t time, const char* place) {
        if (time > kTimeUnit.den / 1000)
            notes += fmt::format(
                "{:.3f} s of sound {} picture are left out: MXF is as long as its pictures; a .mov or .mkv "
                "file has them\n",
                static_cast<double>(time) * av_q2d(kTimeUnit), place);
    };
    note_cut(heard_before_, "before the first");
    note_cut(heard_after_, "after the last");
    for (const Stream& stream : streams_)
        if (stream.lost() > 0)
            notes += fmt::format("{}: {} packets are damaged\n", describe(*stream.source), stream.lost());
    if (const uint64_t overlapping = output.overlapping(); overlapping > 0)
        notes += fmt::format(
            "{} packets beside the pictures overlapped others where clocks jumped, and are left out\n",
            overlapping);
    return notes;
}

std::vector<StreamAccount> CompanionStreams::accounts() const {
    std::vector<StreamAccount> accounts;
    const auto describe = [&](const AVStream& stream) -> StreamAccount& {
        StreamAccount& account = accounts.emplace_back();
        account.index = stream.index;
        account.kind = kind_of(stream);
        account.codec = codec_name(stream);
        account.language = language_of(stream);
        return account;
    };
    for (const Stream& stream : streams_) {
        StreamAccount& account = describe(*stream.source);
        account.treatment = stream.converter && !stream.converter->keeps_coding() ? Treatment::kConverted
                                                                                  : Treatment::kCarried;
        account.codec_out = avcodec_get_name(stream.form().codec_id);
        account.packets = stream.written;
        account.damaged = stream.lost();
        if (const auto measured = loudness_.find(stream.index); measured != loudness_.end())
            account.loudness = measured->second;
        if (stream.converter) account.loudness_out = stream.converter->loudness();
    }
    for (const LeftOutStream& left_out : input_.plan().left_out)
        describe(*input_.container().streams[left_out.index]).why = left_out.why;
    std::sort(accounts.begin(), accounts.end(),
              [](const StreamAccount& a, const StreamAccount& b) { return a.index < b.index; });
    return accounts;
}

CompanionStreams::Stream* CompanionStreams::find(int index) {
    const auto found =
        std::find_if(streams_.begin(), streams_.end(), [&](const Stream& s) { return s.index == index; });
    return found == streams_.end() ? nullptr : &*found;
}

/// Onto the output's time line. What is shown but not heard, and came before its beginning, is shown from
/// there on.
void CompanionStreams::place(AVPacket& packet, const Stream& stream) const {
    const bool is_sound = stream.source->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    const AVRational unit = stream.converter ? stream.converter->time_base() : stream.source->time_base;
    av_packet_rescale_ts(&packet, unit, kTimeUnit);
    for (int64_t* time : {&packet.pts, &packet.dts}) {
        if (*time == AV_NOPTS_VALUE) continue;
        *time -= zero_;
        if (!is_sound) *time = std::max<int64_t>(*time, 0);
    }
}

}  // namespace gsve::programme
