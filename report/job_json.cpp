#include "report/job_json.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "encoding/error.h"

namespace gsve::report {
namespace {

using programme::EncodeJob;
using Json = nlohmann::ordered_json;

/// The bytes of a file name that is no UTF-8 text would not come back.
const std::string& text(const std::string& value, std::string_view what) {
    try {
        (void)Json(value).dump();
    } catch (const Json::exception&) {
        throw UsageError(fmt::format("the {} has bytes that are no UTF-8 text: rename it", what));
    }
    return value;
}

/// An object whose members are all to be read.
class Members {
public:
    Members(const Json& object, std::string_view name) : object_(object), name_(name) {
        if (!object.is_object()) throw UsageError(fmt::format("{} is no JSON object", name));
    }

    template <class Value>
    void read(const char* key, Value& value) {
        keys_.emplace_back(key);
        const auto member = object_.find(key);
        if (member == object_.end()) throw UsageError(fmt::format("{} lacks \"{}\"", name_, key));
        try {
            member->get_to(value);
        } catch (const Json::exception&) {
            throw UsageError(fmt::format("\"{}\" of {} is of another kind", key, name_));
        }
    }

    const Json& at(const char* key) {
        Json value;
        read(key, value);
        return object_.at(key);
    }

    void expect_no_more() const {
        for (const auto& [key, value] : object_.items())
            if (std::find(keys_.begin(), keys_.end(), key) == keys_.end())
                throw UsageError(fmt::format("{} has an unknown \"{}\"", name_, key));
    }

private:
    const Json& object_;
    std::string_view name_;
    std::vector<std::string> keys_;
};

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

}  // namespace

std::string job_json(const EncodeJob& job) {
    Json settings = Json::array();
    for (const auto& [key, value] : job.settings) settings.push_back({key, text(value, "setting " + key)});
    Json files = Json::array();
    for (const std::string& file : job.captions.files) files.push_back(text(file, "caption file's name"));
    const Json json = {
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
          {"scte20", job.captions.scte20}}},
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
    return json.dump(2) + "\n";
}

EncodeJob parse_job(std::string_view json) {
    const Json parsed = Json::parse(json, nullptr, false);
    if (parsed.is_discarded()) throw UsageError("the job is no JSON");
    EncodeJob job;
    Members members(parsed, "the job");
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
