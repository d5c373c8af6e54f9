#include "repacer.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include <fmt/format.h>

namespace gsve::captions {

Repacer::Repacer(FrameRate source, FrameRate output)
    : source_(source),
      output_(output),
      budget_(picture_budget(output)),
      source_step_(picture_budget(source).alternating_fields ? 2 : 1) {}

void Repacer::push(std::int64_t frame, const PictureCaptions& captions) {
    pushed_frame_ = std::max(frame, pushed_frame_);
    for (int field = 0; field < 2; ++field)
        for (const Word word : captions.fields[field]) push_pair(field, pushed_frame_, word);
    for (const Cea708Construct& construct : captions.cea708)
        if (construct.header >= kHeaderDtvccData) cea708_.push_back({construct, pushed_frame_});
}

void Repacer::push(const Schedule& schedule) {
    if (!(schedule.rate == source_))
        throw std::invalid_argument("the caption schedule's picture rate is not the repacer's source rate");
    for (const Eia608Event& event : schedule.eia608) push_pair(event.field, event.frame, event.word);
    for (const Cea708Event& event : schedule.cea708)
        for (const Cea708Construct& construct : event.constructs)
            if (construct.header >= kHeaderDtvccData) cea708_.push_back({construct, event.frame});
    finish();
}

PictureWrites Repacer::pull(std::int64_t picture) {
    PictureWrites writes;
    for (int field = 0; field < 2; ++field) writes.words[field] = take_pair(field, picture);

    const auto limit = static_cast<std::size_t>(budget_.cea708_constructs);
    while (writes.cea708.size() < limit && !cea708_.empty() &&
           begins_by(cea708_.front().frame, source_, picture, output_)) {
        const std::int64_t due = first_frame_not_before(cea708_.front().frame, source_, output_);
        largest_delay_ = std::max(largest_delay_, picture - std::max<std::int64_t>(due, 0));
        writes.cea708.push_back(cea708_.front().construct);
        cea708_.pop_front();
    }
    return writes;
}

std::size_t Repacer::pending() const {
    return fields_[0].pairs.size() + fields_[1].pairs.size() + cea708_.size();
}

void Repacer::push_pair(int field, std::int64_t frame, Word word) {
    FieldQueue& queue = fields_[field];
    if (is_null(word)) {
        // Where the fields alternate, a null pair on the other field's picture is no slack; the distance of
        // the frames tells.
        if (source_step_ == 1) queue.newest_was_pair = false;
        return;
    }
    const bool follows = queue.newest_was_pair && frame - queue.newest_frame <= source_step_;
    queue.newest_was_pair = true;
    queue.newest_frame = frame;
    queue.pairs.push_back({with_parity(word), frame, follows});
}

Word Repacer::take_pair(int field, std::int64_t picture) {
    const FieldSlots slots(output_, field);
    if (!slots.on_picture(picture)) return 0;
    FieldQueue& queue = fields_[field];
    const bool idle = queue.pairs.empty() ||
                      !begins_by(queue.pairs.front().frame, source_, picture, output_) ||
                      must_wait(queue, picture + slots.step());
    if (idle) {
        queue.sent_in_last_slot = 0;
        queue.repetition_expected = false;
        return 0;
    }
    const Pair pair = queue.pairs.front();
    queue.pairs.pop_front();
    const bool repetition = queue.repetition_expected && pair.word == queue.sent_in_last_slot;
    queue.repetition_expected = is_control(pair.word) && !repetition;
    queue.sent_in_last_slot = pair.word;
    note_delay(pair.frame, picture, slots);
    return pair.word;
}

// Whether the front pair, which is due, is to leave this slot idle. `next_slot` is the picture of the
// field's next slot.
bool Repacer::must_wait(const FieldQueue& queue, std::int64_t next_slot) const {
    const Pair& pair = queue.pairs.front();
    if (!is_control(pair.word)) return false;
    if (pair.word == queue.sent_in_last_slot) {
        if (!pair.follows_directly) return true;
        if (queue.repetition_expected) return false;
    }

    // A first transmission goes only when its repetition, if there is one, can have the next slot.
    if (queue.pairs.size() > 1) {
        const Pair& next = queue.pairs[1];
        const bool repeated = next.word == pair.word && next.follows_directly;
        return repeated && !begins_by(next.frame, source_, next_slot, output_);
    }
    const std::int64_t next_frame = pair.frame + source_step_;
    if (finished_ || pushed_frame_ >= next_frame) return false;
    return !begins_by(next_frame, source_, next_slot, output_);
}

void Repacer::note_delay(std::int64_t frame, std::int64_t picture, const FieldSlots& slots) {
    const std::int64_t due = slots.first_slot_not_before(first_frame_not_before(frame, source_, output_));
    largest_delay_ = std::max(largest_delay_, picture - slots.picture_of(due));
}

namespace {

// A pair, or a control pair with its repetition; they are moved together.
struct Unit {
    Word word;
    int length;             // 1 or 2 slots
    int idle_before;        // idle slots needed after the unit before
    bool displays_at_once;  // must not be early
    std::int64_t due;       // slot
    std::int64_t slot;
};

// Follows which channel of a field is being written, and whether out of sight.
class LoadingState {
public:
    // Whether the pair changes what is seen at the moment at which it arrives.
    bool displays_at_once(Word word) {
        if (is_control(word)) channel_ = first_byte(word) >> 3 & 1;
        const std::optional<Command> command = command_of(word);
        if (!command) return !loading_[channel_];
        switch (*command) {
            case kResumeCaptionLoading: loading_[channel_] = true; return false;
            case kRollUp2:
            case kRollUp3:
            case kRollUp4:
            case kResumeDirectCaptioning:
            case kTextRestart:
            case kResumeTextDisplay: loading_[channel_] = false; return true;
            case kEndOfCaption: loading_[channel_] = true; return true;
            case kEraseDisplayedMemory: return true;
            default: return !loading_[channel_];
        }
    }

private:
    bool loading_[2] = {false, false};
    int channel_ = 0;
};

std::vector<Unit> units_of_field(const Schedule& schedule, int field, FrameRate output) {
    const int source_step = FieldSlots(schedule.rate, field).step();
    const FieldSlots slots(output, field);
    LoadingState state;
    std::vector<Unit> units;
    std::int64_t newest_frame = std::numeric_limits<std::int64_t>::min() / 2;
    for (const Eia608Event& event : schedule.eia608) {
        if (event.field != field) continue;
        const bool follows = event.frame - newest_frame <= source_step;
        const bool equal = !units.empty() && units.back().word == event.word && is_control(event.word);
        newest_frame = event.frame;
        if (equal && follows && units.back().length == 1) {
            units.back().length = 2;
            continue;
        }
        const std::int64_t picture = first_frame_not_before(event.frame, schedule.rate, output);
        const std::int64_t due = slots.first_slot_not_before(picture);
        units.push_back({event.word, 1, equal && !follows, state.displays_at_once(event.word), due, due});
    }
    return units;
}

// Moves loads forward in time where what follows leaves them too few slots, then everything that still
// collides backward.
void place_units(std::vector<Unit>& units) {
    std::int64_t limit = std::numeric_limits<std::int64_t>::max();
    for (auto unit = units.rbegin(); unit != units.rend(); ++unit) {
        if (!unit->displays_at_once) unit->slot = std::min(unit->due, limit - unit->length);
        limit = unit->slot - unit->idle_before;
    }
    std::int64_t free_slot = 0;
    for (Unit& unit : units) {
        unit.slot = std::max(unit.slot, free_slot + unit.idle_before);
        free_slot = unit.slot + unit.length;
    }
}

void report_delay(const std::vector<Unit>& units, int field, FrameRate output, Report& report) {
    int late = 0;
    std::int64_t largest = 0;
    for (const Unit& unit : units) {
        late += unit.slot > unit.due ? unit.length : 0;
        largest = std::max(largest, unit.slot - unit.due);
    }
    if (late == 0) return;
    const double seconds = frame_to_seconds(largest * FieldSlots(output, field).step(), output);
    report.add(
        WarningKind::kDelayedPairs, "", 0,
        fmt::format("{} caption byte pairs of field {} are sent late, by up to {:.2f} s: {:.6g} pictures "
                    "per second carry fewer pairs than the source",
                    late, field + 1, seconds, output.per_second()));
}

}  // namespace

Schedule retime(const Schedule& schedule, FrameRate output, Report& report) {
    Schedule timed{output, {}, {}};
    for (std::uint8_t field = 0; field < 2; ++field) {
        std::vector<Unit> units = units_of_field(schedule, field, output);
        place_units(units);
        report_delay(units, field, output, report);
        Schedule one_field{output, {}, {}};
        const FieldSlots slots(output, field);
        for (const Unit& unit : units)
            for (int i = 0; i < unit.length; ++i)
                one_field.eia608.push_back({slots.picture_of(unit.slot + i), field, unit.word});
        timed = merge(timed, one_field);
    }

    Repacer constructs(schedule.rate, output);
    constructs.push(Schedule{schedule.rate, {}, schedule.cea708});
    for (std::int64_t picture = 0; constructs.pending() > 0; ++picture) {
        PictureWrites writes = constructs.pull(picture);
        if (!writes.cea708.empty()) timed.cea708.push_back({picture, std::move(writes.cea708)});
    }
    return timed;
}

}  // namespace gsve::captions
