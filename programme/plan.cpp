#include "programme/plan.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "programme/caption_services.h"
#include "programme/file_name.h"
#include "programme/programme_parts.h"
#include "programme/source_survey.h"

namespace gsve::programme {
namespace {

/// Pictures before a part's first: the rate control is then where the whole programme's is, but for a
/// fraction of a decibel.
constexpr int64_t kLeastWarmUp = 75;

std::string task_stem(const std::string& directory, std::string_view task) {
    if (task == kSoundTask) return fmt::format("{}/{}", directory, kSoundTask);
    return fmt::format("{}/chunk-{:0>5}", directory, task);
}

/// A pause that never ends is none, in a job that has to go through JSON.
constexpr double kForever = 1e9;

std::string_view elementary_extension(int codec) {
    return codec == encoding::kMpeg2 ? ".m2v" : codec == encoding::kH264 ? ".h264" : ".h265";
}

/// Throws UsageError for a file that cannot be read by many at once.
SourceIdentity identity_of(const std::string& path) {
    struct stat status = {};
    if (is_pipe(path) || (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)))
        throw UsageError("a plan's input is read many times: store it in a file first");
    if (stat(path.c_str(), &status) != 0)
        throw Failure(fmt::format("cannot open {}: {}", path, std::strerror(errno)));
    return {.size = static_cast<uint64_t>(status.st_size),
            .modified = int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec,
            .hash = {}};
}

class Planning : ProgrammeParts {
public:
    Planning(const EncodeJob& job, Observer& observer) : ProgrammeParts(job, observer) {}
    Plan run(double chunk_seconds);

private:
    void check_divisible() const;
    std::vector<PlannedCaptions::Picture> place_captions(const SourceSurvey& survey,
                                                         std::vector<std::string>& services);
    int64_t part_unit() const;
    std::vector<PictureRange> divide(const SourceSurvey& survey, double chunk_seconds) const;
    EncodeJob chunk_job(size_t number, const PictureRange& range,
                        const std::vector<PlannedCaptions::Picture>& captions) const;
};

/// A part knows nothing of what the parts before it came to.
void Planning::check_divisible() const {
    if (encoder_.drop_frame_for_bitrate_limit == 1)
        throw UsageError(
            "\"drop frame for bitrate limit\" depends on all pictures before: leave it out, or encode in one "
            "piece");
    if (forms_.cc)
        throw UsageError(
            "\"CC\" user data gathers the byte pairs of earlier pictures: set \"enable eia-608\" to 0, or "
            "encode in one piece");
    if (job_.timecode == kSourceTimecode && !input_->container_has_timecode())
        throw UsageError(
            "--timecode source follows what is in the pictures, all of which would have to be decoded first: "
            "give the first one's as HH:MM:SS:FF, or encode in one piece");
    if (encoder_.codec_id != encoding::kMpeg2 && job_.threads != 1)
        throw UsageError(fmt::format(
            "with {} threads, {} gives other bytes each time: set \"maximum threads\" to 1, the chunks are "
            "what runs side by side",
            job_.threads, gsve_encoder_str[encoder_.codec_id]));
}

Plan Planning::run(double chunk_seconds) {
    Plan plan;
    plan.job = job_;
    plan.source = identity_of(job_.input);
    open_encoder();
    open_captions();
    open_timecodes();
    open_companions({});
    check_divisible();
    plan.job.threads = job_.threads;
    plan.has_sound = !companions_->companions().streams.empty();
    const SourceSurvey survey = programme::survey(job_.input, input_options(), *input_, stop_request());
    if (observer_.stop_reason() != 0) throw Failure("stopped before the plan was made");
    if (!survey.decoded_since.empty())
        note(fmt::format("all pictures had to be decoded to plan them: {}\n", survey.decoded_since));
    if (survey.index.has_pauses)
        throw UsageError(
            "the input's pictures pause for longer than one is repeated: give --longest-repeat that time, or "
            "encode in one piece");
    plan.source.hash = survey.hash;
    plan.frame_rate = encoding::caption_rate(input_->format().frame_rate);
    plan.divider = encoder_.frame_rate_divider;
    plan.gop = static_cast<uint64_t>(part_unit());
    plan.pictures = survey.pictures;
    const std::vector<PlannedCaptions::Picture> captions = place_captions(survey, plan.caption_services);
    for (const PictureRange& range : divide(survey, chunk_seconds))
        plan.chunks.push_back(chunk_job(plan.chunks.size(), range, captions));
    return plan;
}

/// What goes with each picture that the encoder takes, as the one piece has it.
std::vector<PlannedCaptions::Picture> Planning::place_captions(const SourceSurvey& survey,
                                                               std::vector<std::string>& services) {
    for (const SourceCaptions& source : survey.captions) captions_->push(source.frame, source.captions);
    captions_->finish();
    SentServices sent(encoding::caption_rate(input_->format().frame_rate));
    std::vector<PlannedCaptions::Picture> pictures;
    const uint64_t step = encoder_.frame_rate_divider;
    uint64_t encoded = 0;
    for (uint64_t number = 0; number < survey.pictures; number += step, encoded++) {
        captions::PictureWrites writes = captions_->next(number, encoded);
        captions_->after(encoding::PictureFate::kEncoded);
        captions_->emitted({.bytes = {}, .pts = static_cast<int64_t>(number), .ancillary = true});
        sent.note(static_cast<int64_t>(number), writes);
        // What a picture has is all that it needs to know: whether it came late is of no use to it.
        std::fill(std::begin(writes.due), std::end(writes.due), 0);
        writes.cea708_due = writes.third_due = 0;
        if (writes != captions::PictureWrites()) pictures.push_back({number, std::move(writes)});
    }
    if (caption_source_ != "none") services = sent.names();
    const encoding::CaptionAccount account = captions_->account(encoded);
    for (const encoding::LostCaption& lost : account.lost)
        note(fmt::format("a caption at {:.3f} s does not come through: \"{}\"\n", lost.time, lost.text));
    return pictures;
}

/// Whole GOPs, of an even number of pictures: fields of captions take turns where the rate is high.
int64_t Planning::part_unit() const {
    const int64_t gop = std::max<int64_t>(encoder_.effective_gop_size, 1);
    return (gop % 2 == 0 ? gop : 2 * gop) * static_cast<int64_t>(encoder_.frame_rate_divider);
}

std::vector<PictureRange> Planning::divide(const SourceSurvey& survey, double chunk_seconds) const {
    const auto step = static_cast<int64_t>(encoder_.frame_rate_divider);
    const int64_t unit = part_unit();
    const double rate = av_q2d(input_->format().frame_rate);
    const int64_t length =
        std::max<int64_t>(std::llround(chunk_seconds * rate / static_cast<double>(unit)), 1) * unit;
    const int64_t warm_up = (kLeastWarmUp * step + unit - 1) / unit * unit;
    const auto pictures = static_cast<int64_t>(survey.pictures);
    const AVRational time_base = input_->container().streams[input_->plan().video]->time_base;
    std::vector<PictureRange> ranges;
    for (int64_t begin = 0; begin < pictures; begin += length) {
        // What is left over at the end is not worth a warm-up.
        if (!ranges.empty() && pictures - begin < length / 4) {
            ranges.back().end = survey.pictures;
            break;
        }
        PictureRange range = {.begin = static_cast<uint64_t>(begin),
                              .end = static_cast<uint64_t>(std::min(begin + length, pictures)),
                              .warm_up = static_cast<uint64_t>(std::min(begin, warm_up)),
                              .key = {}};
        for (const KeyPicture& key : survey.index.keys) {
            const int64_t place = av_rescale_q(key.pts - input_->first_time(), time_base,
                                               av_inv_q(input_->format().frame_rate));
            const bool in_time = place <= begin - static_cast<int64_t>(range.warm_up);
            if (in_time && begin > 0 && (!range.key || key.pts > range.key->pts)) range.key = key;
        }
        ranges.push_back(range);
    }
    return ranges;
}

EncodeJob Planning::chunk_job(size_t number, const PictureRange& range,
                              const std::vector<PlannedCaptions::Picture>& captions) const {
    EncodeJob chunk = job_;
    chunk.output = fmt::format("chunk-{:05d}{}", number, elementary_extension(encoder_.codec_id));
    chunk.format.clear();
    if (encoder_.closed_gop && setting_of(job_, "closed gop").empty())
        chunk.settings.emplace_back("closed gop", "1");
    chunk.captions.files.clear();
    chunk.captions.field = 0;
    chunk.captions.rows.reset();
    chunk.captions.start.clear();
    chunk.choice = {};
    chunk.choice.streams = {input_->plan().video};
    chunk.sound = {};
    chunk.transport = {};
    chunk.hls = {};
    if (encoder_.codec_id == encoding::kH264) chunk.timecode.clear();
    if (format_.container == Container::kMxf) chunk.longest_repeat = kForever;
    chunk.decoder_threads = 0;
    chunk.range = range;
    PlannedCaptions& planned = chunk.captions.planned.emplace();
    planned.present = caption_source_ != "none";
    const uint64_t first = range.begin - range.warm_up;
    const auto at = [&](uint64_t wanted) {
        return std::lower_bound(
            captions.begin(), captions.end(), wanted,
            [](const PlannedCaptions::Picture& picture, uint64_t number) { return picture.number < number; });
    };
    planned.pictures.assign(at(first), at(range.end));
    return chunk;
}

}  // namespace

Plan make_plan(const EncodeJob& job, double chunk_seconds, Observer& observer) {
    if (is_pipe(job.input)) throw UsageError("a plan's input is read many times: store it in a file first");
    check(job);
    check_harmless(job);
    if (is_standard_stream(job.output)) throw UsageError("a plan's output is a file: give OUTPUT a name");
    if (job.adapt) throw UsageError("--adapt follows the load of one machine: leave it out");
    if (job.quality)
        throw UsageError("--quality measures what one piece of encoding gives: leave it out of a plan");
    EncodeJob fixed = job;
    const bool is_mpeg2 = setting_of(job, "encoder") == "mpeg-2";
    if (setting_of(job, "maximum threads").empty() ||
        (!is_mpeg2 && setting_of(job, "maximum threads") == "0"))
        fixed.threads = 1;
    return Planning(fixed, observer).run(chunk_seconds);
}

void check_harmless(const EncodeJob& job) {
    const std::string dump = setting_of(job, "debug file");
    if (!dump.empty() && dump != "0")
        throw UsageError("\"debug file\" writes elsewhere than beside the plan: leave it out");
    if (job.range && !job.captions.files.empty())
        throw UsageError("a chunk names files of captions, which are in the plan");
}

void check_source(const Plan& plan) {
    const SourceIdentity now = identity_of(plan.job.input);
    const bool same =
        now.size == plan.source.size && (now.modified == plan.source.modified ||
                                         source_hash(plan.job.input, plan.job.choice) == plan.source.hash);
    if (!same)
        throw Failure(
            fmt::format("{} is not the file that the plan was made from: plan again", plan.job.input));
}

std::string work_directory(const std::string& plan_path) {
    constexpr std::string_view kExtension = ".json";
    return plan_path.size() > kExtension.size() && plan_path.ends_with(kExtension)
               ? plan_path.substr(0, plan_path.size() - kExtension.size())
               : plan_path + ".d";
}

std::string manifest_path(const std::string& directory, std::string_view task) {
    return task_stem(directory, task) + ".json";
}

std::string data_path(const std::string& directory, const Plan& plan, std::string_view task) {
    if (task == kSoundTask) return task_stem(directory, task) + ".packets";
    // Of the chunks' names in the plan, only the codec's extension counts.
    const std::string codec = setting_of(plan.job, "encoder");
    return task_stem(directory, task) + (codec == "mpeg-2" ? ".m2v" : codec == "h.264" ? ".h264" : ".h265");
}

std::vector<std::string> tasks_of(const Plan& plan) {
    std::vector<std::string> tasks;
    for (size_t n = 0; n < plan.chunks.size(); n++) tasks.push_back(std::to_string(n));
    if (plan.has_sound) tasks.emplace_back(kSoundTask);
    return tasks;
}

}  // namespace gsve::programme
