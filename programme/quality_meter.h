#pragma once

// How far the pictures that a decoder makes of the stream are from those that the encoder was given: PSNR and
// SSIM, as libavfilter computes them.

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "encoding/picture_encoder.h"
#include "programme/ahead.h"
#include "programme/av.h"
#include "programme/picture_quality.h"

namespace gsve::programme {

/// Decodes every unit with libavcodec, in a thread of its own.
class QualityMeter {
public:
    /// `encoder` is open. Throws Failure where there is no decoder for what it makes.
    explicit QualityMeter(encoding::PictureEncoder& encoder);

    /// The picture that the codec was given, scaled and deinterlaced where that is asked for, by its number
    /// in the source. It is copied. Throws what measuring an earlier one failed with.
    void given(const AVFrame& picture, uint64_t number);

    /// The same of a unit.
    void unit(const encoding::EncodedUnit& unit);

    /// All pictures that came out of the decoder, in the order of display. To be called once, at the end.
    std::vector<PictureQuality> finish();

private:
    struct Work {
        FramePtr given;   ///< either this
        PacketPtr coded;  ///< or that
    };

    void work(Work what);
    void decode_held();
    void decode(const AVPacket* coded);
    void compare(AVFrame& decoded, AVFrame& given);
    void build(const AVFrame& first);

    CodecContextPtr decoder_;
    PacketPtr held_;  ///< the latest unit
    FramePtr decoded_ = new_frame();
    std::map<int64_t, FramePtr> given_;  ///< by number, as long as they wait for their units
    FilterGraphPtr graph_;
    AVFilterContext* in_[2] = {};  ///< decoded, given
    AVFilterContext* out_ = nullptr;
    std::vector<PictureQuality> pictures_;
    std::unique_ptr<Behind<Work>> thread_;
};

}  // namespace gsve::programme
