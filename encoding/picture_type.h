#pragma once

// Picture coding types of encoded units, read back from the stream.

#include <cstdint>
#include <optional>
#include <span>

#include "encoding/av.h"

namespace gsve::encoding {

/// The start of a coded MPEG-2 picture (ISO/IEC 13818-2, 6.3.9).
struct Mpeg2PictureHeader {
    char type = '?';             ///< 'I', 'P' or 'B'
    int temporal_reference = 0;  ///< how many pictures of its GOP are displayed before it
};

/// Of the first picture in the unit; nothing where it has none.
std::optional<Mpeg2PictureHeader> mpeg2_picture_header(std::span<const uint8_t> unit);

class PictureTypeReader {
public:
    /// Reads units of the codec that `encoder` has open.
    explicit PictureTypeReader(const AVCodecContext& encoder);

    /// 'I', 'P' or 'B'. An encoder's units always tell; of others '?' where MPEG-2 has no picture header, and
    /// 'I' where H.264 or H.265 has no slice.
    char type(std::span<const uint8_t> unit);

private:
    AVCodecID codec_;
    ParserPtr parser_;  ///< H.264 and H.265
    CodecContextPtr context_;
};

}  // namespace gsve::encoding
