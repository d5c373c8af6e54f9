#pragma once

// How loud sound is (ITU-R BS.1770, EBU R 128, ATSC A/85).

#include <map>
#include <string>

#include "programme/output.h"
#include "programme/packet_source.h"
#include "programme/sound_decoder.h"
#include "programme/stream_account.h"

namespace gsve::programme {

/// Measures with libavfilter.
class LoudnessMeter {
public:
    /// Throws Failure where libavfilter cannot measure such samples.
    explicit LoudnessMeter(const SampleForm& form);

    void add(const AVFrame& frame);

    /// Of all that was added, after which no more can be.
    Loudness finish();

private:
    void take_measured();

    FilterGraphPtr graph_;
    GraphEnds ends_;
    FramePtr frame_ = new_frame();
    Loudness loudness_;
};

/// Reads a whole file: the loudness of each track that is encoded, by its index, in the channels in which it
/// goes out. Throws UsageError for what cannot be read twice, and for what the encoder does not take, and
/// Failure.
std::map<int, Loudness> measure_loudness(const std::string& path, const Reading& reading,
                                         const SoundChoice& choice, const OutputFormat& format,
                                         const StopRequest& stop);

/// What brings sound that is as loud as `measured` to what is asked for.
Level level_for(const SoundChoice& choice, const Loudness& measured);

/// The dialogue level that AC-3 tells of sound at this loudness, in dBFS.
int dialogue_level(double loudness);

}  // namespace gsve::programme
