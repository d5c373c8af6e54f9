#pragma once

/// Carries captions from pictures at one rate to pictures at another, without losing, doubling or
/// reordering a byte pair or a CEA-708 construct.
///
/// The source side is pushed, picture by picture or a whole schedule at once; the output side is pulled:
/// for every picture that is going to be encoded, in order, the words to write before it. A pull never
/// gives more than that picture's budget, so that an encoder whose queues were empty before has nothing
/// left over after the picture, and the encoder's queue bounds cannot be reached. What does not fit waits
/// in here. Null pairs are slack: they are neither kept nor sent.
///
/// Above 39 pictures per second a picture with field 1 and the next one with field 2 are one frame: both
/// fields' pairs belong to the first one's time, so that a pair returns to its frame when the rate is halved
/// and doubled again.
///
/// A picture that is shown for longer than a frame (film in 60 Hz video) holds several pairs of a field. They
/// belong to the frames from its own on, one each.
///
/// At 23.976 and 24 pictures per second a source may bring one pair of each field with a picture, or two and
/// three pairs in turn, which are those of the fields of 60 Hz that begin while the picture is shown. The
/// output does either, as `line_rate` says. At the full rate every pair goes with the picture during which
/// its field is shown, and where the source is such a stream, too, the pictures that have three pairs are the
/// same.
///
/// What is displayed as it arrives is never early. Text that is loaded out of sight (pop-on) is sent earlier
/// where the output has fewer slots per second than the source, so that the caption still appears on its
/// picture. This works as far ahead as captions have been pushed. A pair is late only where the slots do not
/// suffice. Then the repetitions of control pairs are left out until the delay is made up for: they are
/// there against errors of transmission and say nothing new.
///
/// Otherwise a control pair and its repetition leave in neighbouring slots of their field, and two equal
/// control pairs that had slack between them keep an idle slot between them: a receiver would otherwise
/// act twice on one command, or once on two.
///
/// Output pictures are counted as the encoder counts the pictures that it accepts (from 0), which decides
/// the field of a picture above 39 pictures per second. With a frame-rate limit, only the pictures that
/// the encoder does not skip are to be pulled for, and `output` is the divided rate.
///
/// Example:
///     Repacer repacer(kRate59_94, kRate29_97);
///     ... per decoded picture:  repacer.push(n, parse_cc_data(bytes).captions);
///     ... per encoded picture:  PictureWrites w = repacer.pull(k);
///             if (w.words[0]) encoder.write_eia608(0, w.words[0]);
///             if (w.words[1]) encoder.write_eia608(1, w.words[1]);
///     ... at the end:           repacer.finish(); then pull on, or report repacer.pending()

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "report.h"
#include "schedule.h"

namespace gsve::captions {

/// What to hand to the encoder before one picture.
struct PictureWrites {
    Word words[kFields] = {};  ///< by field, with parity; 0: nothing
    std::vector<Cea708Construct> cea708;
    std::int64_t due[kFields] = {};  ///< the first picture that could have taken the word
    std::int64_t cea708_due = 0;     ///< and the first of the constructs

    /// The field whose turn comes first on the picture: 0 but at the full rate.
    std::uint8_t first_field = 0;

    /// At the full rate, on every second picture: that field has another turn, and this word.
    bool has_third = false;
    Word third = 0;
    std::int64_t third_due = 0;

    bool empty() const { return words[0] == 0 && words[1] == 0 && third == 0 && cea708.empty(); }

    /// The two or three pairs of a picture that carries both fields, in their order, as compose_cc_data()
    /// takes them; null pairs where a field is idle.
    std::vector<FieldPair> pairs() const;

    friend bool operator==(const PictureWrites&, const PictureWrites&) = default;
};

/// Follows which channel of a field is being written, and whether out of sight.
class LoadingState {
public:
    /// Whether the pair, which comes next in its field, changes what is seen when it arrives.
    bool displays_at_once(Word word);

private:
    bool loading_[kChannels / kFields] = {};
    int channel_{};
};

/// For how many seconds captions have to be pushed ahead of the pulls, lest a pop-on caption of full size be
/// late because the output has fewer slots per second than the source; 0 where it has not. Where source and
/// output may both run at the full rate, it suffices to see which pictures of the source have three pairs.
double useful_foresight(FrameRate source, FrameRate output, LineRate line_rate = LineRate::kPairOfEachField);

class Repacer {
public:
    /// `line_rate` is that of the output.
    Repacer(FrameRate source, FrameRate output, LineRate line_rate = LineRate::kPairOfEachField);

    /// Takes in what source picture `frame` carries, the second pair of a field for the frame after it, and
    /// so on. Pictures without captions are pushed too (or left out, when a later one is pushed before the
    /// next pull). A frame below an earlier one counts as that.
    void push(std::int64_t frame, const PictureCaptions& captions);

    /// Takes in a whole schedule, whose rate must be the source rate, and finishes.
    void push(const Schedule& schedule);

    /// No more source pictures follow.
    void finish() { finished_ = true; }

    /// What to write before output picture `picture`. Call it for each picture once, in ascending order.
    PictureWrites pull(std::int64_t picture);

    /// Byte pairs and constructs that wait; and the pairs of a field among them.
    std::size_t pending() const;
    std::size_t pending_pairs(int field) const;

    /// The largest delay of a byte pair or construct so far, in output pictures after the first picture
    /// that could have taken it.
    std::int64_t largest_delay() const { return largest_delay_; }

    /// Repetitions of a field's control pairs that were left out to make up for a delay.
    std::size_t repetitions_left_out(int field) const { return fields_[field].repetitions_left_out; }

private:
    // A pair, or a control pair with its repetition; they are moved together.
    struct Unit {
        Word word;
        int length;             // 1 or 2 slots
        int idle_before;        // idle slots needed after the unit before
        bool displays_at_once;  // must not be early
        std::int64_t time;      // tick of the source from which on it may be seen
        std::int64_t late;      // ticks by which that is after the time asked
        bool begun = false;     // the first transmission has gone
    };

    struct FieldQueue {
        std::deque<Unit> units;
        LoadingState loading;
        std::int64_t newest_frame{};
        bool newest_was_pair = false;
        Word newest_word{};
        bool newest_may_repeat = false;  // the newest unit is a control pair, so far sent once
        std::int64_t free_slot = 0;      // of the output: the first after the pair pulled last
        std::size_t repetitions_left_out = 0;
    };

    struct TimedConstruct {
        Cea708Construct construct;
        std::int64_t time;
    };

    struct TimedWord {
        Word word = 0;
        std::int64_t due{};
    };

    // From `picture` of the source on, its pictures with three pairs are those of another phase.
    struct PhaseChange {
        std::int64_t picture;
        int phase;
    };

    FieldSlots source_slots(int field) const;
    FieldSlots output_slots(int field) const { return {output_, field, line_rate_, phase_}; }
    void note_phase(std::int64_t frame, std::size_t pairs_of_field_1, std::size_t pairs_of_field_2);
    void follow_phase(std::int64_t picture);
    void push_construct(std::int64_t frame, const Cea708Construct& construct);
    std::int64_t time_of(int field, std::int64_t frame, int nth) const;
    void push_pair(int field, std::int64_t frame, int nth, Word word, std::int64_t late);
    void push_full_rate(const std::vector<Eia608Event>& events);
    TimedWord take_pair(int field, std::int64_t slot, std::int64_t picture);
    bool may_begin(int field, std::int64_t slot) const;
    bool repeats(int field, std::int64_t slot) const;
    bool repetition_may_follow(int field) const;
    std::int64_t repetition_frame(int field) const;
    std::int64_t due_slot(int field, std::int64_t time) const;
    std::int64_t latest_slot(int field, std::size_t first, std::int64_t longest_load) const;

    FrameRate source_;
    FrameRate output_;
    LineRate line_rate_;
    PictureBudget budget_;
    bool source_may_be_full_;
    bool keeps_fields_;  // film's pairs go by the times of their fields, not of their pictures
    std::optional<int> source_phase_;
    std::deque<PhaseChange> phase_changes_;
    int phase_ = 0;  // of the output
    bool had_third_ = false;
    FieldQueue fields_[kFields];
    std::deque<TimedConstruct> cea708_;
    std::int64_t pushed_frame_{};
    std::int64_t largest_delay_ = 0;
    bool finished_ = false;
};

/// Brings a known programme to another rate, with full foresight. What comes later than asked says so in its
/// event, and is added to the report as one warning for a field. The result, at rate `output`, obeys the
/// picture budget and passes a Repacer(output, output, line_rate) unchanged. (Film at the full rate whose
/// pictures with three pairs change their place, at a splice, may be a picture or two later for a moment.)
Schedule retime(const Schedule& schedule, FrameRate output, Report& report,
                LineRate line_rate = LineRate::kPairOfEachField);

}  // namespace gsve::captions
