#include "caption_feed.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "captions/caption_file.h"
#include "captions/eia608_decoder.h"
#include "captions/scte20.h"
#include "error.h"

namespace gsve::cli {
namespace {

using captions::CaptionFormat;
using captions::FrameRate;
using captions::PictureCaptions;
using captions::PictureWrites;
using captions::Schedule;
using captions::WarningKind;
using captions::Word;

// The encoder keeps the captions of this many pictures for those that the codec still holds.
constexpr int kRecordsKept = 60;

constexpr double kFastestFilm = 24;

FrameRate to_rate(AVRational rate) { return {rate.num, rate.den}; }

FrameRate encoded_rate(const Host& host) { return to_rate(host.encoded_rate()); }

CaptionCount count(const PictureWrites& writes) {
    return {static_cast<uint64_t>(writes.words[0] != 0) + (writes.words[1] != 0), writes.cea708.size()};
}

CaptionCount count(const PictureCaptions& captions) {
    CaptionCount sum{0, captions.cea708.size()};
    for (const auto& field : captions.fields)
        sum.pairs += std::count_if(field.begin(), field.end(), [](Word w) { return !captions::is_null(w); });
    return sum;
}

Schedule load_files(const CaptionOptions& options, FrameRate source, FrameRate rate,
                    captions::Report& report) try {
    Schedule all{rate, {}, {}};
    int field = std::max(options.field, 1) - 1;
    for (const std::string& file : options.files) {
        captions::CaptionFileOptions reading{.output = rate, .field = field, .start = options.start};
        reading.rows = options.rows.value_or(reading.rows);
        reading.source = source;
        all = merge(all, load_captions(file, reading, report));
        field = 1 - field;
    }
    return all;
} catch (const std::invalid_argument& error) {
    throw UsageError(fmt::format("--captions-start: {}", error.what()));
}

const char* name_of(WarningKind kind) {
    switch (kind) {
        case WarningKind::kReplacedCharacter: return "replaced_characters";
        case WarningKind::kBrokenWord: return "broken_words";
        case WarningKind::kSplitCue: return "split_cues";
        case WarningKind::kShortenedCue: return "shortened_cues";
        case WarningKind::kLateCue: return "late_cues";
        case WarningKind::kDroppedCue: return "dropped_cues";
        case WarningKind::kDelayedPairs: break;  // counted pair by pair
        case WarningKind::kParity: return "parity";
        case WarningKind::kBeforeStart: return "before_start";
        case WarningKind::kIgnoredData: return "ignored_data";
        case WarningKind::kTimeCodes: return "time_codes";
        case WarningKind::kOtherField: return "other_field";
        case WarningKind::kRewrappedCues: return "rewrapped_cues";
        case WarningKind::kNoCaptions: return "no_captions";
        case WarningKind::kFaultyLine: return "faulty_lines";
        case WarningKind::kUnknownReference: return "unknown_references";
    }
    return "others";
}

bool drops_pictures(const Host& host) {
    constexpr int kAutomaticBelow = 750000;
    return host.drop_frame_for_bitrate_limit > 0 ||
           (host.drop_frame_for_bitrate_limit < 0 && host.bitrate < kAutomaticBelow);
}

/// An idle picture matters to a receiver only after a control pair: an equal one that follows at once is its
/// repetition, and is ignored.
bool idle_matters_after(Word word) { return word != 0 && captions::is_control(word); }

}  // namespace

void check_caption_options(const CaptionOptions& options, const std::string& codec) {
    if (options.scte20 && codec != "mpeg-2")
        throw UsageError(fmt::format("--scte20 is for MPEG-2 streams, not {}: leave it out", codec));
    if (options.files.empty()) return;
    if (codec == "h.265") throw UsageError("--captions: H.265 streams carry none here; use mpeg-2 or h.264");
    if (options.files.size() > 2)
        throw UsageError("--captions takes two files at most: one for field 1, one for field 2");
    for (const std::string& file : options.files) {
        if (captions::caption_format(file) != CaptionFormat::kMcc) continue;
        if (options.files.size() > 1 || options.field != 0)
            throw UsageError(
                fmt::format("{} has both fields: give it alone, and without --captions-field", file));
    }
    const bool cues = std::any_of(options.files.begin(), options.files.end(), [](const std::string& file) {
        const CaptionFormat format = captions::caption_format(file);
        return format == CaptionFormat::kSubRip || format == CaptionFormat::kWebVtt;
    });
    if (options.rows && !cues)
        throw UsageError(
            "--caption-rows is for SRT and WebVTT files: SCC and MCC captions have their rows; leave it out");
}

CaptionForms caption_forms(Host& host, bool scte20) {
    constexpr int kMpeg2 = 2, kH264 = 4, kFastestCc = 33;
    const FrameRate rate = encoded_rate(host);
    const bool cc = host.codec_id == kMpeg2 && host.enabled_eia608() && rate.num / rate.den <= kFastestCc;
    return {cc, (host.codec_id == kMpeg2 || host.codec_id == kH264) && host.enabled_cea708(), scte20};
}

void check_caption_settings(Host& host, const CaptionForms& forms) {
    // "CC" user data holds the pairs of all pictures since the one that had it last.
    const int b_frames = host.mpeg_context->max_b_frames;
    const int distance = host.do_eia608_on_p_frames() ? b_frames + 1 : host.effective_gop_size;
    const int delay = b_frames > 0 ? b_frames + 1 : 0;
    if (forms.cc && distance > kRecordsKept - delay)
        throw UsageError(fmt::format(
            "\"CC\" captions would come only every {} pictures, and reach back {}: set \"gop size\" to {} or "
            "less, \"eia-608 on p-frames\" to 1, or \"enable eia-608\" to 0",
            distance, kRecordsKept - delay, kRecordsKept - delay));

    if (!drops_pictures(host)) return;
    if (forms.cc && !host.per_frame_rate_control)
        throw UsageError(
            "\"CC\" captions repeat those of dropped pictures here: set \"drop frame for bitrate limit\" to "
            "off, \"enable eia-608\" to 0, or \"constant bitrate per frame\" to 1");
    if (captions::picture_budget(encoded_rate(host)).alternating_fields && host.per_frame_rate_control)
        throw UsageError(
            "above 39 pictures/s captions alternate between the fields, and dropped pictures would swap "
            "them: set \"drop frame for bitrate limit\" to off, or \"constant bitrate per frame\" to 0");
}

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

CaptionFeed::CaptionFeed(const CaptionOptions& options, const Source& source, Host& host)
    : output_rate_(encoded_rate(host)),
      forms_(caption_forms(host, options.scte20)),
      origin_(!options.files.empty()                        ? "file"
              : options.carry_over && source.has_captions() ? "input"
                                                            : "none"),
      asked_{options.files.empty() ? to_rate(source.own_rate()) : output_rate_, {}, {}},
      repacer_(asked_.rate, output_rate_),
      line_(output_rate_) {
    if (origin_ != "none") check_caption_settings(host, forms_);
    if (origin_ != "file") return;
    if (!forms_.pairs())
        throw UsageError("--captions: the settings \"enable cea-708\" and \"enable eia-608\" are off");
    asked_ = load_files(options, {host.frame_rate_num, host.frame_rate_den}, output_rate_, report_);
    repacer_.push(asked_);
}

double CaptionFeed::foresight(const Source& source) const {
    if (origin_ != "input" || !forms_.pairs()) return 0;
    // Film may have been coded at its own rate with the pairs of 60 Hz video.
    const FrameRate rate = asked_.rate;
    const FrameRate pair_rate = rate.per_second() <= kFastestFilm ? captions::kRate29_97 : rate;
    return source.captions_behind() / rate.per_second() + captions::useful_foresight(pair_rate, output_rate_);
}

void CaptionFeed::take_in(Source& source) {
    for (SourceCaptions& decoded : source.take_captions()) {
        if (origin_ == "file") continue;
        PictureCaptions& captions = decoded.captions;
        const CaptionCount all = count(captions);
        if (all.all() > 0) origin_ = "input";
        if (!forms_.pairs()) {
            without_form_ += all;
            continue;
        }
        if (!forms_.cc_data) {
            without_form_.constructs += all.constructs;
            captions.cea708.clear();
        }
        repacer_.push(decoded.frame, captions);
        captions.cea708.clear();
        captions::append(asked_, decoded.frame, captions);
    }
    if (source.decoded_all()) repacer_.finish();
}

void CaptionFeed::before(Source& source, Host& host, const Picture& picture) {
    take_in(source);
    newest_ = picture.number;
    if (!host.takes(picture)) return;
    const uint64_t k = host.input_frame_count;
    const PictureWrites writes = line_.next(k, repacer_.pull(static_cast<int64_t>(k)));
    if (writes.empty()) return;

    for (uint8_t field = 0; field < 2; field++)
        if (writes.words[field] != 0) host.write_eia608(field, writes.words[field]);
    std::vector<zeph_cea708_word> words;
    for (const captions::Cea708Construct& c : writes.cea708)
        words.push_back({c.header, static_cast<uint16_t>(c.data_1 << 8 | c.data_2)});
    if (!words.empty()) host.write_cea708(static_cast<unsigned>(words.size()), words.data());
    if (forms_.scte20) {
        // Readers take the order of the fields from the picture's top_field_first, which is 0 in
        // progressive ones.
        const bool top_field_first = picture.field_order == 1 && host.resize_deinterlace < 0;
        auto body =
            compose_scte20(captions::scte20_constructs(writes.words[0], writes.words[1], top_field_first));
        if (!body.empty()) host.write_scte20(body.data(), body.size());
    }
    in_codec_[picture.number] = given(writes, static_cast<int64_t>(k));
}

CaptionFeed::Given CaptionFeed::given(const PictureWrites& writes, int64_t picture) {
    Given given{count(writes)};
    for (int field = 0; field < 2; field++) {
        if (writes.words[field] == 0) continue;
        given.delayed_pairs += picture > writes.due[field];
        given.largest_delay = std::max(given.largest_delay, picture - writes.due[field]);
    }
    if (!writes.cea708.empty())
        given.largest_delay = std::max(given.largest_delay, picture - writes.cea708_due);
    return given;
}

void CaptionFeed::after(Outcome outcome) {
    if (outcome != Outcome::kDropped) return;
    line_.take_back();
    in_codec_.erase(newest_);
}

void CaptionFeed::emitted(const EncodedUnit& unit) {
    const auto given = in_codec_.find(static_cast<uint64_t>(unit.pts));
    if (given == in_codec_.end()) return;
    (unit.ancillary ? carried_ : expired_) += given->second.count;
    if (unit.ancillary) {
        delayed_pairs_ += given->second.delayed_pairs;
        largest_delay_ = std::max(largest_delay_, given->second.largest_delay);
    }
    in_codec_.erase(given);
}

// Follows all pairs that were asked for, and those that went to the encoder, as a receiver does.
std::vector<LostCaption> CaptionFeed::lost_captions(const Host& host) const {
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
    const int64_t end = asked_.eia608.empty() ? 0 : asked_.eia608.back().frame + 1;
    std::map<std::pair<int, int64_t>, std::string> seen;  // by channel and frame
    for (const captions::TimedText& text : sent.finish(end)) seen[{text.channel, text.begin}] += text.text();

    const double stream_end =
        captions::frame_to_seconds(static_cast<int64_t>(host.input_frame_count), output_rate_);
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

CaptionAccount CaptionFeed::account(const Host& host) const {
    CaptionAccount account;
    account.source = origin_;
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
    if (account.left_over.pairs > 0) account.lost = lost_captions(host);
    account.delayed_pairs = delayed_pairs_;
    account.largest_delay = captions::frame_to_seconds(largest_delay_, output_rate_);
    for (const captions::Warning& warning : report_.warnings())
        if (warning.kind != WarningKind::kDelayedPairs) account.warnings[name_of(warning.kind)]++;
    for (const auto& [picture, record] : host.aux_data_map)
        if (forms_.cc && picture >= host.eia608_next_pts)
            account.pairs_after_last_cc +=
                (record.eia608_word_field1 != 0) + (record.eia608_word_field2 != 0);
    return account;
}

}  // namespace gsve::cli
