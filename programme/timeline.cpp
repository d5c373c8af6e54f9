#include "programme/timeline.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "programme/damage_witnesses.h"

namespace gsve::programme {
namespace {

constexpr int64_t units(double seconds) { return static_cast<int64_t>(seconds * kTimeUnit.den); }

// Packets that go back by more belong to another clock.

// Around a splice, packets of both clocks come in turn.
constexpr size_t kClocksInUse = 4;

// Packets that wait for a picture of the clock that they belong to: some seconds of sound.
constexpr size_t kMostWaiting = 500;

/// The time nearest to `last` of those that a clock of so many bits shows as `time`.
int64_t nearest_of_wraps(int64_t time, int64_t last, int bits) {
    const int64_t period = int64_t{1} << bits;
    int64_t ahead = (time - last) % period;
    if (ahead < 0) ahead += period;
    return last + (ahead > period / 2 ? ahead - period : ahead);
}

}  // namespace

Timeline::Timeline(std::vector<TimedStream> streams, bool jumps_forward) : jumps_forward_(jumps_forward) {
    for (const TimedStream& stream : streams) {
        streams_.push_back({.is = stream, .next = {}, .clock = {}, .shown_to = 0});
        has_leader_ |= stream.leads;
    }
}

void Timeline::put(PacketPtr packet) {
    const bool leads = streams_[static_cast<size_t>(packet->stream_index)].is.leads;
    const size_t clocks_before = jumps_.size();
    if ((leads || waiting_.empty()) && place(*packet, leads || !has_leader_)) {
        ready_.push_back(std::move(packet));
        if (jumps_.size() == clocks_before) return;
    } else {
        waiting_.push_back(std::move(packet));
        if (waiting_.size() < kMostWaiting) return;
    }
    place_waiting();
}

PacketPtr Timeline::take() {
    if (ready_.empty()) return nullptr;
    PacketPtr packet = std::move(ready_.front());
    ready_.pop_front();
    return packet;
}

void Timeline::place_waiting() {
    for (; !waiting_.empty(); waiting_.pop_front()) {
        place(*waiting_.front(), true);
        ready_.push_back(std::move(waiting_.front()));
    }
}

std::optional<Timeline::Told> Timeline::told(const Stream& stream, const AVPacket& packet) {
    int64_t time = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    if (time == AV_NOPTS_VALUE) return std::nullopt;
    int64_t shown_after = packet.pts != AV_NOPTS_VALUE ? packet.pts - time : 0;
    if (const int bits = stream.is.wrap_bits; bits < 63) {
        if (last_told_)
            time = nearest_of_wraps(time, av_rescale_q(*last_told_, kTimeUnit, stream.is.time_base), bits);
        shown_after = nearest_of_wraps(shown_after, 0, bits);
    }
    last_told_ = av_rescale_q(time, stream.is.time_base, kTimeUnit);
    return Told{
        .time = *last_told_,
        .shown_after = av_rescale_q(shown_after, stream.is.time_base, kTimeUnit),
        .duration = av_rescale_q(std::max<int64_t>(packet.duration, 0), stream.is.time_base, kTimeUnit)};
}

/// By which of the clocks in use the time comes nearest to what is expected.
size_t Timeline::nearest_clock(int64_t time, int64_t expected) const {
    const auto off = [&](int64_t clock) { return std::abs(time + clock - expected); };
    const auto nearest = std::min_element(clocks_.begin(), clocks_.end(),
                                          [&](int64_t a, int64_t b) { return off(a) < off(b); });
    return static_cast<size_t>(nearest - clocks_.begin());
}

/// Whether a place on the line is one that the stream can have reached.
bool Timeline::fits(const Stream& stream, int64_t time) const {
    if (!stream.is.continuous || !stream.next) return true;
    const int64_t step = time - *stream.next;
    if (step < -units(kLargestStepBack)) return false;
    // Sound that pauses goes on where the pictures are.
    return !jumps_forward_ || step <= units(kLargestGap) || std::abs(time - now_) <= units(kLargestGap);
}

bool Timeline::place(AVPacket& packet, bool may_begin_clock) {
    Stream& stream = streams_[static_cast<size_t>(packet.stream_index)];
    const std::optional<int64_t> last_told = last_told_;
    const std::optional<Told> told = this->told(stream, packet);
    if (!told) return true;
    const int64_t expected = stream.next && stream.is.continuous ? *stream.next : now_;
    size_t clock = nearest_clock(told->time, expected);
    if (!fits(stream, told->time + clocks_[clock])) {
        if (!may_begin_clock) {
            last_told_ = last_told;
            return false;
        }
        begin_clock(stream, *told, told->time + clocks_[clock] - expected);
        clock = clocks_.size() - 1;
    } else {
        forget_outlier(stream, clock);
    }

    const bool begins = stream.clock && *stream.clock != clocks_[clock];
    packet.opaque = begins ? this : nullptr;
    stream.clock = clocks_[clock];
    const int64_t time = told->time + clocks_[clock];
    stream.next = time + told->duration;
    stream.shown_to = std::max(stream.shown_to, time + told->shown_after + told->duration);
    now_ = std::max(now_, time);
    const auto in_stream = [&](int64_t value) { return av_rescale_q(value, kTimeUnit, stream.is.time_base); };
    if (packet.pts != AV_NOPTS_VALUE) packet.pts = in_stream(time + told->shown_after);
    if (packet.dts != AV_NOPTS_VALUE) packet.dts = in_stream(time);
    return true;
}

void Timeline::begin_clock(const Stream& stream, const Told& told, int64_t off) {
    // The order of decoding begins as far ahead of what is shown as the new clock's encoder had it.
    const int64_t place = stream.is.leads ? stream.shown_to - told.shown_after : *stream.next;
    jumps_.push_back(
        {.at = static_cast<double>(place) / kTimeUnit.den, .by = static_cast<double>(off) / kTimeUnit.den});
    clocks_.push_back(place - told.time);
    if (clocks_.size() > kClocksInUse) clocks_.pop_front();
    now_ = place;
    outlier_ = 1;
}

/// A single packet with a wrong time is no other clock.
void Timeline::forget_outlier(const Stream& stream, size_t clock) {
    if (outlier_ == 0 || (has_leader_ && !stream.is.leads)) return;
    if (clock + 1 < clocks_.size()) {
        clocks_.pop_back();
        jumps_.pop_back();
    }
    outlier_ = 0;
}

}  // namespace gsve::programme
