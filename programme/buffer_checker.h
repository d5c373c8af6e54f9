#pragma once

// Whether a stream keeps to the decoder's buffer that it declares: MPEG-1 and MPEG-2 by the video buffering
// verifier (ISO/IEC 13818-2, annex C), H.264 by the hypothetical reference decoder (ITU-T H.264, annex C).
//
// Example: the units of a file, or of an encoder, in the order in which they leave
//     BufferChecker checker(AV_CODEC_ID_MPEG2VIDEO);
//     for (const auto& unit : units) checker.unit(unit);
//     const BufferVerdict verdict = checker.finish();

#include <cstdint>
#include <span>

#include "programme/buffer_verdict.h"
#include "programme/hrd_reader.h"
#include "programme/vbv_reader.h"
extern "C" {
#include <libavcodec/codec_id.h>
}

namespace gsve::programme {

class BufferChecker {
public:
    explicit BufferChecker(AVCodecID codec) : codec_(codec) {}

    /// Parameter sets that the container keeps, with start codes.
    void headers(std::span<const uint8_t> bytes) {
        if (codec_ == AV_CODEC_ID_H264) hrd_.headers(bytes);
    }

    /// The next unit in coding order, with start codes and without a byte left out. Any bytes may be given.
    void unit(std::span<const uint8_t> bytes);

    /// Once all units are given: rates and delays are known from the next unit only, and the buffer drains
    /// where the stream ends.
    BufferVerdict finish() const;

private:
    AVCodecID codec_;
    int64_t units_ = 0, placed_ = 0;
    bool periods_ = false;  ///< H.265 with buffering periods
    VbvReader vbv_;
    HrdReader hrd_;
};

}  // namespace gsve::programme
