#pragma once

// What a user asks of an input's streams and times.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gsve::programme {

/// Which streams of the input the output is to have.
struct StreamChoice {
    std::vector<int> streams;  ///< by their numbers in the input; empty: all of them
    std::optional<int>
        program;  ///< of a transport stream with several; nothing: the one with the best picture
    bool sound = true;

    friend bool operator==(const StreamChoice&, const StreamChoice&) = default;
};

/// The highest true peak that EBU R 128 permits, in dBTP.
inline constexpr double kHighestTruePeak = -1;

/// What becomes of the sound.
struct SoundChoice {
    std::string
        codec;  ///< "aac", "ac3", "eac3" or "mp2"; empty: as it is, or, where the output takes it not, aac
    int64_t bit_rate = 0;  ///< bits/s of a track; 0: by its channels
    std::string layout;    ///< of the channels, as FFmpeg calls it: "stereo", "5.1"; empty: the source's
    int sample_rate = 0;   ///< 0: the source's
    std::optional<double> loudness;       ///< LUFS that each track is brought to; nothing: as it is
    double true_peak = kHighestTruePeak;  ///< dBTP that peaks are then limited to

    /// Whether sound that the output takes stays as it is.
    bool is_copy() const { return codec.empty() && !loudness; }

    friend bool operator==(const SoundChoice&, const SoundChoice&) = default;
};

/// How a transport stream is to be made.
struct TransportChoice {
    int64_t rate = 0;      ///< bits/s, constant; 0: as much as there is
    std::string service;   ///< its name; empty: the input's
    std::string provider;  ///< empty: the input's
    int program = 0;       ///< number; 0: 1
    int pmt_pid = 0;       ///< 0: 0x1000
    std::vector<int>
        pids;  ///< of the picture and the other streams, in the output's order; those behind: from 0x100

    bool is_given() const { return *this != TransportChoice(); }

    friend bool operator==(const TransportChoice&, const TransportChoice&) = default;
};

/// How long a segment of HLS is, as its makers recommend.
inline constexpr double kSegmentSeconds = 6;

/// How HLS is to be made.
struct HlsChoice {
    std::string segments;              ///< "ts" or "fmp4"; empty: "fmp4" for H.265, else "ts"
    double seconds = kSegmentSeconds;  ///< of a segment; it ends with the next GOP

    bool is_given() const { return *this != HlsChoice(); }

    friend bool operator==(const HlsChoice&, const HlsChoice&) = default;
};

/// For how long a file's pause is filled with its last picture, in seconds, unless the user says.
inline constexpr double kLongestRepeat = 60;

}  // namespace gsve::programme
