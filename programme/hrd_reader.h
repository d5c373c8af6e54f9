#pragma once

// The coded picture buffer of H.264's hypothetical reference decoder (ITU-T H.264, annex C).
//
// Where there are HRD parameters of the NAL units, the stream conforms as a byte stream (Type II): all bytes
// count, start codes too. Else only slices, their partitions and filler data do (Type I), without start
// codes.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "encoding/hrd_syntax.h"
#include "encoding/start_codes.h"
#include "programme/buffer_account.h"

namespace gsve::programme {

class HrdReader {
public:
    /// Parameter sets that do not come with the units.
    void headers(std::span<const uint8_t> bytes) {
        for (const encoding::Section& section : encoding::nal_units(bytes)) read_nal(section.bytes);
    }

    /// The next unit in coding order, with start codes: any number of pictures, fields too. False where no
    /// picture that has a time begins in it; its bits count for the next one.
    bool unit(std::span<const uint8_t> bytes, int64_t number);

    bool declared() const { return declared_; }  ///< a sequence parameter set has HRD parameters

    /// One account for each SchedSelIdx; none without a buffering period.
    std::vector<BufferAccount> finish() const;

private:
    /// In the stream, by both ways of counting.
    struct Position {
        double bytes = 0;  ///< bits of all bytes
        double vcl = 0;    ///< bits of slices and filler data
    };
    /// The picture that is read, with what stands before it.
    struct Open {
        encoding::HrdMessages messages;
        bool has_slice = false;
    };
    struct Timed {
        int64_t unit = 0;
        Position end;
        double removal_delay = 0;                     ///< seconds
        std::vector<encoding::InitialDelay> initial;  ///< of a buffering period
    };

    void read_nal(std::span<const uint8_t> nal);
    bool close(Position end, int64_t number);
    std::vector<AccessUnit> nominal_removals() const;
    BufferAccount account(size_t schedule, std::vector<AccessUnit> units) const;

    encoding::HrdSequences sequences_;
    std::optional<unsigned> active_;
    std::optional<encoding::HrdSequence> first_;  ///< of the first buffering period
    bool declared_ = false;
    Open open_;
    std::vector<Timed> pictures_;
    Position position_, origin_;  ///< where reading is; where the first buffering period begins
};

}  // namespace gsve::programme
