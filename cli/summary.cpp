#include "summary.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "status.h"

namespace gsve::cli {
namespace {

std::string rate_text(double bits_per_second) { return fmt::format("{:.3f} Mbit/s", bits_per_second / 1e6); }

double speed(const Summary& summary, const Tally& tally) {
    return summary.elapsed > 0 ? tally.seconds() / summary.elapsed : 0;
}

/// libx264 and libx265 let the rate of a picture depend on how far their other threads are.
bool repeatable(const Summary& summary) {
    return !summary.adapts_to_load && (summary.codec == "mpeg-2" || summary.threads == 1);
}

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

std::string clock_text(double seconds) {
    const auto hundredths = std::llround(seconds * 100);
    return fmt::format("{:02}:{:02}:{:02}.{:02}", hundredths / 360000, hundredths / 6000 % 60,
                       hundredths / 100 % 60, hundredths % 100);
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
        text += fmt::format("captions: the caption at {} {}: CC{} \"{}\"\n", clock_text(lost[n].time),
                            reason_text(lost[n].reason), lost[n].channel, one_line(lost[n].text));
    if (lost.size() > kMostLines)
        text += fmt::format("captions: and {} more up to {}\n", lost.size() - kMostLines,
                            clock_text(lost.back().time));
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
            {"warnings", account.warnings}};
}

}  // namespace

std::string caption_losses(const CaptionAccount& account, std::string_view codec) {
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
            "captions: {} of the input are not in the stream: {}\n", count_text(account.without_form),
            codec == "h.265" ? "H.265 streams carry none here; choose mpeg-2 or h.264"
                             : "it has no form for them; --set \"enable cea-708=1\" gives it one");
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

std::string summary_text(const Summary& summary, const Tally& tally) {
    std::vector<std::string> types;
    for (const char type : {'I', 'P', 'B', '?'})
        if (const auto found = tally.types.find(type); found != tally.types.end())
            types.push_back(fmt::format("{} {}", found->second, type));

    std::string text =
        fmt::format("{}: {} {}x{} at {:.3f} pictures/s, {} bytes\n", summary.output, summary.codec,
                    summary.width, summary.height, av_q2d(summary.frame_rate), tally.bytes);
    text +=
        fmt::format("  pictures  {} in, {} out ({})\n", tally.pictures, tally.units, fmt::join(types, ", "));
    text += fmt::format("  left out  {} skipped by the frame-rate limit, {} dropped for the bit rate\n",
                        tally.skipped, tally.dropped);
    text += fmt::format("  delay     {} held back by the codec and drained at the end\n", tally.held_back);
    text += fmt::format("  bit rate  {} mean, {} peak over 1 s\n", rate_text(tally.mean_bit_rate()),
                        rate_text(tally.peak_bit_rate()));
    text += fmt::format("  time      {:.2f} s of video in {:.2f} s ({:.2f}x)\n", tally.seconds(),
                        summary.elapsed, speed(summary, tally));
    text +=
        fmt::format("  threads   {}, {}\n", summary.threads,
                    summary.adapts_to_load ? "quality follows the processor's load"
                    : repeatable(summary)  ? "the same bytes each time"
                                           : "other bytes each time (but for --set \"maximum threads=1\")");
    if (summary.captions.source != "none")
        text += fmt::format("  captions  {} from the {}, {} late, at most {:.2f} s\n",
                            count_text(summary.captions.carried), summary.captions.source,
                            summary.captions.delayed_pairs, summary.captions.largest_delay);
    if (!summary.timecode.empty()) text += fmt::format("  timecode  from {}\n", summary.timecode);
    if (summary.source_pictures)
        text += fmt::format("  source    {} pictures, before the frame rate was made constant\n",
                            *summary.source_pictures);
    if (tally.lost() > 0)
        text += fmt::format("  lost      {} taken by the codec and never returned\n", tally.lost());
    if (summary.stopped_by) text += "  stopped   on request; what was encoded is complete\n";
    return text;
}

std::string status_text(const Summary& summary) {
    std::string text;
    for (const auto& [name, value] : summary.status) text += fmt::format("{}: {}\n", name, one_line(value));
    return text;
}

std::string report_json(const Summary& summary, const Tally& tally) {
    nlohmann::ordered_json types = nlohmann::ordered_json::object();
    for (const auto& [type, count] : tally.types) types[std::string(1, type)] = count;
    nlohmann::ordered_json status = nlohmann::ordered_json::object();
    for (const auto& [name, value] : summary.status) status[std::string(pair_subject(name))] = value;
    const nlohmann::ordered_json report = {
        {"input", summary.input},
        {"output", summary.output},
        {"encoder", summary.codec},
        {"width", summary.width},
        {"height", summary.height},
        {"frame_rate", fmt::format("{}/{}", summary.frame_rate.num, summary.frame_rate.den)},
        {"threads", summary.threads},
        {"adapts_to_load", summary.adapts_to_load},
        {"repeatable", repeatable(summary)},
        {"pictures",
         {{"decoded", summary.source_pictures.value_or(tally.pictures)},
          {"in", tally.pictures},
          {"out", tally.units},
          {"skipped", tally.skipped},
          {"dropped", tally.dropped},
          {"held_back", tally.held_back},
          {"lost", tally.lost()},
          {"types", types}}},
        {"bytes", tally.bytes},
        {"bit_rate", {{"mean", tally.mean_bit_rate()}, {"peak", tally.peak_bit_rate()}}},
        {"captions", captions_json(summary.captions)},
        {"timecode", summary.timecode},
        {"seconds", tally.seconds()},
        {"elapsed", summary.elapsed},
        {"speed", speed(summary, tally)},
        {"stopped_by", summary.stopped_by},
        {"status", status},
    };
    // File names and texts may hold anything; what is not UTF-8 is replaced.
    return report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace gsve::cli
