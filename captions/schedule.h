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
    std::vector<Word> fields[kFields];
    std::vector<Cea708Construct> cea708;

    bool empty() const { return fields[0].empty() && fields[1].empty() && cea708.empty(); }
    friend bool operator==(const PictureCaptions&, const PictureCaptions&) = default;
};

struct Eia608Event {
    std::int64_t frame;
    std::uint8_t field;
    Word word;
    std::int64_t late = 0;  ///< frames after the first that could have carried it at the time asked

    /// At 23.976 and 24 frames per second some frames have two places for a field's pairs: the first is idle
    /// here, or the second. (A pair that comes after an idle place is no repetition.)
    bool idle_before = false;
    bool idle_after = false;

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

/// How much of the 59.94 (60) fields a second of EIA-608 a stream of 23.976 (24) pictures per second carries.
/// At other rates there is nothing to choose.
enum class LineRate {
    kPairOfEachField,  ///< one with every picture: 48 a second
    kFull,             ///< all: two and three in turn, the fields by turns, as A/53 has it
};

/// Whether a stream of this rate carries pairs at the full rate, beyond one of each field with a picture.
bool runs_at_full_rate(FrameRate rate, LineRate line_rate);

/// What one encoded picture can take. Up to 39 pictures per second each takes a byte pair of both fields;
/// above that field 1 goes with even pictures and field 2 with odd ones, as in A/53 at 50 and 60 Hz.
struct PictureBudget {
    bool alternating_fields;
    int cea708_constructs;
    bool full_rate = false;  ///< every second picture takes a third byte pair, and one construct less

    int constructs_beside(int pairs) const { return cea708_constructs - (pairs > 2 ? pairs - 2 : 0); }
};

/// Constructs in each picture's cc_data at a rate: the caption channel has 9600 bit/s.
int cc_count(FrameRate rate);

/// The budget at an effective rate, which is the source rate over the frame-rate divider.
PictureBudget picture_budget(FrameRate rate, LineRate line_rate = LineRate::kPairOfEachField);

/// Byte-pair slots of a field: slot n of a field lies on picture n, or on every second picture when the
/// fields alternate. At the full rate the fields follow each other without a break over pictures of three
/// slots and of two. Each picture has those of the fields that begin while it is shown:
///
///     picture       0         1      2         3      4 ...
///     field         1 2 1     2 1    2 1 2     1 2    1 2 1
///     slot          0 0 1     1 2    2 3 3     4 4    5 5 6
///
/// A stream may begin anywhere in this cycle of four: its picture 0 stands where picture `phase` stands here.
class FieldSlots {
public:
    FieldSlots(FrameRate rate, int field, LineRate line_rate = LineRate::kPairOfEachField, int phase = 0);

    /// Pictures to the next slot at most.
    int step() const { return static_cast<int>((spacing_ + per_picture_ - 1) / per_picture_); }
    bool on_picture(std::int64_t picture) const {
        return picture_of(first_slot_not_before(picture)) == picture;
    }
    std::int64_t picture_of(std::int64_t slot) const;

    /// The first slot whose picture is `picture` or a later one; never one before picture 0.
    std::int64_t first_slot_not_before(std::int64_t picture) const {
        return first_slot_from(picture * per_picture_);
    }

    /// Slots begin on ticks of this clock: pictures, or at the full rate fifths of pictures.
    FrameRate clock() const { return clock_; }
    std::int64_t ticks_per_picture() const { return per_picture_; }
    std::int64_t ticks_per_slot() const { return spacing_; }

    /// The tick on which the frame begins that the slot is in: a slot of field 1 and the next one of field 2
    /// are one frame.
    std::int64_t frame_of(std::int64_t slot) const { return slot * spacing_ + frame_offset_; }

    /// The first slot that begins on `tick` or later; never one before picture 0.
    std::int64_t first_slot_from(std::int64_t tick) const;

private:
    FrameRate clock_;
    std::int64_t per_picture_ = 1;  // in ticks
    std::int64_t spacing_ = 1;
    std::int64_t frame_offset_ = 0;
    std::int64_t field_offset_ = 0;
};

}  // namespace gsve::captions
