#pragma once

// What H.264 says of its hypothetical reference decoder: HRD parameters in the sequence parameter set (ITU-T
// H.264, E.1.2), and the buffering period and picture timing SEI messages (D.1.2, D.1.3).

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace gsve::encoding {

struct HrdSchedule {
    int64_t bit_rate = 0;        ///< bits/s
    int64_t size = 0;            ///< bits, of the coded picture buffer
    bool constant_rate = false;  ///< cbr_flag

    friend bool operator==(const HrdSchedule&, const HrdSchedule&) = default;
};

/// hrd_parameters().
struct HrdParameters {
    std::vector<HrdSchedule> schedules;  ///< by SchedSelIdx
    int initial_delay_length = 24;       ///< bits
    int removal_delay_length = 24;
    size_t begin = 0, end = 0;  ///< bits of the RBSP that hold the schedules, with their number
};

struct HrdSequence {
    unsigned id = 0;  ///< seq_parameter_set_id
    std::optional<HrdParameters> nal, vcl;
    double tick = 0;  ///< seconds, t_c; 0: not stated
    bool low_delay = false;

    bool declared() const { return (nal || vcl) && tick > 0; }
    /// That of the NAL units where there are both.
    const HrdParameters& parameters() const { return nal ? *nal : *vcl; }
};

/// By SchedSelIdx, in ticks of 90 kHz.
struct InitialDelay {
    double delay = 0;   ///< initial_cpb_removal_delay
    double offset = 0;  ///< initial_cpb_removal_delay_offset
};

struct HrdMessages {
    std::optional<unsigned> sequence;  ///< of the buffering period: seq_parameter_set_id
    std::vector<InitialDelay> initial;
    std::optional<double> removal_delay;  ///< cpb_removal_delay, in ticks of the sequence
    size_t initial_at = 0;                ///< bit of the RBSP at which the initial delays begin
};

/// The RBSP of a sequence parameter set with other schedules for the NAL units, as many as it has. Rates are
/// multiples of 64 bits/s, sizes of 16 bits.
std::vector<uint8_t> with_nal_schedules(std::span<const uint8_t> rbsp, const HrdSequence& sequence,
                                        const std::vector<HrdSchedule>& schedules);

/// From an RBSP without its NAL header. Nothing where it ends early or holds what cannot be.
std::optional<HrdSequence> read_hrd_sequence(std::span<const uint8_t> rbsp);

/// Adds to `messages` what the SEI messages of an RBSP tell. `sequences`: those that came, by their number;
/// `active`: the one of picture timing, until a buffering period names another.
using HrdSequences = std::array<std::optional<HrdSequence>, 32>;
void read_hrd_messages(std::span<const uint8_t> rbsp, const HrdSequences& sequences,
                       std::optional<unsigned>& active, HrdMessages& messages);

}  // namespace gsve::encoding
