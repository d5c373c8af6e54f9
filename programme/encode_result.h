#pragma once

// What came of one encoding: all that its reports are made from.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "encoding/caption_account.h"
#include "programme/damage.h"
#include "programme/encode_job.h"
#include "programme/picture_quality.h"
#include "programme/stream_account.h"
#include "programme/tally.h"

namespace gsve::programme {

struct EncodeResult {
    EncodeJob job;      ///< with the number of threads that was used
    std::string codec;  ///< as the setting "encoder" names it
    int width = 0;      ///< as encoded
    int height = 0;
    captions::FrameRate frame_rate = captions::kRate25;  ///< as encoded
    bool adapts_to_load = false;  ///< the same input may give other bytes on a busier machine
    bool repeatable = false;      ///< the same input gives the same bytes, on as many threads
    Tally tally{captions::kRate25};
    std::optional<uint64_t> source_pictures;  ///< decoded, where repeating or leaving out changed the number
    encoding::CaptionAccount captions;
    std::vector<StreamAccount> streams;  ///< of the input, beside the picture, that were chosen
    Damage damage;                       ///< of the input, as far as it was read
    std::string timecode;                ///< of the first picture; empty: none was written
    std::vector<std::pair<std::string, std::string>> status;  ///< the encoder's report
    std::vector<PictureQuality> quality;  ///< in the order of display, where it was asked for
    std::string notes;                    ///< what its observer was told, a line each
    double elapsed = 0;                   ///< seconds of work
    int stopped_by = 0;                   ///< why it ended early on request, the observer's stop_reason()
    std::string problem;                  ///< why the input ended early; empty: it did not
};

}  // namespace gsve::programme
