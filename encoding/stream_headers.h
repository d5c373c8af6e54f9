#pragma once

// What a stream's own headers say of it: MPEG-2's sequence header and its extensions (ISO/IEC
// 13818-2, 6.2.2), the parameter sets of H.264 and H.265. The codec writes them; here they come to say what
// really leaves.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "encoding/colour.h"

namespace gsve::encoding {

/// What headers are to say beyond what the codec wrote.
struct HeaderFacts {
    Colour colour;
    double inserted_rate =
        0;  ///< bits/s in the units beyond the codec's own, at most; 0: none, the codec's stands
    int64_t codec_rate = 0;  ///< MPEG-2: bits/s of the codec's, which the header has rounded
};

class StreamHeaders {
public:
    /// `codec_id` is GeneralStreamingVideoEncoder's.
    StreamHeaders(int codec_id, const HeaderFacts& facts) : codec_id_(codec_id), facts_(facts) {}

    /// The unit with what its headers are to say; empty where it has none, and stays as it is.
    std::vector<uint8_t> rewritten(std::span<const uint8_t> unit);

    /// By how many bits/s the headers declare more than the codec, once some came; nothing where they declare
    /// no rate, as MPEG-2 at a variable rate without a limit, and H.264 without HRD parameters.
    std::optional<double> raised_by() const { return raised_by_; }

    /// Bits/s that they declare then.
    double declared_rate() const { return declared_rate_; }

    /// Headers that cannot be read, and were left as they came.
    uint64_t unreadable() const { return unreadable_; }

private:
    std::vector<uint8_t> rewrite_headers(std::span<const uint8_t> headers);
    std::vector<uint8_t> with_rate(std::vector<uint8_t> headers);
    std::vector<uint8_t> with_mpeg2_rate(std::vector<uint8_t> headers);
    std::vector<uint8_t> with_h264_rate(const std::vector<uint8_t>& headers);

    int codec_id_;
    HeaderFacts facts_;
    std::optional<double> raised_by_;
    double declared_rate_ = 0;
    uint64_t unreadable_ = 0;
    std::vector<uint8_t> latest_, latest_rewritten_;  ///< headers repeat
};

}  // namespace gsve::encoding
