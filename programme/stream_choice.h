#pragma once

// What a user asks of an input's streams and times.

#include <optional>
#include <vector>

namespace gsve::programme {

/// Which streams of the input the output is to have.
struct StreamChoice {
    std::vector<int> streams;  ///< by their numbers in the input; empty: all of them
    std::optional<int>
        program;  ///< of a transport stream with several; nothing: the one with the best picture
    bool sound = true;

    friend bool operator==(const StreamChoice&, const StreamChoice&) = default;
};

/// For how long a file's pause is filled with its last picture, in seconds, unless the user says.
inline constexpr double kLongestRepeat = 60;

}  // namespace gsve::programme
