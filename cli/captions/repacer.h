#pragma once

/// Carries captions from pictures at one rate to pictures at another, without losing, doubling or
/// reordering a byte pair or a CEA-708 construct.
///
/// The source side is pushed, picture by picture or a whole schedule at once; the output side is pulled:
/// for every picture that is going to be encoded, in order, the words to write before it. A pull never
/// gives more than that picture's budget, so that an encoder whose queues were empty before has nothing
/// left over after the picture, and the encoder's queue bounds cannot be reached. What does not fit waits
/// in here. Null pairs are slack: they are neither kept nor sent. A caption is never early, and at most one
/// output slot late while the output has room.
///
/// A control pair and its repetition always leave in neighbouring slots of their field, and two equal
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
#include <vector>

#include "report.h"
#include "schedule.h"

namespace gsve::captions {

/// What to hand to the encoder before one picture.
struct PictureWrites {
    Word words[2] = {0, 0};  ///< by field, with parity; 0: nothing
    std::vector<Cea708Construct> cea708;

    bool empty() const { return words[0] == 0 && words[1] == 0 && cea708.empty(); }
};

class Repacer {
public:
    Repacer(FrameRate source, FrameRate output);

    /// Takes in what source picture `frame` carries. Pictures without captions are pushed too (or left
    /// out, when a later one is pushed before the next pull). A frame below an earlier one counts as that.
    void push(std::int64_t frame, const PictureCaptions& captions);

    /// Takes in a whole schedule, whose rate must be the source rate, and finishes.
    void push(const Schedule& schedule);

    /// No more source pictures follow.
    void finish() { finished_ = true; }

    /// What to write before output picture `picture`. Call it for each picture once, in ascending order.
    PictureWrites pull(std::int64_t picture);

    /// Byte pairs and constructs that wait.
    std::size_t pending() const;

    /// The largest delay of a byte pair or construct so far, in output pictures after the first picture
    /// that could have taken it.
    std::int64_t largest_delay() const { return largest_delay_; }

private:
    struct Pair {
        Word word;
        std::int64_t frame;
        bool follows_directly;  // no slack between this pair and the one before
    };

    struct FieldQueue {
        std::deque<Pair> pairs;
        std::int64_t newest_frame = 0;
        bool newest_was_pair = false;
        Word sent_in_last_slot = 0;
        bool repetition_expected = false;
    };

    struct TimedConstruct {
        Cea708Construct construct;
        std::int64_t frame;
    };

    void push_pair(int field, std::int64_t frame, Word word);
    Word take_pair(int field, std::int64_t picture);
    bool must_wait(const FieldQueue& queue, std::int64_t next_slot) const;
    void note_delay(std::int64_t frame, std::int64_t picture, const FieldSlots& slots);

    FrameRate source_;
    FrameRate output_;
    PictureBudget budget_;
    int source_step_;
    FieldQueue fields_[2];
    std::deque<TimedConstruct> cea708_;
    std::int64_t pushed_frame_ = -1;
    std::int64_t largest_delay_ = 0;
    bool finished_ = false;
};

/// Brings a known programme to another rate with foresight. Where the output has fewer slots per second
/// than the source, text that is loaded out of sight (pop-on) is sent earlier, so that the caption still
/// appears on its picture; what is displayed at once is never early. The order within a field stays. What
/// comes later than asked is added to the report as one warning. The result, at rate `output`, obeys the
/// picture budget and passes a Repacer(output, output) unchanged.
Schedule retime(const Schedule& schedule, FrameRate output, Report& report);

}  // namespace gsve::captions
