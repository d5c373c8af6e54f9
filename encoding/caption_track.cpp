#include "encoding/caption_track.h"

#include <algorithm>
#include <utility>

#include "captions/eia608_decoder.h"
#include "captions/scte20.h"

namespace gsve::encoding {
namespace {

using captions::FrameRate;
using captions::PictureCaptions;
using captions::PictureWrites;
using captions::Schedule;
using captions::Word;

constexpr double kFastestFilm = 24;

CaptionCount count(const PictureWrites& writes) {
    return {static_cast<uint64_t>(writes.words[0] != 0) + (writes.words[1] != 0) + (writes.third != 0),
            writes.cea708.size()};
}

CaptionCount count(const PictureCaptions& captions) {
    CaptionCount sum{0, captions.cea708.size()};
    for (const auto& field : captions.fields)
        sum.pairs += std::count_if(field.begin(), field.end(), [](Word w) { return !captions::is_null(w); });
    return sum;
}

/// An idle picture matters to a receiver only after a control pair: an equal one that follows at once is its
/// repetition, and is ignored.
bool idle_matters_after(Word word) { return word != 0 && captions::is_control(word); }

}  // namespace

PictureLine::Pair PictureLine::Field::next(Pair due) {
    if (!pairs.empty()) {
        if (due.word != 0 || idle_matters_after(pairs.back().word)) pairs.push_back(due);
        due = pairs.front();
        pairs.pop_front();
    }
    before = std::exchange(sent, due);
    return sent;
}

void PictureLine::Field::take_back() {
    if (sent.word != 0 || idle_matters_after(before.word)) pairs.push_front(sent);
    sent = before;
}

PictureWrites PictureLine::next(uint64_t picture, const PictureWrites& due) {
    picture_ = picture;
    PictureWrites writes;
    for (int field = 0; field < 2; field++) {
        if (!carries(picture, field)) continue;
        const Pair sent = fields_[field].next({due.words[field], due.due[field]});
        writes.words[field] = sent.word;
        writes.due[field] = sent.due;
    }
    for (const captions::Cea708Construct& construct : due.cea708)
        constructs_.push_back({construct, due.cea708_due});
    const auto limit = static_cast<size_t>(budget_.cea708_constructs);
    const auto taken = constructs_.begin() + static_cast<ptrdiff_t>(std::min(constructs_.size(), limit));
    sent_constructs_.assign(constructs_.begin(), taken);
    constructs_.erase(constructs_.begin(), taken);
    for (const Construct& sent : sent_constructs_) writes.cea708.push_back(sent.construct);
    if (!sent_constructs_.empty()) writes.cea708_due = sent_constructs_.front().due;
    return writes;
}

void PictureLine::take_back() {
    for (int field = 0; field < 2; field++)
        if (carries(picture_, field)) fields_[field].take_back();
    constructs_.insert(constructs_.begin(), sent_constructs_.begin(), sent_constructs_.end());
}

uint64_t PictureLine::waiting_pairs(int field) const {
    const std::deque<Pair>& pairs = fields_[field].pairs;
    return static_cast<uint64_t>(
        std::count_if(pairs.begin(), pairs.end(), [](const Pair& pair) { return pair.word != 0; }));
}

CaptionTrack::CaptionTrack(CaptionForms forms, FrameRate source_rate, FrameRate encoded_rate)
    : forms_(forms),
      output_rate_(encoded_rate),
      asked_{source_rate, {}, {}},
      repacer_(source_rate, encoded_rate, forms.line_rate),
      line_(encoded_rate) {}

void CaptionTrack::load(const Schedule& schedule) {
    asked_ = schedule;
    repacer_ = captions::Repacer(schedule.rate, output_rate_, forms_.line_rate);
    repacer_.push(schedule);
}

double CaptionTrack::foresight() const {
    if (!forms_.pairs()) return 0;
    // Film may have been coded at its own rate with the pairs of 60 Hz video, of which less than all go out.
    const FrameRate rate = asked_.rate;
    const bool all_go_out = forms_.line_rate == captions::LineRate::kFull;
    const FrameRate pair_rate =
        rate.per_second() <= kFastestFilm && !all_go_out ? captions::kRate29_97 : rate;
    return captions::useful_foresight(pair_rate, output_rate_, forms_.line_rate);
}

CaptionCount CaptionTrack::push(int64_t frame, PictureCaptions captions) {
    const CaptionCount all = count(captions);
    if (!forms_.pairs()) {
        without_form_ += all;
        return all;
    }
    if (!forms_.cc_data) {
        without_form_.constructs += all.constructs;
        captions.cea708.clear();
    }
    repacer_.push(frame, captions);
    captions.cea708.clear();
    captions::append(asked_, frame, captions);
    forget_what_was_sent();
    return all;
}

/// A channel goes on for months. What waits, and what went before it for some minutes, tells of captions that
/// are cut short.
void CaptionTrack::forget_what_was_sent() {
    constexpr size_t kRemembered = 20'000;  // pairs: of both fields, those of five and a half minutes
    if (asked_.eia608.size() <= 2 * kRemembered) return;
    size_t kept = kRemembered;
    for (int field = 0; field < 2; field++)
        kept += line_.waiting_pairs(field) + repacer_.pending_pairs(field);
    if (asked_.eia608.size() <= 2 * kept) return;
    asked_.eia608.erase(asked_.eia608.begin(), asked_.eia608.end() - static_cast<ptrdiff_t>(kept));
}

CaptionCount CaptionTrack::lost() const {
    CaptionCount sum = without_form_;
    sum += expired_;
    return sum;
}

PictureWrites CaptionTrack::next(uint64_t number, uint64_t encoded) {
    PictureWrites writes = repacer_.pull(static_cast<int64_t>(encoded));
    // At the full rate no picture is dropped.
    if (forms_.line_rate == captions::LineRate::kPairOfEachField) writes = line_.next(encoded, writes);
    return planned(number, encoded, std::move(writes));
}

PictureWrites CaptionTrack::planned(uint64_t number, uint64_t encoded, PictureWrites writes) {
    newest_ = number;
    if (!writes.empty()) in_codec_[number] = given(writes, static_cast<int64_t>(encoded));
    return writes;
}

std::vector<uint8_t> scte20_body(const PictureWrites& writes, bool top_field_first) {
    return compose_scte20(captions::scte20_constructs(writes.words[0], writes.words[1], top_field_first));
}

CaptionTrack::Given CaptionTrack::given(const PictureWrites& writes, int64_t picture) {
    Given given{count(writes)};
    const auto pair = [&](Word word, int64_t due) {
        if (word == 0) return;
        given.delayed_pairs += picture > due;
        given.largest_delay = std::max(given.largest_delay, picture - due);
    };
    for (int field = 0; field < 2; field++) pair(writes.words[field], writes.due[field]);
    pair(writes.third, writes.third_due);
    if (!writes.cea708.empty())
        given.largest_delay = std::max(given.largest_delay, picture - writes.cea708_due);
    return given;
}

void CaptionTrack::after(PictureFate fate) {
    if (fate != PictureFate::kDropped) return;
    line_.take_back();
    in_codec_.erase(newest_);
}

void CaptionTrack::emitted(const EncodedUnit& unit) {
    const auto given = in_codec_.find(static_cast<uint64_t>(unit.pts));
    if (given == in_codec_.end()) return;
    (unit.ancillary ? carried_ : expired_) += given->second.count;
    if (unit.ancillary) {
        delayed_pairs_ += given->second.delayed_pairs;
        largest_delay_ = std::max(largest_delay_, given->second.largest_delay);
    }
    in_codec_.erase(given);
}

// Follows all pairs that were asked for, of which some wait, and those that went to the encoder, as a
// receiver does.
std::vector<LostCaption> CaptionTrack::lost_captions(uint64_t encoded) const {
    int64_t to_send[2] = {0, 0};
    std::map<std::pair<int, int64_t>, int64_t> late;  // by field and frame
    for (const captions::Eia608Event& event : asked_.eia608) {
        to_send[event.field]++;
        if (event.late > 0) late[{event.field, event.frame}] = event.late;
    }
    for (int field = 0; field < 2; field++)
        to_send[field] -= static_cast<int64_t>(line_.waiting_pairs(field) + repacer_.pending_pairs(field));

    captions::Eia608Decoder wanted(asked_.rate), sent(asked_.rate);
    for (const captions::Eia608Event& event : asked_.eia608) {
        wanted.feed(event.frame, event.field, event.word);
        if (to_send[event.field]-- > 0) sent.feed(event.frame, event.field, event.word);
    }
    const int64_t end = asked_.eia608.back().frame + 1;
    std::map<std::pair<int, int64_t>, std::string> seen;  // by channel and frame
    for (const captions::TimedText& text : sent.finish(end)) seen[{text.channel, text.begin}] += text.text();

    const double stream_end = captions::frame_to_seconds(static_cast<int64_t>(encoded), output_rate_);
    std::vector<LostCaption> lost;
    for (const captions::TimedText& text : wanted.finish(end)) {
        const auto shown = seen.find({text.channel, text.begin});
        if (shown != seen.end() && shown->second.find(text.text()) != std::string::npos) continue;
        const auto delay = late.find({(text.channel - 1) / 2, text.begin});
        const double time =
            captions::frame_to_seconds(text.begin - (delay == late.end() ? 0 : delay->second), asked_.rate);
        lost.push_back({time, text.channel,
                        shown != seen.end()  ? LostCaption::Reason::kCutShort
                        : time >= stream_end ? LostCaption::Reason::kAfterTheEnd
                                             : LostCaption::Reason::kDidNotFit,
                        text.text()});
    }
    return lost;
}

CaptionAccount CaptionTrack::account(uint64_t encoded) const {
    CaptionAccount account;
    account.carried = carried_;
    account.without_form = without_form_;
    account.expired = expired_;
    for (const auto& [picture, given] : in_codec_) account.expired += given.count;
    account.left_over.constructs = line_.waiting_constructs() + repacer_.pending();
    for (int field = 0; field < 2; field++) {
        const uint64_t pairs = repacer_.pending_pairs(field);
        account.left_over.constructs -= pairs;
        account.left_over.pairs += pairs + line_.waiting_pairs(field);
        account.repetitions_left_out += repacer_.repetitions_left_out(field);
    }
    if (account.left_over.pairs > 0) account.lost = lost_captions(encoded);
    account.delayed_pairs = delayed_pairs_;
    account.largest_delay = captions::frame_to_seconds(largest_delay_, output_rate_);
    return account;
}

}  // namespace gsve::encoding
