#include "programme/encode_job.h"

#include <fmt/format.h>

extern "C" {
#include <libavutil/parseutils.h>
}

#include "encoding/error.h"
#include "encoding/settings.h"
#include "programme/caption_files.h"
#include "programme/output.h"

namespace gsve::programme {

std::string setting_of(const EncodeJob& job, const std::string& key) {
    std::string last;
    for (const auto& [name, value] : job.settings)
        if (name == key) last = value;
    return last;
}

std::optional<captions::FrameRate> job_frame_rate(const EncodeJob& job) {
    if (job.frame_rate.empty()) return std::nullopt;
    AVRational rate = {0, 1};
    if (av_parse_video_rate(&rate, job.frame_rate.c_str()) < 0)
        throw UsageError(
            fmt::format("--rate takes a frame rate such as 25 or 30000/1001, not \"{}\"", job.frame_rate));
    if (av_q2d(rate) < 1 || av_q2d(rate) > 1000)
        throw UsageError(fmt::format("--rate takes 1 to 1000 pictures/s, not \"{}\"", job.frame_rate));
    return captions::FrameRate{rate.num, rate.den};
}

void check(const EncodeJob& job) {
    encoding::check_together(job.settings);
    const std::string codec = setting_of(job, "encoder");
    check_caption_choice(job.captions, codec);
    if (!job.timecode.empty() && codec != "mpeg-2")
        throw UsageError(fmt::format("--timecode is for MPEG-2's GOP headers, not {}: leave it out", codec));
    job_frame_rate(job);
    check_output(job.output, job.input);
}

}  // namespace gsve::programme
