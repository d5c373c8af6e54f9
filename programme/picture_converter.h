#pragma once

// Decoded pictures to pictures at one frame rate, in a pixel format that an encoder takes.
//
// Pictures that need no conversion pass without a copy; at another rate they are repeated or left out.

#include <string>

#include "programme/av.h"
#include "programme/colour_plan.h"

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
    PictureConverter(const AVFrame& first, AVRational time_base, AVRational own_rate,
                     const Conversion& conversion);

    /// What is changed on the way, a line each; empty where nothing is.
    const std::string& notes() const { return notes_; }

    /// Takes a picture, and leaves an empty frame.
    /// Both return 0 or FFmpeg's error.
    int send(AVFrame& frame) { return av_buffersrc_add_frame(in_, &frame); }

    /// No more pictures follow; the last one ends at `end_time`, or it would have no time to be shown.
    int finish(int64_t end_time) { return av_buffersrc_close(in_, end_time, 0); }

    /// Gives the next picture. 0, AVERROR(EAGAIN) where it needs another one first, AVERROR_EOF at the end,
    /// or FFmpeg's error.
    int receive(AVFrame& frame) { return av_buffersink_get_frame(out_, &frame); }

private:
    void build(const std::string& filters, const AVFrame& first, AVRational time_base, AVRational frame_rate);

    FilterGraphPtr graph_;
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
    std::string notes_;
};

}  // namespace gsve::programme
