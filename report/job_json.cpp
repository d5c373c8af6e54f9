#include "report/job_json.h"

#include <array>
#include <charconv>

#include "report/job_value.h"
#include "report/json_members.h"

namespace gsve::report {
namespace {

using programme::EncodeJob;
Json range_json(const std::optional<programme::PictureRange>& range) {
    if (!range) return nullptr;
    Json key;
    if (range->key) key = {{"dts", range->key->dts}, {"pts", range->key->pts}};
    return {{"begin", range->begin}, {"end", range->end}, {"warm_up", range->warm_up}, {"key", key}};
}

programme::PictureRange parse_range(const Json& json) {
    programme::PictureRange range;
    Members members(json, "\"range\"");
    members.read("begin", range.begin);
    members.read("end", range.end);
    members.read("warm_up", range.warm_up);
    if (const Json place = members.at("key"); !place.is_null()) {
        Members key(place, "\"key\"");
        key.read("dts", range.key.emplace().dts);
        key.read("pts", range.key->pts);
        key.expect_no_more();
    }
    members.expect_no_more();
    return range;
}

// A picture's captions as a line: its number, the byte pairs of both fields, the constructs, and at the full
// rate of film which field comes first, and the third pair, in hexadecimal digits.
//
//     "1234 9420 0 FE4142FE4344"
//     "1235 94AD 9420 - 1 80"

std::string constructs_text(const std::vector<captions::Cea708Construct>& constructs) {
    std::string text;
    for (const captions::Cea708Construct& c : constructs)
        text += fmt::format("{:02X}{:02X}{:02X}", c.header, c.data_1, c.data_2);
    return text.empty() ? "-" : text;
}

std::string picture_text(const programme::PlannedCaptions::Picture& picture) {
    const captions::PictureWrites& writes = picture.writes;
    std::string text = fmt::format("{} {:X} {:X} {}", picture.number, writes.words[0], writes.words[1],
                                   constructs_text(writes.cea708));
    if (writes.has_third || writes.first_field != 0) text += fmt::format(" {}", writes.first_field);
    if (writes.has_third) text += fmt::format(" {:X}", writes.third);
    return text;
}

/// Throws UsageError.
template <class Number>
Number number_in(std::string_view text, int base) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty())
        throw UsageError(fmt::format("\"planned\" has no number in \"{}\"", text));
    return number;
}

std::vector<captions::Cea708Construct> parse_constructs(std::string_view text) {
    std::vector<captions::Cea708Construct> constructs;
    if (text == "-") return constructs;
    constexpr size_t kDigits = 6;
    if (text.size() % kDigits != 0) throw UsageError("\"planned\" has a part of a construct");
    for (size_t at = 0; at < text.size(); at += kDigits) {
        const auto word = number_in<uint32_t>(text.substr(at, kDigits), 16);
        constructs.push_back(
            {static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 8), static_cast<uint8_t>(word)});
    }
    return constructs;
}

programme::PlannedCaptions::Picture parse_picture(std::string_view text) {
    std::array<std::string_view, 6> parts;
    size_t count = 0;
    for (std::string_view rest = text; !rest.empty(); count++) {
        if (count == parts.size()) throw UsageError("\"planned\" has a line that is too long");
        const size_t end = std::min(rest.find(' '), rest.size());
        parts[count] = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    constexpr size_t kLeast = 4;
    if (count < kLeast) throw UsageError("\"planned\" has a line that is too short");
    programme::PlannedCaptions::Picture picture;
    picture.number = number_in<uint64_t>(parts[0], 10);
    for (size_t field = 0; field < 2; field++)
        picture.writes.words[field] = number_in<uint16_t>(parts[1 + field], 16);
    picture.writes.cea708 = parse_constructs(parts[3]);
    if (count > kLeast) picture.writes.first_field = number_in<uint8_t>(parts[4], 10) != 0;
    picture.writes.has_third = count == parts.size();
    if (picture.writes.has_third) picture.writes.third = number_in<uint16_t>(parts[5], 16);
    return picture;
}

Json planned_json(const std::optional<programme::PlannedCaptions>& planned) {
    if (!planned) return nullptr;
    Json pictures = Json::array();
    for (const programme::PlannedCaptions::Picture& picture : planned->pictures)
        pictures.push_back(picture_text(picture));
    return {{"present", planned->present}, {"pictures", pictures}};
}

programme::PlannedCaptions parse_planned(const Json& json) {
    programme::PlannedCaptions planned;
    Members members(json, "\"planned\"");
    members.read("present", planned.present);
    std::vector<std::string> lines;
    members.read("pictures", lines);
    members.expect_no_more();
    for (const std::string& line : lines) {
        planned.pictures.push_back(parse_picture(line));
        const size_t count = planned.pictures.size();
        if (count > 1 && planned.pictures[count - 2].number >= planned.pictures.back().number)
            throw UsageError("the pictures of \"planned\" do not ascend");
    }
    return planned;
}

}  // namespace

Json job_value(const EncodeJob& job) {
    Json settings = Json::array();
    for (const auto& [key, value] : job.settings) settings.push_back({key, text(value, "setting " + key)});
    Json files = Json::array();
    for (const std::string& file : job.captions.files) files.push_back(text(file, "caption file's name"));
    return {
        {"input", text(job.input, "input's name")},
        {"output", text(job.output, "output's name")},
        {"format", job.format},
        {"settings", settings},
        {"decided", job.decided},
        {"frame_rate", job.frame_rate},
        {"captions",
         {{"carry_over", job.captions.carry_over},
          {"files", files},
          {"field", job.captions.field},
          {"rows", job.captions.rows ? Json(*job.captions.rows) : Json()},
          {"start", job.captions.start},
          {"scte20", job.captions.scte20},
          {"planned", planned_json(job.captions.planned)}}},
        {"streams",
         {{"numbers", job.choice.streams},
          {"program", job.choice.program ? Json(*job.choice.program) : Json()},
          {"sound", job.choice.sound}}},
        {"sound",
         {{"codec", job.sound.codec},
          {"bit_rate", job.sound.bit_rate},
          {"layout", job.sound.layout},
          {"sample_rate", job.sound.sample_rate},
          {"loudness", job.sound.loudness ? Json(*job.sound.loudness) : Json()},
          {"true_peak", job.sound.true_peak}}},
        {"transport",
         {{"rate", job.transport.rate},
          {"service", text(job.transport.service, "service's name")},
          {"provider", text(job.transport.provider, "provider's name")},
          {"program", job.transport.program},
          {"pmt_pid", job.transport.pmt_pid},
          {"pids", job.transport.pids}}},
        {"hls", {{"segments", job.hls.segments}, {"seconds", job.hls.seconds}}},
        {"longest_repeat", job.longest_repeat},
        {"keep_colour", job.keep_colour},
        {"timecode", job.timecode},
        {"adapt", job.adapt},
        {"range", range_json(job.range)},
        {"quality", job.quality},
        {"threads", job.threads},
        {"decoder_threads", job.decoder_threads},
    };
}

std::string job_json(const EncodeJob& job) { return job_value(job).dump(2) + "\n"; }

EncodeJob parse_job(std::string_view json) { return parse_job_value(parse_json(json, "the job")); }

EncodeJob parse_job_value(const Json& value) {
    EncodeJob job;
    Members members(value, "the job");
    members.read("input", job.input);
    members.read("output", job.output);
    members.read("format", job.format);
    members.read("settings", job.settings);
    members.read("decided", job.decided);
    members.read("frame_rate", job.frame_rate);
    Members captions(members.at("captions"), "\"captions\"");
    captions.read("carry_over", job.captions.carry_over);
    captions.read("files", job.captions.files);
    captions.read("field", job.captions.field);
    if (Json rows = captions.at("rows"); !rows.is_null()) captions.read("rows", job.captions.rows.emplace());
    captions.read("start", job.captions.start);
    captions.read("scte20", job.captions.scte20);
    if (const Json planned = captions.at("planned"); !planned.is_null())
        job.captions.planned = parse_planned(planned);
    captions.expect_no_more();
    Members streams(members.at("streams"), "\"streams\"");
    streams.read("numbers", job.choice.streams);
    if (Json program = streams.at("program"); !program.is_null())
        streams.read("program", job.choice.program.emplace());
    streams.read("sound", job.choice.sound);
    streams.expect_no_more();
    Members sound(members.at("sound"), "\"sound\"");
    sound.read("codec", job.sound.codec);
    sound.read("bit_rate", job.sound.bit_rate);
    sound.read("layout", job.sound.layout);
    sound.read("sample_rate", job.sound.sample_rate);
    if (Json loudness = sound.at("loudness"); !loudness.is_null())
        sound.read("loudness", job.sound.loudness.emplace());
    sound.read("true_peak", job.sound.true_peak);
    sound.expect_no_more();
    Members transport(members.at("transport"), "\"transport\"");
    transport.read("rate", job.transport.rate);
    transport.read("service", job.transport.service);
    transport.read("provider", job.transport.provider);
    transport.read("program", job.transport.program);
    transport.read("pmt_pid", job.transport.pmt_pid);
    transport.read("pids", job.transport.pids);
    transport.expect_no_more();
    Members hls(members.at("hls"), "\"hls\"");
    hls.read("segments", job.hls.segments);
    hls.read("seconds", job.hls.seconds);
    hls.expect_no_more();
    members.read("longest_repeat", job.longest_repeat);
    members.read("keep_colour", job.keep_colour);
    members.read("timecode", job.timecode);
    members.read("adapt", job.adapt);
    if (const Json range = members.at("range"); !range.is_null()) job.range = parse_range(range);
    members.read("quality", job.quality);
    members.read("threads", job.threads);
    members.read("decoder_threads", job.decoder_threads);
    members.expect_no_more();
    return job;
}

}  // namespace gsve::report
