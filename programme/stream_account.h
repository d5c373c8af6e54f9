#pragma once

// What became of each stream beside the picture.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "programme/treatments.h"

namespace gsve::programme {

/// Of a whole programme, by ITU-R BS.1770 with the gates of EBU R 128.
struct Loudness {
    std::optional<double> integrated;  ///< LUFS (A/85: LKFS); nothing: too quiet or short to be measured
    double true_peak = 0;              ///< dBTP; -infinity: silence

    friend bool operator==(const Loudness&, const Loudness&) = default;
};

/// How loud a track is from moment to moment.
struct LoudnessCourse {
    struct Point {
        double seconds = 0;     ///< after the first picture
        double short_term = 0;  ///< LUFS of the three seconds before (EBU Tech 3341)
    };

    int index = 0;     ///< in the file
    std::string name;  ///< as users know the stream
    Loudness whole;
    std::vector<Point> points;  ///< ten a second, where it is not silent
};

struct StreamAccount {
    int index = 0;         ///< in the input
    std::string kind;      ///< "sound", "subtitles", "data", "attachment", "cover", "picture"
    std::string codec;     ///< in the input, as FFmpeg calls it
    std::string language;  ///< as the container tells it; empty: it does not
    Treatment treatment = Treatment::kNamed;
    std::string codec_out;                 ///< in the output; empty: it is left out
    std::string why;                       ///< it is left out
    uint64_t packets = 0;                  ///< in the output
    uint64_t damaged = 0;                  ///< packets of the input
    std::optional<Loudness> loudness;      ///< of the input, where it was measured
    std::optional<Loudness> loudness_out;  ///< of the output, decoded again
};

}  // namespace gsve::programme
