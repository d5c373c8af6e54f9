#pragma once

// What a job's output is to be.

#include "programme/encode_job.h"
#include "programme/output.h"

namespace gsve::programme {

/// Throws UsageError where there is no format of this name.
OutputFormat output_of(const EncodeJob& job);

}  // namespace gsve::programme
