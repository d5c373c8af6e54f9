#include "programme/programme_parts.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/advice.h"
#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "encoding/status.h"
#include "encoding/status_text.h"
#include "programme/caption_files.h"
#include "programme/job_output.h"

namespace gsve::programme {
namespace {

using encoding::Ancillary;
using encoding::TimecodeTrack;

/// As "resize" has it; 0x0 where it is the source's.
encoding::PictureSize encoded_size(const EncodeJob& job) {
    encoding::PictureSize size;
    std::sscanf(setting_of(job, "resize").c_str(), "%dx%d", &size.width, &size.height);
    return size;
}

InputOptions options_of(const EncodeJob& job) {
    const captions::FrameRate rate = job_frame_rate(job).value_or(captions::FrameRate{0, 1});
    const Container container = output_of(job).container;
    return {.frame_rate = {rate.num, rate.den},
            .chroma_format = setting_of(job, "chroma format"),
            .colour = {.output = encoded_size(job),
                       .narrow_range_only = setting_of(job, "encoder") == "mpeg-2",
                       .keep = job.keep_colour},
            .captions = job.captions.carry_over && job.captions.files.empty() && !job.captions.planned,
            .choice = job.choice,
            .container = container,
            // MXF has no times in which a pause could be.
            .longest_repeat =
                container == Container::kMxf ? std::numeric_limits<double>::infinity() : job.longest_repeat,
            .decoder_threads = job.decoder_threads};
}

/// That of the first picture, at the counting rate.
captions::Timecode first_timecode(const std::string& wanted, const std::string& of_input,
                                  captions::FrameRate rate) try {
    if (wanted != kSourceTimecode) return captions::parse_timecode(wanted, rate);
    if (of_input.empty())
        throw UsageError("--timecode source: the input has no time code; give one as HH:MM:SS:FF");
    return captions::parse_timecode(of_input, rate);
} catch (const std::invalid_argument& error) {
    throw UsageError(fmt::format("--timecode: {}", error.what()));
}

/// Throws UsageError where two of a transport stream's streams would have one PID.
void check_pids(const TransportChoice& transport, size_t streams) {
    constexpr int kUsualTable = 0x1000, kUsualFirst = 0x100;  // libavformat's
    if (transport.pids.size() > streams)
        throw UsageError(
            fmt::format("--pids has {} PIDs for {} streams: leave some out", transport.pids.size(), streams));
    std::set<int> used = {transport.pmt_pid > 0 ? transport.pmt_pid : kUsualTable};
    for (size_t n = 0; n < streams; n++) {
        const int pid = n < transport.pids.size() ? transport.pids[n] : kUsualFirst + static_cast<int>(n);
        if (!used.insert(pid).second)
            throw UsageError(fmt::format(
                "--pids, --pmt-pid: {} is that of another stream, or of the program's table; --pids with {} "
                "PIDs gives each its own",
                pid, streams));
    }
}

}  // namespace

/// What a picture signals, as yet without captions and time code.
Ancillary signalled_by(const Picture& picture) {
    Ancillary ancillary;
    ancillary.display_aspect = picture.display_aspect;
    ancillary.field_order = picture.field_order;
    ancillary.shape = picture.shape;
    ancillary.held_shape = picture.held_shape;
    return ancillary;
}

ProgrammeParts::ProgrammeParts(const EncodeJob& job, Observer& observer)
    : job_(job),
      observer_(observer),
      format_(output_of(job)),
      input_(std::in_place, job.input, options_of(job), stop_request()),
      encoder_(std::filesystem::path(job.output).stem()) {}

InputOptions ProgrammeParts::input_options() const { return options_of(job_); }

void ProgrammeParts::open_input_again() { input_.emplace(job_.input, input_options(), stop_request()); }

void ProgrammeParts::note(const std::string& lines) {
    notes_ += lines;
    observer_.note(lines);
}

void ProgrammeParts::warn(const std::string& line) {
    if (line.empty()) return;
    notes_ += line + "\n";
    observer_.warn(line);
}

void ProgrammeParts::configure_encoder() {
    encoder_.adapt_to_load(job_.adapt);
    encoder_.describe_source(input_->format());
    for (const auto& [key, value] : job_.settings) encoder_.apply(key, value);
    if (job_.threads > 0) encoder_.apply("maximum threads", std::to_string(job_.threads));
    choose_caption_forms(encoder_,
                         {.wanted = job_.captions.carry_over,
                          .present = input_->has_captions() || has_files() ||
                                     (job_.captions.planned && job_.captions.planned->present),
                          .scte20 = job_.captions.scte20},
                         job_.decided);
    if (format_.container == Container::kHls && setting_of(job_, "closed gop").empty()) {
        encoder_.apply("closed gop", "1");
        note("\"closed gop\" is 1: players of HLS begin with any segment\n");
    }
    encoder_.global_header = format_.wants_global_header();
    warn(long_picture_warning(encoder_));
}

void ProgrammeParts::open_encoder() {
    note(input_->notes());
    configure_encoder();
    if (!encoder_.open(signalled_by(input_->first()))) {
        if (!encoder_.enabled)
            throw UsageError("the setting \"enable\" is off, so that nothing would be encoded");
        const std::string notes = encoding::one_line(encoder_.last_notes);
        throw Failure(fmt::format(
            "the {} encoder does not open: {}{}; {}", gsve_encoder_str[encoder_.codec_id],
            encoder_.last_error, notes.empty() ? "" : fmt::format(" ({})", notes), opening_advice(encoder_)));
    }
    warn(stuffing_warning(encoder_));
    const int threads = encoder_.mpeg_context->thread_count;
    if (job_.threads > 0 && threads != job_.threads)
        throw Failure(fmt::format(
            "the job is for {} threads, and here the codec takes {}, with which the stream would be another: "
            "make the job for {}",
            job_.threads, threads, threads));
    job_.threads = threads;
    job_.decoder_threads = input_->decoder_threads();
}

void ProgrammeParts::open_captions() {
    forms_ = caption_forms(encoder_, job_.captions.scte20);
    encoder_.carry_line_rate(forms_.line_rate);
    if (forms_.scte20) encoder_.carry_scte20();
    const captions::FrameRate source = encoding::caption_rate(input_->own_rate());
    const captions::FrameRate encoded = encoding::caption_rate(encoder_.encoded_rate());
    captions_.emplace(forms_, source, encoded);
    const bool planned = job_.captions.planned && job_.captions.planned->present;
    caption_source_ = planned                                              ? "plan"
                      : has_files()                                        ? "file"
                      : job_.captions.carry_over && input_->has_captions() ? "input"
                                                                           : "none";
    if (caption_source_ != "none") check_caption_settings(encoder_, forms_);
    if (has_files()) {
        if (!forms_.pairs())
            throw UsageError("--captions: the settings \"enable cea-708\" and \"enable eia-608\" are off");
        captions_->load(load_caption_files(job_.captions, {encoder_.frame_rate_num, encoder_.frame_rate_den},
                                           encoded, forms_.line_rate, caption_report_));
    } else if (caption_source_ == "input" && forms_.pairs()) {
        input_->read_ahead(input_->captions_behind() / source.per_second() + captions_->foresight());
    }
    for (const std::string& line : caption_report_.lines()) note(line + "\n");
}

void ProgrammeParts::open_timecodes() {
    // A container's own place is filled with the input's time code unasked; GOP headers only where it is
    // wanted.
    const bool carried = job_.timecode.empty() && format_.has_timecode() && !input_->timecode().empty();
    if (job_.timecode.empty() && !format_.has_timecode() && input_->container_has_timecode())
        note(fmt::format("the input's time code {} is left out: {}\n", input_->timecode(),
                         encoder_.codec_id == encoding::kMpeg2 ? "--timecode source carries it in GOP headers"
                         : encoder_.codec_id == encoding::kH265
                             ? "--timecode source carries it in SEI messages"
                             : "H.264 has no place for it here; a .mov or .mp4 file has"));
    if (job_.timecode.empty() && !carried) return;
    const bool of_input = carried || job_.timecode == kSourceTimecode;
    const captions::FrameRate encoded = encoding::caption_rate(encoder_.encoded_rate());
    const captions::FrameRate counting = of_input ? encoding::caption_rate(input_->own_rate()) : encoded;
    try {
        const TimecodeTrack track(
            first_timecode(of_input ? kSourceTimecode : job_.timecode, input_->timecode(), counting),
            encoding::TimecodeRates{.counting = counting,
                                    .source = encoding::caption_rate(input_->format().frame_rate),
                                    .encoded = encoded,
                                    .divider = encoder_.frame_rate_divider});
        first_timecode_ = format_timecode(track.at(0));
        if (!carried) timecodes_ = track;
    } catch (const UsageError& error) {
        if (!carried) throw;
        note(fmt::format("the input's time code is left out: {}\n", error.what()));
    }
}

std::map<int, Loudness> ProgrammeParts::measured_loudness() {
    if (!job_.sound.loudness) return {};
    note("measuring how loud the sound is, in a first reading\n");
    const auto measured = measure_loudness(
        job_.input,
        {.choice = job_.choice, .container = format_.container, .lines = DecoderLog::Lines::kSwallowed},
        job_.sound, format_, [this] { return observer_.stop_reason() != 0; });
    for (const auto& [index, loudness] : measured)
        if (!loudness.integrated)
            note(fmt::format("{} is too quiet or short to have a loudness, and stays as it is\n",
                             describe(*input_->container().streams[index])));
    return measured;
}

void ProgrammeParts::open_companions(std::map<int, Loudness> loudness) {
    companions_.emplace(*input_, job_.sound, format_, std::move(loudness));
    note(companions_->opening_notes());
    const Companions companions = companions_->companions();
    if (job_.transport.rate > 0) check_mux_rate(companions);
    if (format_.container == Container::kMxf) check_mxf_rate();
    if (format_.container == Container::kTransportStream)
        check_pids(job_.transport, companions.streams.size() + 1);
}

void ProgrammeParts::open_output() {
    Companions companions = companions_->companions();
    companions.transport = job_.transport;
    if (format_.has_timecode()) companions.timecode = first_timecode_;
    output_ = programme::open_output(format_, job_.output, encoder_, companions);
}

/// Throws UsageError where the streams do not fit into the transport stream.
void ProgrammeParts::check_mux_rate(const Companions& companions) {
    // Every transport packet has a header; every PES packet one of its own, and fills up its last transport
    // packet. Sound is gathered into PES packets of 2930 bytes, a picture has one. Tables come every tenth of
    // a second, clocks every 20 ms.
    constexpr double kPackets = 188.0 / 184, kPes = 8 * (188 + 27), kTables = 33'000, kClocks = 75'000;
    constexpr double kSoundPes = 8 * 2930;
    constexpr double kUnknownSound = 448'000, kUnknownSubtitles = 200'000, kUnknownData = 50'000;
    const double picture =
        std::max({static_cast<double>(encoder_.bitrate), static_cast<double>(encoder_.max_bitrate),
                  static_cast<double>(encoder_.mpeg_context->rc_max_rate) + encoder_.inserted_rate()});
    double needed = picture * kPackets + encoding::caption_rate(encoder_.encoded_rate()).per_second() * kPes +
                    kTables + kClocks;
    for (const Companions::Stream& stream : companions.streams) {
        const AVMediaType type = stream.form->codec_type;
        const double rate = stream.form->bit_rate > 0       ? static_cast<double>(stream.form->bit_rate)
                            : type == AVMEDIA_TYPE_AUDIO    ? kUnknownSound
                            : type == AVMEDIA_TYPE_SUBTITLE ? kUnknownSubtitles
                                                            : kUnknownData;
        needed += rate * kPackets + (rate / kSoundPes + 3) * kPes;
    }
    if (static_cast<double>(job_.transport.rate) < needed)
        throw UsageError(
            fmt::format("--mux-rate {} is too low for the picture, the sound and what is inserted: give at "
                        "least {:.0f}, or lower \"max bitrate\" and \"bitrate\"",
                        job_.transport.rate, std::ceil(needed / 1000) * 1000));
}

/// Throws UsageError where MXF has no edit unit of a picture's duration (SMPTE ST 326, table 1).
void ProgrammeParts::check_mxf_rate() const {
    constexpr captions::FrameRate kRates[] = {{24000, 1001}, {24, 1}, {25, 1},       {30000, 1001},
                                              {30, 1},       {50, 1}, {60000, 1001}, {60, 1}};
    const captions::FrameRate rate = encoding::caption_rate(encoder_.encoded_rate());
    for (const captions::FrameRate& known : kRates)
        if (rate.num * known.den == known.num * rate.den) return;
    throw UsageError(fmt::format(
        "MXF has 24, 25, 30, 50 or 60 pictures/s, or 23.976, 29.97 or 59.94, not {:.3f}: give --rate, or "
        "another \"frame rate limit\"",
        rate.per_second()));
}

}  // namespace gsve::programme
