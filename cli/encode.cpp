#include "encode.h"

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
        codec = value;
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
    return all;
}

SourceOptions source_options(const EncodeOptions& options, const std::vector<KeyValue>& settings) {
    SourceOptions source;
    if (!options.frame_rate.empty() &&
        av_parse_video_rate(&source.frame_rate, options.frame_rate.c_str()) < 0)
        throw UsageError(fmt::format("--rate takes a frame rate such as 25 or 30000/1001, not \"{}\"",
                                     options.frame_rate));
    for (const auto& [key, value] : settings)
        if (key == "chroma format") source.chroma_format = value;
    return source;
}

void check_output(const EncodeOptions& options) {
    std::error_code absent;
    if (std::filesystem::equivalent(options.input, options.output, absent))
        throw UsageError("input and output are the same file");
    if (!options.overwrite && std::filesystem::is_regular_file(options.output, absent))
        throw UsageError(fmt::format("{} exists: give -y to overwrite it", options.output));
}

/// At a constant rate, libavcodec's MPEG-2 encoder ends the process when one picture takes more than about
/// 0.73 s of the rate (vbv_delay is 16 bits of a 90 kHz clock). Even at the coarsest quantiser, an I-picture
/// may take around half a bit per sample.
void warn_of_starvation(const EncodeOptions& options, const Host& host) {
    constexpr double kLongestDelay = 65535 / 90000.0;
    constexpr double kBitsPerSample = 0.6;
    const int lowest = host.min_bitrate >= 0 ? host.min_bitrate : host.bitrate;
    const int highest = host.max_bitrate >= 0 ? host.max_bitrate : host.bitrate;
    const double samples = static_cast<double>(host.input_width) * host.input_height;
    if (host.codec_id != 2 || lowest != highest || host.resize_width > 0) return;
    if (kLongestDelay * host.bitrate >= kBitsPerSample * samples) return;
    note(options,
         fmt::format("gsve: {} bits/s is very little for {}x{} MPEG-2 at a constant rate, and the codec may "
                     "give up: raise \"bitrate\", or --set \"min bitrate=0\"\n",
                     host.bitrate, host.input_width, host.input_height));
}

std::string one_line(std::string text) {
    while (text.ends_with('\n')) text.pop_back();
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) text.replace(at, 1, ", ");
    return text;
}

std::string advice(const Host& host) {
    const AVRational rate = {host.frame_rate_num, host.frame_rate_den};
    if (host.last_error == "Bitrate out of range") return "--set \"bitrate=N\" with N from 10000";
    if (host.output_pixel_format == AV_PIX_FMT_YUV411P)
        return "no codec has 4:1:1: --set \"chroma format=4:2:0\"";
    if (host.codec_id == 2 && av_cmp_q(rate, broadcast_rate(rate)) != 0)
        return fmt::format("MPEG-2 may not have {:.3f} pictures/s: --rate {}/{}", av_q2d(rate),
                           broadcast_rate(rate).num, broadcast_rate(rate).den);
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
    av_log_set_level(options.verbose ? AV_LOG_INFO : options.quiet ? AV_LOG_ERROR : AV_LOG_WARNING);
    const OutputFormat& format = output_format(options.output);
    const std::vector<KeyValue> settings = choose_settings(options, format);
    const SourceOptions wanted = source_options(options, settings);
    check_output(options);

    catch_stop_signals();
    Source source(options.input, wanted);
    note(options, source.notes());

    Host host(std::filesystem::path(options.output).stem());
    host.describe_source(source.format());
    for (const auto& [key, value] : settings) host.on_set(key.c_str(), value.c_str(), false);
    host.global_header = format.wants_global_header();
    warn_of_starvation(options, host);
    open_encoder(host, source.first());

    const std::unique_ptr<Sink> sink = open_sink(format, options.output, host);
    PictureTypeReader types(*host.mpeg_context);
    Tally tally(source.format().frame_rate);
    host.send_units_to([&](const EncodedUnit& unit) {
        sink->write(unit);
        tally.unit(unit, types.type(unit.bytes));
    });

    const std::vector<BeforePicture> before_picture;
    Summary summary;
    {
        Progress progress(!options.quiet, source.expected_pictures());
        while (const std::optional<Picture> picture = source.next()) {
            for (const BeforePicture& step : before_picture) step(host, *picture);
            tally.picture(host.encode(*picture));
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
    summary.frame_rate = av_mul_q(source.format().frame_rate, {1, static_cast<int>(host.frame_rate_divider)});
    summary.stopped_by = stop_signal();
    if (!stop_signal() && source.decoded() != tally.pictures) summary.source_pictures = source.decoded();
    summary.status = status_pairs(host, host.output_name());
    print_results(options, summary, tally);

    if (!source.problem().empty()) throw Failure(source.problem());
    return stop_signal() ? kExitSignal + stop_signal() : 0;
}

}  // namespace gsve::cli
