#pragma once

// In which form sound goes out.

#include <cstdint>
#include <optional>
#include <string>

#include "programme/output.h"
#include "programme/stream_choice.h"
#include "programme/stream_table.h"

namespace gsve::programme {

/// What brings sound to a wanted loudness.
struct Level {
    double gain = 0;                ///< dB
    std::optional<double> ceiling;  ///< dBTP that peaks are limited to; nothing: none comes near

    friend bool operator==(const Level&, const Level&) = default;
};

/// How sound is to be encoded.
struct SoundForm {
    SoundChoice choice;          ///< with a codec
    bool global_header = false;  ///< the container wants the codec's header in its own
    Level level;
    /// Where the container has no time for the first sample: when it is to be heard, in kTimeUnit on the
    /// input's time line. What comes before is cut, and what is missing is silent.
    std::optional<int64_t> begin = {};
};

/// Nothing: the packets are carried as they are.
std::optional<SoundForm> sound_form(const AVStream& source, Treatment treatment, const SoundChoice& choice,
                                    const OutputFormat& format);

/// In bits/s: what is asked for, or what is usual for broadcast.
int64_t bit_rate_of(const SoundForm& form, int channels);

/// Samples of sound, as an encoder takes them.
struct SampleForm {
    int rate = 0;
    AVSampleFormat format = AV_SAMPLE_FMT_NONE;
    std::string layout;  ///< of the channels, as FFmpeg calls it

    friend bool operator==(const SampleForm&, const SampleForm&) = default;
};

SampleForm form_of(const AVFrame& frame);

/// As FFmpeg calls it.
std::string name_of(const AVChannelLayout& layout);

/// Throws UsageError where FFmpeg has none of this name.
const AVCodec& sound_encoder(const std::string& name);

/// What the encoder takes of a source's samples. Throws UsageError where it does not take what is asked for.
SampleForm sample_form(const AVCodec& encoder, const SampleForm& source, const SoundChoice& choice);

/// As filters are told of it.
std::string filter_text(const SampleForm& form);

}  // namespace gsve::programme
