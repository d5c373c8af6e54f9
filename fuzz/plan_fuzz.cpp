// Plans, manifests and jobs as JSON of anybody's: refused with one error of the user's, or taken, and then
// written and read again as the same.

#include <cstdlib>
#include <string>
#include <string_view>

#include "encoding/error.h"
#include "input.h"
#include "report/job_json.h"
#include "report/plan_json.h"

namespace {

using namespace gsve;

/// Ends the process where a document that was taken is not read again as what it was.
template <class Value>
void check(std::string_view text, Value (*parse)(std::string_view), std::string (*write)(const Value&)) {
    Value value;
    try {
        value = parse(text);
    } catch (const UsageError&) {
        return;
    }
    std::string written;
    try {
        written = write(value);
    } catch (const UsageError&) {
        return;  // a name that is no UTF-8 text
    }
    if (!(parse(written) == value)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    check(text, report::parse_plan, report::plan_json);
    check(text, report::parse_task, report::task_json);
    check(text, report::parse_job, report::job_json);
    return 0;
}
