#include "repacer.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace gsve::captions {

namespace {

// Pairs of a pop-on caption of full size: four rows of 32 characters, for each an address and an offset, and
// the commands around them, all twice.
constexpr int kLongestLoad = 4 * (16 + 2 + 2) + 8;

// An output with a slot of a field for every frame of 60 Hz video; 25 and 50 pictures per second have fewer.
constexpr double kFewestForAllFields = 29;

// The cycle of the full rate.
constexpr int kPhases = 4;

bool third_pair_on(std::int64_t picture, int phase) { return (picture + phase) % 2 == 0; }

}  // namespace

std::vector<FieldPair> PictureWrites::pairs() const {
    const auto sent = [](Word word) { return word == 0 ? kNullPair : word; };
    const auto second_field = static_cast<std::uint8_t>(1 - first_field);
    std::vector<FieldPair> pairs{{first_field, sent(words[first_field])},
                                 {second_field, sent(words[second_field])}};
    if (has_third) pairs.push_back({first_field, sent(third)});
    return pairs;
}

bool LoadingState::displays_at_once(Word word) {
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

namespace {

double pairs_per_second(FrameRate rate, LineRate line_rate) {
    const FieldSlots slots(rate, 0, line_rate);
    return slots.clock().per_second() / static_cast<double>(slots.ticks_per_slot());
}

}  // namespace

double useful_foresight(FrameRate source, FrameRate output, LineRate line_rate) {
    // A control pair's repetition is one frame later, which above 39 pictures per second is two pictures. The
    // pictures with three pairs of the full rate are known after three pictures.
    constexpr int kPictures = 4;
    if (source == output && !runs_at_full_rate(source, LineRate::kFull)) return 0;
    const auto seconds_to_load = [](FrameRate rate, LineRate lines) {
        return kLongestLoad / pairs_per_second(rate, lines);
    };
    return std::max(kPictures / source.per_second(),
                    seconds_to_load(output, line_rate) - seconds_to_load(source, LineRate::kFull));
}

Repacer::Repacer(FrameRate source, FrameRate output, LineRate line_rate)
    : source_(source),
      output_(output),
      line_rate_(line_rate),
      budget_(picture_budget(output, line_rate)),
      source_may_be_full_(runs_at_full_rate(source, LineRate::kFull)),
      keeps_fields_(pairs_per_second(output, line_rate) > kFewestForAllFields) {}

void Repacer::push(std::int64_t frame, const PictureCaptions& captions) {
    pushed_frame_ = std::max(frame, pushed_frame_);
    note_phase(pushed_frame_, captions.fields[0].size(), captions.fields[1].size());
    for (int field = 0; field < 2; ++field) {
        int nth = 0;
        for (const Word word : captions.fields[field]) push_pair(field, pushed_frame_, nth++, word, 0);
    }
    for (const Cea708Construct& construct : captions.cea708) push_construct(pushed_frame_, construct);
}

void Repacer::push(const Schedule& schedule) {
    if (!(schedule.rate == source_))
        throw std::invalid_argument("the caption schedule's picture rate is not the repacer's source rate");
    if (source_may_be_full_)
        push_full_rate(schedule.eia608);
    else
        for (const Eia608Event& event : schedule.eia608)
            push_pair(event.field, event.frame, 0, event.word, event.late);
    for (const Cea708Event& event : schedule.cea708)
        for (const Cea708Construct& construct : event.constructs) push_construct(event.frame, construct);
    finish();
}

void Repacer::push_full_rate(const std::vector<Eia608Event>& events) {
    for (auto event = events.begin(); event != events.end();) {
        const std::int64_t frame = event->frame;
        const auto end =
            std::find_if(event, events.end(), [&](const Eia608Event& other) { return other.frame != frame; });
        std::size_t places[2] = {0, 0};
        std::for_each(event, end, [&](const Eia608Event& e) {
            places[e.field] += 1U + (e.idle_before ? 1 : 0) + (e.idle_after ? 1 : 0);
        });
        note_phase(frame, places[0], places[1]);
        for (int nth[2] = {0, 0}; event != end; ++event) {
            const int field = event->field;
            if (event->idle_before) push_pair(field, frame, nth[field]++, kNullPair, 0);
            push_pair(field, frame, nth[field]++, event->word, event->late);
            if (event->idle_after) push_pair(field, frame, nth[field]++, kNullPair, 0);
        }
    }
}

PictureWrites Repacer::pull(std::int64_t picture) {
    PictureWrites writes;
    follow_phase(picture);
    for (int field = 0; field < 2; ++field) {
        const FieldSlots slots = output_slots(field);
        const std::int64_t first = slots.first_slot_not_before(picture);
        if (slots.picture_of(first) != picture) continue;
        const TimedWord sent = take_pair(field, first, picture);
        writes.words[field] = sent.word;
        writes.due[field] = sent.due;
        if (slots.picture_of(first + 1) != picture) continue;
        const TimedWord third = take_pair(field, first + 1, picture);
        writes.has_third = true;
        writes.third = third.word;
        writes.third_due = third.due;
    }
    had_third_ = writes.has_third;
    if (budget_.full_rate)
        writes.first_field =
            output_slots(1).first_slot_not_before(picture) < output_slots(0).first_slot_not_before(picture);

    const auto limit = static_cast<std::size_t>(budget_.constructs_beside(writes.has_third ? 3 : 2));
    const FrameRate clock = source_slots(0).clock();
    while (writes.cea708.size() < limit && !cea708_.empty() &&
           begins_by(cea708_.front().time, clock, picture, output_)) {
        if (writes.cea708.empty())
            writes.cea708_due = first_frame_not_before(cea708_.front().time, clock, output_);
        writes.cea708.push_back(cea708_.front().construct);
        cea708_.pop_front();
    }
    if (!writes.cea708.empty()) largest_delay_ = std::max(largest_delay_, picture - writes.cea708_due);
    return writes;
}

std::size_t Repacer::pending() const { return pending_pairs(0) + pending_pairs(1) + cea708_.size(); }

std::size_t Repacer::pending_pairs(int field) const {
    std::size_t pairs = 0;
    for (const Unit& unit : fields_[field].units)
        pairs += static_cast<std::size_t>(unit.length - (unit.begun ? 1 : 0));
    return pairs;
}

FieldSlots Repacer::source_slots(int field) const {
    return {source_, field, LineRate::kFull, source_phase_.value_or(0)};
}

// A picture with two pairs of one field alone tells where the source is in the cycle of four pictures.
void Repacer::note_phase(std::int64_t frame, std::size_t pairs_of_field_1, std::size_t pairs_of_field_2) {
    const bool twice_field_1 = pairs_of_field_1 == 2, twice_field_2 = pairs_of_field_2 == 2;
    if (!source_may_be_full_ || (!twice_field_1 && !twice_field_2)) return;
    constexpr int kPictureWithTwiceField2 = 2;
    const std::int64_t in_cycle = twice_field_1 ? 0 : kPictureWithTwiceField2;
    const auto phase = static_cast<int>(((in_cycle - frame) % kPhases + kPhases) % kPhases);
    const bool known = !phase_changes_.empty() || source_phase_;
    const int newest = phase_changes_.empty() ? phase_ : phase_changes_.back().phase;
    if (budget_.full_rate && source_ == output_ && phase != newest)
        phase_changes_.push_back({known ? frame : 0, phase});
    // With two of both fields (pairs of whole video frames) the times are those of the frames.
    source_phase_ = twice_field_1 && twice_field_2 ? std::nullopt : std::optional(phase);
}

// Never three pairs on two pictures running: that would be more than the standard's rate.
void Repacer::follow_phase(std::int64_t picture) {
    while (!phase_changes_.empty() && phase_changes_.front().picture <= picture) {
        const int phase = phase_changes_.front().phase;
        if (had_third_ && third_pair_on(picture, phase)) return;
        phase_changes_.pop_front();
        phase_ = phase;
        for (int field = 0; field < 2; ++field)
            fields_[field].free_slot = output_slots(field).first_slot_not_before(picture);
    }
}

void Repacer::push_construct(std::int64_t frame, const Cea708Construct& construct) {
    if (construct.header < kHeaderDtvccData) return;
    // Where a frame's two pictures become one, it takes the constructs of both.
    const bool halved = picture_budget(source_).alternating_fields && !budget_.alternating_fields;
    cea708_.push_back(
        {construct, (halved ? frame - frame % 2 : frame) * source_slots(0).ticks_per_picture()});
}

// The tick of the source from which on the nth pair of a field (from 0) of a source picture may be seen.
std::int64_t Repacer::time_of(int field, std::int64_t frame, int nth) const {
    const FieldSlots slots = source_slots(field);
    if (!source_may_be_full_) return slots.frame_of(slots.first_slot_not_before(frame + nth * slots.step()));
    if (source_phase_ && keeps_fields_) {
        const std::int64_t begin = slots.frame_of(slots.first_slot_not_before(frame) + nth);
        return budget_.alternating_fields ? begin + field * slots.ticks_per_slot() / 2 : begin;
    }
    return frame * slots.ticks_per_picture() + nth * slots.ticks_per_slot();
}

void Repacer::push_pair(int field, std::int64_t frame, int nth, Word word, std::int64_t late) {
    const FieldSlots slots = source_slots(field);
    FieldQueue& queue = fields_[field];
    if (is_null(word)) {
        // Where the fields alternate, a null pair on the other field's picture is no slack; the distance of
        // the frames tells.
        if (slots.step() == 1) queue.newest_was_pair = queue.newest_may_repeat = false;
        return;
    }
    const Word sent = with_parity(word);
    // The frame's first picture; for film, which tells no frames, its own.
    const std::int64_t begin = source_may_be_full_ ? frame : time_of(field, frame, nth);
    const bool follows = queue.newest_was_pair && begin - queue.newest_frame <= slots.step();
    const bool equal = queue.newest_word == sent && is_control(sent);
    queue.newest_was_pair = true;
    queue.newest_frame = begin;
    queue.newest_word = sent;
    if (equal && follows && queue.newest_may_repeat) {
        queue.newest_may_repeat = false;
        if (queue.units.empty())
            ++queue.repetitions_left_out;  // pushed when its slot was over
        else
            queue.units.back().length = 2;
        return;
    }
    queue.newest_may_repeat = is_control(sent);
    queue.units.push_back({sent, 1, equal && !follows, queue.loading.displays_at_once(sent),
                           time_of(field, frame, nth), late * slots.ticks_per_picture()});
}

Repacer::TimedWord Repacer::take_pair(int field, std::int64_t slot, std::int64_t picture) {
    FieldQueue& queue = fields_[field];
    if (!queue.units.empty() && queue.units.front().begun && !repeats(field, slot)) {
        queue.repetitions_left_out += static_cast<std::size_t>(queue.units.front().length - 1);
        queue.units.pop_front();
    }
    if (queue.units.empty() || (!queue.units.front().begun && !may_begin(field, slot))) return {};

    Unit& unit = queue.units.front();
    queue.free_slot = slot + 1;
    const std::int64_t due = due_slot(field, unit.time - unit.late) + (unit.begun ? 1 : 0);
    const TimedWord sent{unit.word, output_slots(field).picture_of(due)};
    largest_delay_ = std::max(largest_delay_, picture - sent.due);
    const bool last = unit.begun || (unit.length == 1 && !repetition_may_follow(field));
    unit.begun = true;
    if (last) queue.units.pop_front();
    return sent;
}

// Whether the front unit, whose first transmission has gone, takes `slot` for its repetition. Where what
// follows is late already, a repetition is left out, unless two commands would be taken for one then.
bool Repacer::repeats(int field, std::int64_t slot) const {
    const std::deque<Unit>& units = fields_[field].units;
    if (units.front().length == 1) return false;
    return units.size() == 1 || units[1].word == units[0].word || latest_slot(field, 1, 0) >= slot;
}

// Whether the front unit, none of which has gone, can begin in `slot`.
bool Repacer::may_begin(int field, std::int64_t slot) const {
    const FieldQueue& queue = fields_[field];
    if (slot < latest_slot(field, 0, kLongestLoad) ||
        slot < queue.free_slot + queue.units.front().idle_before)
        return false;
    // A first transmission goes only when its repetition, if there is one, can have the next slot.
    return !repetition_may_follow(field) || queue.units.size() > 1 ||
           begins_by(repetition_frame(field), source_, output_slots(field).picture_of(slot + 1), output_);
}

// Whether the repetition of the pair pushed last may yet be pushed.
bool Repacer::repetition_may_follow(int field) const {
    const FieldQueue& queue = fields_[field];
    return queue.newest_may_repeat && !finished_ && pushed_frame_ < repetition_frame(field);
}

// The source picture that brings the repetition of the pair pushed last, if there is one.
std::int64_t Repacer::repetition_frame(int field) const {
    const std::int64_t newest = fields_[field].newest_frame;
    if (source_may_be_full_) return newest + 1;
    const FieldSlots slots = source_slots(field);
    return slots.picture_of(newest / slots.step() + 1);
}

// The first slot of the field that begins no earlier than `time`, a tick of the source.
std::int64_t Repacer::due_slot(int field, std::int64_t time) const {
    const FieldSlots slots = output_slots(field);
    return slots.first_slot_from(first_frame_not_before(time, source_slots(field).clock(), slots.clock()));
}

// The slot in which unit `first` of the queue has to begin, lest it or a unit that is displayed at once
// behind it be late; what is displayed at once is not early either. A load whose end has not been pushed yet
// is taken to go on without a pause until it has `longest_load` pairs.
std::int64_t Repacer::latest_slot(int field, std::size_t first, std::int64_t longest_load) const {
    const std::deque<Unit>& units = fields_[field].units;
    std::int64_t latest = due_slot(field, units[first].time);
    std::int64_t pairs = 0;
    for (std::size_t n = first; !units[n].displays_at_once && pairs < kLongestLoad; ++n) {
        pairs += units[n].length;
        if (n + 1 == units.size()) {
            const std::int64_t rest = finished_ ? 0 : std::max<std::int64_t>(longest_load - pairs, 0);
            const std::int64_t step = source_slots(field).ticks_per_slot();
            const std::int64_t end = units[n].time + (units[n].length + rest) * step;
            return std::min(latest, due_slot(field, end) - pairs - rest);
        }
        pairs += units[n + 1].idle_before;
        latest = std::min(latest, due_slot(field, units[n + 1].time) - pairs);
    }
    return latest;
}

namespace {

void report_delay(const Schedule& timed, int field, const Repacer& repacer, Report& report) {
    int late = 0;
    std::int64_t largest{};
    for (const Eia608Event& event : timed.eia608) {
        if (event.field != field) continue;
        late += event.late > 0;
        largest = std::max(largest, event.late);
    }
    if (late == 0) return;
    std::string text = fmt::format(
        "{} caption byte pairs of field {} are sent late, by up to {:.2f} s: {:.6g} pictures per second "
        "carry "
        "fewer pairs than the source",
        late, field + 1, frame_to_seconds(largest, timed.rate), timed.rate.per_second());
    const std::size_t left_out = repacer.repetitions_left_out(field);
    if (left_out > 0) text += fmt::format(", though {} repetitions of control pairs are left out", left_out);
    report.add(WarningKind::kDelayedPairs, "", 0, text);
}

}  // namespace

Schedule retime(const Schedule& schedule, FrameRate output, Report& report, LineRate line_rate) {
    Schedule timed{output, {}, {}};
    Repacer repacer(schedule.rate, output, line_rate);
    repacer.push(schedule);
    for (std::int64_t picture = 0; repacer.pending() > 0; ++picture) {
        PictureWrites writes = repacer.pull(picture);
        for (std::uint8_t field = 0; field < 2; ++field) {
            PictureCaptions captions;
            std::vector<std::int64_t> late;
            const auto place = [&](Word word, std::int64_t due) {
                captions.fields[field].push_back(word == 0 ? kNullPair : word);
                if (word != 0) late.push_back(picture - due);
            };
            place(writes.words[field], writes.due[field]);
            if (writes.has_third && field == writes.first_field) place(writes.third, writes.third_due);
            const std::size_t first = timed.eia608.size();
            append(timed, picture, captions);
            for (std::size_t n = 0; n < late.size(); ++n) timed.eia608[first + n].late = late[n];
        }
        if (!writes.cea708.empty()) timed.cea708.push_back({picture, std::move(writes.cea708)});
    }
    for (int field = 0; field < 2; ++field) report_delay(timed, field, repacer, report);
    return timed;
}

}  // namespace gsve::captions
