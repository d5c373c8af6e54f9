#pragma once

// Decoded pictures to pictures at one frame rate, in a pixel format that an encoder takes.
//
// Pictures that need no conversion pass without a copy; at another rate they are repeated or left out.

#include <string>

#include "programme/av.h"
#include "programme/colour_plan.h"
#include "programme/constant_rate.h"

namespace gsve::programme {

/// How pictures are to be converted.
struct Conversion {
    AVRational frame_rate = {};  ///< to be made
    std::string chroma_format;   ///< the encoder's setting: what other pixel formats are converted to
    ColourPlan colour;
};

class PictureConverter {
public:
    /// `first`: the first picture, as decoded. Throws Failure where it cannot be converted.
    PictureConverter(const AVFrame& first, AVRational time_base, const Conversion& conversion);

    /// What is changed on the way, a line each; empty where nothing is.
    const std::string& notes() const { return notes_; }

    ConstantRate& rate() { return rate_; }

    /// Takes a picture, and leaves an empty frame.
    void send(AVFrame& frame);

    /// No more pictures follow; the last one ends at `end_time`, or it would have no time to be shown.
    void finish(int64_t end_time) { rate_.finish(end_time); }

    /// Gives the next picture. 0, AVERROR(EAGAIN) where it needs another one first, AVERROR_EOF at the end,
    /// or FFmpeg's error.
    int receive(AVFrame& frame);

private:
    void build(const std::string& filters, const AVFrame& first, AVRational frame_rate);

    ConstantRate rate_;
    FilterGraphPtr graph_;  ///< null where nothing is to be filtered
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
    std::string notes_;
};

}  // namespace gsve::programme
