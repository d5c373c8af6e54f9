#include "programme/sound_form.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

/// A channel layout that is freed.
struct Layout {
    explicit Layout(const std::string& name) {
        valid = av_channel_layout_from_string(&value, name.c_str()) >= 0;
    }
    Layout(const Layout&) = delete;
    Layout& operator=(const Layout&) = delete;
    ~Layout() { av_channel_layout_uninit(&value); }

    AVChannelLayout value = {};
    bool valid = false;
};

/// AAC has its surround channels behind the listener; with those beside, it needs a description that few
/// players read.
std::string usual_layout(const AVCodec& encoder, const std::string& layout) {
    if (encoder.id != AV_CODEC_ID_AAC) return layout;
    return layout == "5.1(side)" ? "5.1" : layout == "5.0(side)" ? "5.0" : layout;
}

/// What the encoder takes of the wanted layout, or, where none was asked for, the most channels of the
/// source's.
std::string choose_layout(const AVCodec& encoder, const std::string& source, const std::string& wanted) {
    const std::string& name = wanted.empty() ? source : wanted;
    const Layout layout(name);
    if (!layout.valid)
        throw UsageError(
            fmt::format("--sound-layout takes a layout such as mono, stereo or 5.1, not \"{}\"", wanted));
    const auto supported = channel_layouts(encoder);
    if (supported.empty()) return wanted.empty() ? usual_layout(encoder, name) : name;
    const AVChannelLayout* best = nullptr;
    for (const AVChannelLayout& other : supported) {
        if (av_channel_layout_compare(&other, &layout.value) == 0) return name;
        if (other.nb_channels <= layout.value.nb_channels && (!best || other.nb_channels > best->nb_channels))
            best = &other;
    }
    if (!wanted.empty() || !best) {
        std::vector<std::string> names;
        for (const AVChannelLayout& other : supported) names.push_back(name_of(other));
        throw UsageError(fmt::format("--sound-layout: {} does not take {}; it takes {}", encoder.name, name,
                                     fmt::join(names, ", ")));
    }
    return name_of(*best);
}

/// The rate itself, or the lowest that the encoder takes above it, or its highest.
int choose_rate(const AVCodec& encoder, int source, int wanted) {
    const auto supported = sample_rates(encoder);
    const int rate = wanted > 0 ? wanted : source;
    if (supported.empty() || std::find(supported.begin(), supported.end(), rate) != supported.end())
        return rate;
    if (wanted > 0)
        throw UsageError(fmt::format("--sound-rate: {} does not take {} samples/s; it takes {}", encoder.name,
                                     wanted, fmt::join(supported, ", ")));
    int best = *std::max_element(supported.begin(), supported.end());
    for (const int other : supported)
        if (other >= rate) best = std::min(best, other);
    return best;
}

/// What is usual for broadcast, in bits/s.
int64_t usual_bit_rate(std::string_view codec, int channels) {
    if (codec == "aac") return 80'000 * std::max(channels, 1);
    if (codec == "mp2") return channels > 1 ? 256'000 : 128'000;
    if (codec == "eac3") return channels > 2 ? 384'000 : channels > 1 ? 192'000 : 96'000;
    return channels > 2 ? 448'000 : channels > 1 ? 192'000 : 96'000;
}

/// The codec in which sound that was carried is encoded once its samples change: its own, where FFmpeg
/// encodes that well.
std::string own_codec(const AVCodecParameters& source) {
    constexpr std::array kWellEncoded = {AV_CODEC_ID_AAC, AV_CODEC_ID_AC3,  AV_CODEC_ID_EAC3,
                                         AV_CODEC_ID_MP2, AV_CODEC_ID_FLAC, AV_CODEC_ID_ALAC};
    const bool is_pcm = av_get_exact_bits_per_sample(source.codec_id) > 0;
    const bool is_known =
        std::find(kWellEncoded.begin(), kWellEncoded.end(), source.codec_id) != kWellEncoded.end();
    return is_pcm || is_known ? avcodec_get_name(source.codec_id) : "";
}

}  // namespace

std::string name_of(const AVChannelLayout& layout) {
    std::array<char, 128> name = {};
    av_channel_layout_describe(&layout, name.data(), name.size());
    return name.data();
}

const AVCodec& sound_encoder(const std::string& name) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name.c_str());
    if (!codec) throw UsageError(fmt::format("--sound: FFmpeg has no encoder {} here", name));
    return *codec;
}

std::optional<SoundForm> sound_form(const AVStream& source, Treatment treatment, const SoundChoice& choice,
                                    const OutputFormat& format) {
    const bool is_carried = treatment == Treatment::kCarried;
    if (is_carried && choice.is_copy()) return std::nullopt;
    SoundForm form = {.choice = choice, .global_header = format.wants_global_header(), .level = {}};
    std::string& codec = form.choice.codec;
    if (codec.empty() && is_carried) {
        codec = own_codec(*source.codecpar);
        if (!codec.empty() && choice.bit_rate == 0) form.choice.bit_rate = source.codecpar->bit_rate;
    }
    if (codec.empty() || format.container == Container::kMxf)
        codec = conversion_of(AVMEDIA_TYPE_AUDIO, format.container);
    if (format.container == Container::kMxf) form.choice.sample_rate = 48'000;
    return form;
}

SampleForm form_of(const AVFrame& frame) {
    return {.rate = frame.sample_rate,
            .format = static_cast<AVSampleFormat>(frame.format),
            .layout = name_of(frame.ch_layout)};
}

SampleForm sample_form(const AVCodec& encoder, const SampleForm& source, const SoundChoice& choice) {
    return {.rate = choose_rate(encoder, source.rate, choice.sample_rate),
            .format = first_sample_format(encoder),
            .layout = choose_layout(encoder, source.layout, choice.layout)};
}

std::string filter_text(const SampleForm& form) {
    return fmt::format("sample_rate={}:sample_fmt={}:channel_layout={}", form.rate,
                       av_get_sample_fmt_name(form.format), form.layout);
}

int64_t bit_rate_of(const SoundForm& form, int channels) {
    return form.choice.bit_rate > 0 ? form.choice.bit_rate : usual_bit_rate(form.choice.codec, channels);
}

}  // namespace gsve::programme
