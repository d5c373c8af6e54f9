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
#include "report/inspection_report.h"

namespace gsve::cli {
namespace {

void check_scc_output(const InspectOptions& options) {
    std::error_code absent;
    if (std::filesystem::equivalent(options.input, options.scc, absent))
        throw UsageError("the SCC file is the input itself: name another");
    check_overwriting(options.scc, options.overwrite);
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
    if (!options.scc.empty()) check_scc_output(options);
    const programme::InspectedStream stream = programme::read_stream(options.input, options.buffer);
    const programme::CaptionInventory captions = take_inventory(stream);
    if (!options.scc.empty()) write_scc_file(options, stream, captions);
    const auto report = options.json ? report::inspection_json : report::inspection_text;
    fmt::print("{}", report(options.input, stream, captions, options.pictures));
    return 0;
}

}  // namespace gsve::cli
