#pragma once

// For how long the data of a picture wait in a decoder's buffer, as the stream says it: vbv_delay of MPEG-2
// (ISO/IEC 13818-2, 6.3.9 and annex C), the buffering periods of H.264 (ITU-T H.264, D.2.1 and annex C).
//
// The codec counts its own bits at its own rate. What is inserted comes on top of both, as much with a small
// picture as with a large one, so that data arrive up to some milliseconds earlier or later than the codec
// says. The first picture's delay is the codec's; those behind it are what follows from that.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "encoding/hrd_syntax.h"

namespace gsve::encoding {

/// Takes an MPEG-2 picture's delay back: data arrive at no constant rate.
void state_variable_rate(std::span<uint8_t> unit);

class BufferDelays {
public:
    /// For a stream of GeneralStreamingVideoEncoder's `codec_id` that declares `rate` bits/s, and `period`
    /// seconds from one picture to the next.
    BufferDelays(int codec_id, double rate, double period)
        : codec_id_(codec_id), rate_(rate), period_(period) {}

    /// Parameter sets that stand outside of the units.
    void know(std::span<const uint8_t> parameter_sets);

    /// Sets the delays in a unit, whose size may change by emulation prevention bytes.
    void restate(std::vector<uint8_t>& unit);

    /// The unit has left with this size.
    void left(size_t bytes);

private:
    void restate_mpeg2(std::vector<uint8_t>& unit);
    void restate_h264(std::vector<uint8_t>& unit);
    double initial_delay(const InitialDelay& stated, const HrdSchedule& schedule) const;

    int codec_id_;
    double rate_, period_;
    double sent_ = 0;         ///< bits, so far
    int64_t units_ = 0;       ///< so far
    double first_delay_ = 0;  ///< seconds, of the first unit

    // MPEG-2
    double first_start_ = 0;  ///< bit at which the first picture's start code ends

    // H.264. Times are in seconds after the first removal.
    HrdSequences sequences_;
    std::optional<unsigned> active_;
    std::optional<HrdSchedule> schedule_;
    double period_begin_ = 0;  ///< removal of the picture with which the buffering period began
    double removal_ = 0;       ///< of the unit
    double wait_ = 0;          ///< for which data may be in the buffer, with a variable rate
    double arrived_ = 0;       ///< the last bit of the unit before
};

}  // namespace gsve::encoding
