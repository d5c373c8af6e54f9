#include "programme/vbv_reader.h"

#include <cmath>

#include "captions/bits.h"
#include "encoding/start_codes.h"

namespace gsve::programme {
namespace {

using captions::BitReader;
using Bytes = std::span<const uint8_t>;

// ISO/IEC 13818-2, tables 6-1, 6-2, 6-12 and 6-14.
enum StartCode : uint8_t {
    kPicture = 0x00,
    kFirstSlice = 0x01,
    kLastSlice = 0xAF,
    kSequenceHeader = 0xB3,
    kExtension = 0xB5,
    kSequenceEnd = 0xB7,
};
enum ExtensionId { kSequenceExtension = 1, kPictureCodingExtension = 8 };
enum CodingType { kB = 3 };
enum Structure { kTopField = 1, kBottomField = 2, kFrame = 3 };

constexpr unsigned kUnstatedDelay = 0xFFFF;
constexpr double kClock = 90000;  ///< of vbv_delay, in hertz
constexpr size_t kPrefix = 3;

/// Table 6-4.
double frame_seconds_of(unsigned code) {
    constexpr double kSeconds[] = {0,       1001. / 24000, 1. / 24,       1. / 25, 1001. / 30000,
                                   1. / 30, 1. / 50,       1001. / 60000, 1. / 60};
    return code < std::size(kSeconds) ? kSeconds[code] : 0;
}

/// MPEG-1's value for a variable rate is all ones. Encoders write these 18 bits into MPEG-2 also where they
/// have no bound of the rate, although they stand for 104 857 200 bits/s there.
bool states_rate(unsigned value) { return value != 0 && value != 0x3FFFF && value != 0x3FFFFFFF; }

constexpr int64_t kRateUnit = 400, kSizeUnit = 16384;

}  // namespace

void VbvReader::read_sequence_header(Bytes payload) {
    BitReader reader(payload);
    reader.get(12 + 12);  // horizontal_size_value, vertical_size_value
    reader.get(4);        // aspect_ratio_information
    Sequence sequence;
    sequence.frame_rate_code = reader.get(4);
    sequence.rate_value = reader.get(18);
    reader.get(1);
    sequence.size_value = reader.get(10);
    if (reader.overrun()) return;
    sequence.frame_seconds = frame_seconds_of(sequence.frame_rate_code);
    sequence.bit_rate = states_rate(sequence.rate_value) ? kRateUnit * sequence.rate_value : 0;
    sequence.size = kSizeUnit * sequence.size_value;
    sequence_ = sequence;
}

void VbvReader::read_extension(Bytes payload) {
    BitReader reader(payload);
    const unsigned id = reader.get(4);
    if (id == kSequenceExtension && payload.size() >= 6) {
        reader.get(8);  // profile_and_level_indication
        sequence_.progressive = reader.flag();
        reader.get(2 + 2 + 2);  // chroma_format, the sizes' extensions
        const unsigned rate = reader.get(12) << 18 | sequence_.rate_value;
        reader.get(1);
        const unsigned size = reader.get(8) << 10 | sequence_.size_value;
        sequence_.low_delay = reader.flag();
        const unsigned numerator = reader.get(2) + 1;
        const unsigned denominator = reader.get(5) + 1;
        sequence_.bit_rate = states_rate(rate) ? kRateUnit * rate : 0;
        sequence_.size = kSizeUnit * size;
        sequence_.frame_seconds = frame_seconds_of(sequence_.frame_rate_code) * denominator / numerator;
    } else if (id == kPictureCodingExtension && payload.size() >= 4 && in_picture_) {
        reader.get(16 + 2);  // f_code, intra_dc_precision
        Picture& picture = pictures_.back();
        picture.structure = static_cast<int>(reader.get(2));
        picture.top_field_first = reader.flag();
        reader.get(5);  // frame_pred_frame_dct up to alternate_scan
        picture.repeat_first_field = reader.flag();
    }
}

void VbvReader::begin_picture(Bytes payload, int64_t unit, double start) {
    Picture picture = {.unit = unit, .start = start};
    BitReader reader(payload);
    reader.get(10);  // temporal_reference
    picture.coding_type = static_cast<int>(reader.get(3));
    picture.vbv_delay = reader.get(16);
    picture.structure = kFrame;
    if (reader.overrun()) picture.vbv_delay = kUnstatedDelay;
    if (pictures_.empty()) first_ = sequence_;
    pictures_.push_back(picture);
    in_picture_ = true;
}

/// For how long a frame, or one of the two fields of a frame, is shown: ISO/IEC 13818-2, 6.3.10.
double VbvReader::display_seconds(const Picture& picture) const {
    const double frame = sequence_.frame_seconds;
    if (picture.structure == kTopField || picture.structure == kBottomField) return frame / 2;
    if (!picture.repeat_first_field) return frame;
    if (!sequence_.progressive) return frame * 3 / 2;
    return picture.top_field_first ? frame * 3 : frame * 2;
}

/// C.9 to C.12. Without low delay, an I- or P-frame is decoded when the one before it begins to be shown, and
/// what follows when that one's time is over.
double VbvReader::decoding_interval(const Picture& picture) const {
    if (sequence_.low_delay || picture.coding_type == kB) return display_seconds(picture);
    const double anchor = anchor_seconds_ > 0 ? anchor_seconds_ : sequence_.frame_seconds;
    const double field = sequence_.frame_seconds / 2;
    if (picture.structure != kTopField && picture.structure != kBottomField) return anchor;
    return picture.second_field ? anchor - field : field;
}

void VbvReader::end_picture(double position) {
    if (!in_picture_) return;
    in_picture_ = in_slices_ = false;
    Picture& picture = pictures_.back();
    picture.end = position;
    const bool field = picture.structure == kTopField || picture.structure == kBottomField;
    if (field && pictures_.size() > 1) {
        const Picture& before = pictures_[pictures_.size() - 2];
        picture.second_field = !before.second_field && before.structure + picture.structure == kFrame;
    }
    picture.interval = decoding_interval(picture);
    if (picture.coding_type == kB) return;
    if (!field)
        anchor_seconds_ = display_seconds(picture);
    else if (picture.second_field)
        anchor_seconds_ = sequence_.frame_seconds;
}

bool VbvReader::unit(Bytes bytes, int64_t number) {
    const auto position_of = [&](const uint8_t* byte) {
        return position_ + 8 * static_cast<double>(byte - bytes.data());
    };
    bool began = false;
    for (const encoding::Section& section : encoding::sections(bytes)) {
        const Bytes payload = section.bytes.subspan(1);
        const uint8_t code = section.bytes[0];
        const bool slice = code >= kFirstSlice && code <= kLastSlice;
        if (slice) {
            in_slices_ = in_picture_;
            continue;
        }
        // What stands before the next picture is removed with that; the end of the sequence is not.
        if ((in_slices_ && code != kSequenceEnd) || code == kPicture)
            end_picture(position_of(section.bytes.data() - kPrefix));
        if (code == kSequenceHeader) read_sequence_header(payload);
        if (code == kExtension) read_extension(payload);
        if (code == kPicture) {
            begin_picture(payload, number, position_of(payload.data()));
            began = true;
        }
    }
    position_ += 8 * static_cast<double>(bytes.size());
    end_picture(position_);
    return began;
}

std::vector<AccessUnit> VbvReader::removals() const {
    std::vector<AccessUnit> units;
    units.reserve(pictures_.size());
    double time = 0;
    for (const Picture& picture : pictures_) {
        units.push_back({.unit = picture.unit, .end = picture.end, .removal = time, .stated_delay = {}});
        if (picture.vbv_delay != kUnstatedDelay) units.back().stated_delay = picture.vbv_delay / kClock;
        time += picture.interval;
    }
    return units;
}

BufferAccount VbvReader::declared(BufferModel model) const {
    BufferAccount account;
    account.model = model;
    account.bit_rate = first_.bit_rate;
    account.size = first_.size;
    account.initial_delay = pictures_.front().vbv_delay / kClock;
    return account;
}

/// C.3.1: the end of a picture's start code arrives vbv_delay before the picture is removed, and what lies
/// between two of them at one rate. A clock's tick is the precision of vbv_delay.
BufferAccount VbvReader::by_vbv_delay(std::span<const AccessUnit> units) const {
    BufferAccount account = declared(BufferModel::kVbvDelay);
    const auto rate = static_cast<double>(account.bit_rate);
    ArrivalCurve curve;
    double arrival = 0;
    size_t last = units.size();
    for (size_t n = 0; n < units.size(); n++) {
        if (!units[n].stated_delay) continue;
        const double next = units[n].removal - *units[n].stated_delay;
        if (last < units.size()) {
            const double bits = pictures_[n].start - pictures_[last].start;
            const double surplus = bits - rate * std::max(next - arrival + 1 / kClock, 0.0);
            if (surplus > 0) note(account, BufferFinding::Kind::kRate, units[last], surplus);
        }
        curve.add(next, pictures_[n].start);
        arrival = next;
        last = n;
    }
    const double rest = units.back().end - pictures_[last].start;
    curve.add(arrival + rest / rate, units.back().end);
    follow(account, units, fullness_by(curve, units),
           {.tolerance = rate / kClock, .late_allowed = first_.low_delay});
    return account;
}

/// A channel of a constant rate knows the first delay only. That it brings more than the buffer holds is no
/// fault: where vbv_delay tells of lower rates it has to pause, and bit_rate is rounded up to 400 bits/s.
BufferAccount VbvReader::at_constant_rate(std::span<const AccessUnit> units) const {
    BufferAccount account = declared(BufferModel::kVbvConstantRate);
    const auto rate = static_cast<double>(account.bit_rate);
    const double start = pictures_.front().start;
    ArrivalCurve curve;
    curve.add(-account.initial_delay, start);
    curve.add(-account.initial_delay + (units.back().end - start) / rate, units.back().end);
    follow(account, units, fullness_by(curve, units),
           {.tolerance = rate / kClock, .late_allowed = first_.low_delay, .overflow_allowed = true});
    return account;
}

/// C.3.2.
BufferAccount VbvReader::filled_up(std::span<const AccessUnit> units) const {
    constexpr double kRounding = 0.01;  // of doubles, in bits
    BufferAccount account = declared(BufferModel::kVbvFilledUp);
    const auto rate = static_cast<double>(account.bit_rate), size = static_cast<double>(account.size);
    const std::vector<double> fullness = fullness_filled_up(rate, size, units);
    account.initial_delay = fullness.front() / rate;
    follow(account, units, fullness, {.tolerance = kRounding, .late_allowed = first_.low_delay});
    return account;
}

std::vector<BufferAccount> VbvReader::finish() const {
    if (pictures_.empty() || first_.bit_rate == 0 || first_.size == 0 || first_.frame_seconds == 0) return {};
    const std::vector<AccessUnit> units = removals();
    if (!units.front().stated_delay) return {filled_up(units)};
    return {by_vbv_delay(units), at_constant_rate(units)};
}

}  // namespace gsve::programme
