#pragma once

// The encoder's status report, read back from the packet that the host framework would send.

#include <string>
#include <utility>
#include <vector>

#include <gsve.h>

namespace gsve::encoding {

/// The pairs that the encoder reports, under names that carry `report_name`.
std::vector<std::pair<std::string, std::string>> status_pairs(GeneralStreamingVideoEncoder& encoder,
                                                              const std::string& report_name);

}  // namespace gsve::encoding
