#include "programme/loudness.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

/// R 128's absolute gate: what is quieter than this has no loudness.
constexpr double kGate = -70;

std::optional<double> number_in(const AVDictionary* metadata, const char* key) {
    const AVDictionaryEntry* entry = av_dict_get(metadata, key, nullptr, 0);
    return entry ? std::optional(std::strtod(entry->value, nullptr)) : std::nullopt;
}

/// That of the encoder. Its whole numbers would cut what is above full scale.
SampleForm measured_form(const SoundDecoder& decoder, const SoundChoice& choice) {
    SampleForm form = sample_form(sound_encoder(choice.codec), decoder.source_form(), choice);
    form.format = AV_SAMPLE_FMT_FLTP;
    return form;
}

/// A track on its way through the first reading.
struct MeasuredTrack {
    MeasuredTrack(const AVStream& source, const SoundChoice& choice)
        : decoder(source), meter(measured_form(decoder, choice)) {
        decoder.give(measured_form(decoder, choice), {}, std::nullopt,
                     [this](AVFrame& frame) { meter.add(frame); });
    }

    SoundDecoder decoder;
    LoudnessMeter meter;
};

}  // namespace

LoudnessMeter::LoudnessMeter(const SampleForm& form) : graph_(avfilter_graph_alloc()) {
    check_memory(graph_ != nullptr);
    loudness_.true_peak = -HUGE_VAL;
    const std::string filters =
        fmt::format("abuffer=time_base=1/{}:{},ebur128=metadata=1:peak=true:framelog=verbose,abuffersink",
                    form.rate, filter_text(form));
    if (const int error = make_sound_graph(*graph_, filters, ends_); error < 0)
        throw Failure(
            fmt::format("cannot measure the loudness of {} at {} samples/s: {}; leave --loudness out",
                        form.layout, form.rate, av_error_text(error)));
}

void LoudnessMeter::add(const AVFrame& frame) {
    check_memory(av_buffersrc_write_frame(ends_.in, &frame) >= 0);
    take_measured();
}

Loudness LoudnessMeter::finish() {
    if (graph_) {
        check_memory(av_buffersrc_add_frame(ends_.in, nullptr) >= 0);
        take_measured();
        graph_.reset();
    }
    return loudness_;
}

void LoudnessMeter::take_measured() {
    while (av_buffersink_get_frame(ends_.out, frame_.get()) >= 0) {
        const auto integrated = number_in(frame_->metadata, "lavfi.r128.I");
        if (integrated && *integrated > kGate) loudness_.integrated = integrated;
        if (const auto peak = number_in(frame_->metadata, "lavfi.r128.true_peak"))
            loudness_.true_peak = 20 * std::log10(*peak);
        av_frame_unref(frame_.get());
    }
}

std::map<int, Loudness> measure_loudness(const std::string& path, const Reading& reading,
                                         const SoundChoice& choice, const OutputFormat& format,
                                         const StopRequest& stop) {
    std::error_code none;
    if (!std::filesystem::is_regular_file(path, none))
        throw UsageError(fmt::format(
            "--loudness reads the input twice, which {} cannot be: store it in a file first", path));
    PacketSource packets(path, stop, reading);
    std::map<int, std::unique_ptr<MeasuredTrack>> tracks;
    for (const PlannedStream& planned : packets.plan().others) {
        const AVStream& source = *packets.format().streams[planned.index];
        if (source.codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        if (const auto form = sound_form(source, planned.treatment, choice, format))
            tracks[planned.index] = std::make_unique<MeasuredTrack>(source, form->choice);
    }
    const auto take = [&] {
        for (const PacketPtr& packet : packets.take_others())
            if (const auto track = tracks.find(packet->stream_index); track != tracks.end())
                track->second->decoder.push(packet.get());
    };
    const PacketPtr picture = new_packet();
    while (packets.next(*picture) >= 0) take();
    take();
    std::map<int, Loudness> measured;
    for (const auto& [index, track] : tracks) {
        track->decoder.push(nullptr);
        measured[index] = track->meter.finish();
    }
    return measured;
}

Level level_for(const SoundChoice& choice, const Loudness& measured) {
    if (!choice.loudness || !measured.integrated) return {};
    Level level = {.gain = *choice.loudness - *measured.integrated, .ceiling = std::nullopt};
    if (measured.true_peak + level.gain > choice.true_peak) level.ceiling = choice.true_peak;
    return level;
}

int dialogue_level(double loudness) { return static_cast<int>(std::clamp(std::lround(loudness), -31L, -1L)); }

}  // namespace gsve::programme
