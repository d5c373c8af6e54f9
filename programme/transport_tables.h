#pragma once

// What a transport stream's tables announce, where libavformat does not tell (ISO/IEC 13818-1, 2.4.4).

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace gsve::programme {

/// PIDs that a program map announces for more than one stream, of which only one can be read.
std::vector<int> shared_pids(std::span<const uint8_t> packets);

/// Of the beginning of a file; empty where it is no transport stream.
std::vector<int> shared_pids(const std::string& path);

}  // namespace gsve::programme
