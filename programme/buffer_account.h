#pragma once

// The arithmetic that the buffer models of MPEG-2 and H.264 share: what arrives by when, what leaves when,
// and how full the buffer is in between.
//
// Positions in the stream are bits from the first that counts, times are seconds after the first removal.
// Both are double: H.264 removes at multiples of any fraction of a second, and a double counts bits up to
// 2^53.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "programme/buffer_verdict.h"

namespace gsve::programme {

/// What leaves the buffer at one time.
struct AccessUnit {
    int64_t unit = 0;    ///< that it came in
    double end = 0;      ///< position; it begins where the one before ends
    double removal = 0;  ///< time
    std::optional<double> stated_delay;
};

/// How much of the stream has arrived: linear between the points that are known.
class ArrivalCurve {
public:
    /// Positions may not fall. A time that does counts as the one before: all of it arrives at once.
    void add(double time, double position);

    /// The position by that time; before the first point, that one's. There has to be a point.
    double arrived(double time) const;

private:
    struct Knot {
        double time, position;
    };
    std::vector<Knot> knots_;
};

/// Bits in the buffer before each removal.
std::vector<double> fullness_by(const ArrivalCurve& curve, std::span<const AccessUnit> units);

/// The same where data arrive at `rate` whenever there is room, and the first removal waits for a full
/// buffer.
std::vector<double> fullness_filled_up(double rate, double size, std::span<const AccessUnit> units);

struct BufferRules {
    double tolerance = 0;           ///< bits by which a clock's rounding may move the fullness
    bool late_allowed = false;      ///< low delay
    bool overflow_allowed = false;  ///< where the sender may pause
};

/// Puts a finding into the account.
void note(BufferAccount& account, BufferFinding::Kind kind, const AccessUnit& unit, double bits);

/// Follows the buffer of `account`, whose declaration is set, through the stream.
void follow(BufferAccount& account, std::span<const AccessUnit> units, std::span<const double> fullness,
            const BufferRules& rules);

/// A number of bits as the verdict has it; what no stream can have is limited.
int64_t whole_bits(double bits);

}  // namespace gsve::programme
