#include "report/join_report.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "report/buffer_report.h"

namespace gsve::report {

std::string join_text(const std::string& output, size_t chunks, const programme::JoinResult& result) {
    return fmt::format("{}: {} pictures of {} chunks, {} bytes, {} of them stuffing\n{}\n", output,
                       result.units, chunks, result.bytes, result.stuffed,
                       fmt::join(buffer_lines(result.buffer), "\n"));
}

}  // namespace gsve::report
