#pragma once

// The times of an input's packets on one line: clocks that wrap, that are set anew in the middle, and that
// differ from one spliced programme to the next.
//
// All streams are moved together. Where a clock jumps, the first picture after the jump follows the last one
// before it, and whatever else came with the new clock keeps its distance to the pictures.

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "programme/av.h"

namespace gsve::programme {

/// The unit in which times of several streams are compared: usual clocks, sample rates and frame rates are
/// whole multiples.
inline constexpr AVRational kTimeUnit = {1, 705'600'000};

/// A clock that goes back by more was set anew, in seconds; by less, its times are out of order.
inline constexpr double kLargestStepBack = 0.5;

/// What a time line has to know of a stream.
struct TimedStream {
    AVRational time_base = {1, 90000};
    int wrap_bits = 64;       ///< the container's times start anew at 2 to this power
    bool continuous = false;  ///< sound or picture, which has no pauses
    bool leads = false;       ///< the picture, which decides where a new clock goes on
};

/// Whether a packet is the first of its stream after its clock was set anew.
inline bool begins_clock(const AVPacket& packet) { return packet.opaque != nullptr; }

/// Where a clock was set anew.
struct ClockJump {
    double at = 0;  ///< seconds on the time line, of the first packet after it
    double by = 0;  ///< seconds by which that packet was off
};

class Timeline {
public:
    /// `streams`: by their index in the container. `jumps_forward`: a long step forward is another clock;
    /// in files that tell true times it is a pause.
    Timeline(std::vector<TimedStream> streams, bool jumps_forward);

    /// Takes the packets of all streams in the container's order. take() gives them back with times on the
    /// line, in their stream's unit. A packet without any time passes as it is.
    void put(PacketPtr packet);

    /// The next packet; null where another has to be put first: until the pictures tell, a packet of a new
    /// clock has no place yet.
    PacketPtr take();

    /// No more packets follow, and none waits any longer.
    void finish() { place_waiting(); }

    const std::vector<ClockJump>& jumps() const { return jumps_; }

private:
    struct Stream {
        TimedStream is;
        std::optional<int64_t> next;   ///< time of decoding expected of its next packet
        std::optional<int64_t> clock;  ///< what was added to its latest packet's time
        int64_t shown_to = 0;          ///< the end of all that it has shown
    };

    /// A packet's time of decoding, or of presentation, by the container's clock without wraps; and how much
    /// later it is shown.
    struct Told {
        int64_t time = 0;
        int64_t shown_after = 0;
        int64_t duration = 0;
    };

    std::optional<Told> told(const Stream& stream, const AVPacket& packet);
    size_t nearest_clock(int64_t time, int64_t expected) const;
    bool fits(const Stream& stream, int64_t time) const;
    bool place(AVPacket& packet, bool may_begin_clock);
    void begin_clock(const Stream& stream, const Told& told, int64_t off);
    void forget_outlier(const Stream& stream, size_t clock);
    void place_waiting();

    // All times here are counted in kTimeUnit.
    std::vector<Stream> streams_;
    bool jumps_forward_;
    bool has_leader_ = false;
    std::deque<int64_t> clocks_ = {0};  ///< what is added to the container's times, the latest last
    int outlier_ = 0;                   ///< packets of the leader since the latest clock began; 0: none began
    std::optional<int64_t> last_told_;  ///< by any stream
    int64_t now_ = 0;                   ///< the latest place on the line
    std::deque<PacketPtr> waiting_;
    std::deque<PacketPtr> ready_;
    std::vector<ClockJump> jumps_;
};

}  // namespace gsve::programme
