#pragma once

// The forms in which an encoder sends captions, and which of them to choose.

#include "encoding/picture_encoder.h"

namespace gsve::encoding {

/// In which forms an opened encoder sends captions.
struct CaptionForms {
    bool cc = false;       ///< MPEG-2 "CC" user data
    bool cc_data = false;  ///< A/53 cc_data
    bool scte20 = false;
    /// How many byte pairs film carries: all of EIA-608's, unless a form goes out that has one of each field
    /// with a picture and is to say the same, or pictures may be dropped, and their pairs have to find room
    /// elsewhere.
    captions::LineRate line_rate = captions::LineRate::kPairOfEachField;

    bool pairs() const { return cc || cc_data || scte20; }
};

CaptionForms caption_forms(PictureEncoder& encoder, bool scte20);

/// What is known of the captions before the encoder opens.
struct CaptionWish {
    bool wanted = true;    ///< they are to be sent
    bool present = false;  ///< there are some
    bool scte20 = false;   ///< and they go out as SCTE 20, too
};

/// The settings that choose the forms: none where captions are not wanted, else A/53 where there are
/// captions, and no "CC" user data beside it or SCTE 20, which says the same once more. Readers that know
/// both, FFmpeg among them, mix them up. Settings of `decided` keys stay as they are.
void choose_caption_forms(PictureEncoder& encoder, const CaptionWish& wish,
                          const std::vector<std::string>& decided);

/// Throws UsageError where the opened encoder's settings would lose captions on the way.
void check_caption_settings(PictureEncoder& encoder, const CaptionForms& forms);

}  // namespace gsve::encoding
