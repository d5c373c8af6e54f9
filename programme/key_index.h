#pragma once

// Where decoding may begin in a file.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "programme/stream_choice.h"

struct AVPacket;

namespace gsve::programme {

/// A coded picture that needs none before it. Times are the container's, in the stream's unit.
struct KeyPicture {
    int64_t dts = 0;  ///< where the container does not tell, as pts
    int64_t pts = 0;

    friend bool operator==(const KeyPicture&, const KeyPicture&) = default;
};

/// Sees each packet of the picture.
using PacketVisitor = std::function<void(AVPacket&)>;

struct KeyIndex {
    std::vector<KeyPicture>
        keys;                 ///< in the order of decoding; empty where a picture cannot be found by its time
    std::string why_none;     ///< then, the reason
    bool has_pauses = false;  ///< that last longer than pictures are repeated for

    friend bool operator==(const KeyIndex&, const KeyIndex&) = default;
};

/// Reads all packets of a file, and decodes none. `longest_repeat`: pauses that last longer, in seconds, are
/// none of the pictures' time. Throws Failure where there is no such file, or no picture in it.
KeyIndex index_keys(const std::string& path, const StreamChoice& choice, double longest_repeat,
                    const PacketVisitor& visit = {});

}  // namespace gsve::programme
