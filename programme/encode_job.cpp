#include "programme/encode_job.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include <fmt/format.h>

extern "C" {
#include <libavutil/parseutils.h>
}

#include "encoding/error.h"
#include "encoding/settings.h"
#include "programme/caption_files.h"
#include "programme/file_name.h"
#include "programme/job_output.h"

namespace gsve::programme {

std::string setting_of(const EncodeJob& job, const std::string& key) {
    std::string last;
    for (const auto& [name, value] : job.settings)
        if (name == key) last = value;
    return last;
}

OutputFormat output_of(const EncodeJob& job) {
    OutputFormat format = output_format(job.output, job.format);
    format.fragments =
        job.hls.segments == "fmp4" || (job.hls.segments.empty() && setting_of(job, "encoder") == "h.265");
    format.segment_seconds = job.hls.seconds;
    return format;
}

std::optional<captions::FrameRate> job_frame_rate(const EncodeJob& job) {
    if (job.frame_rate.empty()) return std::nullopt;
    AVRational rate = {0, 1};
    if (av_parse_video_rate(&rate, job.frame_rate.c_str()) < 0)
        throw UsageError(
            fmt::format("--rate takes a frame rate such as 25 or 30000/1001, not \"{}\"", job.frame_rate));
    if (av_q2d(rate) < 1 || av_q2d(rate) > 1000)
        throw UsageError(fmt::format("--rate takes 1 to 1000 pictures/s, not \"{}\"", job.frame_rate));
    // 29.97 and the like are short for what broadcast has.
    for (const int whole : {24, 30, 48, 60, 120})
        if (std::abs(av_q2d(rate) - whole / 1.001) < 0.005) rate = {whole * 1000, 1001};
    return captions::FrameRate{rate.num, rate.den};
}

namespace {

void check(const TransportChoice& choice, const OutputFormat& format) {
    if (!choice.is_given()) return;
    if (format.container != Container::kTransportStream)
        throw UsageError(
            "--mux-rate, --service-name, --provider, --program-number, --pmt-pid and --pids are for "
            "transport "
            "streams: name a .ts file");
    // ISO/IEC 13818-1, table 2-3: what is below, and 0x1FFF, has a meaning of its own.
    const auto check_pid = [](int pid, std::string_view option) {
        if (pid < 0x20 || pid > 0x1FFE)
            throw UsageError(fmt::format("{} takes 32 to 8190, not {}", option, pid));
    };
    std::vector<int> used = choice.pids;
    if (choice.pmt_pid != 0) used.push_back(choice.pmt_pid);
    for (const int pid : choice.pids) check_pid(pid, "--pids");
    if (choice.pmt_pid != 0) check_pid(choice.pmt_pid, "--pmt-pid");
    std::sort(used.begin(), used.end());
    if (const auto twice = std::adjacent_find(used.begin(), used.end()); twice != used.end())
        throw UsageError(fmt::format("--pids, --pmt-pid: {} is given twice", *twice));
    if (choice.program < 0 || choice.program > 65535)
        throw UsageError(fmt::format("--program-number takes 1 to 65535, not {}", choice.program));
}

void check(const SoundChoice& sound, const EncodeJob& job) {
    if (!sound.loudness) return;
    if (!job.choice.sound) throw UsageError("--loudness and --no-sound contradict each other: give one");
    if (output_of(job).container == Container::kElementary)
        throw UsageError(
            fmt::format("--loudness: {} has no room for sound; name a .ts, .mp4, .mov, .mkv, "
                        ".mxf or .m3u8 file",
                        job.output));
    if (is_pipe(job.input))
        throw UsageError(
            "--loudness reads the input twice, which a pipe cannot be: store it in a file first");
}

/// Throws UsageError for a range that needs what only the whole programme tells.
void check_range(const EncodeJob& job, Container container) {
    if (!job.range) return;
    if (job.range->begin >= job.range->end)
        throw UsageError(
            fmt::format("the range of pictures from {} to {} is empty", job.range->begin, job.range->end));
    if (container != Container::kElementary)
        throw UsageError(
            "a range of pictures goes into an elementary stream: name a .m2v, .h264 or .h265 file");
    if (job.captions.carry_over && job.captions.files.empty() && !job.captions.planned)
        throw UsageError(
            "a range of pictures cannot take the input's captions, which the whole would place: give them in "
            "a "
            "file");
    if (job.adapt) throw UsageError("a range of pictures cannot follow the processor's load");
}

}  // namespace

void check(const EncodeJob& job) {
    const OutputFormat format = output_of(job);
    encoding::check_together(job.settings);
    const std::string codec = setting_of(job, "encoder");
    check_caption_choice(job.captions, codec);
    if (!job.timecode.empty() && codec == "h.264" && !format.has_timecode())
        throw UsageError(fmt::format(
            "--timecode: {} has no place for one in {}; name a .mov, .mp4 or .mkv file", codec, job.output));
    job_frame_rate(job);
    check_output(job.output, job.format, job.input);
    check_range(job, format.container);
    check(job.sound, job);
    if (format.container == Container::kMxf) {
        if (codec == "h.265") throw UsageError("MXF does not take h.265; choose mpeg-2 or h.264");
        if (!job.sound.codec.empty() || (job.sound.sample_rate != 0 && job.sound.sample_rate != 48'000))
            throw UsageError(
                "MXF has its sound as PCM at 48000 samples/s; leave --sound and --sound-rate out");
    }
    if (format.container == Container::kHls && job.sound.codec == "mp2")
        throw UsageError("--sound mp2: players of HLS do not take it; choose aac, ac3 or eac3");
    check(job.transport, format);
    if (job.hls.is_given() && format.container != Container::kHls)
        throw UsageError("--segments and --segment-seconds are for HLS: name a .m3u8 file");
    if (job.hls.segments == "ts" && codec == "h.265")
        throw UsageError("--segments ts: players of HLS take H.265 in fmp4 alone; leave it out");
}

}  // namespace gsve::programme
