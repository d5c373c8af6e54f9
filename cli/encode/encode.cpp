#include "cli/encode/encode.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "cli/exit_status.h"
#include "cli/overwriting.h"
#include "cli/standard_error.h"
#include "cli/terminal.h"
#include "encoding/error.h"
#include "encoding/settings.h"
#include "programme/caption_inventory.h"
#include "programme/encode_programme.h"
#include "programme/file_name.h"
#include "programme/loudness.h"
#include "programme/output.h"
#include "programme/output_file.h"
#include "programme/stream_inspection.h"
#include "report/damage_report.h"
#include "report/encode_report.h"
#include "report/inspection_page.h"

namespace gsve::cli {
namespace {

using encoding::KeyValue;
using programme::EncodeResult;

/// The codec that --codec, --set "encoder=..." and the output's name ask for together.
std::string choose_codec(const EncodeOptions& options, const std::vector<KeyValue>& given) {
    const programme::OutputFormat format = programme::output_format(options.output, options.format);
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

void print_results(const EncodeOptions& options, const EncodeResult& result) {
    // Beside the stream, where that goes to standard output.
    std::FILE* const out = programme::is_standard_stream(options.output) ? user_stream() : stdout;
    if (options.report == ReportFormat::kJson) {
        fmt::print(out, "{}", report::encode_json(result));
        return;
    }
    if (!options.quiet) fmt::print(out, "{}", report::summary_text(result));
    if (options.report == ReportFormat::kText) fmt::print(out, "{}", report::status_text(result));
}

/// What is damaged or missing of the input; empty: nothing is known to be.
std::string damage_note(const EncodeResult& result) {
    std::vector<std::string> parts;
    if (result.damage.any()) parts.push_back(report::damage_text(result.damage));
    for (const programme::StreamAccount& stream : result.streams)
        if (stream.damaged > 0)
            parts.push_back(
                fmt::format("{} packets of stream {} ({})", stream.damaged, stream.index, stream.kind));
    return parts.empty() ? "" : fmt::format("the input is damaged: {}", fmt::join(parts, "; "));
}

/// What a reader of the finished output finds is part of it.
void write_page(const std::string& path, const EncodeResult& result) {
    report::Findings findings;
    findings.stream = programme::read_stream(result.job.output, true);
    findings.captions = take_inventory(findings.stream);
    findings.sound = programme::loudness_courses(result.job.output);
    programme::write_file(path, report::encode_page(result, findings));
}

void check_page(const EncodeOptions& options) {
    if (programme::is_standard_stream(options.output))
        throw UsageError("--report html=FILE reads the finished output: give OUTPUT a name");
    std::error_code absent;
    const auto is = [&](const std::string& other) {
        return options.page == other || std::filesystem::equivalent(options.page, other, absent);
    };
    if (is(options.input) || is(options.output))
        throw UsageError(
            fmt::format("--report: {} is the input or the output itself: name another file", options.page));
    check_overwriting(options.page, options.overwrite);
}

/// Encodes, and tells of it.
int encode(const programme::EncodeJob& job, const EncodeOptions& options, Terminal& terminal) {
    const EncodeResult result = encode_programme(job, terminal);
    terminal.end_progress();
    if (!result.stopped_by) terminal.note(report::caption_losses(result));
    print_results(options, result);
    if (!options.page.empty()) write_page(options.page, result);
    const std::string damage = damage_note(result);
    if (!damage.empty() && !options.strict) terminal.warn(damage + "; --strict makes this a failure");

    if (!result.problem.empty()) throw Failure(result.problem);
    check_complete(result.tally);
    if (options.strict && !damage.empty()) throw Failure(damage);
    return result.stopped_by ? kExitSignal + result.stopped_by : 0;
}

}  // namespace

programme::EncodeJob job_of(const EncodeOptions& options) {
    std::vector<KeyValue> given;
    for (const std::string& text : options.settings) given.push_back(encoding::parse_setting(text));
    programme::EncodeJob job;
    job.input = options.input;
    job.output = options.output;
    job.format = options.format;
    job.settings = {{"enable", "1"}, {"encoder", choose_codec(options, given)}};
    job.settings.insert(job.settings.end(), given.begin(), given.end());
    for (const auto& [key, value] : given) job.decided.push_back(key);
    job.frame_rate = options.frame_rate;
    job.choice = options.choice;
    job.sound = options.sound;
    job.transport = options.transport;
    job.hls = options.hls;
    job.longest_repeat = options.longest_repeat;
    job.keep_colour = options.colour == "keep";
    job.captions = options.captions;
    job.timecode = options.timecode;
    job.adapt = options.adapt;
    job.decoder_threads = options.decoder_threads;
    job.quality = options.quality;
    return job;
}

int encode(const EncodeOptions& options) {
    const programme::EncodeJob job = job_of(options);
    check(job);
    if (!options.page.empty()) check_page(options);
    if (!programme::is_standard_stream(options.output)) check_overwriting(options.output, options.overwrite);

    return encode(job, options);
}

int encode(const programme::EncodeJob& job, const EncodeOptions& options) {
    return work_at_terminal(options.quiet, options.verbose,
                            [&](Terminal& terminal) { return encode(job, options, terminal); });
}

}  // namespace gsve::cli
