#pragma once

// What of an input is damaged or missing, and where.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace gsve::programme {

struct DamagedRange {
    enum class Kind {
        kDamaged,      ///< pictures that are shown with parts made up
        kMissing,      ///< time for which no picture came
        kUndecodable,  ///< coded units that gave no picture
    };
    Kind kind = Kind::kDamaged;
    double begin = 0;  ///< seconds after the first picture
    double end = 0;
    uint64_t pictures = 0;

    friend bool operator==(const DamagedRange&, const DamagedRange&) = default;
};

struct Damage {
    /// The input ends before it should.
    struct EarlyEnd {
        double seconds = 0;              ///< of pictures that there are
        std::optional<double> expected;  ///< where the container tells; else the data end within a picture

        friend bool operator==(const EarlyEnd&, const EarlyEnd&) = default;
    };

    std::vector<DamagedRange> ranges;  ///< in the order of their begin; those of a kind do not touch
    std::optional<EarlyEnd> early_end;

    bool any() const { return !ranges.empty() || early_end; }

    uint64_t pictures(DamagedRange::Kind kind) const {
        uint64_t sum = 0;
        for (const DamagedRange& range : ranges) sum += range.kind == kind ? range.pictures : 0;
        return sum;
    }
    uint64_t damaged() const { return pictures(DamagedRange::Kind::kDamaged); }
    uint64_t missing() const { return pictures(DamagedRange::Kind::kMissing); }
    uint64_t undecodable() const { return pictures(DamagedRange::Kind::kUndecodable); }

    friend bool operator==(const Damage&, const Damage&) = default;
};

}  // namespace gsve::programme
