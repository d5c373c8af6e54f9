#pragma once

// Jobs as values of JSON, for the documents that have them.

#include <nlohmann/json.hpp>

#include "programme/encode_job.h"

namespace gsve::report {

nlohmann::ordered_json job_value(const programme::EncodeJob& job);

/// Throws UsageError.
programme::EncodeJob parse_job_value(const nlohmann::ordered_json& value);

}  // namespace gsve::report
