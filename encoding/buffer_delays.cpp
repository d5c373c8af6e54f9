#include "encoding/buffer_delays.h"

#include <algorithm>
#include <cmath>

#include "captions/bits.h"
#include "encoding/codec_id.h"
#include "encoding/start_codes.h"

namespace gsve::encoding {
namespace {

constexpr double kClock = 90000;  ///< of all delays, in hertz

// picture_header(): temporal_reference 10, picture_coding_type 3, vbv_delay 16.
constexpr uint8_t kPictureStart = 0x00;
constexpr size_t kDelayAt = 8 + 10 + 3, kPictureHeaderSize = 5;
constexpr int kDelayBits = 16;
constexpr unsigned kVariableRate = 0xFFFF;

/// Of the unit's picture, from its start code on; empty where it has none.
std::span<uint8_t> picture_header(std::span<uint8_t> unit) {
    for (const Section& section : sections(unit)) {
        if (section.bytes[0] != kPictureStart || section.bytes.size() < kPictureHeaderSize) continue;
        const auto begin = static_cast<size_t>(section.bytes.data() - unit.data());
        return unit.subspan(begin, kPictureHeaderSize);
    }
    return {};
}

}  // namespace

void state_variable_rate(std::span<uint8_t> unit) {
    const std::span<uint8_t> header = picture_header(unit);
    if (!header.empty()) captions::put_bits(header, kDelayAt, kDelayBits, kVariableRate);
}

void BufferDelays::restate(std::vector<uint8_t>& unit) {
    if (codec_id_ == kMpeg2)
        restate_mpeg2(unit);
    else
        restate_h264(unit);
}

void BufferDelays::know(std::span<const uint8_t> parameter_sets) {
    constexpr int kSequenceSet = 7;
    if (codec_id_ != kH264) return;
    for (const Section& nal : nal_units(parameter_sets)) {
        if ((nal.bytes[0] & 0x1F) != kSequenceSet) continue;
        const std::optional<HrdSequence> sequence = read_hrd_sequence(rbsp_of(nal.bytes, 1));
        if (sequence) sequences_[sequence->id] = sequence;
    }
}

void BufferDelays::left(size_t bytes) {
    const double bits = 8 * static_cast<double>(bytes);
    if (schedule_) {
        const double earliest = removal_ - wait_;
        const double begin = schedule_->constant_rate ? arrived_ : std::max(arrived_, earliest);
        arrived_ = begin + bits / rate_;
    }
    sent_ += bits;
    units_++;
}

// The delay is that of the last byte of the picture start code.
void BufferDelays::restate_mpeg2(std::vector<uint8_t>& unit) {
    const std::span<uint8_t> header = picture_header(unit);
    if (header.empty()) return;
    const unsigned stated = captions::get_bits(header, kDelayAt, kDelayBits);
    if (stated == kVariableRate) return;
    const double start = sent_ + 8 * static_cast<double>(header.data() - unit.data() + 1);
    if (units_ == 0) {
        first_delay_ = stated / kClock;
        first_start_ = start;
    }
    const double delay =
        first_delay_ + static_cast<double>(units_) * period_ - (start - first_start_) / rate_;
    const double ticks = std::clamp(std::round(delay * kClock), 0.0, kVariableRate - 1.0);
    captions::put_bits(header, kDelayAt, kDelayBits, static_cast<unsigned>(ticks));
}

void BufferDelays::restate_h264(std::vector<uint8_t>& unit) {
    constexpr int kSei = 6;
    know(unit);
    HrdMessages messages;
    std::optional<Section> period;
    std::vector<uint8_t> period_rbsp;
    for (const Section& nal : nal_units(unit)) {
        const int type = nal.bytes[0] & 0x1F;
        if (type != kSei) continue;
        std::vector<uint8_t> rbsp = rbsp_of(nal.bytes, 1);
        const bool had_period = messages.sequence.has_value();
        read_hrd_messages(rbsp, sequences_, active_, messages);
        if (had_period || !messages.sequence) continue;
        period = nal;
        period_rbsp = std::move(rbsp);
    }
    if (!active_) return;
    const HrdSequence& sequence = *sequences_[*active_];
    removal_ = period_begin_ + messages.removal_delay.value_or(0) * sequence.tick;
    if (!period) return;
    const HrdSchedule& schedule = sequence.parameters().schedules.front();
    const InitialDelay stated = messages.initial.front();
    const double sum = stated.delay + stated.offset;
    if (!schedule_) {
        first_delay_ = stated.delay / kClock;
        removal_ = first_delay_;
        wait_ = sum / kClock;
    }
    schedule_ = schedule;
    period_begin_ = removal_;
    const double delay = initial_delay(stated, schedule);
    if (delay == stated.delay) return;
    const int bits = sequence.parameters().initial_delay_length;
    captions::put_bits(period_rbsp, messages.initial_at, bits, static_cast<unsigned>(delay));
    captions::put_bits(period_rbsp, messages.initial_at + static_cast<size_t>(bits), bits,
                       static_cast<unsigned>(std::max(sum - delay, 0.0)));
    const std::vector<uint8_t> nal = make_nal(period->bytes.first(1), period_rbsp);
    const auto at = [&](size_t place) { return unit.begin() + static_cast<ptrdiff_t>(place); };
    // Start codes of three bytes stay so.
    const bool short_code = period->end - period->begin < 4 || unit[period->begin + 2] == 1;
    std::vector<uint8_t> rest(at(period->end), unit.end());
    unit.erase(at(period->begin), unit.end());
    unit.insert(unit.end(), nal.begin() + (short_code ? 1 : 0), nal.end());
    unit.insert(unit.end(), rest.begin(), rest.end());
}

/// C-15 and C-16: the time from the last bit of the unit before to the removal, in whole ticks next to it;
/// with a variable rate, no more than that.
double BufferDelays::initial_delay(const InitialDelay& stated, const HrdSchedule& schedule) const {
    if (units_ == 0) return stated.delay;
    const double ticks = std::max((removal_ - arrived_) * kClock, 1.0);
    return schedule.constant_rate ? std::round(ticks) : std::min(stated.delay, std::floor(ticks));
}

}  // namespace gsve::encoding
