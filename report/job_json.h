#pragma once

// Jobs as JSON, for those who run them later or elsewhere.

#include <string>
#include <string_view>

#include "programme/encode_job.h"

namespace gsve::report {

std::string job_json(const programme::EncodeJob& job);

/// The job that job_json() wrote. Throws UsageError, with what is wrong, for another text: what is missing,
/// of the wrong kind, or unknown.
programme::EncodeJob parse_job(std::string_view json);

}  // namespace gsve::report
