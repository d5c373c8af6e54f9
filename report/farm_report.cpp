#include "report/farm_report.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "page_parts.h"

namespace gsve::report {
namespace {

using Json = nlohmann::ordered_json;

/// More lines than that help nobody who reads; JSON has all.
constexpr size_t kMostFailures = 20;

/// A name or a log may hold what a terminal takes for a command.
std::string printable(std::string_view text) {
    std::string line;
    for (const char letter : text) line += (letter >= 0 && letter < ' ') || letter == 0x7f ? '?' : letter;
    return line;
}

/// Columns that the text takes: UTF-8's letters, not its bytes.
size_t width(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

std::string left_text(const std::optional<double>& seconds) {
    if (!seconds) return "";
    const auto whole = std::llround(std::ceil(*seconds));
    return fmt::format("{:02}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

int percent(const FarmWork& work) {
    if (work.tasks.empty()) return 100;
    return static_cast<int>(100 * work.count(TaskState::kDone) / work.tasks.size());
}

uint64_t waiting(const FarmWork& work) {
    return work.count(TaskState::kWaiting) + work.count(TaskState::kBlocked);
}

std::string failures_text(const std::vector<FarmWork>& works) {
    std::string text;
    size_t count = 0;
    for (const FarmWork& work : works)
        for (const FarmTask& task : work.tasks) {
            if (task.state != TaskState::kFailed || count++ >= kMostFailures) continue;
            text += fmt::format("\n{}, {}: {}\n    {}\n", printable(work.name), printable(task.name),
                                printable(task.why), printable(task.log));
        }
    if (count > kMostFailures) text += fmt::format("\nand {} more; --json has all\n", count - kMostFailures);
    return text;
}

std::string escaped(std::string_view text) {
    std::string html;
    for (const char letter : text) switch (letter) {
            case '&': html += "&amp;"; break;
            case '<': html += "&lt;"; break;
            case '>': html += "&gt;"; break;
            case '"': html += "&quot;"; break;
            default: html += letter;
        }
    return html;
}

std::string text_for_page(std::string_view text) {
    // What is no UTF-8 text becomes what says so.
    const std::string json = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    return escaped(printable(Json::parse(json).get<std::string>()));
}

std::string bar(const FarmWork& work) {
    std::string html = "<div class=\"bar\" role=\"img\" aria-label=\"";
    html += fmt::format("{} % done\">", percent(work));
    for (size_t state = 0; state < kTaskStates.size(); state++)
        if (const uint64_t count = work.count(static_cast<TaskState>(state)))
            html +=
                fmt::format("<span class=\"{}\" style=\"flex-grow:{}\"></span>", kTaskStates[state], count);
    return html + "</div>";
}

std::string row(const FarmWork& work) {
    return fmt::format(
        "<tr><td>{}</td><td>{}</td><td>{} of {}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
        text_for_page(work.name), bar(work), work.count(TaskState::kDone), work.tasks.size(),
        work.count(TaskState::kRunning), waiting(work), work.count(TaskState::kFailed),
        left_text(work.seconds_left));
}

/// Of the tasks in a state, each with two more cells.
template <class Cells>
std::string task_rows(const FarmWork& work, TaskState state, Cells cells_of) {
    std::string rows;
    for (const FarmTask& task : work.tasks) {
        if (task.state != state) continue;
        const auto& [third, fourth] = cells_of(task);
        rows +=
            fmt::format("<tr><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n", text_for_page(work.name),
                        text_for_page(task.name), text_for_page(third), text_for_page(fourth));
    }
    return rows;
}

std::string failure_rows(const FarmWork& work) {
    return task_rows(work, TaskState::kFailed,
                     [](const FarmTask& task) { return std::tie(task.why, task.log); });
}

std::string running_rows(const FarmWork& work) {
    return task_rows(work, TaskState::kRunning,
                     [](const FarmTask& task) { return std::tie(task.node, task.job); });
}

std::string verdict(const std::vector<FarmWork>& works) {
    uint64_t failed = 0, done = 0, all = 0;
    for (const FarmWork& work : works) {
        failed += work.count(TaskState::kFailed);
        done += work.count(TaskState::kDone);
        all += work.tasks.size();
    }
    return fmt::format("<div class=\"verdict{}\"><strong>{}</strong></div>", failed ? " bad" : "",
                       failed        ? fmt::format("{} of {} tasks failed", failed, all)
                       : done == all ? fmt::format("All {} tasks are done", all)
                                     : fmt::format("{} of {} tasks are done, none failed", done, all));
}

std::string section(std::string_view title, std::string_view heads, const std::string& rows) {
    if (rows.empty()) return "";
    return fmt::format(
        "<h2>{}</h2>\n<div "
        "class=\"wide\"><table><thead><tr>{}</tr></thead><tbody>\n{}</tbody></table></div>\n",
        title, heads, rows);
}

void replace(std::string& text, std::string_view marker, std::string_view by) {
    text.replace(text.find(marker), marker.size(), by);
}

}  // namespace

uint64_t FarmWork::count(TaskState state) const {
    return static_cast<uint64_t>(std::count_if(
        tasks.begin(), tasks.end(), [state](const FarmTask& task) { return task.state == state; }));
}

std::string farm_text(const std::vector<FarmWork>& works) {
    size_t widest = 4;
    for (const FarmWork& work : works) widest = std::max(widest, width(printable(work.name)));
    std::string text = fmt::format("{:<{}}  {:>13}  {:>5}  {:>7}  {:>7}  {:>6}  {:>8}\n", "NAME", widest,
                                   "DONE", "", "RUNNING", "WAITING", "FAILED", "LEFT");
    for (const FarmWork& work : works) {
        const std::string name = printable(work.name);
        text += fmt::format("{}{:{}}  {:>13}  {:>3} %  {:>7}  {:>7}  {:>6}  {:>8}\n", name, "",
                            widest - width(name),
                            fmt::format("{} of {}", work.count(TaskState::kDone), work.tasks.size()),
                            percent(work), work.count(TaskState::kRunning), waiting(work),
                            work.count(TaskState::kFailed), left_text(work.seconds_left));
    }
    return text + failures_text(works);
}

std::string farm_json(const std::vector<FarmWork>& works) {
    Json list = Json::array();
    for (const FarmWork& work : works) {
        Json tasks = Json::array();
        for (const FarmTask& task : work.tasks)
            tasks.push_back({{"name", task.name},
                             {"state", kTaskStates[static_cast<size_t>(task.state)]},
                             {"job", task.job},
                             {"node", task.node},
                             {"why", task.why},
                             {"log", task.log}});
        list.push_back({{"name", work.name},
                        {"output", work.output},
                        {"done", work.count(TaskState::kDone)},
                        {"running", work.count(TaskState::kRunning)},
                        {"waiting", waiting(work)},
                        {"failed", work.count(TaskState::kFailed)},
                        {"seconds_left", work.seconds_left ? Json(*work.seconds_left) : Json()},
                        {"tasks", tasks}});
    }
    return Json{{"works", list}}.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string farm_page(const std::vector<FarmWork>& works, const std::string& time) {
    std::string rows, failures, running;
    for (const FarmWork& work : works) {
        rows += row(work);
        failures += failure_rows(work);
        running += running_rows(work);
    }
    std::string page(kFarmHtml);
    replace(page, "@PAGE_CSS@", kPageCss);
    replace(page, "@FARM_CSS@", kFarmCss);
    replace(page, "@TIME@", escaped(time));
    replace(page, "@VERDICT@", verdict(works));
    const std::string tables =
        section("Failed", "<th>Name</th><th>Task</th><th>Why</th><th>Log</th>", failures) +
        section("Work",
                "<th>Name</th><th>Progress</th><th>Done</th><th>Running</th>"
                "<th>Waiting</th><th>Failed</th><th>Time left</th>",
                rows) +
        section("Running now", "<th>Name</th><th>Task</th><th>Node</th><th>Job</th>", running);
    replace(page, "@TABLES@", tables);
    return page;
}

}  // namespace gsve::report
