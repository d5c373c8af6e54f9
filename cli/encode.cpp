#include "encode.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>

#include <fmt/format.h>

extern "C" {
#include <libavutil/parseutils.h>
}

#include "picture_type.h"
#include "progress.h"
#include "settings.h"
#include "sink.h"
#include "status.h"
#include "stop.h"
#include "summary.h"
#include "timecode_feed.h"
#include "vbv_delay.h"

namespace gsve::cli {
namespace {

void note(const EncodeOptions& options, std::string_view lines) {
    if (!options.quiet) fmt::print(stderr, "{}", lines);
}

/// The codec that --codec, --set "encoder=..." and the output's name ask for together.
std::string choose_codec(const EncodeOptions& options, const std::vector<KeyValue>& given,
                         const OutputFormat& format) {
    std::string codec = options.codec;
    for (const auto& [key, value] : given) {
        if (key != "encoder") continue;
        if (!codec.empty() && codec != value)
            throw UsageError(fmt::format("two codecs are asked for, {} and {}: give one", codec, value));
        codec = value.empty() ? "none" : value;
    }
    if (codec == "none")
        throw UsageError("the encoder \"none\" encodes nothing: choose mpeg-2, h.264 or h.265");
    if (codec.empty()) return format.codec.empty() ? "h.264" : std::string(format.codec);
    if (!format.codec.empty() && codec != format.codec)
        throw UsageError(fmt::format("{} is for {}, not {}: change the output's extension or the codec",
                                     options.output, format.codec, codec));
    return codec;
}

/// All settings to apply, in order; a key's last value holds.
std::vector<KeyValue> choose_settings(const EncodeOptions& options, const OutputFormat& format) {
    std::vector<KeyValue> given;
    for (const std::string& text : options.settings) given.push_back(parse_setting(text));
    std::vector<KeyValue> all = {{"enable", "1"}, {"encoder", choose_codec(options, given, format)}};
    all.insert(all.end(), given.begin(), given.end());
    check_together(all);
    return all;
}

SourceOptions source_options(const EncodeOptions& options, const std::vector<KeyValue>& settings) {
    SourceOptions source;
    if (!options.frame_rate.empty() &&
        av_parse_video_rate(&source.frame_rate, options.frame_rate.c_str()) < 0)
        throw UsageError(fmt::format("--rate takes a frame rate such as 25 or 30000/1001, not \"{}\"",
                                     options.frame_rate));
    if (!options.frame_rate.empty() && (av_q2d(source.frame_rate) < 1 || av_q2d(source.frame_rate) > 1000))
        throw UsageError(fmt::format("--rate takes 1 to 1000 pictures/s, not \"{}\"", options.frame_rate));
    for (const auto& [key, value] : settings)
        if (key == "chroma format") source.chroma_format = value;
    source.captions = options.captions.carry_over && options.captions.files.empty();
    return source;
}

std::string last_value(const std::vector<KeyValue>& settings, std::string_view key) {
    std::string last;
    for (const auto& [name, value] : settings)
        if (name == key) last = value;
    return last;
}

/// Chooses the caption forms, where the user has not decided: none where captions are not wanted, else A/53
/// where there are captions, and no "CC" user data beside it or SCTE 20, which says the same once more.
/// Readers that know both, FFmpeg among them, mix them up.
void choose_caption_forms(Host& host, const std::vector<KeyValue>& given, const CaptionOptions& options,
                          bool present) {
    const bool wanted = options.carry_over;
    const auto choose = [&](const char* key, const char* value) {
        const bool decided = std::any_of(given.begin(), given.end(),
                                         [key](const KeyValue& setting) { return setting.first == key; });
        if (!decided) host.on_set(key, value, false);
    };
    if (!wanted || present) choose("enable cea-708", wanted ? "1" : "0");
    if (!wanted || host.enabled_cea708() || options.scte20) choose("enable eia-608", "0");
}

void check_output(const EncodeOptions& options) {
    std::error_code absent;
    const std::filesystem::path directory = std::filesystem::path(options.output).parent_path();
    if (!directory.empty() && !std::filesystem::is_directory(directory, absent))
        throw Failure(fmt::format("cannot write {}: there is no directory {}; create it or name another",
                                  options.output, directory.string()));
    if (std::filesystem::is_directory(options.output, absent))
        throw Failure(fmt::format("cannot write {}: it is a directory; name a file", options.output));
    if (std::filesystem::equivalent(options.input, options.output, absent))
        throw UsageError("input and output are the same file");
    if (!options.overwrite && std::filesystem::is_regular_file(options.output, absent))
        throw UsageError(fmt::format("{} exists: give -y to overwrite it", options.output));
}

/// Quiet or not, a user has to know why no file came out.
void warn_of_long_pictures(const Host& host) {
    const VbvDelayAdvice advice = vbv_delay_advice(host);
    if (!advice.needed) return;
    fmt::print(
        stderr,
        "gsve: at a constant {} bits/s a noisy picture can take more than the {:.2f} s that MPEG-2 has "
        "for it, and libavcodec then ends the program: --set \"min bitrate=0\", or --set \"buffer "
        "size={}\", or give {} bits/s\n",
        host.bitrate, kLongestVbvDelay, advice.buffer_size, advice.bitrate);
}

/// Why the codec may have refused, the likeliest first.
std::string advice(const Host& host) {
    constexpr int kMostBPictures = 16;
    const bool mpeg2 = host.codec_id == kMpeg2, h265 = host.codec_id == kH265;
    const bool main_profile = host.h264_profile == "main" || (host.h264_profile.empty() && host.b_frames > 0);
    const bool interlaced = host.input_interlaced && host.resize_deinterlace < 0;
    const bool subsampled = host.output_chroma_shift_x > 0;
    const AVRational source = {host.frame_rate_num, host.frame_rate_den};
    const double buffer = host.buffer_size > 0 ? host.buffer_size : std::min(host.bitrate / 4, 1835008);
    const double bits_per_picture = host.bitrate / av_q2d(host.encoded_rate());
    const std::pair<bool, std::string> cases[] = {
        {h265 && !main_profile, "H.265 has the main profile: --set \"h.264 profile=main\""},
        {host.b_frames > kMostBPictures, "no codec takes more than 16 B-pictures: --set \"b frames=16\""},
        {host.resize_width > 0 && subsampled && (host.resize_width % 2 > 0 || host.resize_height % 2 > 0),
         "this chroma format needs even sizes: change \"resize\", or --set \"h.264 profile=high444\""},
        {interlaced && host.resize_height % 4 > 0,
         "interlaced pictures need a height in multiples of 4: change \"resize\""},
        {host.output_pixel_format == AV_PIX_FMT_YUV411P, "no codec has 4:1:1: --set \"chroma format=4:2:0\""},
        {mpeg2 && buffer < bits_per_picture,
         fmt::format("MPEG-2 needs room for a picture in its buffer: --set \"buffer size={:.0f}\" --set "
                     "\"min bitrate=0\"",
                     std::ceil(bits_per_picture))},
        {mpeg2 && av_cmp_q(source, broadcast_rate(source)) != 0,
         fmt::format("MPEG-2 may not have {:.3f} pictures/s: --rate {}/{}", av_q2d(source),
                     broadcast_rate(source).num, broadcast_rate(source).den)},
        {host.max_bitrate >= 0 && host.max_bitrate < std::max(host.bitrate, host.min_bitrate),
         "\"max bitrate\" is below \"bitrate\" or \"min bitrate\": raise it"},
        {host.maximum_quant > 0 && host.minimum_quant > host.maximum_quant,
         "\"minimum quant\" is above \"maximum quant\": lower it"},
    };
    for (const auto& [applies, text] : cases)
        if (applies) return text;
    return "check the settings; --verbose shows what the codec says";
}

void open_encoder(Host& host, const Picture& first) {
    if (host.open(first)) return;
    if (!host.enabled) throw UsageError("the setting \"enable\" is off, so that nothing would be encoded");
    const std::string notes = one_line(host.last_notes);
    throw Failure(fmt::format("the {} encoder does not open: {}{}; {}", gsve_encoder_str[host.codec_id],
                              host.last_error, notes.empty() ? "" : fmt::format(" ({})", notes),
                              advice(host)));
}

void print_results(const EncodeOptions& options, const Summary& summary, const Tally& tally) {
    if (options.report == Report::kJson) {
        fmt::print("{}", report_json(summary, tally));
        return;
    }
    if (!options.quiet) fmt::print("{}", summary_text(summary, tally));
    if (options.report == Report::kText) fmt::print("{}", status_text(summary));
}

}  // namespace

int encode(const EncodeOptions& options) {
    av_log_set_level(options.verbose ? AV_LOG_INFO : AV_LOG_ERROR);
    const OutputFormat& format = output_format(options.output);
    const std::vector<KeyValue> settings = choose_settings(options, format);
    const std::string codec = last_value(settings, "encoder");
    check_caption_options(options.captions, codec);
    check_timecode_option(options.timecode, codec);
    const SourceOptions wanted = source_options(options, settings);
    check_output(options);

    catch_stop_signals();
    Source source(options.input, wanted);
    note(options, source.notes());

    Host host(std::filesystem::path(options.output).stem());
    host.adapt_to_load(options.adapt);
    host.describe_source(source.format());
    for (const auto& [key, value] : settings) host.on_set(key.c_str(), value.c_str(), false);
    choose_caption_forms(host, settings, options.captions,
                         source.has_captions() || !options.captions.files.empty());
    host.global_header = format.wants_global_header();
    warn_of_long_pictures(host);
    open_encoder(host, source.first());
    CaptionFeed captions(options.captions, source, host);
    source.read_ahead(captions.foresight(source));
    for (const std::string& line : captions.report().lines()) note(options, fmt::format("{}\n", line));
    std::optional<TimecodeFeed> timecodes;
    if (!options.timecode.empty()) timecodes.emplace(options.timecode, source, host).attach(host);

    const std::unique_ptr<Sink> sink = open_sink(format, options.output, host);
    PictureTypeReader types(*host.mpeg_context);
    Tally tally(source.format().frame_rate);
    host.send_units_to([&](const EncodedUnit& unit) {
        sink->write(unit);
        tally.unit(unit, types.type(unit.bytes));
        captions.emitted(unit);
    });

    Summary summary;
    {
        Progress progress(!options.quiet, source.expected_pictures());
        while (const std::optional<Picture> picture = source.next()) {
            captions.before(source, host, *picture);
            if (timecodes) timecodes->before(host, *picture);
            const Outcome outcome = host.encode(*picture);
            captions.after(outcome);
            tally.picture(outcome);
            progress.show(tally);
        }
        tally.held_back = host.drain();
        sink->finish();
        summary.elapsed = progress.elapsed_seconds();
    }

    summary.input = options.input;
    summary.output = options.output;
    summary.codec = gsve_encoder_str[host.codec_id];
    summary.width = host.output_width;
    summary.height = host.output_height;
    summary.frame_rate = host.encoded_rate();
    summary.captions = captions.account(host);
    summary.threads = host.mpeg_context->thread_count;
    summary.adapts_to_load = host.codec_id == kMpeg2 && options.adapt;
    if (timecodes) summary.timecode = format_timecode(timecodes->first());
    summary.stopped_by = stop_signal();
    if (!stop_signal() && source.decoded() != tally.pictures) summary.source_pictures = source.decoded();
    summary.status = status_pairs(host, host.output_name());
    if (!stop_signal()) note(options, caption_losses(summary.captions, summary.codec));
    print_results(options, summary, tally);

    if (!source.problem().empty()) throw Failure(source.problem());
    check_complete(tally);
    return stop_signal() ? kExitSignal + stop_signal() : 0;
}

}  // namespace gsve::cli
