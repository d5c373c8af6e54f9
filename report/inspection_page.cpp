#include "report/inspection_page.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "captions/timecode.h"
#include "page_parts.h"
#include "report/buffer_report.h"
#include "report/damage_report.h"
#include "report/times.h"

namespace gsve::report {
namespace {

using programme::BufferAccount;
using programme::BufferFinding;
using programme::BufferVerdict;
using programme::CaptionInventory;
using programme::InspectedPicture;
using programme::InspectedStream;
using Json = nlohmann::ordered_json;

// More points than a screen has columns show nothing more; lists of this length are still read by browsers at
// once.
constexpr size_t kMostPoints = 6000, kMostGops = 500, kMostFindings = 200;

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

Json findings_json(const InspectedStream& stream) {
    std::vector<std::pair<double, std::string>> findings;
    for (const programme::DamagedRange& range : stream.damage.ranges)
        findings.emplace_back(
            range.begin, fmt::format("{} {} {}", range.pictures, range.pictures == 1 ? "picture" : "pictures",
                                     name_of(range.kind)));
    if (stream.buffer)
        for (const BufferAccount& account : stream.buffer->accounts)
            for (const BufferFinding& finding : account.findings)
                findings.emplace_back(finding.seconds,
                                      fmt::format("Buffer: {} bits {}", finding.bits, what(finding.kind)));
    if (stream.damage.early_end || !stream.problem.empty())
        findings.emplace_back(seconds_of(stream),
                              stream.problem.empty() ? "The stream ends early" : stream.problem);
    std::stable_sort(findings.begin(), findings.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    Json list = Json::array();
    for (size_t n = 0; n < std::min(findings.size(), kMostFindings); n++)
        list.push_back({{"t", rounded(findings[n].first)}, {"text", findings[n].second}});
    if (findings.size() > kMostFindings)
        list.push_back({{"t", rounded(findings[kMostFindings].first)},
                        {"text", fmt::format("and {} more from here on", findings.size() - kMostFindings)}});
    return list;
}

Json gops_json(const InspectedStream& stream) {
    Json list = Json::array();
    for (size_t n = 0; n < std::min(stream.gops.size(), kMostGops); n++) {
        const programme::Gop& gop = stream.gops[n];
        list.push_back(
            {{"t", rounded(time_of(stream, gop.picture))},
             {"types", gop.types},
             {"closed", gop.start.closed},
             {"timecode", gop.start.timecode ? captions::format_timecode(*gop.start.timecode) : ""}});
    }
    if (stream.gops.size() > kMostGops)
        list.push_back({{"t", rounded(time_of(stream, stream.gops[kMostGops].picture))},
                        {"types", fmt::format("and {} more", stream.gops.size() - kMostGops)},
                        {"closed", false},
                        {"timecode", ""}});
    return list;
}

Json verdict_json(const InspectedStream& stream, const CaptionInventory& captions) {
    const bool buffer_holds = !stream.buffer || stream.buffer->holds();
    const bool good = !stream.damage.any() && stream.problem.empty() && buffer_holds &&
                      captions.damaged_user_data == 0 && captions.damaged_cea708_packets == 0;
    std::vector<std::string> lines;
    lines.push_back(stream.damage.any() ? damage_text(stream.damage) : "every picture was decoded whole");
    if (!stream.problem.empty()) lines.push_back(stream.problem);
    if (stream.buffer)
        for (const std::string& line : buffer_lines(*stream.buffer)) lines.push_back(line);
    if (captions.damaged_user_data > 0)
        lines.push_back(fmt::format("caption user data damaged: {}", captions.damaged_user_data));
    if (captions.damaged_cea708_packets > 0)
        lines.push_back(fmt::format("CEA-708 packets damaged: {}", captions.damaged_cea708_packets));
    return {
        {"good", good}, {"text", good ? "Nothing wrong was found" : "Something is wrong"}, {"lines", lines}};
}

Json facts_json(const InspectedStream& stream, const CaptionInventory& captions) {
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
    const auto fact = [&](const char* name, const std::string& value) {
        facts.push_back(Json::array({name, value}));
    };
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
    return facts;
}

void replace(std::string& text, std::string_view marker, std::string_view by) {
    const size_t at = text.find(marker);
    if (at != std::string::npos) text.replace(at, marker.size(), by);
}

}  // namespace

std::string inspection_page(const std::string& input, const InspectedStream& stream,
                            const CaptionInventory& captions) {
    const size_t step = step_for(stream.pictures.size());
    const bool has_course = stream.buffer && !stream.buffer->accounts.empty();
    const Json data = {
        {"name", input.substr(input.rfind('/') + 1)},
        {"seconds", rounded(seconds_of(stream))},
        {"rate", stream.rate.per_second()},
        {"step", step},
        {"verdict", verdict_json(stream, captions)},
        {"facts", facts_json(stream, captions)},
        {"pictures", pictures_json(stream, step)},
        {"bitrate", bitrate_json(stream)},
        {"buffer", has_course ? buffer_course_json(stream.buffer->accounts.front()) : Json()},
        {"captions", captions_json(stream, captions)},
        {"findings", findings_json(stream)},
        {"gops", gops_json(stream)},
    };
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

}  // namespace gsve::report
