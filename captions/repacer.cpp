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

}  // namespace

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

double useful_foresight(FrameRate source, FrameRate output) {
    // A control pair's repetition is one frame later, which above 39 pictures per second is two pictures.
    constexpr int kRepetitionPictures = 4;
    if (source == output) return 0;
    const auto seconds_to_load = [](FrameRate rate) {
        return kLongestLoad * FieldSlots(rate, 0).step() / rate.per_second();
    };
    return std::max(kRepetitionPictures / source.per_second(),
                    seconds_to_load(output) - seconds_to_load(source));
}

Repacer::Repacer(FrameRate source, FrameRate output)
    : source_(source), output_(output), budget_(picture_budget(output)) {}

void Repacer::push(std::int64_t frame, const PictureCaptions& captions) {
    pushed_frame_ = std::max(frame, pushed_frame_);
    for (int field = 0; field < 2; ++field) {
        std::int64_t pair_frame = pushed_frame_;
        for (const Word word : captions.fields[field]) {
            push_pair(field, pair_frame, word, 0);
            pair_frame += FieldSlots(source_, field).step();
        }
    }
    for (const Cea708Construct& construct : captions.cea708) push_construct(pushed_frame_, construct);
}

void Repacer::push(const Schedule& schedule) {
    if (!(schedule.rate == source_))
        throw std::invalid_argument("the caption schedule's picture rate is not the repacer's source rate");
    for (const Eia608Event& event : schedule.eia608)
        push_pair(event.field, event.frame, event.word, event.late);
    for (const Cea708Event& event : schedule.cea708)
        for (const Cea708Construct& construct : event.constructs) push_construct(event.frame, construct);
    finish();
}

PictureWrites Repacer::pull(std::int64_t picture) {
    PictureWrites writes;
    for (int field = 0; field < 2; ++field) take_pair(field, picture, writes);

    const auto limit = static_cast<std::size_t>(budget_.cea708_constructs);
    while (writes.cea708.size() < limit && !cea708_.empty() &&
           begins_by(cea708_.front().frame, source_, picture, output_)) {
        const std::int64_t due = first_frame_not_before(cea708_.front().frame, source_, output_);
        if (writes.cea708.empty()) writes.cea708_due = std::max<std::int64_t>(due, 0);
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

void Repacer::push_construct(std::int64_t frame, const Cea708Construct& construct) {
    if (construct.header < kHeaderDtvccData) return;
    // Where a frame's two pictures become one, it takes the constructs of both.
    const bool halved = picture_budget(source_).alternating_fields && !budget_.alternating_fields;
    cea708_.push_back({construct, halved ? frame - frame % 2 : frame});
}

void Repacer::push_pair(int field, std::int64_t frame, Word word, std::int64_t late) {
    const FieldSlots slots(source_, field);
    FieldQueue& queue = fields_[field];
    if (is_null(word)) {
        // Where the fields alternate, a null pair on the other field's picture is no slack; the distance of
        // the frames tells.
        if (slots.step() == 1) queue.newest_was_pair = queue.newest_may_repeat = false;
        return;
    }
    const Word sent = with_parity(word);
    // The first picture of the pair's frame.
    const std::int64_t begin = slots.first_slot_not_before(frame) * slots.step();
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
    queue.units.push_back({sent, 1, equal && !follows, queue.loading.displays_at_once(sent), begin, late});
}

void Repacer::take_pair(int field, std::int64_t picture, PictureWrites& writes) {
    const FieldSlots slots(output_, field);
    if (!slots.on_picture(picture)) return;
    const std::int64_t slot = slots.first_slot_not_before(picture);
    FieldQueue& queue = fields_[field];
    if (!queue.units.empty() && queue.units.front().begun && !repeats(field, slot)) {
        queue.repetitions_left_out += static_cast<std::size_t>(queue.units.front().length - 1);
        queue.units.pop_front();
    }
    if (queue.units.empty() || (!queue.units.front().begun && !may_begin(field, slot))) return;

    Unit& unit = queue.units.front();
    queue.free_slot = slot + 1;
    writes.words[field] = unit.word;
    writes.due[field] = slots.picture_of(due_slot(field, unit.frame - unit.late) + (unit.begun ? 1 : 0));
    largest_delay_ = std::max(largest_delay_, picture - writes.due[field]);
    const bool last = unit.begun || (unit.length == 1 && !repetition_may_follow(field));
    unit.begun = true;
    if (last) queue.units.pop_front();
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
           begins_by(repetition_frame(field), source_, FieldSlots(output_, field).picture_of(slot + 1),
                     output_);
}

// Whether the repetition of the pair pushed last may yet be pushed.
bool Repacer::repetition_may_follow(int field) const {
    const FieldQueue& queue = fields_[field];
    return queue.newest_may_repeat && !finished_ && pushed_frame_ < repetition_frame(field);
}

// The source picture that brings the repetition of the pair pushed last, if there is one.
std::int64_t Repacer::repetition_frame(int field) const {
    const FieldSlots slots(source_, field);
    return slots.picture_of(fields_[field].newest_frame / slots.step() + 1);
}

// The first slot of the field that begins no earlier than source picture `frame`.
std::int64_t Repacer::due_slot(int field, std::int64_t frame) const {
    return FieldSlots(output_, field).first_slot_not_before(first_frame_not_before(frame, source_, output_));
}

// The slot in which unit `first` of the queue has to begin, lest it or a unit that is displayed at once
// behind it be late; what is displayed at once is not early either. A load whose end has not been pushed yet
// is taken to go on without a pause until it has `longest_load` pairs.
std::int64_t Repacer::latest_slot(int field, std::size_t first, std::int64_t longest_load) const {
    const std::deque<Unit>& units = fields_[field].units;
    std::int64_t latest = due_slot(field, units[first].frame);
    std::int64_t pairs = 0;
    for (std::size_t n = first; !units[n].displays_at_once && pairs < kLongestLoad; ++n) {
        pairs += units[n].length;
        if (n + 1 == units.size()) {
            const std::int64_t rest = finished_ ? 0 : std::max<std::int64_t>(longest_load - pairs, 0);
            const std::int64_t step = FieldSlots(source_, field).step();
            const std::int64_t end = units[n].frame + (units[n].length + rest) * step;
            return std::min(latest, due_slot(field, end) - pairs - rest);
        }
        pairs += units[n + 1].idle_before;
        latest = std::min(latest, due_slot(field, units[n + 1].frame) - pairs);
    }
    return latest;
}

namespace {

void report_delay(const Schedule& timed, int field, std::size_t left_out, Report& report) {
    int late = 0;
    std::int64_t largest = 0;
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
    if (left_out > 0) text += fmt::format(", though {} repetitions of control pairs are left out", left_out);
    report.add(WarningKind::kDelayedPairs, "", 0, text);
}

}  // namespace

Schedule retime(const Schedule& schedule, FrameRate output, Report& report) {
    Schedule timed{output, {}, {}};
    Repacer repacer(schedule.rate, output);
    repacer.push(schedule);
    for (std::int64_t picture = 0; repacer.pending() > 0; ++picture) {
        PictureWrites writes = repacer.pull(picture);
        for (std::uint8_t field = 0; field < 2; ++field)
            if (writes.words[field] != 0)
                timed.eia608.push_back({picture, field, writes.words[field], picture - writes.due[field]});
        if (!writes.cea708.empty()) timed.cea708.push_back({picture, std::move(writes.cea708)});
    }
    for (int field = 0; field < 2; ++field)
        report_delay(timed, field, repacer.repetitions_left_out(field), report);
    return timed;
}

}  // namespace gsve::captions
