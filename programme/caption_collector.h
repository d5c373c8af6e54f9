#pragma once

// The captions of a stream that is being decoded, frame by frame.

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "captions/parity.h"
#include "captions/schedule.h"
#include "programme/av.h"
#include "programme/caption_packets.h"

namespace gsve::programme {

/// The captions that come with one frame, or from it on. Frames are counted at the source's own rate, before
/// any were repeated or left out.
struct SourceCaptions {
    int64_t frame = 0;
    captions::PictureCaptions captions;
};

class CaptionCollector {
public:
    /// `form`: of the stream's first captions. `rate`: its own.
    CaptionCollector(std::optional<CaptionForm> form, AVCodecID codec, AVRational rate, AVRational time_base);

    /// By how many frames at most the captions come after their pictures have been decoded.
    int behind() const;

    /// To be called for every packet on its way to the decoder: leaves the decoder one form of captions.
    void packet(AVPacket& packet);

    /// To be called for every decoded picture. One without captions counts too: it tells that there was a
    /// pause.
    void frame(const AVFrame& frame);

    /// The captions collected since the last call, in the order of their frames. Damaged byte pairs are what
    /// a receiver makes of them.
    std::vector<SourceCaptions> take() { return std::exchange(captions_, {}); }

    /// The byte pairs that came with wrong parity so far.
    const captions::ParityDamage& parity_damage() const { return parity_.damage(); }

private:
    void add(int64_t frame, captions::PictureCaptions captions);
    void add_cc_run(const CcRun& run);

    std::optional<CaptionForm> form_;
    AVCodecID codec_;
    AVRational rate_;
    AVRational time_base_;
    CaptionFormFilter filter_;
    captions::ParityRepair parity_;
    CcClock cc_clock_;
    bool cc_in_use_;
    bool three_fields_ = false;  ///< a picture has been shown for as long
    int64_t next_frame_ = 0;     ///< after the picture that was decoded last
    int64_t newest_frame_ = 0;   ///< of the latest captions
    std::vector<SourceCaptions> captions_;
};

}  // namespace gsve::programme
