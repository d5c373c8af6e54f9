// Every call of the encoder into FFmpeg, into the host's libraries and to files made to fail in turn, once
// and for good: no exception, the stated result, nothing left behind, and the next run as good as any.

#include "support/fault_sweep.h"

namespace gsve::test {
namespace {

INSTANTIATE_TEST_SUITE_P(Calls, FaultSweep,
                         testing::ValuesIn(fault_cases({FaultKind::kCodecCall, FaultKind::kHostCall,
                                                        FaultKind::kFileCall})),
                         fault_case_name);

}  // namespace
}  // namespace gsve::test
