#include "report/inspection_page.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "captions/timecode.h"
#include "encoding/status_text.h"
#include "page_parts.h"
#include "report/buffer_report.h"
#include "report/damage_report.h"
#include "report/encode_report.h"
#include "report/times.h"

namespace gsve::report {
namespace {

using programme::BufferAccount;
using programme::BufferFinding;
using programme::BufferVerdict;
using programme::CaptionInventory;
using programme::EncodeResult;
using programme::InspectedPicture;
using programme::InspectedStream;
using Json = nlohmann::ordered_json;

// More points than a screen has columns show nothing more; lists of this length are still read by browsers at
// once.
constexpr size_t kMostPoints = 6000, kMostGops = 20'000, kMostFindings = 200;

size_t step_for(size_t count) { return (count + kMostPoints - 1) / std::max(kMostPoints, size_t{1}); }

double kilobits(double bits) { return std::round(bits) / 1000; }

double seconds_of(const InspectedStream& stream) {
    return time_of(stream, static_cast<int64_t>(stream.pictures.size()));
}

double rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

/// The largest picture of each type among every `step`.
Json pictures_json(const InspectedStream& stream, size_t step) {
    constexpr std::string_view kTypes = "IPB";
    Json times = Json::array(), series[3] = {Json::array(), Json::array(), Json::array()};
    for (size_t begin = 0; begin < stream.pictures.size(); begin += step) {
        times.push_back(rounded(stream.pictures[begin].time));
        size_t largest[3] = {};
        for (size_t n = begin; n < std::min(begin + step, stream.pictures.size()); n++) {
            const size_t type = kTypes.find(stream.pictures[n].type);
            if (type != kTypes.npos) largest[type] = std::max(largest[type], stream.pictures[n].bytes);
        }
        for (size_t type = 0; type < 3; type++)
            series[type].push_back(largest[type] ? Json(kilobits(8.0 * static_cast<double>(largest[type])))
                                                 : Json());
    }
    return {{"t", times}, {"I", series[0]}, {"P", series[1]}, {"B", series[2]}};
}

/// Over each second; of a long stream the highest of several.
Json bitrate_json(const InspectedStream& stream) {
    const double length = seconds_of(stream);
    const auto count = static_cast<size_t>(std::max(std::ceil(length), 1.0));
    std::vector<double> bits(count);
    for (const InspectedPicture& picture : stream.pictures)
        bits[std::min(static_cast<size_t>(picture.time), count - 1)] +=
            8.0 * static_cast<double>(picture.bytes);
    const double last = length - static_cast<double>(count - 1);
    if (count > 1 && last > 0) bits.back() /= last;
    const size_t step = step_for(count);
    Json times = Json::array(), rates = Json::array();
    for (size_t begin = 0; begin < count; begin += step) {
        times.push_back(begin);
        rates.push_back(kilobits(
            *std::max_element(bits.begin() + static_cast<ptrdiff_t>(begin),
                              bits.begin() + static_cast<ptrdiff_t>(std::min(begin + step, count)))));
    }
    const bool declared = stream.buffer && !stream.buffer->accounts.empty();
    return {
        {"t", times},
        {"kbits", rates},
        {"declared", declared ? kilobits(static_cast<double>(stream.buffer->accounts.front().bit_rate)) : 0}};
}

/// The fullest and the emptiest of every few pictures.
Json buffer_course_json(const BufferAccount& account) {
    const size_t step = step_for(account.course.size());
    Json times = Json::array(), before = Json::array(), after = Json::array();
    for (size_t begin = 0; begin < account.course.size(); begin += step) {
        int64_t fullest = account.course[begin].before, emptiest = account.course[begin].after();
        for (size_t n = begin; n < std::min(begin + step, account.course.size()); n++) {
            fullest = std::max(fullest, account.course[n].before);
            emptiest = std::min(emptiest, account.course[n].after());
        }
        times.push_back(rounded(account.course[begin].seconds));
        before.push_back(kilobits(static_cast<double>(fullest)));
        after.push_back(kilobits(static_cast<double>(emptiest)));
    }
    return {{"t", times},
            {"before", before},
            {"after", after},
            {"size", kilobits(static_cast<double>(account.size))}};
}

Json captions_json(const InspectedStream& stream, const CaptionInventory& captions) {
    Json list = Json::array();
    if (!captions.carriages.empty())
        for (const captions::TimedText& text : captions.carriages.front().texts)
            list.push_back({{"service", fmt::format("CC{}", text.channel)},
                            {"begin", rounded(time_of(stream, text.begin))},
                            {"end", rounded(time_of(stream, text.end))},
                            {"text", text.text()}});
    // What a CEA-708 service sends is shown until it sends more.
    const double end = seconds_of(stream);
    for (size_t n = 0; n < captions.cea708_texts.size(); n++) {
        const captions::ServiceText& text = captions.cea708_texts[n];
        const auto next = std::find_if(
            captions.cea708_texts.begin() + static_cast<ptrdiff_t>(n) + 1, captions.cea708_texts.end(),
            [&](const captions::ServiceText& other) { return other.service == text.service; });
        list.push_back(
            {{"service", fmt::format("CEA-708 service {}", text.service)},
             {"begin", rounded(time_of(stream, text.frame))},
             {"end", rounded(next == captions.cea708_texts.end() ? end : time_of(stream, next->frame))},
             {"text", text.text}});
    }
    return list;
}

std::string_view what(BufferFinding::Kind kind) {
    switch (kind) {
        case BufferFinding::Kind::kUnderflow: return "have not arrived when the picture is due";
        case BufferFinding::Kind::kOverflow: return "more than the buffer holds";
        case BufferFinding::Kind::kRate: return "arrive beyond the declared rate";
        case BufferFinding::Kind::kInitialDelay: return "off the stated delay";
    }
    return "?";
}

/// What is conspicuous at a time; without one, of the whole.
struct Conspicuous {
    std::optional<double> seconds;
    std::string text;
};

std::string text_of(const programme::DamagedRange& range) {
    return fmt::format("{} {} {}", range.pictures, range.pictures == 1 ? "picture" : "pictures",
                       name_of(range.kind));
}

std::vector<Conspicuous> findings_of(const InspectedStream& stream) {
    std::vector<Conspicuous> findings;
    for (const programme::DamagedRange& range : stream.damage.ranges)
        findings.push_back({range.begin, text_of(range)});
    if (stream.buffer)
        for (const BufferAccount& account : stream.buffer->accounts)
            for (const BufferFinding& finding : account.findings)
                findings.push_back(
                    {finding.seconds, fmt::format("Buffer: {} bits {}", finding.bits, what(finding.kind))});
    if (stream.damage.early_end || !stream.problem.empty())
        findings.push_back(
            {seconds_of(stream), stream.problem.empty() ? "The stream ends early" : stream.problem});
    return findings;
}

/// In the order of their times; what has none comes first.
Json findings_json(std::vector<Conspicuous> findings) {
    std::stable_sort(findings.begin(), findings.end(),
                     [](const auto& a, const auto& b) { return a.seconds < b.seconds; });
    const auto time = [](const Conspicuous& finding) {
        return finding.seconds ? Json(rounded(*finding.seconds)) : Json();
    };
    Json list = Json::array();
    for (size_t n = 0; n < std::min(findings.size(), kMostFindings); n++)
        list.push_back({{"t", time(findings[n])}, {"text", findings[n].text}});
    if (findings.size() > kMostFindings)
        list.push_back({{"t", time(findings[kMostFindings])},
                        {"text", fmt::format("and {} more from here on", findings.size() - kMostFindings)}});
    return list;
}

Json gops_json(const InspectedStream& stream) {
    Json times = Json::array(), types = Json::array(), closed = Json::array(), timecodes = Json::array();
    for (size_t n = 0; n < std::min(stream.gops.size(), kMostGops); n++) {
        const programme::Gop& gop = stream.gops[n];
        times.push_back(rounded(time_of(stream, gop.picture)));
        types.push_back(gop.types);
        closed.push_back(gop.start.closed ? 1 : 0);
        timecodes.push_back(gop.start.timecode ? captions::format_timecode(*gop.start.timecode) : "");
    }
    return {{"t", times},
            {"types", types},
            {"closed", closed},
            {"timecode", timecodes},
            {"more", stream.gops.size() - std::min(stream.gops.size(), kMostGops)}};
}

/// The loudest of every few points.
Json sound_json(const std::vector<programme::LoudnessCourse>& courses) {
    Json list = Json::array();
    for (const programme::LoudnessCourse& course : courses) {
        const size_t step = step_for(course.points.size());
        Json times = Json::array(), loudness = Json::array();
        for (size_t begin = 0; begin < course.points.size(); begin += step) {
            double loudest = course.points[begin].short_term;
            for (size_t n = begin; n < std::min(begin + step, course.points.size()); n++)
                loudest = std::max(loudest, course.points[n].short_term);
            times.push_back(rounded(course.points[begin].seconds));
            loudness.push_back(std::round(loudest * 10) / 10);
        }
        list.push_back({{"name", course.name}, {"t", times}, {"lufs", loudness}});
    }
    return list;
}

/// The worst of every few pictures.
Json quality_json(const std::vector<programme::PictureQuality>& pictures, double rate) {
    constexpr double kEqual = 100;  // what a chart shows of pictures without any error
    const size_t step = step_for(pictures.size());
    Json times = Json::array(), psnr = Json::array(), ssim = Json::array();
    for (size_t begin = 0; begin < pictures.size(); begin += step) {
        double least_psnr = kEqual, least_ssim = 1;
        for (size_t n = begin; n < std::min(begin + step, pictures.size()); n++) {
            least_psnr = std::min(least_psnr, pictures[n].psnr);
            least_ssim = std::min(least_ssim, pictures[n].ssim);
        }
        times.push_back(rounded(static_cast<double>(pictures[begin].number) / rate));
        psnr.push_back(std::round(least_psnr * 100) / 100);
        ssim.push_back(std::round(least_ssim * 10'000) / 10'000);
    }
    return {{"t", times}, {"psnr", psnr}, {"ssim", ssim}};
}

struct Verdict {
    bool good = true;
    std::vector<std::string> lines;

    void wrong(std::string line) {
        good = false;
        lines.push_back(std::move(line));
    }
};

Verdict verdict_of(const Findings& findings) {
    const InspectedStream& stream = findings.stream;
    const CaptionInventory& captions = findings.captions;
    Verdict verdict;
    if (stream.damage.any())
        verdict.wrong(damage_text(stream.damage));
    else
        verdict.lines.emplace_back("every picture was decoded whole");
    if (!stream.problem.empty()) verdict.wrong(stream.problem);
    if (stream.buffer) {
        verdict.good &= stream.buffer->holds();
        for (const std::string& line : buffer_lines(*stream.buffer)) verdict.lines.push_back(line);
    }
    if (captions.damaged_user_data > 0)
        verdict.wrong(fmt::format("caption user data damaged: {}", captions.damaged_user_data));
    if (captions.damaged_cea708_packets > 0)
        verdict.wrong(fmt::format("CEA-708 packets damaged: {}", captions.damaged_cea708_packets));
    return verdict;
}

Json json_of(const Verdict& verdict) {
    return {{"good", verdict.good},
            {"text", verdict.good ? "Nothing wrong was found" : "Something is wrong"},
            {"lines", verdict.lines}};
}

/// A line for a reader of figures.
void add_fact(Json& facts, std::string_view name, const std::string& value) {
    facts.push_back(Json::array({name, value}));
}

Json facts_json(const Findings& findings) {
    const InspectedStream& stream = findings.stream;
    const CaptionInventory& captions = findings.captions;
    double bits = 0;
    int64_t types[3] = {};
    for (const InspectedPicture& picture : stream.pictures) {
        bits += 8.0 * static_cast<double>(picture.bytes);
        const size_t type = std::string_view("IPB").find(picture.type);
        if (type != std::string_view::npos) types[type]++;
    }
    std::vector<std::string> services;
    if (!captions.carriages.empty()) services = programme::service_names(captions.carriages.front().services);
    for (const int service : captions.cea708_services)
        services.push_back(fmt::format("CEA-708 service {}", service));
    const double seconds = seconds_of(stream);
    Json facts = Json::array();
    const auto fact = [&](std::string_view name, const std::string& value) { add_fact(facts, name, value); };
    fact("Codec", fmt::format("{} in {}", stream.codec, stream.format));
    fact("Picture",
         fmt::format("{}x{}, {:.3f} pictures/s", stream.width, stream.height, stream.rate.per_second()));
    fact("Pictures",
         fmt::format("{} ({} I, {} P, {} B)", stream.pictures.size(), types[0], types[1], types[2]));
    fact("Duration", fmt::format("{:.3f} s", seconds));
    fact("Mean bit rate", fmt::format("{:.0f} kbit/s", bits / seconds / 1000));
    fact("GOPs", fmt::format("{}", stream.gops.size()));
    if (!stream.gops.empty() && stream.gops.front().start.timecode)
        fact("First time code", captions::format_timecode(*stream.gops.front().start.timecode));
    fact("Captions", services.empty() ? "none" : fmt::format("{}", fmt::join(services, ", ")));
    for (const programme::LoudnessCourse& course : findings.sound)
        fact(fmt::format("Loudness of {}", course.name), loudness_text(course.whole));
    return facts;
}

void replace(std::string& text, std::string_view marker, std::string_view by) {
    const size_t at = text.find(marker);
    if (at != std::string::npos) text.replace(at, marker.size(), by);
}

/// What both pages have.
Json page_data(const std::string& path, const Findings& findings) {
    const InspectedStream& stream = findings.stream;
    const size_t step = step_for(stream.pictures.size());
    const bool has_course = stream.buffer && !stream.buffer->accounts.empty();
    return {
        {"name", path.substr(path.rfind('/') + 1)},
        {"seconds", rounded(seconds_of(stream))},
        {"rate", stream.rate.per_second()},
        {"step", step},
        {"verdict", json_of(verdict_of(findings))},
        {"facts", facts_json(findings)},
        {"pictures", pictures_json(stream, step)},
        {"bitrate", bitrate_json(stream)},
        {"buffer", has_course ? buffer_course_json(stream.buffer->accounts.front()) : Json()},
        {"quality", Json()},
        {"sound", sound_json(findings.sound)},
        {"captions", captions_json(stream, findings.captions)},
        {"findings", findings_json(findings_of(stream))},
        {"gops", gops_json(stream)},
    };
}

std::string page_of(const Json& data) {
    std::string json = data.dump(-1, ' ', false, Json::error_handler_t::replace);
    // In a script element, "</script" and "<!--" would end or change it; in a string of JSON this is the same
    // letter.
    for (size_t at = 0; (at = json.find('<', at)) != std::string::npos;) json.replace(at, 1, "\\u003c");
    std::string page(kPageHtml);
    replace(page, "@UPLOT_CSS@", kUplotCss);
    replace(page, "@PAGE_CSS@", kPageCss);
    replace(page, "@UPLOT_JS@", kUplotJs);
    replace(page, "@PAGE_JS@", kPageJs);
    replace(page, "@DATA@", json);
    return page;
}

/// What an encoding lost and changed on its way; times are those of the pictures that went in.
std::vector<Conspicuous> losses_of(const EncodeResult& result) {
    std::vector<Conspicuous> losses;
    for (const programme::DamagedRange& range : result.damage.ranges)
        losses.push_back({range.begin, "Input: " + text_of(range)});
    if (result.damage.early_end) losses.push_back({result.damage.early_end->seconds, "The input ends early"});
    for (const encoding::LostCaption& caption : result.captions.lost)
        losses.push_back({caption.time, fmt::format("Lost: the caption of CC{} \"{}\"", caption.channel,
                                                    encoding::one_line(caption.text))});
    for (const programme::StreamAccount& stream : result.streams)
        if (!stream.why.empty())
            losses.push_back(
                {{}, fmt::format("Left out: stream {} ({}), {}", stream.index, stream.kind, stream.why)});
    for (std::string& line : lines_of(result.notes)) losses.push_back({{}, std::move(line)});
    return losses;
}

Verdict verdict_of(const EncodeResult& result, const Findings& findings) {
    Verdict verdict = verdict_of(findings);
    if (result.damage.any()) verdict.wrong("of the input: " + damage_text(result.damage));
    if (!result.problem.empty()) verdict.wrong(result.problem);
    if (result.tally.lost() > 0)
        verdict.wrong(fmt::format("{} pictures never came out of the codec", result.tally.lost()));
    if (!result.captions.lost.empty())
        verdict.wrong(fmt::format("{} captions are lost or cut short", result.captions.lost.size()));
    if (result.stopped_by != 0) verdict.lines.emplace_back("it was stopped on request");
    return verdict;
}

Json facts_of(const EncodeResult& result) {
    Json facts = Json::array();
    add_fact(facts, "Input", result.job.input.substr(result.job.input.rfind('/') + 1));
    add_fact(facts, "Pictures in",
             fmt::format("{}, {} skipped, {} dropped", result.tally.pictures, result.tally.skipped,
                         result.tally.dropped));
    add_fact(facts, "Time taken",
             fmt::format("{:.2f} s, {:.2f} times as fast as it plays", result.elapsed, speed_of(result)));
    if (!result.quality.empty()) {
        const programme::QualitySummary quality = summary_of(result.quality);
        add_fact(facts, "PSNR", fmt::format("{:.2f} dB, least {:.2f}", quality.psnr, quality.least_psnr));
        add_fact(facts, "SSIM", fmt::format("{:.4f}, least {:.4f}", quality.ssim, quality.least_ssim));
    }
    for (const programme::StreamAccount& stream : result.streams)
        if (stream.loudness)
            add_fact(facts, fmt::format("Loudness of input's stream {}", stream.index),
                     loudness_text(*stream.loudness));
    return facts;
}

}  // namespace

std::string inspection_page(const std::string& input, const Findings& findings) {
    return page_of(page_data(input, findings));
}

std::string encode_page(const EncodeResult& result, const Findings& findings) {
    Json data = page_data(result.job.output, findings);
    data["verdict"] = json_of(verdict_of(result, findings));
    for (const Json& fact : facts_of(result)) data["facts"].push_back(fact);
    if (!result.quality.empty())
        data["quality"] = quality_json(result.quality, result.tally.frame_rate.per_second());
    std::vector<Conspicuous> conspicuous = findings_of(findings.stream);
    for (Conspicuous& loss : losses_of(result)) conspicuous.push_back(std::move(loss));
    data["findings"] = findings_json(std::move(conspicuous));
    return page_of(data);
}

}  // namespace gsve::report
