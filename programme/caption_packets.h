#pragma once

// Captions in packets that are not decoded yet.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "captions/line21.h"
#include "programme/av.h"

namespace gsve::programme {

/// In which form a stream has captions, the best first. H.264 and H.265 have A/53 only.
enum class CaptionForm { kA53, kScte20, kCc };

/// Whether streams of the codec may have captions at all.
bool may_have_captions(AVCodecID codec);

/// The best form in which a packet has caption user data, idle ones included.
std::optional<CaptionForm> caption_form(AVCodecID codec, std::span<const uint8_t> packet);

/// Byte pairs of field 1 and field 2 for successive frames.
using CcRun = std::vector<std::pair<captions::Word, captions::Word>>;

/// Many MPEG-2 streams have the same EIA-608 captions in several forms, not all of them in every picture.
/// FFmpeg's decoder puts all that a picture has into one list, in which every byte pair would then come
/// twice. Of the forms that came lately, this one leaves the decoder the best.
class CaptionFormFilter {
public:
    /// Makes the other forms in the packet unreadable, and always "CC", of which a decoder does not tell how
    /// it is spread over the pictures. Gives the packet's "CC" pairs where there is nothing better. To be
    /// called for every packet. Throws std::bad_alloc.
    std::optional<CcRun> filter(AVCodecID codec, AVPacket& packet);

private:
    bool in_use(CaptionForm form) const;

    std::array<std::optional<int64_t>, 3> seen_in_;  ///< by form: the number of the latest packet with it
    int64_t packets_ = 0;
};

/// Tells to which frames the pairs of "CC" user data belong. It does not say: the pairs of a stream are one
/// for each frame, and come a run at a time, either with the first of its pictures (as on DVD) or with the
/// first picture that is decoded after the last of them.
class CcClock {
public:
    /// The frame of the first pair of a run, which comes while `next_shown` is the next frame that the
    /// decoder is going to show. Where packets were lost or the captions paused, it is the frame nearest to
    /// that.
    int64_t begin(int64_t next_shown, int64_t pairs);

private:
    std::optional<int64_t> expected_;
    int64_t end_after_shown_ = 0;  ///< where the latest run ended, seen from the frame that was shown next
};

}  // namespace gsve::programme
