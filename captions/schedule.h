#pragma once

/// Caption data in time: which byte pairs and CEA-708 constructs go with which picture.
///
/// Frame indexes count pictures at the schedule's own rate from the start of the video (0). Fields are 0
/// (field 1: CC1, CC2) and 1 (field 2: CC3, CC4, XDS). Byte pairs carry odd parity; null pairs are not
/// listed, a field without an entry is idle at that picture.
///
/// Example: one picture's worth of decoded side data, added to a schedule
///     append(schedule, frame, parse_cc_data(bytes).captions);

#include <cstdint>
#include <vector>

#include "line21.h"
#include "timecode.h"

namespace gsve::captions {

/// One construct of cc_data (CTA-708 4.4): the header byte with its marker bits, then the two data bytes.
struct Cea708Construct {
    std::uint8_t header;
    std::uint8_t data_1;
    std::uint8_t data_2;

    friend bool operator==(const Cea708Construct&, const Cea708Construct&) = default;
};

/// Header bytes of valid DTVCC constructs: cc_type 2 and 3 under five marker bits and cc_valid.
inline constexpr std::uint8_t kHeaderDtvccData = 0xFE;
inline constexpr std::uint8_t kHeaderDtvccStart = 0xFF;

/// A byte pair and the field that carries it.
struct FieldPair {
    std::uint8_t field;
    Word word;

    friend bool operator==(const FieldPair&, const FieldPair&) = default;
};

/// What one source picture carries, in order. Null pairs may be present; they are slack.
struct PictureCaptions {
    std::vector<Word> fields[2];
    std::vector<Cea708Construct> cea708;

    bool empty() const { return fields[0].empty() && fields[1].empty() && cea708.empty(); }
    friend bool operator==(const PictureCaptions&, const PictureCaptions&) = default;
};

struct Eia608Event {
    std::int64_t frame;
    std::uint8_t field;
    Word word;
    std::int64_t late = 0;  ///< frames after the first that could have carried it at the time asked

    friend bool operator==(const Eia608Event&, const Eia608Event&) = default;
};

struct Cea708Event {
    std::int64_t frame;
    std::vector<Cea708Construct> constructs;

    friend bool operator==(const Cea708Event&, const Cea708Event&) = default;
};

/// Both lists are in the order of their frames; several byte pairs of a field may share a frame.
struct Schedule {
    FrameRate rate = kRate29_97;
    std::vector<Eia608Event> eia608;
    std::vector<Cea708Event> cea708;

    bool empty() const { return eia608.empty() && cea708.empty(); }
};

/// Adds a picture's captions, without its null pairs, at the end. `frame` must not be below the last one.
void append(Schedule& schedule, std::int64_t frame, const PictureCaptions& captions);

/// Puts two schedules of the same rate together (a file for field 1, another for field 2). Stable: at equal
/// frames `a` comes first. Throws std::invalid_argument when the rates differ.
Schedule merge(const Schedule& a, const Schedule& b);

/// What one encoded picture can take. Up to 39 pictures per second each takes a byte pair of both fields;
/// above that field 1 goes with even pictures and field 2 with odd ones, as in A/53 at 50 and 60 Hz.
struct PictureBudget {
    bool alternating_fields;
    int cea708_constructs;
};

/// Constructs in each picture's cc_data at a rate: the caption channel has 9600 bit/s.
int cc_count(FrameRate rate);

/// The budget at an effective rate, which is the source rate over the frame-rate divider.
PictureBudget picture_budget(FrameRate rate);

/// Byte-pair slots of a field: slot n of a field lies on picture n, or on every second picture when the
/// fields alternate.
class FieldSlots {
public:
    FieldSlots(FrameRate rate, int field)
        : step_(picture_budget(rate).alternating_fields ? 2 : 1), offset_(step_ == 2 ? field : 0) {}

    int step() const { return step_; }
    bool on_picture(std::int64_t picture) const { return (picture - offset_) % step_ == 0; }
    std::int64_t picture_of(std::int64_t slot) const { return slot * step_ + offset_; }

    /// The first slot whose picture is `picture` or a later one; never below 0.
    std::int64_t first_slot_not_before(std::int64_t picture) const {
        return picture <= offset_ ? 0 : (picture - offset_ + step_ - 1) / step_;
    }

private:
    int step_;
    int offset_;
};

}  // namespace gsve::captions
