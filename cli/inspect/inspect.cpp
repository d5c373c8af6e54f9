#include "cli/inspect/inspect.h"

#include <filesystem>
#include <memory>

#include <fmt/format.h>

#include "captions/scc.h"
#include "cli/overwriting.h"
#include "encoding/error.h"
#include "programme/caption_inventory.h"
#include "programme/loudness.h"
#include "programme/output_file.h"
#include "programme/stream_inspection.h"
#include "report/inspection_page.h"
#include "report/inspection_report.h"

namespace gsve::cli {
namespace {

void check_output(const InspectOptions& options, const std::string& path) {
    std::error_code absent;
    if (std::filesystem::equivalent(options.input, path, absent))
        throw UsageError(fmt::format("{} is the input itself: name another file", path));
    check_overwriting(path, options.overwrite);
}

/// Of the carriage that receivers prefer.
void write_scc_file(const InspectOptions& options, const programme::InspectedStream& stream,
                    const programme::CaptionInventory& captions) {
    captions::Schedule schedule{stream.rate, {}, {}};
    if (!captions.carriages.empty()) schedule = captions.carriages.front().schedule;
    programme::write_file(options.scc, captions::write_scc(schedule, options.scc_field - 1, {}));
}

}  // namespace

int inspect(const InspectOptions& options) {
    if (!options.scc.empty()) check_output(options, options.scc);
    if (!options.page.empty()) check_output(options, options.page);
    const bool check_buffer = options.buffer || !options.page.empty();
    report::Findings findings;
    findings.stream = programme::read_stream(options.input, check_buffer);
    findings.captions = take_inventory(findings.stream);
    const programme::InspectedStream& stream = findings.stream;
    const programme::CaptionInventory& captions = findings.captions;
    if (!options.scc.empty()) write_scc_file(options, stream, captions);
    if (!options.page.empty()) {
        findings.sound = programme::loudness_courses(options.input);
        programme::write_file(options.page, report::inspection_page(options.input, findings));
    }
    const auto report = options.json ? report::inspection_json : report::inspection_text;
    fmt::print("{}", report(options.input, stream, captions, options.pictures));
    return 0;
}

}  // namespace gsve::cli
