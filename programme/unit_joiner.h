#pragma once

// H.264 and H.265 in containers whose samples are not whole pictures. By the rules of those containers they
// are; where each NAL unit is a sample of its own, a decoder would take each slice for a picture.

#include <cstdint>
#include <span>

#include "programme/av.h"

namespace gsve::programme {

class UnitJoiner {
public:
    UnitJoiner() = default;
    explicit UnitJoiner(const AVCodecParameters& stream);

    /// Whether there may be anything to join: the stream is of NAL units with a length in front.
    bool active() const { return length_size_ > 0; }

    /// Whether `next` goes on with the picture, or field, of `unit`. Any bytes may be given.
    bool continues(std::span<const uint8_t> unit, std::span<const uint8_t> next) const;

    /// Throws std::bad_alloc.
    void append(AVPacket& unit, const AVPacket& next) const;

private:
    bool awaits_slice(std::span<const uint8_t> unit) const;
    bool is_slice(std::span<const uint8_t> nal) const;
    bool follows_slice(std::span<const uint8_t> nal) const;
    bool begins_decoding(std::span<const uint8_t> nal) const;

    AVCodecID codec_ = AV_CODEC_ID_NONE;
    size_t length_size_ = 0;
};

}  // namespace gsve::programme
