#pragma once

// The video buffering verifier of MPEG-2 (ISO/IEC 13818-2, annex C), and of MPEG-1, whose annex C is that of
// progressive pictures without repetitions.

#include <cstdint>
#include <span>
#include <vector>

#include "programme/buffer_account.h"

namespace gsve::programme {

class VbvReader {
public:
    /// The next unit in coding order: any number of pictures, fields too, and what stands before them. False
    /// where no picture begins in it; its bits count for the next one.
    bool unit(std::span<const uint8_t> bytes, int64_t number);

    /// The accounts of a stream that declares a buffer.
    std::vector<BufferAccount> finish() const;

private:
    /// What the sequence header and its extension say.
    struct Sequence {
        int64_t bit_rate = 0;      ///< bits/s; 0: not stated
        int64_t size = 0;          ///< bits; 0: not stated
        double frame_seconds = 0;  ///< 0: not stated
        bool progressive = true;   ///< progressive_sequence
        bool low_delay = false;
        unsigned rate_value = 0, size_value = 0, frame_rate_code = 0;
    };
    struct Picture {
        int64_t unit = 0;
        double start = 0;  ///< position of the end of its picture start code
        double end = 0;
        double interval = 0;  ///< seconds from its removal to the next one
        unsigned vbv_delay = 0;
        int coding_type = 0;
        int structure = 0;
        bool top_field_first = false, repeat_first_field = false;
        bool second_field = false;
    };

    void read_sequence_header(std::span<const uint8_t> payload);
    void read_extension(std::span<const uint8_t> payload);
    void begin_picture(std::span<const uint8_t> payload, int64_t unit, double start);
    void end_picture(double position);
    double display_seconds(const Picture& picture) const;
    double decoding_interval(const Picture& picture) const;
    std::vector<AccessUnit> removals() const;
    BufferAccount by_vbv_delay(std::span<const AccessUnit> units) const;
    BufferAccount at_constant_rate(std::span<const AccessUnit> units) const;
    BufferAccount filled_up(std::span<const AccessUnit> units) const;
    BufferAccount declared(BufferModel model) const;

    Sequence sequence_;  ///< of the headers that came last
    Sequence first_;     ///< as the first picture had it
    std::vector<Picture> pictures_;
    bool in_picture_ = false, in_slices_ = false;
    double anchor_seconds_ = 0;  ///< for how long the last I- or P-frame is shown; 0: there was none
    double position_ = 0;
};

}  // namespace gsve::programme
