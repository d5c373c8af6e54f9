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

/// That of the encoder, or the source's own. Whole numbers would cut what is above full scale.
SampleForm measured_form(const SoundDecoder& decoder, const SoundChoice* choice) {
    SampleForm form = decoder.source_form();
    if (choice) form = sample_form(sound_encoder(choice->codec), form, *choice);
    form.format = AV_SAMPLE_FMT_FLTP;
    return form;
}

/// A track on its way through a reading. `choice`: null: it stays as it is.
struct MeasuredTrack {
    MeasuredTrack(const AVStream& source, const SoundChoice* choice)
        : decoder(source), meter(measured_form(decoder, choice)) {
        decoder.give(measured_form(decoder, choice), {}, std::nullopt,
                     [this](AVFrame& frame) { meter.add(frame); });
    }

    SoundDecoder decoder;
    LoudnessMeter meter;
};

}  // namespace

LoudnessMeter::LoudnessMeter(const SampleForm& form)
    : graph_(avfilter_graph_alloc()), rate_(static_cast<double>(form.rate)) {
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
        if (const auto short_term = number_in(frame_->metadata, "lavfi.r128.S"); listener_ && short_term)
            listener_(static_cast<double>(frame_->pts) / rate_, *short_term);
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
            tracks[planned.index] = std::make_unique<MeasuredTrack>(source, &form->choice);
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

std::vector<LoudnessCourse> loudness_courses(const std::string& path) {
    PacketSource packets(path, {},
                         {.choice = {},
                          .container = Container::kMatroska,  // which takes every kind of sound
                          .lines = DecoderLog::Lines::kSwallowed});
    struct Track {
        LoudnessCourse course;
        std::unique_ptr<MeasuredTrack> measured;
    };
    std::map<int, Track> tracks;
    for (const PlannedStream& planned : packets.plan().others) {
        const AVStream& source = *packets.format().streams[planned.index];
        if (source.codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        Track& track = tracks[planned.index];
        track.course = {.index = planned.index, .name = describe(source), .whole = {}, .points = {}};
        try {
            track.measured = std::make_unique<MeasuredTrack>(source, nullptr);
        } catch (const Failure&) {
            tracks.erase(planned.index);
            continue;
        }
        track.measured->meter.tell([&track](double seconds, double short_term) {
            if (short_term > kGate) track.course.points.push_back({seconds, short_term});
        });
    }
    std::optional<int64_t> first_picture;
    const auto take = [&] {
        for (const PacketPtr& packet : packets.take_others())
            if (const auto track = tracks.find(packet->stream_index); track != tracks.end())
                track->second.measured->decoder.push(packet.get());
    };
    const PacketPtr picture = new_packet();
    while (packets.next(*picture) >= 0) {
        const int64_t time = av_rescale_q(picture->pts, packets.stream().time_base, kTimeUnit);
        if (picture->pts != AV_NOPTS_VALUE) first_picture = std::min(first_picture.value_or(time), time);
        take();
    }
    take();
    std::vector<LoudnessCourse> courses;
    for (auto& [index, track] : tracks) {
        track.measured->decoder.push(nullptr);
        track.course.whole = track.measured->meter.finish();
        // The samples' places are on the file's time line.
        for (LoudnessCourse::Point& point : track.course.points)
            point.seconds -= static_cast<double>(first_picture.value_or(0)) * av_q2d(kTimeUnit);
        courses.push_back(std::move(track.course));
    }
    return courses;
}

Level level_for(const SoundChoice& choice, const Loudness& measured) {
    if (!choice.loudness || !measured.integrated) return {};
    Level level = {.gain = *choice.loudness - *measured.integrated, .ceiling = std::nullopt};
    if (measured.true_peak + level.gain > choice.true_peak) level.ceiling = choice.true_peak;
    return level;
}

int dialogue_level(double loudness) { return static_cast<int>(std::clamp(std::lround(loudness), -31L, -1L)); }

}  // namespace gsve::programme
