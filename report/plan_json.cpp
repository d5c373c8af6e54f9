#include "report/plan_json.h"

#include <array>
#include <limits>

#include "programme/content_hash.h"
#include "report/job_json.h"
#include "report/job_value.h"
#include "report/json_members.h"

namespace gsve::report {
namespace {

using programme::BufferModel;
using programme::Plan;
using programme::TaskResult;

constexpr int kPlanVersion = 1, kTaskVersion = 1;
constexpr const char *kPlanKey = "gsve_plan", *kTaskKey = "gsve_task";

constexpr std::array<std::pair<BufferModel, const char*>, 5> kModels = {{
    {BufferModel::kVbvDelay, "vbv_delay"},
    {BufferModel::kVbvConstantRate, "vbv_constant_rate"},
    {BufferModel::kVbvFilledUp, "vbv_filled_up"},
    {BufferModel::kHrdConstantRate, "hrd_constant_rate"},
    {BufferModel::kHrdVariableRate, "hrd_variable_rate"},
}};

const char* name_of(BufferModel model) {
    for (const auto& [known, name] : kModels)
        if (known == model) return name;
    return "";
}

/// Throws UsageError.
BufferModel model_named(std::string_view name) {
    for (const auto& [model, known] : kModels)
        if (name == known) return model;
    throw UsageError(fmt::format("\"buffer\" has an unknown \"model\", \"{}\"", name));
}

/// Throws UsageError where the document is of another version, before anything else of it is read.
Json parse_version(std::string_view json, const char* key, int version, std::string_view what) {
    Json parsed = parse_json(json, what);
    const bool tells = parsed.is_object() && parsed.contains(key) && parsed[key].is_number_integer();
    if (!tells) throw UsageError(fmt::format("{} lacks \"{}\", its version", what, key));
    if (parsed[key] != version)
        throw UsageError(fmt::format("{} is of version {}, and this gsve knows {}: make it again", what,
                                     parsed[key].dump(), version));
    return parsed;
}

Json unit_value(const programme::TaskUnit& unit) {
    return {unit.bytes, unit.pts, unit.dts, unit.key, std::string(1, unit.type)};
}

programme::TaskUnit parse_unit(const Json& json) {
    if (!json.is_array() || json.size() != 5) throw UsageError("\"units\" has one that is no unit");
    programme::TaskUnit unit;
    std::string type;
    if (!get_exact(json[0], unit.bytes) || !get_exact(json[1], unit.pts) || !get_exact(json[2], unit.dts) ||
        !get_exact(json[3], unit.key) || !get_exact(json[4], type))
        throw UsageError("\"units\" has one of another kind");
    if (type.size() != 1) throw UsageError("\"units\" has one without a type");
    unit.type = type[0];
    constexpr uint64_t kMost = uint64_t{1} << 31;
    if (unit.bytes > kMost) throw UsageError("\"units\" has one that is too large");
    return unit;
}

Json buffer_value(const std::optional<programme::BufferEnds>& buffer) {
    if (!buffer) return nullptr;
    return {{"model", name_of(buffer->model)}, {"bit_rate", buffer->bit_rate}, {"size", buffer->size},
            {"before", buffer->before},        {"after", buffer->after},       {"holds", buffer->holds}};
}

programme::BufferEnds parse_buffer(const Json& json) {
    programme::BufferEnds buffer;
    Members members(json, "\"buffer\"");
    std::string model;
    members.read("model", model);
    buffer.model = model_named(model);
    members.read("bit_rate", buffer.bit_rate);
    members.read("size", buffer.size);
    members.read("before", buffer.before);
    members.read("after", buffer.after);
    members.read("holds", buffer.holds);
    members.expect_no_more();
    return buffer;
}

/// Throws UsageError where the chunks do not make the whole.
void check_chunks(const Plan& plan) {
    if (plan.chunks.empty()) throw UsageError("the plan has no chunks");
    if (plan.gop == 0 || plan.divider == 0 || plan.frame_rate.num <= 0 || plan.frame_rate.den <= 0)
        throw UsageError("the plan's \"gop\", \"divider\" or \"frame_rate\" cannot be");
    uint64_t next = 0;
    for (const programme::EncodeJob& chunk : plan.chunks) {
        if (!chunk.range || chunk.range->begin != next || chunk.range->end <= next ||
            chunk.range->warm_up > next)
            throw UsageError("the plan's chunks do not follow each other");
        next = chunk.range->end;
    }
    if (next != plan.pictures) throw UsageError("the plan's chunks do not have all of its pictures");
}

}  // namespace

std::string plan_json(const Plan& plan) {
    Json chunks = Json::array();
    for (const programme::EncodeJob& chunk : plan.chunks) chunks.push_back(job_value(chunk));
    const Json json = {
        {kPlanKey, kPlanVersion},
        {"software", plan.software},
        {"job", job_value(plan.job)},
        {"source",
         {{"size", plan.source.size}, {"modified", plan.source.modified}, {"hash", plan.source.hash}}},
        {"frame_rate", {plan.frame_rate.num, plan.frame_rate.den}},
        {"divider", plan.divider},
        {"pictures", plan.pictures},
        {"gop", plan.gop},
        {"sound", plan.has_sound},
        {"caption_services", plan.caption_services},
        {"chunks", chunks},
    };
    return json.dump(1) + "\n";
}

Plan parse_plan(std::string_view json) {
    const Json parsed = parse_version(json, kPlanKey, kPlanVersion, "the plan");
    Plan plan;
    Members members(parsed, "the plan");
    int version = 0;
    members.read(kPlanKey, version);
    members.read("software", plan.software);
    plan.job = parse_job_value(members.at("job"));
    Members source(members.at("source"), "\"source\"");
    source.read("size", plan.source.size);
    source.read("modified", plan.source.modified);
    source.read("hash", plan.source.hash);
    source.expect_no_more();
    std::array<int, 2> rate = {};
    members.read("frame_rate", rate);
    plan.frame_rate = {rate[0], rate[1]};
    members.read("divider", plan.divider);
    members.read("pictures", plan.pictures);
    members.read("gop", plan.gop);
    members.read("sound", plan.has_sound);
    members.read("caption_services", plan.caption_services);
    const Json& chunks = members.at("chunks");
    if (!chunks.is_array()) throw UsageError("\"chunks\" of the plan is of another kind");
    for (const Json& chunk : chunks) plan.chunks.push_back(parse_job_value(chunk));
    members.expect_no_more();
    check_chunks(plan);
    return plan;
}

std::string order_of(const Plan& plan, std::string_view task) {
    programme::ContentHash hash;
    const bool is_sound = task == programme::kSoundTask;
    const programme::EncodeJob& job = is_sound ? plan.job : plan.chunks.at(std::stoul(std::string(task)));
    hash.add(std::string_view(plan.software));
    hash.add(std::string_view(plan.source.hash));
    hash.add(std::string_view(job_json(job)));
    return hash.finish();
}

std::string task_json(const TaskResult& result) {
    Json units = Json::array();
    for (const programme::TaskUnit& unit : result.units) units.push_back(unit_value(unit));
    const Json json = {
        {kTaskKey, kTaskVersion},
        {"status", "done"},
        {"task", result.task},
        {"order", result.order},
        {"software", result.software},
        {"pictures", result.pictures},
        {"bytes", result.bytes},
        {"hash", result.hash},
        {"buffer", buffer_value(result.buffer)},
        {"saved", result.saved},
        {"notes", result.notes},
        {"units", units},
    };
    return json.dump() + "\n";
}

TaskResult parse_task(std::string_view json) {
    const Json parsed = parse_version(json, kTaskKey, kTaskVersion, "the manifest");
    TaskResult result;
    Members members(parsed, "the manifest");
    int version = 0;
    std::string status;
    members.read(kTaskKey, version);
    members.read("status", status);
    if (status != "done") throw UsageError(fmt::format("the manifest's \"status\" is \"{}\"", status));
    members.read("task", result.task);
    members.read("order", result.order);
    members.read("software", result.software);
    members.read("pictures", result.pictures);
    members.read("bytes", result.bytes);
    members.read("hash", result.hash);
    if (const Json& buffer = members.at("buffer"); !buffer.is_null()) result.buffer = parse_buffer(buffer);
    members.read("saved", result.saved);
    members.read("notes", result.notes);
    const Json& units = members.at("units");
    if (!units.is_array()) throw UsageError("\"units\" of the manifest is of another kind");
    for (const Json& unit : units) result.units.push_back(parse_unit(unit));
    members.expect_no_more();
    return result;
}

}  // namespace gsve::report
