#include "programme/encode_programme.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/advice.h"
#include "encoding/caption_forms.h"
#include "encoding/caption_track.h"
#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "encoding/picture_encoder.h"
#include "encoding/start_codes.h"
#include "encoding/status.h"
#include "encoding/status_text.h"
#include "encoding/timecode_track.h"
#include "programme/caption_files.h"
#include "programme/caption_services.h"
#include "programme/companions.h"
#include "programme/delivery.h"
#include "programme/input.h"
#include "programme/job_output.h"
#include "programme/quality_meter.h"

namespace gsve::programme {
namespace {

using encoding::Ancillary;
using encoding::CaptionForms;
using encoding::CaptionTrack;
using encoding::PictureEncoder;
using encoding::PictureFate;
using encoding::TimecodeTrack;
using Clock = std::chrono::steady_clock;

/// The key picture of H.265 with which a part begins, whatever stands before it: libx265 codes it as one of
/// clean random access (CRA_NUT), which within a stream refers to the order of the pictures before. As
/// BLA_N_LP it begins the order anew (ITU-T H.265, 7.4.2.2 and 8.1.3); the two have the same syntax.
std::vector<uint8_t> beginning_anew(std::span<const uint8_t> unit) {
    constexpr uint8_t kCra = 21, kBroken = 18;
    std::vector<uint8_t> bytes(unit.begin(), unit.end());
    for (const encoding::Section& nal : encoding::nal_units(unit))
        if ((nal.bytes[0] >> 1 & 0x3F) == kCra)
            bytes[static_cast<size_t>(nal.bytes.data() - unit.data())] = kBroken << 1;
    return bytes;
}

/// As "resize" has it; 0x0 where it is the source's.
encoding::PictureSize encoded_size(const EncodeJob& job) {
    encoding::PictureSize size;
    std::sscanf(setting_of(job, "resize").c_str(), "%dx%d", &size.width, &size.height);
    return size;
}

InputOptions input_options(const EncodeJob& job) {
    const captions::FrameRate rate = job_frame_rate(job).value_or(captions::FrameRate{0, 1});
    const Container container = output_of(job).container;
    return {.frame_rate = {rate.num, rate.den},
            .chroma_format = setting_of(job, "chroma format"),
            .colour = {.output = encoded_size(job),
                       .narrow_range_only = setting_of(job, "encoder") == "mpeg-2",
                       .keep = job.keep_colour},
            .captions = job.captions.carry_over && job.captions.files.empty(),
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

/// libx264 and libx265 let the rate of a picture depend on how far their other threads are.
bool repeats_its_bytes(const PictureEncoder& encoder, bool adapts) {
    return !adapts && (encoder.codec_id == encoding::kMpeg2 || encoder.mpeg_context->thread_count == 1);
}

/// What a picture signals, as yet without captions and time code.
Ancillary signalled_by(const Picture& picture) {
    Ancillary ancillary;
    ancillary.display_aspect = picture.display_aspect;
    ancillary.field_order = picture.field_order;
    ancillary.shape = picture.shape;
    ancillary.held_shape = picture.held_shape;
    return ancillary;
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

class ProgrammeEncoding {
public:
    ProgrammeEncoding(const EncodeJob& job, Observer& observer);
    EncodeResult run();

private:
    void configure_encoder();
    void encode_all();
    void begin_range();
    StopRequest stop_request() {
        return [this] { return given_up_ || observer_.stop_reason() != 0; };
    }
    bool is_wanted(int64_t number) const {
        return !job_.range || number >= static_cast<int64_t>(job_.range->begin);
    }
    void open_encoder();
    void open_captions();
    void open_timecodes();
    std::map<int, Loudness> measured_loudness();
    void open_output();
    void check_mux_rate(const Companions& companions);
    void check_mxf_rate() const;
    void encode(const Picture& picture);
    void take_in_captions();
    Ancillary ancillary_of(const Picture& picture);
    void begin_independently(Ancillary& ancillary, uint64_t number);
    void finish();
    EncodeResult result();
    void note(const std::string& lines);

    bool has_files() const { return !job_.captions.files.empty(); }

    EncodeJob job_;
    Observer& observer_;
    const OutputFormat format_;
    std::atomic<bool> given_up_ = false;  ///< since something failed: what the input still gives is of no use
    std::optional<Input> input_;
    PictureEncoder encoder_;
    CaptionForms forms_;
    std::optional<CaptionTrack> captions_;
    std::string caption_source_ = "none";
    captions::Report caption_report_;
    SentServices services_;
    std::optional<TimecodeTrack> timecodes_;
    encoding::PictureShape untold_shape_;  ///< of a picture that was left out
    std::string first_timecode_;
    std::optional<CompanionStreams> companions_;
    std::unique_ptr<Output> output_;
    std::optional<Delivery> delivery_;
    std::optional<QualityMeter> quality_;
    uint64_t first_number_ = 0;  ///< of the pictures that the encoder is offered
    std::string notes_;
    Tally tally_;
    Clock::time_point start_;
    double elapsed_ = 0;
};

ProgrammeEncoding::ProgrammeEncoding(const EncodeJob& job, Observer& observer)
    : job_(job),
      observer_(observer),
      format_(output_of(job)),
      input_(std::in_place, job.input, input_options(job), stop_request()),
      encoder_(std::filesystem::path(job.output).stem()),
      services_(encoding::caption_rate(input_->format().frame_rate)),
      tally_(encoding::caption_rate(input_->format().frame_rate)) {}

EncodeResult ProgrammeEncoding::run() {
    note(input_->notes());
    configure_encoder();
    open_encoder();
    open_captions();
    open_timecodes();
    if (job_.range) begin_range();
    open_output();

    start_ = Clock::now();
    observer_.begin(input_->expected_pictures());
    try {
        encode_all();
    } catch (...) {
        given_up_ = true;
        throw;
    }
    finish();
    note(input_->timing_notes());
    note(companions_->notes(*output_));
    if (const uint64_t unreadable = encoder_.unreadable_headers(); unreadable > 0)
        note(fmt::format(
            "{} of the codec's headers cannot be read, and stay as they are: they say nothing of the colour, "
            "and declare the codec's rate alone\n",
            unreadable));
    return result();
}

/// For who watches, and for the report.
void ProgrammeEncoding::note(const std::string& lines) {
    notes_ += lines;
    observer_.note(lines);
}

/// Each on its way to the next: the input's threads, this one, and the delivery's.
void ProgrammeEncoding::encode_all() {
    delivery_.emplace(*companions_, *output_, [this] { given_up_ = true; });
    if (job_.quality) quality_.emplace(encoder_);
    input_->on_packets([this] { delivery_->pass(input_->take_packets()); });
    input_->work_in_threads();
    while (const std::optional<Picture> picture = input_->next()) {
        if (job_.range && picture->number >= job_.range->end) break;
        encode(*picture);
    }
    input_->end_threads();
    tally_.held_back = encoder_.drain();
    delivery_->finish();
}

/// Brings everything to the state in which the whole programme has it at the first picture of the warm-up:
/// the input, the phase of the frame-rate division, captions and time codes.
void ProgrammeEncoding::begin_range() {
    const PictureRange& range = *job_.range;
    // Fields of captions alternate between pictures where the rate is high.
    const uint64_t step = 2 * uint64_t{encoder_.frame_rate_divider};
    const uint64_t wanted = range.begin - std::min(range.begin, range.warm_up);
    first_number_ = wanted - wanted % step;
    if (range.begin % encoder_.frame_rate_divider != 0)
        throw UsageError(
            fmt::format("a range of pictures cannot begin with picture {}, which is left out", range.begin));
    KeyIndex index;
    if (range.key) index.keys = {*range.key};
    if (!input_->begin_at(first_number_, index)) {
        input_.emplace(job_.input, input_options(job_), stop_request());
        input_->begin_at(first_number_, {});
    }
    for (uint64_t number = 0; number < first_number_; number += encoder_.frame_rate_divider) {
        services_.note(static_cast<int64_t>(number),
                       captions_->next(number, number / encoder_.frame_rate_divider));
        captions_->after(PictureFate::kEncoded);
        captions_->emitted({.bytes = {}, .pts = static_cast<int64_t>(number), .ancillary = true});
    }
}

void ProgrammeEncoding::configure_encoder() {
    encoder_.adapt_to_load(job_.adapt);
    encoder_.describe_source(input_->format());
    for (const auto& [key, value] : job_.settings) encoder_.apply(key, value);
    if (job_.threads > 0) encoder_.apply("maximum threads", std::to_string(job_.threads));
    choose_caption_forms(encoder_,
                         {.wanted = job_.captions.carry_over,
                          .present = input_->has_captions() || has_files(),
                          .scte20 = job_.captions.scte20},
                         job_.decided);
    if (format_.container == Container::kHls && setting_of(job_, "closed gop").empty()) {
        encoder_.apply("closed gop", "1");
        note("\"closed gop\" is 1: players of HLS begin with any segment\n");
    }
    encoder_.global_header = format_.wants_global_header();
    if (const std::string warning = long_picture_warning(encoder_); !warning.empty()) {
        notes_ += warning + "\n";
        observer_.warn(warning);
    }
}

void ProgrammeEncoding::open_encoder() {
    if (!encoder_.open(signalled_by(input_->first()))) {
        if (!encoder_.enabled)
            throw UsageError("the setting \"enable\" is off, so that nothing would be encoded");
        const std::string notes = encoding::one_line(encoder_.last_notes);
        throw Failure(fmt::format(
            "the {} encoder does not open: {}{}; {}", gsve_encoder_str[encoder_.codec_id],
            encoder_.last_error, notes.empty() ? "" : fmt::format(" ({})", notes), opening_advice(encoder_)));
    }
    const int threads = encoder_.mpeg_context->thread_count;
    if (job_.threads > 0 && threads != job_.threads)
        throw Failure(fmt::format(
            "the job is for {} threads, and here the codec takes {}, with which the stream would be another: "
            "make the job for {}",
            job_.threads, threads, threads));
    job_.threads = threads;
    job_.decoder_threads = input_->decoder_threads();
    encoder_.send_units_to([this](encoding::EncodedUnit unit) {
        unit.pts += static_cast<int64_t>(first_number_);
        unit.dts += static_cast<int64_t>(first_number_);
        if (quality_) quality_->unit(unit);
        captions_->emitted(unit);
        if (!is_wanted(unit.pts)) return;
        const bool begins =
            job_.range && job_.range->begin > 0 && unit.pts == static_cast<int64_t>(job_.range->begin);
        std::vector<uint8_t> anew;
        if (begins && encoder_.codec_id == encoding::kH265) unit.bytes = anew = beginning_anew(unit.bytes);
        delivery_->write(unit);
        tally_.unit(unit);
    });
}

void ProgrammeEncoding::open_captions() {
    forms_ = caption_forms(encoder_, job_.captions.scte20);
    encoder_.carry_line_rate(forms_.line_rate);
    if (forms_.scte20) encoder_.carry_scte20();
    const captions::FrameRate source = encoding::caption_rate(input_->own_rate());
    const captions::FrameRate encoded = encoding::caption_rate(encoder_.encoded_rate());
    captions_.emplace(forms_, source, encoded);
    caption_source_ = has_files()                                          ? "file"
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

void ProgrammeEncoding::open_timecodes() {
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

/// Of each track that is to be brought to another: what a first reading of the whole input tells.
std::map<int, Loudness> ProgrammeEncoding::measured_loudness() {
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

void ProgrammeEncoding::open_output() {
    companions_.emplace(*input_, job_.sound, format_, measured_loudness());
    note(companions_->opening_notes());
    Companions companions = companions_->companions();
    companions.transport = job_.transport;
    if (job_.transport.rate > 0) check_mux_rate(companions);
    if (format_.container == Container::kMxf) check_mxf_rate();
    if (format_.container == Container::kTransportStream)
        check_pids(job_.transport, companions.streams.size() + 1);
    if (format_.has_timecode()) companions.timecode = first_timecode_;
    output_ = programme::open_output(format_, job_.output, encoder_, companions);
}

/// Throws UsageError where the streams do not fit into the transport stream.
void ProgrammeEncoding::check_mux_rate(const Companions& companions) {
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
void ProgrammeEncoding::check_mxf_rate() const {
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

void ProgrammeEncoding::encode(const Picture& picture) {
    take_in_captions();
    delivery_->pass(input_->take_packets());
    const Ancillary ancillary = ancillary_of(picture);
    encoding::PictureView view = picture.view();
    view.number -= first_number_;
    const PictureFate fate = encoder_.push(view, ancillary);
    if (quality_ && fate == PictureFate::kEncoded) quality_->given(*encoder_.mpeg_frame, picture.number);
    captions_->after(fate);
    if (fate == PictureFate::kDropped && untold_shape_.empty()) untold_shape_ = ancillary.shape;
    if (is_wanted(static_cast<int64_t>(picture.number))) tally_.picture(fate);
    observer_.progress(tally_);
}

/// The captions of all pictures that have been decoded, ahead of those that are encoded.
void ProgrammeEncoding::take_in_captions() {
    for (SourceCaptions& decoded : input_->take_captions()) {
        if (captions_->push(decoded.frame, std::move(decoded.captions)).all() > 0) caption_source_ = "input";
    }
    if (input_->decoded_all()) captions_->finish();
}

Ancillary ProgrammeEncoding::ancillary_of(const Picture& picture) {
    Ancillary ancillary = signalled_by(picture);
    const auto number = static_cast<int64_t>(picture.number);
    if (timecodes_ && job_.timecode == kSourceTimecode) timecodes_->follow(number, picture.timecode);
    if (ancillary.shape.empty()) ancillary.shape = untold_shape_;
    const bool taken = encoder_.takes(picture.number - first_number_);
    untold_shape_ = taken ? encoding::PictureShape() : ancillary.shape;
    if (!taken) return ancillary;
    if (job_.range && job_.range->begin > 0) begin_independently(ancillary, picture.number);
    if (timecodes_)
        ancillary.timecode = captions::gop_timecode(
            timecodes_->at(number / static_cast<int64_t>(encoder_.frame_rate_divider)));
    ancillary.captions = captions_->next(
        picture.number, first_number_ / encoder_.frame_rate_divider + encoder_.input_frame_count);
    services_.note(number, ancillary.captions);
    // Readers take the order of the fields from the picture's top_field_first, which is 0 in progressive
    // ones.
    const bool top_field_first = picture.field_order == 1 && encoder_.resize_deinterlace < 0;
    if (forms_.scte20) ancillary.scte20 = encoding::scte20_body(ancillary.captions, top_field_first);
    return ancillary;
}

/// The first picture of a range is a key picture, and none that is shown before it is coded after it.
void ProgrammeEncoding::begin_independently(Ancillary& ancillary, uint64_t number) {
    const uint64_t begin = job_.range->begin;
    const uint64_t reach =
        (static_cast<uint64_t>(std::max(encoder_.b_frames, 0)) + 2) * encoder_.frame_rate_divider;
    ancillary.key = number == begin;
    encoder_.close_gops(number + reach >= begin && number <= begin + reach);
}

void ProgrammeEncoding::finish() {
    companions_->finish(*output_, input_->origin() + input_->time_of(static_cast<int64_t>(tally_.pictures)));
    output_->declare_captions(services_.names());
    // Packets are read ahead of the pictures, and more so the farther the codec looks ahead.
    if (observer_.stop_reason() != 0) output_->end_with_picture();
    output_->finish();
    elapsed_ = std::chrono::duration<double>(Clock::now() - start_).count();
}

EncodeResult ProgrammeEncoding::result() {
    EncodeResult result;
    result.job = job_;
    result.codec = gsve_encoder_str[encoder_.codec_id];
    result.width = encoder_.output_width;
    result.height = encoder_.output_height;
    result.frame_rate = encoding::caption_rate(encoder_.encoded_rate());
    result.adapts_to_load = encoder_.codec_id == encoding::kMpeg2 && job_.adapt;
    result.repeatable = repeats_its_bytes(encoder_, result.adapts_to_load);
    result.streams = companions_->accounts();
    result.captions =
        captions_->account(first_number_ / encoder_.frame_rate_divider + encoder_.input_frame_count);
    result.captions.source = caption_source_;
    result.captions.parity = input_->parity_damage();
    result.captions.warnings = count_warnings(caption_report_);
    if (forms_.cc) result.captions.pairs_after_last_cc = encoder_.pairs_after_last_cc();
    result.timecode = first_timecode_;
    result.stopped_by = observer_.stop_reason();
    if (result.stopped_by == 0 && !job_.range && input_->decoded() != tally_.pictures)
        result.source_pictures = input_->decoded();
    result.status = encoding::status_pairs(encoder_, encoder_.output_name());
    result.tally = tally_;
    result.elapsed = elapsed_;
    if (quality_) result.quality = quality_->finish();
    std::erase_if(result.quality, [this](const PictureQuality& one) { return !is_wanted(one.number); });
    result.notes = notes_;
    result.problem = input_->problem();
    result.damage = input_->damage();
    return result;
}

}  // namespace

void Observer::note(std::string_view) {}
void Observer::warn(std::string_view) {}
void Observer::begin(std::optional<uint64_t>) {}
void Observer::progress(const Tally&) {}
int Observer::stop_reason() { return 0; }

EncodeResult encode_programme(const EncodeJob& job, Observer& observer) {
    check(job);
    return ProgrammeEncoding(job, observer).run();
}

}  // namespace gsve::programme
