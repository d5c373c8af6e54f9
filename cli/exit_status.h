#pragma once

namespace gsve::cli {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitSignal = 128;  ///< plus the signal's number, as shells report it

}  // namespace gsve::cli
