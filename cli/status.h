#pragma once

// The encoder's status report, read back from the packet that the host framework would send.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gsve.h>

namespace gsve::cli {

/// The pairs that the encoder reports, under names that carry `report_name`.
std::vector<std::pair<std::string, std::string>> status_pairs(GeneralStreamingVideoEncoder& encoder,
                                                              const std::string& report_name);

/// What a pair is about: its name without the report name.
std::string_view pair_subject(std::string_view pair_name);

/// Lines made one, with commas between them.
std::string one_line(std::string text);

}  // namespace gsve::cli
