#include "encoding/caption_forms.h"

#include <algorithm>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/error.h"
#include "encoding/frame_rate.h"

namespace gsve::encoding {
namespace {

using captions::FrameRate;

// The encoder keeps the captions of this many pictures for those that the codec still holds.
constexpr int kRecordsKept = 60;

bool drops_pictures(const PictureEncoder& encoder) {
    constexpr int kAutomaticBelow = 750000;
    return encoder.drop_frame_for_bitrate_limit > 0 ||
           (encoder.drop_frame_for_bitrate_limit < 0 && encoder.bitrate < kAutomaticBelow);
}

}  // namespace

CaptionForms caption_forms(PictureEncoder& encoder, bool scte20) {
    constexpr int kFastestCc = 33;
    const FrameRate rate = caption_rate(encoder.encoded_rate());
    const bool cc =
        encoder.codec_id == kMpeg2 && encoder.enabled_eia608() && rate.num / rate.den <= kFastestCc;
    CaptionForms forms;
    forms.cc = cc;
    forms.cc_data = encoder.enabled_cea708();
    forms.scte20 = scte20;
    const bool alone = forms.cc_data && !cc && !scte20 && !drops_pictures(encoder);
    if (alone && captions::runs_at_full_rate(rate, captions::LineRate::kFull))
        forms.line_rate = captions::LineRate::kFull;
    return forms;
}

void check_caption_settings(PictureEncoder& encoder, const CaptionForms& forms) {
    // "CC" user data holds the pairs of all pictures since the one that had it last.
    const int b_frames = encoder.mpeg_context->max_b_frames;
    const int distance = encoder.do_eia608_on_p_frames() ? b_frames + 1 : encoder.effective_gop_size;
    const int delay = b_frames > 0 ? b_frames + 1 : 0;
    if (forms.cc && distance > kRecordsKept - delay)
        throw UsageError(fmt::format(
            "\"CC\" captions would come only every {} pictures, and reach back {}: set \"gop size\" to {} or "
            "less, \"eia-608 on p-frames\" to 1, or \"enable eia-608\" to 0",
            distance, kRecordsKept - delay, kRecordsKept - delay));

    if (!drops_pictures(encoder)) return;
    if (forms.cc && !encoder.per_frame_rate_control)
        throw UsageError(
            "\"CC\" captions repeat those of dropped pictures here: set \"drop frame for bitrate limit\" to "
            "off, \"enable eia-608\" to 0, or \"constant bitrate per frame\" to 1");
    if (captions::picture_budget(caption_rate(encoder.encoded_rate())).alternating_fields &&
        encoder.per_frame_rate_control)
        throw UsageError(
            "above 39 pictures/s captions alternate between the fields, and dropped pictures would swap "
            "them: set \"drop frame for bitrate limit\" to off, or \"constant bitrate per frame\" to 0");
}

void choose_caption_forms(PictureEncoder& encoder, const CaptionWish& wish,
                          const std::vector<std::string>& decided) {
    const auto choose = [&](const char* key, const char* value) {
        if (std::find(decided.begin(), decided.end(), key) == decided.end()) encoder.apply(key, value);
    };
    if (!wish.wanted || wish.present) choose("enable cea-708", wish.wanted ? "1" : "0");
    if (!wish.wanted || encoder.enabled_cea708() || wish.scte20) choose("enable eia-608", "0");
}

}  // namespace gsve::encoding
