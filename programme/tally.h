#pragma once

// What happened to the pictures of one encoding, in figures.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>

#include <fmt/format.h>

#include "captions/timecode.h"
#include "encoding/encoded_unit.h"
#include "encoding/error.h"

namespace gsve::programme {

/// The largest number of bits in any second of the stream, at decoding time.
class PeakRate {
public:
    explicit PeakRate(double pictures_per_second) : window_(pictures_per_second) {}

    void add(int64_t dts, size_t bytes) {
        recent_.push_back({dts, bytes});
        sum_ += bytes;
        while (static_cast<double>(dts - recent_.front().dts) >= window_) {
            sum_ -= recent_.front().bytes;
            recent_.pop_front();
        }
        peak_ = std::max(peak_, sum_);
    }

    double bits_per_second() const { return 8.0 * static_cast<double>(peak_); }

private:
    struct Entry {
        int64_t dts;
        size_t bytes;
    };
    double window_;
    std::deque<Entry> recent_;
    size_t sum_ = 0;
    size_t peak_ = 0;
};

struct Tally {
    explicit Tally(captions::FrameRate rate) : frame_rate(rate), peak(rate.per_second()) {}

    void picture(encoding::PictureFate fate) {
        pictures++;
        skipped += fate == encoding::PictureFate::kSkipped;
        dropped += fate == encoding::PictureFate::kDropped;
    }

    void unit(const encoding::EncodedUnit& unit) {
        units++;
        bytes += unit.bytes.size();
        types[unit.type]++;
        peak.add(unit.dts, unit.bytes.size());
    }

    double seconds() const { return static_cast<double>(pictures) / frame_rate.per_second(); }
    double mean_bit_rate() const { return pictures ? 8.0 * static_cast<double>(bytes) / seconds() : 0; }
    /// Over one second; a stream shorter than that has only a mean.
    double peak_bit_rate() const { return seconds() < 1 ? mean_bit_rate() : peak.bits_per_second(); }
    /// Pictures that the codec took and never returned.
    int64_t lost() const { return static_cast<int64_t>(pictures - skipped - dropped - units); }

    captions::FrameRate frame_rate;
    uint64_t pictures = 0;   ///< offered to the encoder
    uint64_t skipped = 0;    ///< by the frame-rate limit
    uint64_t dropped = 0;    ///< for the bit rate
    uint64_t units = 0;      ///< encoded pictures
    uint64_t held_back = 0;  ///< of these, drained after the last picture
    uint64_t bytes = 0;
    std::map<char, uint64_t> types;
    PeakRate peak;
};

/// Throws Failure where pictures were lost.
inline void check_complete(const Tally& tally) {
    if (tally.lost() > 0)
        throw Failure(
            fmt::format("{} {} went into the codec and never came out: it tells why above; where it says "
                        "\"stuffing too large\", --set \"min bitrate=0\"",
                        tally.lost(), tally.lost() == 1 ? "picture" : "pictures"));
}

}  // namespace gsve::programme
