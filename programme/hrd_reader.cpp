#include "programme/hrd_reader.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "encoding/start_codes.h"

namespace gsve::programme {
namespace {

using encoding::HrdMessages, encoding::HrdSchedule, encoding::HrdSequence, encoding::InitialDelay;
using Bytes = std::span<const uint8_t>;

// ITU-T H.264, table 7-1.
enum NalType {
    kSlice = 1,
    kPartitionA = 2,
    kPartitionC = 4,
    kIdrSlice = 5,
    kSei = 6,
    kSequenceSet = 7,
    kDelimiter = 9,
    kFiller = 12,
    kFirstReserved = 14,
    kLastReserved = 18,
};

constexpr double kClock = 90000;    ///< of initial_cpb_removal_delay, in hertz
constexpr double kRounding = 0.01;  ///< of doubles, in bits and in ticks of the clock

NalType type_of(Bytes nal) { return static_cast<NalType>(nal[0] & 0x1F); }

/// Whether a NAL unit behind a picture's slices begins the next one: 7.4.1.2.3. A slice does where its
/// first_mb_in_slice is 0, which is a leading one.
bool begins_access_unit(Bytes nal) {
    const NalType type = type_of(nal);
    if (type == kSlice || type == kPartitionA || type == kIdrSlice)
        return nal.size() > 1 && (nal[1] & 0x80) != 0;
    return (type >= kSei && type <= kDelimiter) || (type >= kFirstReserved && type <= kLastReserved);
}

bool is_vcl(Bytes nal) {
    const NalType type = type_of(nal);
    return (type >= kSlice && type <= kIdrSlice) || type == kFiller;
}

double bits_of(Bytes bytes) { return 8 * static_cast<double>(bytes.size()); }

}  // namespace

void HrdReader::read_nal(Bytes nal) {
    const NalType type = type_of(nal);
    if (type == kSei) {
        encoding::read_hrd_messages(encoding::rbsp_of(nal, 1), sequences_, active_, open_.messages);
    } else if (type == kSequenceSet) {
        const std::optional<HrdSequence> sequence = encoding::read_hrd_sequence(encoding::rbsp_of(nal, 1));
        if (!sequence) return;
        declared_ |= sequence->declared();
        sequences_[sequence->id] = sequence;
    } else if (type >= kSlice && type <= kIdrSlice) {
        open_.has_slice = true;
    }
}

/// Ends the picture that is read. One without its time goes with the next that has one.
bool HrdReader::close(Position end, int64_t number) {
    if (!open_.has_slice) return false;
    const HrdMessages messages = std::exchange(open_, {}).messages;
    const bool has_time = first_ ? messages.removal_delay.has_value() : messages.sequence.has_value();
    const bool timed = has_time && sequences_[*active_]->declared();
    if (timed) {
        const HrdSequence& sequence = *sequences_[*active_];
        if (!first_) first_ = sequence;
        pictures_.push_back({.unit = number,
                             .end = end,
                             .removal_delay = messages.removal_delay.value_or(0) * sequence.tick,
                             .initial = messages.initial});
    } else if (!first_) {
        origin_ = end;
    }
    return timed;
}

bool HrdReader::unit(Bytes bytes, int64_t number) {
    const double begin = position_.bytes;
    bool timed = false;
    for (const encoding::Section& section : encoding::nal_units(bytes)) {
        position_.bytes = begin + 8 * static_cast<double>(section.begin);
        if (open_.has_slice && begins_access_unit(section.bytes)) timed |= close(position_, number);
        read_nal(section.bytes);
        if (is_vcl(section.bytes)) position_.vcl += bits_of(section.bytes);
    }
    position_.bytes = begin + bits_of(bytes);
    return close(position_, number) || timed;
}

/// C.1.2, counted from the first removal: cpb_removal_delay counts from the picture that began the buffering
/// period, and in one that begins a period itself, from that of the period before.
std::vector<AccessUnit> HrdReader::nominal_removals() const {
    std::vector<AccessUnit> units;
    units.reserve(pictures_.size());
    double anchor = 0;
    for (const Timed& picture : pictures_) {
        const double removal = units.empty() ? 0 : anchor + picture.removal_delay;
        if (!picture.initial.empty()) anchor = removal;
        const double end = first_->nal ? picture.end.bytes - origin_.bytes : picture.end.vcl - origin_.vcl;
        units.push_back({.unit = picture.unit, .end = end, .removal = removal, .stated_delay = {}});
    }
    return units;
}

BufferAccount HrdReader::account(size_t index, std::vector<AccessUnit> units) const {
    using Kind = BufferFinding::Kind;
    const HrdSchedule& schedule = first_->parameters().schedules[index];
    const auto rate = static_cast<double>(schedule.bit_rate);
    BufferAccount account;
    account.model = schedule.constant_rate ? BufferModel::kHrdConstantRate : BufferModel::kHrdVariableRate;
    account.bit_rate = schedule.bit_rate;
    account.size = schedule.size;

    ArrivalCurve curve;
    InitialDelay initial;
    double begin = 0, arrived = 0;  // the end of the unit before: its position, and its time, t_af
    for (size_t n = 0; n < units.size(); n++) {
        AccessUnit& unit = units[n];
        const std::vector<InitialDelay>& delays = pictures_[n].initial;
        const bool period_begins = index < delays.size();
        if (period_begins) initial = delays[index];
        const double wait = (initial.delay + (period_begins ? 0 : initial.offset)) / kClock;
        if (n == 0) {
            account.initial_delay = wait;
            arrived = -wait;
        }
        if (period_begins) {
            unit.stated_delay = wait;
            const double ticks = (unit.removal - arrived) * kClock;
            const double above = initial.delay - std::ceil(ticks - kRounding);
            const double below = std::floor(ticks + kRounding) - initial.delay;
            const double outside = std::max(above, schedule.constant_rate ? below : 0);  // C-15, C-16
            if (n > 0 && outside > 0) note(account, Kind::kInitialDelay, unit, outside * rate / kClock);
        }
        const double start = schedule.constant_rate ? arrived : std::max(arrived, unit.removal - wait);
        arrived = start + (unit.end - begin) / rate;
        curve.add(start, begin);
        curve.add(arrived, unit.end);
        begin = unit.end;
        // C-11: with low delay, a late picture waits for the next tick after its last bit.
        const double late = arrived - unit.removal;
        if (first_->low_delay && late * rate > kRounding) {
            unit.removal += first_->tick * std::ceil(late / first_->tick);
            account.delayed++;
        }
    }
    follow(account, units, fullness_by(curve, units), {.tolerance = kRounding});
    return account;
}

std::vector<BufferAccount> HrdReader::finish() const {
    std::vector<BufferAccount> accounts;
    if (pictures_.empty()) return accounts;
    const std::vector<AccessUnit> units = nominal_removals();
    for (size_t n = 0; n < first_->parameters().schedules.size(); n++) accounts.push_back(account(n, units));
    return accounts;
}

}  // namespace gsve::programme
