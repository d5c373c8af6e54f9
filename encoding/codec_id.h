#pragma once

namespace gsve::encoding {

/// GeneralStreamingVideoEncoder::codec_id.
inline constexpr int kMpeg2 = 2, kH264 = 4, kH265 = 8;

}  // namespace gsve::encoding
