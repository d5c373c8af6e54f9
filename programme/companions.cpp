#include "programme/companions.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

extern "C" {
#include <libavutil/intreadwrite.h>
}

#include "programme/muxer.h"

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

/// What a frame of coded sound tells of its samples, in no unit; nothing where it does not tell. ISO/IEC
/// 13818-7, 6.2 (ADTS); ATSC A/52, 5.3; ISO/IEC 11172-3, 2.4.1.3.
std::optional<uint32_t> coded_form(AVCodecID codec, std::span<const uint8_t> frame) {
    if (frame.size() < 8) return std::nullopt;
    const uint32_t head = AV_RB32(frame.data());
    switch (codec) {
        case AV_CODEC_ID_AAC:
            if (head >> 20 != 0xFFF) return std::nullopt;
            return head >> 6 & 0xF7;  // sampling frequency and channels
        case AV_CODEC_ID_AC3:
            if (head >> 16 != 0x0B77) return std::nullopt;
            return static_cast<uint32_t>(frame[4] >> 6 << 3 | frame[6] >> 5);
        case AV_CODEC_ID_MP2:
        case AV_CODEC_ID_MP3:
            if (head >> 21 != 0x7FF) return std::nullopt;
            return (head >> 10 & 3) << 8 | (head >> 17 & 0xF) << 1 | ((head >> 6 & 3) == 3);
        default: return std::nullopt;
    }
}

/// Whether a track has one description for all of its packets.
bool describes_once(const OutputFormat& format) {
    return format.container == Container::kMp4 || format.container == Container::kMov ||
           format.container == Container::kMatroska ||
           (format.container == Container::kHls && format.fragments);
}

bool has_chapters(Container container) {
    return container == Container::kMp4 || container == Container::kMov || container == Container::kMatroska;
}

bool is_sound(const AVStream& stream) { return stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO; }

ParametersPtr copy_of(const AVCodecParameters& parameters) {
    ParametersPtr copy(avcodec_parameters_alloc());
    check_memory(copy && avcodec_parameters_copy(copy.get(), &parameters) >= 0);
    return copy;
}

/// By an edit list: the packet is there for the decoder alone.
bool is_left_out(const AVPacket& packet) { return packet.flags & AV_PKT_FLAG_DISCARD; }

}  // namespace

bool ends_with_picture(Container container) {
    return container == Container::kMxf || container == Container::kHls;
}

CompanionStreams::CompanionStreams(Input& input, const SoundChoice& sound, const OutputFormat& format,
                                   std::map<int, Loudness> loudness)
    : input_(input),
      sound_(sound),
      format_(format),
      loudness_(std::move(loudness)),
      first_(input.take_packets()),
      zero_(input.origin()) {
    for (const PlannedStream& planned : input.plan().others) {
        const AVStream& source = *input.container().streams[planned.index];
        streams_.push_back(
            {.index = planned.index,
             .source = &source,
             .opened = copy_of(*source.codecpar),
             .converter = converter_of(planned, source, sound, format),
             .counts_samples = format.container == Container::kMov && bytes_per_sample(*source.codecpar) > 0,
             .next = AV_NOPTS_VALUE,
             .start_up = nullptr,
             .damaged = 0,
             .written = 0,
             .treatment = planned.treatment,
             .end = zero_});
    }
    int64_t earliest = zero_;
    for (const PacketPtr& packet : first_) {
        const Stream* stream = find(packet->stream_index);
        if (stream && stream->is_sound() && packet->pts != AV_NOPTS_VALUE && !is_left_out(*packet))
            earliest = std::min(earliest, av_rescale_q(first_heard(*packet, *stream->source),
                                                       stream->source->time_base, kTimeUnit));
    }
    // MXF has its sound cut into what goes with each picture.
    if (format.container == Container::kMxf)
        heard_before_ = zero_ - earliest;
    else
        zero_ = earliest;
}

std::unique_ptr<StreamConverter> CompanionStreams::converter_of(const PlannedStream& planned,
                                                                const AVStream& source,
                                                                const SoundChoice& sound,
                                                                const OutputFormat& format) const {
    if (!is_sound(source))
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
    companions.picture = input_.container().streams[input_.plan().video];
    for (const Stream& stream : streams_)
        companions.streams.push_back({.form = &stream.form(), .source = stream.source});
    companions.start = input_.origin() - zero_;
    companions.zero = zero_;
    companions.time_of = [this](int64_t number) { return input_.time_of(number); };
    return companions;
}

void CompanionStreams::pass(std::vector<PacketPtr> read, const Sink& sink) {
    std::vector<PacketPtr> packets = std::exchange(first_, {});
    std::move(read.begin(), read.end(), std::back_inserter(packets));
    for (PacketPtr& packet : packets) {
        Stream* stream = find(packet->stream_index);
        if (!stream) continue;
        stream->damaged += (packet->flags & AV_PKT_FLAG_CORRUPT) != 0;
        if (stream->is_sound()) watch_pauses(*stream, *packet);
        if (!stream->converter) {
            carry(sink, *stream, std::move(packet));
            continue;
        }
        for (PacketPtr& converted : stream->converter->convert(packet.get()))
            pass(sink, *stream, std::move(converted));
    }
}

void CompanionStreams::finish(Output& output, int64_t end) {
    const Sink sink = [&](size_t stream, PacketPtr packet) { output.pass(stream, std::move(packet)); };
    pass(input_.take_packets(), sink);
    for (Stream& stream : streams_) {
        if (stream.converter) {
            if (format_.container == Container::kMxf) stream.converter->end_at(end);
            for (PacketPtr& converted : stream.converter->convert(nullptr))
                pass(sink, stream, std::move(converted));
        }
        if (ends_with_picture(format_.container)) heard_after_ = std::max(heard_after_, stream.end - end);
    }
    if (ends_with_picture(format_.container)) output.end_with_picture();
}

/// Of what an edit list leaves out, the packet that the decoder of the first one heard starts up with is
/// carried.
void CompanionStreams::carry(const Sink& sink, Stream& stream, PacketPtr packet) {
    if (describes_once(format_)) watch_form(stream, *packet);
    if (is_left_out(*packet)) {
        stream.start_up = std::move(packet);
        return;
    }
    if (stream.start_up) pass(sink, stream, std::move(stream.start_up));
    if (stream.counts_samples) fill_pause(sink, stream, *packet);
    pass(sink, stream, std::move(packet));
}

void CompanionStreams::watch_form(Stream& stream, const AVPacket& packet) const {
    const auto form = coded_form(stream.opened->codec_id, bytes_of(packet));
    if (!form) return;
    if (!stream.coded_form) stream.coded_form = form;
    if (*form == *stream.coded_form || stream.form_changes) return;
    const int64_t time = av_rescale_q(packet.pts, stream.source->time_base, kTimeUnit) - zero_;
    stream.form_changes = static_cast<double>(time) * av_q2d(kTimeUnit);
}

void CompanionStreams::watch_pauses(Stream& stream, const AVPacket& packet) const {
    if (packet.pts == AV_NOPTS_VALUE) return;
    constexpr int64_t kShortest = 705'600'000 / 2;
    const AVRational unit = stream.source->time_base;
    const int64_t time = av_rescale_q(packet.pts, unit, kTimeUnit);
    if (stream.heard_to && time - *stream.heard_to > kShortest) {
        stream.pauses++;
        stream.paused += time - *stream.heard_to;
    }
    stream.heard_to = time + av_rescale_q(packet.duration, unit, kTimeUnit);
}

/// Where a container tells the time by counting samples, silence keeps what comes after a pause in its place.
/// Steps below a hundredth of a second are roundings.
void CompanionStreams::fill_pause(const Sink& sink, Stream& stream, const AVPacket& packet) {
    const AVCodecParameters& form = *stream.opened;
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
        pass(sink, stream, std::move(silence));
        place += samples;
        missing -= samples;
    }
    stream.next = packet.pts + av_rescale_q(packet.size / bytes_per_sample(form), sample, unit);
}

void CompanionStreams::pass(const Sink& sink, Stream& stream, PacketPtr packet) {
    place(*packet, stream);
    stream.written++;
    if (packet->pts != AV_NOPTS_VALUE) stream.end = packet->pts + packet->duration + zero_;
    sink(static_cast<size_t>(&stream - streams_.data()), std::move(packet));
}

void CompanionStreams::describe_change(std::string& notes, const Stream& stream) const {
    const AVCodecParameters &from = *stream.opened, &to = stream.form();
    const std::string name = describe(*stream.source);
    const char* const codec = avcodec_get_name(to.codec_id);
    if (stream.treatment == Treatment::kConverted)
        notes += fmt::format("{} is encoded as {}: {} does not take it as it is\n", name, codec,
                             name_of(format_.container));
    if (from.codec_type != AVMEDIA_TYPE_AUDIO) return;
    if (sound_.layout.empty() && to.ch_layout.nb_channels != from.ch_layout.nb_channels)
        notes += fmt::format("{}: its {} channels become {}, the most that {} takes\n", name,
                             from.ch_layout.nb_channels, to.ch_layout.nb_channels, codec);
    if (sound_.sample_rate == 0 && to.sample_rate != from.sample_rate)
        notes += fmt::format("{}: its {} samples/s become {}, which {} takes\n", name, from.sample_rate,
                             to.sample_rate, format_.container == Container::kMxf ? "MXF" : codec);
    if (sound_.bit_rate > 0 && to.bit_rate != sound_.bit_rate)
        notes += fmt::format("{} is encoded at {} bits/s: {} does not take {}\n", name, to.bit_rate, codec,
                             sound_.bit_rate);
}

std::string CompanionStreams::opening_notes() const {
    std::string notes;
    const bool asks_for_form = sound_.bit_rate > 0 || !sound_.layout.empty() || sound_.sample_rate > 0;
    bool has_language = false;
    for (const Stream& stream : streams_) {
        has_language |= !language_of(*stream.source).empty();
        if (stream.converter && !stream.converter->keeps_coding())
            describe_change(notes, stream);
        else if (stream.is_sound() && asks_for_form)
            notes += fmt::format(
                "{} stays as it is: --sound-bitrate, --sound-layout and --sound-rate are for sound that is "
                "encoded, with --sound\n",
                describe(*stream.source));
    }
    const std::string_view container = name_of(format_.container);
    const AVFormatContext& input = input_.container();
    if (input.nb_chapters > 0 && !has_chapters(format_.container))
        notes += fmt::format("{} chapters are left out: {} has none; a .mp4, .mov or .mkv file has\n",
                             input.nb_chapters, container);
    std::vector<std::string> entries;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(input.metadata, "", entry, AV_DICT_IGNORE_SUFFIX)))
        if (!is_of_the_file(entry->key)) entries.emplace_back(entry->key);
    if (!entries.empty() && !has_chapters(format_.container))
        notes += fmt::format("the input's {} are left out: {} has no place for them; a .mkv file has\n",
                             fmt::join(entries, ", "), container);
    if (has_language && format_.container == Container::kMxf)
        notes +=
            "the languages of the sound are left out: MXF has no place for them; a .mov or .mkv file has\n";
    return notes;
}

/// Where the loudness that was asked for was missed.
std::string CompanionStreams::loudness_note(const Stream& stream) const {
    constexpr double kNear = 0.5;
    const auto loudness = sound_.loudness && stream.converter ? stream.converter->loudness() : std::nullopt;
    if (!loudness || !loudness->integrated || std::abs(*loudness->integrated - *sound_.loudness) < kNear)
        return "";
    const auto before = loudness_.find(stream.index);
    if (before == loudness_.end() || !before->second.integrated) return "";
    return fmt::format("{} is at {:.1f} LUFS, not {:.1f}: {}\n", describe(*stream.source),
                       *loudness->integrated, *sound_.loudness,
                       level_for(sound_, before->second).ceiling
                           ? fmt::format("its peaks had to be limited to {:.1f} dBTP", sound_.true_peak)
                           : "its codec changes it by as much; --sound-bitrate gives it more bits");
}

std::string CompanionStreams::notes(const Output& output) const {
    std::string notes;
    const auto note_cut = [&](int64_t time, const char* place) {
        if (time > kTimeUnit.den / 10)
            notes += fmt::format(
                "{:.3f} s of sound {} picture are left out: {} is as long as its pictures; a .mov or .mkv "
                "file "
                "has them\n",
                static_cast<double>(time) * av_q2d(kTimeUnit), place, name_of(format_.container));
    };
    note_cut(heard_before_, "before the first");
    note_cut(heard_after_, "after the last");
    for (const Stream& stream : streams_) {
        if (stream.lost() > 0)
            notes += fmt::format("{}: {} packets are damaged\n", describe(*stream.source), stream.lost());
        if (stream.pauses > 0)
            notes +=
                fmt::format("{}: nothing comes {} times, for {:.3f} s in all\n", describe(*stream.source),
                            stream.pauses, static_cast<double>(stream.paused) * av_q2d(kTimeUnit));
        if (stream.form_changes)
            notes += fmt::format(
                "{}: its form changes after {:.3f} s, and players of {} take all for the first one; --sound "
                "{} "
                "makes it one\n",
                describe(*stream.source), *stream.form_changes, name_of(format_.container),
                conversion_of(AVMEDIA_TYPE_AUDIO, format_.container));
        notes += loudness_note(stream);
    }
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
    const AVRational unit = stream.converter ? stream.converter->time_base() : stream.source->time_base;
    av_packet_rescale_ts(&packet, unit, kTimeUnit);
    for (int64_t* time : {&packet.pts, &packet.dts}) {
        if (*time == AV_NOPTS_VALUE) continue;
        *time -= zero_;
        if (!stream.is_sound()) *time = std::max<int64_t>(*time, 0);
    }
}

}  // namespace gsve::programme
