#pragma once

// How loud sound is (ITU-R BS.1770, EBU R 128, ATSC A/85).

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

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

    /// Tells what is measured on the way: the time in seconds since the first sample, and the short-term
    /// loudness there, in LUFS.
    void tell(std::function<void(double seconds, double short_term)> listener) {
        listener_ = std::move(listener);
    }

    void add(const AVFrame& frame);

    /// Of all that was added, after which no more can be.
    Loudness finish();

private:
    void take_measured();

    FilterGraphPtr graph_;
    GraphEnds ends_;
    FramePtr frame_ = new_frame();
    Loudness loudness_;
    double rate_;
    std::function<void(double, double)> listener_;
};

/// Reads a whole file: the loudness of each track that is encoded, by its index, in the channels in which it
/// goes out. Throws UsageError for what cannot be read twice, and for what the encoder does not take, and
/// Failure.
std::map<int, Loudness> measure_loudness(const std::string& path, const Reading& reading,
                                         const SoundChoice& choice, const OutputFormat& format,
                                         const StopRequest& stop);

/// How loud the tracks of a file are, as they are in it; those that cannot be decoded are left out. Throws
/// Failure where there is no such file.
std::vector<LoudnessCourse> loudness_courses(const std::string& path);

/// What brings sound that is as loud as `measured` to what is asked for.
Level level_for(const SoundChoice& choice, const Loudness& measured);

/// The dialogue level that AC-3 tells of sound at this loudness, in dBFS.
int dialogue_level(double loudness);

}  // namespace gsve::programme
