#include "report/file_list_json.h"

#include "report/job_value.h"
#include "report/json_members.h"

namespace gsve::report {
namespace {

constexpr int kVersion = 1;
constexpr const char* kKey = "gsve_files";

/// Whoever encodes the list's files writes beside the list and nowhere else.
bool is_plain_name(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos &&
           name.find('\0') == name.npos;
}

}  // namespace

std::string file_list_json(const FileList& list) {
    Json files = Json::array();
    for (const FileList::File& file : list.files)
        files.push_back({text(file.input, "input's name"), text(file.output, "output's name")});
    return Json{{kKey, kVersion},
                {"job", job_value(list.job)},
                {"per_task", list.per_task},
                {"processors", list.processors},
                {"memory", list.memory},
                {"files", files}}
               .dump() +
           "\n";
}

std::optional<FileList> parse_file_list(std::string_view json) {
    const Json parsed = Json::parse(json, nullptr, false);
    if (!parsed.is_object() || !parsed.contains(kKey)) return std::nullopt;
    if (parsed[kKey] != kVersion) throw UsageError("the list is of another version: submit its files again");
    FileList list;
    Members members(parsed, "the list");
    members.at(kKey);
    list.job = parse_job_value(members.at("job"));
    members.read("per_task", list.per_task);
    if (list.per_task == 0) throw UsageError("the list has tasks of no file");
    members.read("processors", list.processors);
    members.read("memory", list.memory);
    for (const Json& each : members.at("files")) {
        std::vector<std::string> names;
        if (each.is_array() && each.size() == 2 && each[0].is_string() && each[1].is_string())
            each.get_to(names);
        if (names.empty() || !is_plain_name(names[1])) throw UsageError("the list has a file that cannot be");
        list.files.push_back({names[0], names[1]});
    }
    members.expect_no_more();
    return list;
}

}  // namespace gsve::report
