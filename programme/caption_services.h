#pragma once

// Which caption services go out.

#include <cstdint>
#include <string>
#include <vector>

#include "captions/dtvcc.h"
#include "captions/eia608_decoder.h"
#include "captions/repacer.h"

namespace gsve::programme {

class SentServices {
public:
    /// `rate`: that of the pictures.
    explicit SentServices(captions::FrameRate rate) : line21_(rate) {}

    /// What goes with a picture. Pictures ascend.
    void note(int64_t picture, const captions::PictureWrites& writes);

    /// As HLS calls them (RFC 8216, 4.3.4.1): "CC1" to "CC4", "SERVICE1" to "SERVICE63".
    std::vector<std::string> names() const;

private:
    captions::Eia608Decoder line21_;
    captions::DtvccDecoder dtvcc_;
};

}  // namespace gsve::programme
