#include "cli/inspect/inspect.h"

#include <filesystem>
#include <memory>

#include <fmt/format.h>

#include "captions/scc.h"
#include "cli/overwriting.h"
#include "encoding/error.h"
#include "programme/caption_inventory.h"
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
    const programme::InspectedStream stream = programme::read_stream(options.input, check_buffer);
    const programme::CaptionInventory captions = take_inventory(stream);
    if (!options.scc.empty()) write_scc_file(options, stream, captions);
    if (!options.page.empty())
        programme::write_file(options.page, report::inspection_page(options.input, stream, captions));
    const auto report = options.json ? report::inspection_json : report::inspection_text;
    fmt::print("{}", report(options.input, stream, captions, options.pictures));
    return 0;
}

}  // namespace gsve::cli
