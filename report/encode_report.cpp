#include "report/encode_report.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "encoding/status_text.h"
#include "report/damage_report.h"
#include "report/times.h"

namespace gsve::report {
namespace {

using encoding::CaptionAccount;
using encoding::CaptionCount;
using encoding::LostCaption;
using programme::EncodeResult;
using programme::Loudness;
using programme::StreamAccount;
using programme::Tally;

std::string rate_text(double bits_per_second) { return fmt::format("{:.3f} Mbit/s", bits_per_second / 1e6); }

std::string count_text(const CaptionCount& count) {
    return fmt::format("{} byte pairs and {} CEA-708 constructs", count.pairs, count.constructs);
}

nlohmann::ordered_json count_json(const CaptionCount& count) {
    return {{"eia608_pairs", count.pairs}, {"cea708_constructs", count.constructs}};
}

nlohmann::ordered_json lost_json(const std::vector<LostCaption>& lost) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const LostCaption& caption : lost)
        list.push_back({{"time", caption.time},
                        {"channel", fmt::format("CC{}", caption.channel)},
                        {"cut_short", caption.reason == LostCaption::Reason::kCutShort},
                        {"text", caption.text}});
    return list;
}

const char* reason_text(LostCaption::Reason reason) {
    switch (reason) {
        case LostCaption::Reason::kDidNotFit: return "did not fit before the last picture";
        case LostCaption::Reason::kCutShort: return "is cut short by the last picture";
        case LostCaption::Reason::kAfterTheEnd: return "comes after the last picture";
    }
    return "is lost";
}

/// A line for each caption; where a whole file's captions come too late, for the first ones.
std::string lost_text(const std::vector<LostCaption>& lost) {
    constexpr size_t kMostLines = 20;
    std::string text;
    for (size_t n = 0; n < std::min(lost.size(), kMostLines); n++)
        text += fmt::format("captions: the caption at {} {}: CC{} \"{}\"\n", coarse_clock_text(lost[n].time),
                            reason_text(lost[n].reason), lost[n].channel, encoding::one_line(lost[n].text));
    if (lost.size() > kMostLines)
        text += fmt::format("captions: and {} more up to {}\n", lost.size() - kMostLines,
                            coarse_clock_text(lost.back().time));
    return text;
}

nlohmann::ordered_json captions_json(const CaptionAccount& account) {
    return {{"source", account.source},
            {"carried", count_json(account.carried)},
            {"left_over", account.left_over.all()},
            {"lost", lost_json(account.lost)},
            {"repetitions_left_out", account.repetitions_left_out},
            {"without_form", count_json(account.without_form)},
            {"expired", count_json(account.expired)},
            {"pairs_after_last_cc", account.pairs_after_last_cc},
            {"delayed_pairs", account.delayed_pairs},
            {"largest_delay", account.largest_delay},
            {"parity",
             {{"control_pairs_dropped", account.parity.control_pairs},
              {"characters_replaced", account.parity.characters}}},
            {"warnings", account.warnings}};
}

nlohmann::ordered_json loudness_json(const std::optional<Loudness>& loudness) {
    if (!loudness) return nullptr;
    nlohmann::ordered_json json = {{"integrated", nullptr}, {"true_peak", nullptr}};
    if (loudness->integrated) json["integrated"] = *loudness->integrated;
    if (!std::isinf(loudness->true_peak)) json["true_peak"] = loudness->true_peak;
    return json;
}

const char* treatment_name(programme::Treatment treatment) {
    switch (treatment) {
        case programme::Treatment::kCarried: return "carried";
        case programme::Treatment::kConverted: return "converted";
        case programme::Treatment::kNamed: break;
    }
    return "left out";
}

/// A line for each stream that is in the output, and its loudness where that was measured.
std::string streams_text(const std::vector<StreamAccount>& streams) {
    std::string text;
    for (const StreamAccount& stream : streams) {
        if (stream.codec_out.empty()) continue;
        text += fmt::format(
            "  stream {:<2} {}{}{}, {}{}, {} packets{}\n", stream.index, stream.kind,
            stream.language.empty() ? "" : " ", stream.language, stream.codec,
            stream.treatment == programme::Treatment::kCarried ? " as it is" : " to " + stream.codec_out,
            stream.packets,
            stream.damaged > 0 ? fmt::format(", {} of the input damaged", stream.damaged) : "");
        if (stream.loudness && stream.loudness_out)
            text += fmt::format("  loudness  {}; before {}\n", loudness_text(*stream.loudness_out),
                                loudness_text(*stream.loudness));
    }
    return text;
}

nlohmann::ordered_json streams_json(const std::vector<StreamAccount>& streams) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const StreamAccount& stream : streams)
        list.push_back({{"number", stream.index},
                        {"kind", stream.kind},
                        {"codec", stream.codec},
                        {"language", stream.language},
                        {"treatment", treatment_name(stream.treatment)},
                        {"codec_out", stream.codec_out},
                        {"why_left_out", stream.why},
                        {"packets", stream.packets},
                        {"damaged", stream.damaged},
                        {"loudness", loudness_json(stream.loudness)},
                        {"loudness_out", loudness_json(stream.loudness_out)}});
    return list;
}

nlohmann::ordered_json quality_json(const EncodeResult& result) {
    if (result.quality.empty()) return nullptr;
    const programme::QualitySummary quality = summary_of(result.quality);
    // JSON has no number for what is equal in every sample.
    const auto decibels = [](double psnr) {
        return std::isinf(psnr) ? nlohmann::ordered_json() : nlohmann::ordered_json(psnr);
    };
    return {{"pictures", result.quality.size()},
            {"psnr", {{"mean", decibels(quality.psnr)}, {"least", decibels(quality.least_psnr)}}},
            {"ssim", {{"mean", quality.ssim}, {"least", quality.least_ssim}}},
            {"worst_picture", quality.worst}};
}

}  // namespace

double speed_of(const EncodeResult& result) {
    return result.elapsed > 0 ? result.tally.seconds() / result.elapsed : 0;
}

std::string loudness_text(const Loudness& loudness) {
    return fmt::format(
        "{}, true peak {}",
        loudness.integrated ? fmt::format("{:.1f} LUFS", *loudness.integrated) : "no loudness",
        std::isinf(loudness.true_peak) ? "none" : fmt::format("{:.1f} dBTP", loudness.true_peak));
}

std::string caption_losses(const EncodeResult& result) {
    const CaptionAccount& account = result.captions;
    std::string text;
    if (account.left_over.all() > 0)
        text += fmt::format(
            "captions: {} are not in the stream: they waited when its last picture went in{}\n",
            count_text(account.left_over),
            account.lost.empty() && account.left_over.constructs == 0 ? ", and no caption is lost with them"
                                                                      : "");
    text += lost_text(account.lost);
    if (account.without_form.all() > 0)
        text += fmt::format(
            "captions: {} of the input are not in the stream: it has no form for them; --set \"enable "
            "cea-708=1\" gives it one\n",
            count_text(account.without_form));
    if (account.expired.all() > 0)
        text += fmt::format(
            "captions: {} are not in the stream: the codec held their pictures for too long (choose a "
            "faster \"h.264 preset\")\n",
            count_text(account.expired));
    if (account.pairs_after_last_cc > 0)
        text += fmt::format(
            "captions: the last {} byte pairs are not in the \"CC\" user data, which ends before the last "
            "pictures\n",
            account.pairs_after_last_cc);
    return text;
}

std::string summary_text(const EncodeResult& result) {
    const Tally& tally = result.tally;
    std::vector<std::string> types;
    for (const char type : {'I', 'P', 'B', '?'})
        if (const auto found = tally.types.find(type); found != tally.types.end())
            types.push_back(fmt::format("{} {}", found->second, type));

    std::string text =
        fmt::format("{}: {} {}x{} at {:.3f} pictures/s, {} bytes\n", result.job.output, result.codec,
                    result.width, result.height, result.frame_rate.per_second(), tally.bytes);
    text +=
        fmt::format("  pictures  {} in, {} out ({})\n", tally.pictures, tally.units, fmt::join(types, ", "));
    text += fmt::format("  left out  {} skipped by the frame-rate limit, {} dropped for the bit rate\n",
                        tally.skipped, tally.dropped);
    text += fmt::format("  delay     {} held back by the codec and drained at the end\n", tally.held_back);
    text += fmt::format("  bit rate  {} mean, {} peak over 1 s\n", rate_text(tally.mean_bit_rate()),
                        rate_text(tally.peak_bit_rate()));
    text += fmt::format("  time      {:.2f} s of video in {:.2f} s ({:.2f}x)\n", tally.seconds(),
                        result.elapsed, speed_of(result));
    text += fmt::format("  threads   {}, {}\n", result.job.threads,
                        result.adapts_to_load ? "quality follows the processor's load"
                        : result.repeatable   ? "the same bytes each time"
                                            : "other bytes each time (but for --set \"maximum threads=1\")");
    text += streams_text(result.streams);
    if (result.captions.source != "none")
        text += fmt::format("  captions  {} from the {}, {} late, at most {:.2f} s\n",
                            count_text(result.captions.carried), result.captions.source,
                            result.captions.delayed_pairs, result.captions.largest_delay);
    if (result.captions.parity.any())
        text +=
            fmt::format("  parity    {} control pairs of the input dropped, {} characters shown as blocks\n",
                        result.captions.parity.control_pairs, result.captions.parity.characters);
    if (!result.timecode.empty()) text += fmt::format("  timecode  from {}\n", result.timecode);
    if (result.source_pictures)
        text += fmt::format("  source    {} pictures, before the frame rate was made constant\n",
                            *result.source_pictures);
    if (!result.quality.empty()) {
        const programme::QualitySummary quality = summary_of(result.quality);
        text += fmt::format("  quality   PSNR {:.2f} dB, least {:.2f}; SSIM {:.4f}, least {:.4f}\n",
                            quality.psnr, quality.least_psnr, quality.ssim, quality.least_ssim);
    }
    if (result.damage.any()) text += fmt::format("  damage    {}\n", damage_text(result.damage));
    if (tally.lost() > 0)
        text += fmt::format("  lost      {} taken by the codec and never returned\n", tally.lost());
    if (result.stopped_by) text += "  stopped   on request; what was encoded is complete\n";
    return text;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        lines.push_back(text.substr(begin, end - begin));
    return lines;
}

std::string status_text(const EncodeResult& result) {
    std::string text;
    for (const auto& [name, value] : result.status)
        text += fmt::format("{}: {}\n", name, encoding::one_line(value));
    return text;
}

std::string encode_json(const EncodeResult& result) {
    const Tally& tally = result.tally;
    nlohmann::ordered_json types = nlohmann::ordered_json::object();
    for (const auto& [type, count] : tally.types) types[std::string(1, type)] = count;
    nlohmann::ordered_json status = nlohmann::ordered_json::object();
    for (const auto& [name, value] : result.status) status[std::string(encoding::pair_subject(name))] = value;
    const nlohmann::ordered_json json = {
        {"input", result.job.input},
        {"output", result.job.output},
        {"encoder", result.codec},
        {"width", result.width},
        {"height", result.height},
        {"frame_rate", fmt::format("{}/{}", result.frame_rate.num, result.frame_rate.den)},
        {"threads", result.job.threads},
        {"decoder_threads", result.job.decoder_threads},
        {"adapts_to_load", result.adapts_to_load},
        {"repeatable", result.repeatable},
        {"pictures",
         {{"decoded", result.source_pictures.value_or(tally.pictures)},
          {"in", tally.pictures},
          {"out", tally.units},
          {"skipped", tally.skipped},
          {"dropped", tally.dropped},
          {"held_back", tally.held_back},
          {"lost", tally.lost()},
          {"types", types}}},
        {"damage", damage_json(result.damage)},
        {"bytes", tally.bytes},
        {"bit_rate", {{"mean", tally.mean_bit_rate()}, {"peak", tally.peak_bit_rate()}}},
        {"streams", streams_json(result.streams)},
        {"captions", captions_json(result.captions)},
        {"quality", quality_json(result)},
        {"notes", lines_of(result.notes)},
        {"timecode", result.timecode},
        {"seconds", tally.seconds()},
        {"elapsed", result.elapsed},
        {"speed", speed_of(result)},
        {"stopped_by", result.stopped_by},
        {"status", status},
    };
    // File names and texts may hold anything; what is not UTF-8 is replaced.
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace gsve::report
