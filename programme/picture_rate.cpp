#include "programme/picture_rate.h"

#include <cmath>

namespace gsve::programme {

AVRational picture_rate(AVFormatContext* input, AVStream* stream) {
    const AVRational guess = av_guess_frame_rate(input, stream, nullptr);
    // Elementary streams have no times to take an average of; FFmpeg 7 says 25 for all of them.
    const bool timed = !(input->iformat->flags & AVFMT_NOTIMESTAMPS);
    const AVRational average = timed ? stream->avg_frame_rate : AVRational{0, 1};
    const bool counts_fields =
        is_rate(guess) && is_rate(average) && std::abs(av_q2d(guess) / av_q2d(average) - 2) < 0.002;
    if (is_rate(guess) && !counts_fields) return guess;
    return is_rate(average) ? average : AVRational{25, 1};
}

bool has_constant_rate(const AVStream& stream) {
    if (!is_rate(stream.r_frame_rate) || !is_rate(stream.avg_frame_rate)) return true;
    const double ratio = av_q2d(stream.r_frame_rate) / av_q2d(stream.avg_frame_rate);
    return std::abs(ratio - 1) < 0.001 || std::abs(ratio - 2) < 0.002;
}

}  // namespace gsve::programme
