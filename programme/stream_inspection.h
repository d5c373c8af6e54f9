#pragma once

// A stream read to its end: every picture that the decoder made of it, in the order of display, with what its
// coded unit carried.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "encoding/unit_contents.h"
#include "programme/buffer_verdict.h"
#include "programme/damage.h"

namespace gsve::programme {

struct InspectedPicture {
    char type = '?';               ///< I, P, B
    double time = 0;               ///< seconds after the first picture
    int64_t unit = 0;              ///< its place in coding order
    size_t bytes = 0;              ///< of its coded unit
    int field_order = 0;           ///< 0 progressive, 1 top field first, 2 bottom field first
    bool top_field_first = false;  ///< as flagged, in a progressive picture too
    bool damaged = false;          ///< parts of it are missing, or made up by the decoder
    encoding::UnitCaptions captions;
};

struct Gop {
    encoding::GopStart start;
    int64_t picture = 0;  ///< display number of its first coded picture
    std::string types;    ///< of its pictures, in coding order
};

struct InspectedStream {
    std::string format;  ///< the container's short name
    std::string codec;
    bool mpeg_video = false;  ///< A/53 data stands in picture user data, not in SEI messages
    int width = 0;
    int height = 0;
    captions::FrameRate rate = captions::kRate25;
    std::vector<InspectedPicture> pictures;  ///< in the order of display
    std::vector<Gop> gops;                   ///< in coding order
    Damage damage;
    std::optional<BufferVerdict> buffer;  ///< where it was asked for; of coding order
    std::string problem;                  ///< why reading ended early; empty: it did not
};

/// Reads the file's video; with `check_buffer`, checks the decoder's buffer too. Throws Failure when it
/// cannot be opened or holds no picture that can be decoded.
InspectedStream read_stream(const std::string& path, bool check_buffer = false);

}  // namespace gsve::programme
