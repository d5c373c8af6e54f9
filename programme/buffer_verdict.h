#pragma once

// What a decoder's buffer makes of a stream: whether every coded picture is in it when it is due, and whether
// it ever holds more than it can.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace gsve::programme {

/// How data arrive, and which buffer they arrive in.
enum class BufferModel {
    kVbvDelay,         ///< ISO/IEC 13818-2, C.3.1: at the rates that follow from the pictures' vbv_delay
    kVbvConstantRate,  ///< at the declared bit rate without a pause, from the first picture's vbv_delay on
    kVbvFilledUp,      ///< ISO/IEC 13818-2, C.3.2, vbv_delay FFFF: at the declared bit rate until it is full
    kHrdConstantRate,  ///< ITU-T H.264, C.1.1, cbr_flag 1
    kHrdVariableRate,  ///< ITU-T H.264, C.1.1, cbr_flag 0
};

struct BufferFinding {
    enum class Kind {
        kUnderflow,     ///< bits of the picture that have not arrived when it is due
        kOverflow,      ///< bits beyond what the buffer holds, just before the picture is removed
        kRate,          ///< bits that arrive beyond the declared rate, up to the next picture
        kInitialDelay,  ///< bits by which initial_cpb_removal_delay lies outside of H.264's C-15 or C-16
    };
    static constexpr size_t kKinds = 4;

    Kind kind = Kind::kUnderflow;
    int64_t unit = 0;    ///< in coding order, from 0
    double seconds = 0;  ///< when its picture is decoded, after the first one
    int64_t bits = 0;

    friend bool operator==(const BufferFinding&, const BufferFinding&) = default;
};

/// The buffer around the removal of one coded picture.
struct BufferFullness {
    int64_t unit = 0;       ///< in coding order; the two field pictures of a frame may be in one
    double seconds = 0;     ///< of the removal, after the first one
    int64_t bits = 0;       ///< that are removed
    int64_t before = 0;     ///< bits in the buffer; less than are removed where the picture is late
    bool arriving = false;  ///< the stream has not arrived to its end yet
    std::optional<double> stated_delay;  ///< seconds: vbv_delay or initial_cpb_removal_delay

    int64_t after() const { return before - bits; }

    friend bool operator==(const BufferFullness&, const BufferFullness&) = default;
};

/// One buffer over the whole stream.
struct BufferAccount {
    BufferModel model = BufferModel::kVbvDelay;
    int64_t bit_rate = 0;      ///< bits/s, as declared
    int64_t size = 0;          ///< bits, as declared
    double initial_delay = 0;  ///< seconds for which data arrive before the first removal
    std::array<int64_t, BufferFinding::kKinds> faults = {};  ///< how many of each kind
    std::array<int64_t, BufferFinding::kKinds> most = {};    ///< bits of the largest of each kind
    std::vector<BufferFinding> findings;                     ///< the first of each kind, in coding order
    int64_t delayed = 0;                                     ///< pictures that low delay lets be late
    int64_t least = 0;                                       ///< bits after a removal, as long as data arrive
    int64_t greatest = 0;                                    ///< bits before a removal
    std::vector<BufferFullness> course;                      ///< of every picture, in coding order

    int64_t count(BufferFinding::Kind kind) const { return faults[static_cast<size_t>(kind)]; }
    bool holds() const {
        return std::all_of(faults.begin(), faults.end(), [](int64_t n) { return n == 0; });
    }

    friend bool operator==(const BufferAccount&, const BufferAccount&) = default;
};

struct BufferVerdict {
    enum class State {
        kChecked,
        kUndeclared,   ///< the stream declares no buffer
        kUntimed,      ///< H.264 declares one, but no unit has a buffering period
        kUnsupported,  ///< H.265 with a hypothetical reference decoder, which is not checked
    };
    State state = State::kUndeclared;
    int64_t units = 0;
    bool approximate = false;  ///< the container has lengths in place of start codes, whose size is not known
    int64_t unreadable = 0;    ///< units without a picture that has a place in the buffer
    /// Of MPEG-2 with vbv_delay two, kVbvDelay and kVbvConstantRate; of H.264 one for each SchedSelIdx.
    std::vector<BufferAccount> accounts;

    bool holds() const {
        return std::all_of(accounts.begin(), accounts.end(),
                           [](const BufferAccount& a) { return a.holds(); });
    }

    friend bool operator==(const BufferVerdict&, const BufferVerdict&) = default;
};

}  // namespace gsve::programme
