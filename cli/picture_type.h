#pragma once

// Picture coding types of encoded units, read back from the stream.

#include <cstdint>
#include <span>

#include "av.h"

namespace gsve::cli {

class PictureTypeReader {
public:
    /// Reads units of the codec that `encoder` has open.
    explicit PictureTypeReader(const AVCodecContext& encoder);

    /// 'I', 'P' or 'B'; '?' where the unit does not tell.
    char type(std::span<const uint8_t> unit);

private:
    AVCodecID codec_;
    ParserPtr parser_;  ///< H.264 and H.265
    CodecContextPtr context_;
};

}  // namespace gsve::cli
