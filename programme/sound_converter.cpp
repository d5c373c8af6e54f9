#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/samplefmt.h>
}

#include "encoding/error.h"
#include "programme/ac3_metadata.h"
#include "programme/loudness.h"
#include "programme/sound_decoder.h"
#include "programme/stream_converter.h"
#include "programme/timeline.h"

namespace gsve::programme {
namespace {

struct FreeSamples {
    void operator()(AVAudioFifo* samples) const { av_audio_fifo_free(samples); }
};
using SamplesPtr = std::unique_ptr<AVAudioFifo, FreeSamples>;

/// Those of the source. Sound that was brought to a loudness tells that one.
std::optional<Ac3Metadata> metadata_for(const AVPacket* first, const SoundChoice& choice) {
    auto metadata = first ? ac3_metadata(bytes_of(*first)) : std::nullopt;
    if (!choice.loudness) return metadata;
    if (!metadata) metadata.emplace();
    metadata->dialogue_level = dialogue_level(*choice.loudness);
    return metadata;
}

/// Hears what an encoder made, as a receiver does.
class CodedMeter {
public:
    explicit CodedMeter(const AVCodecParameters& form) : form_(form) {
        const AVCodec* codec = avcodec_find_decoder(form.codec_id);
        decoder_.reset(avcodec_alloc_context3(codec));
        check_memory(decoder_ && avcodec_parameters_to_context(decoder_.get(), &form) >= 0);
        if (const int error = avcodec_open2(decoder_.get(), codec, nullptr); error < 0)
            throw Failure(fmt::format("cannot hear what {} encodes: {}; leave --loudness out",
                                      avcodec_get_name(form.codec_id), av_error_text(error)));
    }

    /// Null: there is no more.
    void add(const AVPacket* packet) {
        avcodec_send_packet(decoder_.get(), packet);
        while (avcodec_receive_frame(decoder_.get(), frame_.get()) >= 0) {
            if (frame_->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
                check_memory(av_channel_layout_copy(&frame_->ch_layout, &form_.ch_layout) >= 0);
            if (!meter_) meter_.emplace(form_of(*frame_));
            meter_->add(*frame_);
            av_frame_unref(frame_.get());
        }
    }

    Loudness loudness() {
        return meter_ ? meter_->finish() : Loudness{.integrated = {}, .true_peak = -HUGE_VAL};
    }

private:
    const AVCodecParameters& form_;
    CodecContextPtr decoder_;
    FramePtr frame_ = new_frame();
    std::optional<LoudnessMeter> meter_;
};

class SoundConverter final : public StreamConverter {
public:
    SoundConverter(const AVStream& source, const AVPacket* first, const SoundForm& form);

    const AVCodecParameters& form() const override { return *form_; }
    AVRational time_base() const override { return encoder_->time_base; }
    std::vector<PacketPtr> convert(const AVPacket* packet) override;
    void end_at(int64_t time) override { end_ = av_rescale_q(time, kTimeUnit, encoder_->time_base); }
    uint64_t refused() const override { return decoder_.refused() + refused_; }
    std::optional<Loudness> loudness() override;

private:
    void open_encoder(const SoundForm& form, const std::optional<Ac3Metadata>& metadata);
    void take(AVFrame& frame);
    void fill_with_silence();
    void encode_samples(int count);
    void encode(AVFrame* frame);

    SoundDecoder decoder_;
    CodecContextPtr encoder_;
    ParametersPtr form_;
    std::optional<CodedMeter> meter_;
    SamplesPtr samples_;          ///< decoded, and not yet encoded
    int64_t encoded_ = 0;         ///< samples
    std::optional<int64_t> end_;  ///< in samples on the input's time line
    uint64_t refused_ = 0;
    std::vector<PacketPtr> packets_;
};

SoundConverter::SoundConverter(const AVStream& source, const AVPacket* first, const SoundForm& form)
    : decoder_(source) {
    open_encoder(form, metadata_for(first, form.choice));
    samples_.reset(av_audio_fifo_alloc(encoder_->sample_fmt, encoder_->ch_layout.nb_channels, 1));
    check_memory(samples_ != nullptr);
}

void SoundConverter::open_encoder(const SoundForm& form, const std::optional<Ac3Metadata>& metadata) {
    const std::string& name = form.choice.codec;
    const AVCodec& codec = sound_encoder(name);
    const SampleForm samples = sample_form(codec, decoder_.source_form(), form.choice);
    encoder_.reset(avcodec_alloc_context3(&codec));
    check_memory(encoder_ != nullptr);
    check_memory(av_channel_layout_from_string(&encoder_->ch_layout, samples.layout.c_str()) >= 0);
    encoder_->sample_rate = samples.rate;
    encoder_->sample_fmt = samples.format;
    encoder_->time_base = {1, samples.rate};
    encoder_->bit_rate = bit_rate_of(form, encoder_->ch_layout.nb_channels);
    encoder_->strict_std_compliance = FF_COMPLIANCE_NORMAL;
    if (form.global_header) encoder_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (metadata) set_metadata(*encoder_, *metadata);
    if (const int error = avcodec_open2(encoder_.get(), &codec, nullptr); error < 0)
        throw Failure(
            fmt::format("the {} encoder does not open for {} at {} samples/s and {} bits/s: {}; change "
                        "--sound-bitrate, --sound-layout or --sound-rate",
                        name, samples.layout, samples.rate, encoder_->bit_rate, av_error_text(error)));
    form_.reset(avcodec_parameters_alloc());
    check_memory(form_ && avcodec_parameters_from_context(form_.get(), encoder_.get()) >= 0);
    if (form.choice.loudness) meter_.emplace(*form_);

    const auto begin =
        form.begin ? std::optional(av_rescale_q(*form.begin, kTimeUnit, encoder_->time_base)) : std::nullopt;
    decoder_.give(samples, form.level, begin, [this](AVFrame& frame) { take(frame); });
}

std::vector<PacketPtr> SoundConverter::convert(const AVPacket* packet) {
    decoder_.push(packet);
    if (!packet) {
        fill_with_silence();
        encode_samples(av_audio_fifo_size(samples_.get()));
        encode(nullptr);
    }
    return std::exchange(packets_, {});
}

void SoundConverter::take(AVFrame& frame) {
    const int count = frame.nb_samples;
    void** const data = reinterpret_cast<void**>(frame.extended_data);
    check_memory(av_audio_fifo_write(samples_.get(), data, count) == count);
    const int whole = encoder_->frame_size;
    while (whole > 0 && av_audio_fifo_size(samples_.get()) >= whole) encode_samples(whole);
    if (whole == 0) encode_samples(av_audio_fifo_size(samples_.get()));
}

void SoundConverter::fill_with_silence() {
    if (!end_ || !decoder_.begin()) return;
    const int rate = encoder_->sample_rate;
    const FramePtr silence = new_frame();
    silence->format = encoder_->sample_fmt;
    silence->sample_rate = rate;
    silence->nb_samples = rate;
    check_memory(av_channel_layout_copy(&silence->ch_layout, &encoder_->ch_layout) >= 0 &&
                 av_frame_get_buffer(silence.get(), 0) >= 0);
    av_samples_set_silence(silence->extended_data, 0, rate, encoder_->ch_layout.nb_channels,
                           encoder_->sample_fmt);
    for (;;) {
        const int64_t end = *decoder_.begin() + encoded_ + av_audio_fifo_size(samples_.get());
        silence->nb_samples = static_cast<int>(std::min<int64_t>(*end_ - end, rate));
        if (silence->nb_samples <= 0) return;
        take(*silence);
    }
}

void SoundConverter::encode_samples(int count) {
    if (count == 0) return;
    const FramePtr frame = new_frame();
    frame->format = encoder_->sample_fmt;
    frame->sample_rate = encoder_->sample_rate;
    frame->nb_samples = count;
    check_memory(av_channel_layout_copy(&frame->ch_layout, &encoder_->ch_layout) >= 0 &&
                 av_frame_get_buffer(frame.get(), 0) >= 0);
    void** const data = reinterpret_cast<void**>(frame->extended_data);
    check_memory(av_audio_fifo_read(samples_.get(), data, count) == count);
    frame->pts = *decoder_.begin() + encoded_;
    encoded_ += count;
    encode(frame.get());
}

void SoundConverter::encode(AVFrame* frame) {
    if (avcodec_send_frame(encoder_.get(), frame) < 0) {
        refused_++;
        return;
    }
    for (;;) {
        PacketPtr packet = new_packet();
        if (avcodec_receive_packet(encoder_.get(), packet.get()) < 0) break;
        if (meter_) meter_->add(packet.get());
        packets_.push_back(std::move(packet));
    }
    if (!frame && meter_) meter_->add(nullptr);
}

std::optional<Loudness> SoundConverter::loudness() {
    return meter_ ? std::optional(meter_->loudness()) : std::nullopt;
}

}  // namespace

std::unique_ptr<StreamConverter> convert_sound(const AVStream& source, const AVPacket* first,
                                               const SoundForm& form) {
    return std::make_unique<SoundConverter>(source, first, form);
}

}  // namespace gsve::programme
