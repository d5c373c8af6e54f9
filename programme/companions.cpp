#include "programme/companions.h"

#include <algorithm>

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

}  // namespace

CompanionStreams::CompanionStreams(Input& input)
    : input_(input), first_(input.take_packets()), zero_(input.origin()) {
    for (const PlannedStream& planned : input.plan().others)
        streams_.push_back({.index = planned.index, .source = input.container().streams[planned.index]});
    for (const PacketPtr& packet : first_) {
        const Stream* stream = find(packet->stream_index);
        const bool is_sound = stream && stream->source->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
        if (is_sound && packet->pts != AV_NOPTS_VALUE)
            zero_ = std::min(zero_, av_rescale_q(first_heard(*packet, *stream->source),
                                                 stream->source->time_base, kTimeUnit));
    }
}

Companions CompanionStreams::companions() const {
    Companions companions;
    companions.input = &input_.container();
    companions.program = input_.plan().program;
    for (const Stream& stream : streams_)
        companions.streams.push_back({.form = stream.source->codecpar, .source = stream.source});
    companions.start = input_.origin() - zero_;
    companions.zero = zero_;
    companions.time_of = [this](int64_t number) { return input_.time_of(number); };
    return companions;
}

void CompanionStreams::pass(Output& output) {
    std::vector<PacketPtr> packets = std::move(first_);
    first_.clear();
    for (PacketPtr& packet : input_.take_packets()) packets.push_back(std::move(packet));
    for (PacketPtr& packet : packets) {
        const Stream* stream = find(packet->stream_index);
        if (!stream) continue;
        place(*packet, *stream);
        output.pass(static_cast<size_t>(stream - streams_.data()), std::move(packet));
    }
}

const CompanionStreams::Stream* CompanionStreams::find(int index) const {
    const auto found =
        std::find_if(streams_.begin(), streams_.end(), [&](const Stream& s) { return s.index == index; });
    return found == streams_.end() ? nullptr : &*found;
}

/// Onto the output's time line. What is shown but not heard, and came before its beginning, is shown from
/// there on.
void CompanionStreams::place(AVPacket& packet, const Stream& stream) const {
    const bool is_sound = stream.source->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    av_packet_rescale_ts(&packet, stream.source->time_base, kTimeUnit);
    for (int64_t* time : {&packet.pts, &packet.dts}) {
        if (*time == AV_NOPTS_VALUE) continue;
        *time -= zero_;
        if (!is_sound) *time = std::max<int64_t>(*time, 0);
    }
}

}  // namespace gsve::programme
