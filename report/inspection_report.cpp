#include "report/inspection_report.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string_view>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "captions/timecode.h"
#include "report/buffer_report.h"
#include "report/damage_report.h"
#include "report/times.h"

namespace gsve::report {
namespace {

using encoding::GopStart;
using encoding::UnitCaptions;
using programme::CaptionCarriage;
using programme::CaptionInventory;
using programme::Gop;
using programme::InspectedPicture;
using programme::InspectedStream;
using programme::same_texts;
using programme::service_names;
using Json = nlohmann::ordered_json;

/// The pictures' common field order: "progressive", "top field first", "bottom field first" or "mixed".
std::string_view field_order_text(const InspectedStream& stream) {
    constexpr std::string_view kNames[] = {"progressive", "top field first", "bottom field first"};
    const int first = stream.pictures.front().field_order;
    const bool common = std::all_of(stream.pictures.begin(), stream.pictures.end(),
                                    [first](const InspectedPicture& p) { return p.field_order == first; });
    return common ? kNames[first] : "mixed";
}

/// Types and their numbers of pictures, I, P and B first.
std::vector<std::pair<char, int64_t>> picture_types(const InspectedStream& stream) {
    std::map<char, int64_t> counts = {{'I', 0}, {'P', 0}, {'B', 0}};
    for (const InspectedPicture& picture : stream.pictures) counts[picture.type]++;
    std::vector<std::pair<char, int64_t>> types = {
        {'I', counts['I']}, {'P', counts['P']}, {'B', counts['B']}};
    for (const auto& [type, count] : counts)
        if (std::string_view("IPB").find(type) == std::string_view::npos) types.emplace_back(type, count);
    return types;
}

std::string timecode_text(const Gop& gop) {
    return gop.start.timecode ? captions::format_timecode(*gop.start.timecode) : "";
}

std::string_view drop_frame_text(const captions::Timecode& timecode) {
    return timecode.drop_frame ? "drop-frame" : "non-drop";
}

std::string_view closed_text(const Gop& gop) { return gop.start.closed ? "closed" : "open"; }

std::string counted(int64_t count, std::string_view one, std::string_view more) {
    return fmt::format("{} {}", count == 0 ? "no" : fmt::format("{}", count), count == 1 ? one : more);
}

// As text

std::string gop_summary(const std::vector<Gop>& gops) {
    if (gops.empty()) return "none begin in this stream";
    const auto [shortest, longest] = std::minmax_element(
        gops.begin(), gops.end(), [](const Gop& a, const Gop& b) { return a.types.size() < b.types.size(); });
    const auto closed = std::count_if(gops.begin(), gops.end(), [](const Gop& g) { return g.start.closed; });
    std::string text =
        fmt::format("{} of {} to {} pictures, {} closed, {} open", gops.size(), shortest->types.size(),
                    longest->types.size(), closed, static_cast<ptrdiff_t>(gops.size()) - closed);
    if (gops.front().start.timecode)
        text += fmt::format("; time codes {} to {} ({})", timecode_text(gops.front()),
                            timecode_text(gops.back()), drop_frame_text(*gops.front().start.timecode));
    return text;
}

std::string carriage_line(const CaptionCarriage& carriage, const CaptionCarriage& preferred) {
    const std::vector<std::string> services = service_names(carriage.services);
    std::string text =
        fmt::format("{} in {}: {}; {} from {} to {}", carriage.name, carriage.where,
                    services.empty() ? "no service" : fmt::format("{}", fmt::join(services, " ")),
                    counted(carriage.units, "picture", "pictures"), carriage.first, carriage.last);
    if (carriage.gaps) text += ", " + counted(*carriage.gaps, "gap", "gaps");
    text += fmt::format("; {}, {}", counted(carriage.pairs, "byte pair", "byte pairs"),
                        counted(carriage.parity_errors, "parity error", "parity errors"));
    if (const captions::ParityDamage& damage = carriage.parity_damage; damage.any())
        text +=
            fmt::format(" ({} ignored, {} shown as blocks)",
                        counted(static_cast<int64_t>(damage.control_pairs), "control pair", "control pairs"),
                        counted(static_cast<int64_t>(damage.characters), "character", "characters"));
    if (&carriage != &preferred)
        text += same_texts(carriage, preferred) ? fmt::format("; same captions as {}", preferred.name)
                                                : fmt::format("; captions differ from {}", preferred.name);
    return text;
}

std::vector<std::string> caption_lines(const CaptionInventory& captions) {
    std::vector<std::string> lines;
    for (const CaptionCarriage& carriage : captions.carriages)
        lines.push_back(carriage_line(carriage, captions.carriages.front()));
    if (!captions.cea708_services.empty())
        lines.push_back(
            fmt::format("CEA-708: {} {}; {}", captions.cea708_services.size() == 1 ? "service" : "services",
                        fmt::join(captions.cea708_services, " "),
                        counted(captions.damaged_cea708_packets, "damaged packet", "damaged packets")));
    if (captions.damaged_user_data > 0)
        lines.push_back(counted(captions.damaged_user_data, "damaged piece", "damaged pieces") +
                        " of caption user data");
    if (lines.empty()) lines.push_back("none");
    return lines;
}

std::string summary(const std::string& input, const InspectedStream& stream,
                    const CaptionInventory& captions) {
    std::vector<std::string> types;
    for (const auto& [type, count] : picture_types(stream))
        types.push_back(fmt::format("{} {}", count, type));
    std::string text =
        fmt::format("{}: {} in {}, {}x{} at {:.3f} pictures/s, {}\n", input, stream.codec, stream.format,
                    stream.width, stream.height, stream.rate.per_second(), field_order_text(stream));
    text += fmt::format("  pictures  {} ({}), {} damaged, {} lost\n", stream.pictures.size(),
                        fmt::join(types, ", "), stream.damage.damaged(), stream.damage.undecodable());
    text += fmt::format("  GOPs      {}\n", gop_summary(stream.gops));
    std::string_view head = "  captions  ";
    for (const std::string& line : caption_lines(captions)) {
        text += fmt::format("{}{}\n", head, line);
        head = "            ";
    }
    if (stream.buffer) {
        head = "  buffer    ";
        for (const std::string& line : buffer_lines(*stream.buffer)) {
            text += fmt::format("{}{}\n", head, line);
            head = "            ";
        }
    }
    if (stream.damage.any()) text += fmt::format("  damage    {}\n", damage_text(stream.damage));
    if (!stream.problem.empty()) text += fmt::format("  problem   {}\n", stream.problem);
    return text;
}

std::string picture_line(const InspectedPicture& picture, size_t number) {
    std::string text = fmt::format("  {:6}  {}  {}  unit {:<6}  {:7} bytes", number, picture.type,
                                   clock_text(picture.time), picture.unit, picture.bytes);
    const UnitCaptions& captions = picture.captions;
    if (captions.cc_data) text += fmt::format("  A/53 {}", captions.cc_data->size() / 3);
    if (captions.scte20) text += fmt::format("  SCTE-20 {}", captions.scte20->size());
    if (captions.cc) text += fmt::format("  CC {}", captions.cc->size());
    return text + (picture.damaged ? "  damaged\n" : "\n");
}

std::string lists(const InspectedStream& stream) {
    std::string text = "\nGOPs: first picture, time code, kind, types in coding order\n";
    for (const Gop& gop : stream.gops)
        text += fmt::format("  {:6}  {:11}  {:6}{}  {}\n", gop.picture, timecode_text(gop), closed_text(gop),
                            gop.start.broken_link ? ", broken link" : "", gop.types);
    text += "\nPictures in the order of display, with the number of caption constructs\n";
    for (size_t n = 0; n < stream.pictures.size(); n++) text += picture_line(stream.pictures[n], n);
    return text;
}

std::string timed_texts(const InspectedStream& stream, const CaptionInventory& captions) {
    std::string text;
    const auto head = [&](std::string_view service, int64_t begin, const std::string& rest) {
        text += fmt::format("\n{}  {}  {}\n", service, clock_text(time_of(stream, begin)), rest);
    };
    if (!captions.carriages.empty()) {
        for (const captions::TimedText& caption : captions.carriages.front().texts) {
            head(fmt::format("CC{}", caption.channel), caption.begin,
                 fmt::format("to {}  pictures {} to {}  {}, row {}", clock_text(time_of(stream, caption.end)),
                             caption.begin, caption.end, captions::name_of(caption.mode), caption.first_row));
            for (const std::string& row : caption.rows) text += fmt::format("    {}\n", row);
        }
        for (const captions::TextRow& row : captions.carriages.front().text_rows) {
            head(fmt::format("T{}", row.service), row.frame, fmt::format("picture {}", row.frame));
            text += fmt::format("    {}\n", row.text);
        }
    }
    for (const captions::ServiceText& service : captions.cea708_texts) {
        head(fmt::format("CEA-708 service {}", service.service), service.frame,
             fmt::format("picture {}", service.frame));
        text += fmt::format("    {}\n", service.text);
    }
    return text;
}

// As JSON

Json gops_json(const InspectedStream& stream) {
    Json gops = Json::array();
    for (const Gop& gop : stream.gops) {
        Json entry = {{"picture", gop.picture},
                      {"length", gop.types.size()},
                      {"types", gop.types},
                      {"closed", gop.start.closed}};
        if (gop.start.timecode) {
            entry["broken_link"] = gop.start.broken_link;
            entry["timecode"] = timecode_text(gop);
            entry["drop_frame"] = gop.start.timecode->drop_frame;
        }
        gops.push_back(entry);
    }
    return gops;
}

Json captions_json(const InspectedStream& stream, const CaptionCarriage& carriage) {
    Json captions = Json::array();
    for (const captions::TimedText& caption : carriage.texts)
        captions.push_back({{"service", fmt::format("CC{}", caption.channel)},
                            {"mode", captions::name_of(caption.mode)},
                            {"begin", caption.begin},
                            {"end", caption.end},
                            {"begin_seconds", time_of(stream, caption.begin)},
                            {"end_seconds", time_of(stream, caption.end)},
                            {"row", caption.first_row},
                            {"rows", caption.rows}});
    return captions;
}

Json text_rows_json(const InspectedStream& stream, const CaptionCarriage& carriage) {
    Json rows = Json::array();
    for (const captions::TextRow& row : carriage.text_rows)
        rows.push_back({{"service", fmt::format("T{}", row.service)},
                        {"begin", row.frame},
                        {"begin_seconds", time_of(stream, row.frame)},
                        {"text", row.text}});
    return rows;
}

Json carriages_json(const InspectedStream& stream, const CaptionInventory& captions) {
    Json carriages = Json::array();
    for (const CaptionCarriage& carriage : captions.carriages) {
        Json entry = {{"carriage", carriage.name},
                      {"where", carriage.where},
                      {"pictures", carriage.units},
                      {"first", carriage.first},
                      {"last", carriage.last}};
        if (carriage.gaps) entry["gaps"] = *carriage.gaps;
        entry["byte_pairs"] = carriage.pairs;
        entry["parity_errors"] = carriage.parity_errors;
        entry["control_pairs_ignored"] = carriage.parity_damage.control_pairs;
        entry["characters_replaced"] = carriage.parity_damage.characters;
        entry["services"] = service_names(carriage.services);
        entry["captions"] = captions_json(stream, carriage);
        entry["texts"] = text_rows_json(stream, carriage);
        carriages.push_back(entry);
    }
    return carriages;
}

Json cea708_json(const InspectedStream& stream, const CaptionInventory& captions) {
    Json texts = Json::array();
    for (const captions::ServiceText& text : captions.cea708_texts)
        texts.push_back({{"service", text.service},
                         {"begin", text.frame},
                         {"begin_seconds", time_of(stream, text.frame)},
                         {"text", text.text}});
    return {{"services", captions.cea708_services},
            {"damaged_packets", captions.damaged_cea708_packets},
            {"texts", texts}};
}

Json pictures_json(const InspectedStream& stream) {
    Json pictures = Json::array();
    for (const InspectedPicture& picture : stream.pictures) {
        Json entry = {{"type", std::string(1, picture.type)},
                      {"seconds", picture.time},
                      {"unit", picture.unit},
                      {"bytes", picture.bytes},
                      {"damaged", picture.damaged}};
        if (picture.captions.cc_data) entry["a53_constructs"] = picture.captions.cc_data->size() / 3;
        if (picture.captions.scte20) entry["scte20_constructs"] = picture.captions.scte20->size();
        if (picture.captions.cc) entry["cc_pictures"] = picture.captions.cc->size();
        pictures.push_back(entry);
    }
    return pictures;
}

}  // namespace

std::string inspection_text(const std::string& input, const InspectedStream& stream,
                            const CaptionInventory& captions, bool list_pictures) {
    return summary(input, stream, captions) + (list_pictures ? lists(stream) : "") +
           timed_texts(stream, captions);
}

std::string inspection_json(const std::string& input, const InspectedStream& stream,
                            const CaptionInventory& captions, bool list_pictures) {
    Json types = Json::object();
    for (const auto& [type, count] : picture_types(stream)) types[std::string(1, type)] = count;
    Json report = {
        {"input", input},
        {"format", stream.format},
        {"codec", stream.codec},
        {"width", stream.width},
        {"height", stream.height},
        {"frame_rate", fmt::format("{}/{}", stream.rate.num, stream.rate.den)},
        {"field_order", field_order_text(stream)},
        {"pictures",
         {{"total", stream.pictures.size()},
          {"types", types},
          {"damaged", stream.damage.damaged()},
          {"lost", stream.damage.undecodable()}}},
        {"damage", damage_json(stream.damage)},
        {"gops", gops_json(stream)},
        {"line21", carriages_json(stream, captions)},
        {"cea708", cea708_json(stream, captions)},
        {"damaged_user_data", captions.damaged_user_data},
        {"problem", stream.problem},
    };
    if (stream.buffer) report["buffer"] = buffer_json(*stream.buffer, list_pictures);
    if (list_pictures) report["picture_list"] = pictures_json(stream);
    // File names and texts may hold anything; what is not UTF-8 is replaced.
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace gsve::report
