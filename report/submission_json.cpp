#include "report/submission_json.h"

#include <algorithm>
#include <cctype>

#include "report/json_members.h"

namespace gsve::report {
namespace {

/// Each number goes into the command line of a program.
bool is_number(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

bool makes_sense(const SubmittedJob& job) {
    const bool array = job.task.empty() && !job.tasks.empty();
    return is_number(job.id) && (array || job.task == kSoundJob || job.task == kJoinJob) &&
           std::all_of(job.tasks.begin(), job.tasks.end(), [&](uint64_t task) { return task >= job.first; });
}

}  // namespace

std::string submission_json(const Submission& submission) {
    Json jobs = Json::array();
    for (const SubmittedJob& job : submission.jobs)
        jobs.push_back({{"id", job.id}, {"task", job.task}, {"first", job.first}, {"tasks", job.tasks}});
    return Json{{"work", submission.work}, {"jobs", jobs}}.dump() + "\n";
}

Submission parse_submission(std::string_view json) {
    Submission submission;
    try {
        const Json record = Json::parse(json);
        const auto read = [](const Json& object, const char* key, auto& value) {
            if (!get_exact(object.at(key), value)) throw Failure("the record of the submission is damaged");
        };
        read(record, "work", submission.work);
        for (const Json& each : record.at("jobs")) {
            SubmittedJob job;
            read(each, "id", job.id);
            read(each, "task", job.task);
            read(each, "first", job.first);
            read(each, "tasks", job.tasks);
            if (!makes_sense(job)) throw Failure("the record of the submission names a job that cannot be");
            submission.jobs.push_back(std::move(job));
        }
    } catch (const Json::exception&) {
        throw Failure("the record of the submission is damaged");
    }
    return submission;
}

}  // namespace gsve::report
