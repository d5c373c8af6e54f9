// Caption files and caption data of any content: every parser takes it or refuses it with its own kind of
// error, and what it takes goes through everything behind it. The first byte chooses the format, the second
// the options.

#include <stdexcept>
#include <string>

#include "captions/cc_data.h"
#include "captions/cdp.h"
#include "captions/character_references.h"
#include "captions/dtvcc.h"
#include "captions/eia608_decoder.h"
#include "captions/mcc.h"
#include "captions/parity.h"
#include "captions/pop_on.h"
#include "captions/repacer.h"
#include "captions/scc.h"
#include "captions/scte20.h"
#include "captions/subtitles.h"
#include "captions/text_file.h"
#include "captions/timecode.h"
#include "input.h"

namespace {

using namespace gsve::captions;
using gsve::fuzz::Bytes;
using gsve::fuzz::Input;

constexpr FrameRate kRates[] = {kRate23_976, kRate24, kRate25,    kRate29_97,
                                kRate30,     kRate50, kRate59_94, kRate60};

/// Schedules are walked picture by picture: three minutes are enough.
constexpr std::int64_t kLongestWalk = 10000;

// ---- What holds of every result -------------------------------------------------------------------------

std::int64_t last_frame(const Schedule& schedule) {
    std::int64_t last = 0;
    if (!schedule.eia608.empty()) last = schedule.eia608.back().frame;
    if (!schedule.cea708.empty()) last = std::max(last, schedule.cea708.back().frame);
    return last;
}

void check_schedule(const Schedule& schedule) {
    std::int64_t newest = 0;
    for (const Eia608Event& event : schedule.eia608) {
        GSVE_FUZZ_REQUIRE(event.frame >= newest && event.field <= 1);
        GSVE_FUZZ_REQUIRE(has_parity(event.word) && !is_null(event.word));
        newest = event.frame;
    }
    newest = 0;
    for (const Cea708Event& event : schedule.cea708) {
        GSVE_FUZZ_REQUIRE(event.frame >= newest && !event.constructs.empty());
        newest = event.frame;
    }
}

size_t characters(const std::string& text) {
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<uint8_t>(c) & 0xC0) != 0x80; }));
}

/// What receivers make of it.
void show(const Schedule& schedule) {
    Eia608Decoder decoder(schedule.rate);
    decoder.feed(schedule);
    const std::int64_t end = last_frame(schedule) + 1;
    std::int64_t newest = 0;
    for (const TimedText& caption : decoder.finish(end)) {
        GSVE_FUZZ_REQUIRE(caption.channel >= 1 && caption.channel <= 4);
        GSVE_FUZZ_REQUIRE(caption.begin >= newest && caption.begin <= caption.end && caption.end <= end);
        GSVE_FUZZ_REQUIRE(caption.first_row >= 1 && caption.first_row <= kRows && !caption.rows.empty());
        GSVE_FUZZ_REQUIRE(caption.rows.size() <= static_cast<size_t>(kRows));
        for (const std::string& row : caption.rows)
            GSVE_FUZZ_REQUIRE(characters(row) <= static_cast<size_t>(kColumns));
        GSVE_FUZZ_REQUIRE(!name_of(caption.mode).empty());
        newest = caption.begin;
    }
    DtvccDecoder services;
    services.feed(schedule);
    services.finish();
    for (const ServiceText& text : services.texts()) {
        GSVE_FUZZ_REQUIRE(text.service >= 1 && text.service <= 63);
        GSVE_FUZZ_REQUIRE(services.services().contains(text.service));
    }
}

/// What a picture of the schedule's rate can carry, and no more.
void check_budget(const Schedule& schedule, LineRate line_rate) {
    const PictureBudget budget = picture_budget(schedule.rate, line_rate);
    const size_t slots = budget.full_rate ? 2 : 1;
    struct {
        std::int64_t frame = -2;
        size_t pairs[2] = {0, 0};
        bool three() const { return pairs[0] + pairs[1] == 3; }
    } before, now;
    for (const Eia608Event& event : schedule.eia608) {
        if (event.frame != now.frame) {
            before = now;
            now = {event.frame, {0, 0}};
        }
        GSVE_FUZZ_REQUIRE(++now.pairs[event.field] <= slots);
        GSVE_FUZZ_REQUIRE(now.pairs[0] + now.pairs[1] <= slots + 1);
        GSVE_FUZZ_REQUIRE(!now.three() || !before.three() || before.frame + 1 < now.frame);
        GSVE_FUZZ_REQUIRE(!budget.alternating_fields || event.frame % 2 == event.field);
    }
    for (const Cea708Event& event : schedule.cea708)
        GSVE_FUZZ_REQUIRE(event.constructs.size() <= static_cast<size_t>(budget.cea708_constructs));
}

std::vector<Eia608Event> without_delays(const Schedule& schedule) {
    std::vector<Eia608Event> events = schedule.eia608;
    for (Eia608Event& event : events) event.late = 0;
    return events;
}

/// The pairs of each field without repetitions.
std::vector<Word> acted_on(const Schedule& schedule) {
    std::vector<Word> acted[2];
    for (const int field : {0, 1}) {
        std::int64_t frame = -10;
        Word repeatable = 0;
        const std::int64_t step = FieldSlots(schedule.rate, field).step();
        for (const Eia608Event& event : schedule.eia608) {
            if (event.field != field) continue;
            if (event.frame - frame > step || event.idle_before) repeatable = 0;
            const bool repetition = is_control(event.word) && event.word == repeatable;
            if (!repetition) acted[field].push_back(event.word);
            repeatable = repetition || event.idle_after ? Word{0} : event.word;
            frame = event.frame;
        }
    }
    acted[0].insert(acted[0].end(), acted[1].begin(), acted[1].end());
    return acted[0];
}

Schedule paced(const Schedule& schedule, FrameRate output, LineRate line_rate) {
    Report report;
    const Schedule timed = retime(schedule, output, report, line_rate);
    check_schedule(timed);
    check_budget(timed, line_rate);
    return timed;
}

void use(const Schedule& schedule, FrameRate output) {
    check_schedule(schedule);
    show(schedule);
    if (last_frame(schedule) > kLongestWalk) return;
    for (const LineRate line_rate : {LineRate::kPairOfEachField, LineRate::kFull}) {
        const Schedule timed = paced(schedule, output, line_rate);
        show(timed);
        const Schedule again = paced(timed, output, line_rate);
        GSVE_FUZZ_REQUIRE(again.cea708.size() >= timed.cea708.size());
        GSVE_FUZZ_REQUIRE(acted_on(again) == acted_on(timed));
        // Film whose pictures with three pairs change their place again and again is put in step a little
        // later each time.
        if (line_rate == LineRate::kFull && runs_at_full_rate(schedule.rate, line_rate)) continue;
        GSVE_FUZZ_REQUIRE(again.cea708 == timed.cea708 && without_delays(again) == without_delays(timed));
    }
}

void check_report(const Report& report) {
    GSVE_FUZZ_REQUIRE(report.lines().size() == report.warnings().size());
    for (const std::string& line : report.lines()) GSVE_FUZZ_REQUIRE(!line.empty());
}

// ---- Files ----------------------------------------------------------------------------------------------

constexpr char kName[] = "captions";

/// Runs `parse`; its only way to refuse a file is a FileError that names it.
template <typename Parse>
void parse_file(const Parse& parse) {
    Report report;
    try {
        parse(report);
    } catch (const FileError& error) {
        const std::string text = error.what();
        GSVE_FUZZ_REQUIRE(text.starts_with(kName) && text.size() > sizeof kName + 1);
        GSVE_FUZZ_REQUIRE(error.line() >= 0);
    }
    check_report(report);
}

std::optional<Timecode> start_of(uint8_t options) {
    if ((options & 0x40) == 0) return std::nullopt;
    return Timecode{options & 1, 0, options >> 1 & 1, options & 7, false};
}

void read_scc_text(const std::string& text, uint8_t options) {
    const int field = options & 1;
    parse_file([&](Report& report) {
        const Schedule schedule = parse_scc(text, kName, {field, kRate29_97, start_of(options)}, report);
        use(schedule, kRates[options >> 3 & 7]);
        if (last_frame(schedule) > kLongestWalk) return;
        const SccWriteOptions writing{(options & 2) != 0, {}};
        const std::string written = write_scc(schedule, field, writing);
        const Schedule read_back = parse_scc(written, kName, {field, kRate29_97, {}}, report);
        GSVE_FUZZ_REQUIRE(write_scc(read_back, field, writing) == written);
    });
}

void read_mcc_text(const std::string& text, uint8_t options) {
    parse_file([&](Report& report) {
        use(parse_mcc(text, kName, {start_of(options)}, report), kRates[options >> 3 & 7]);
    });
}

void read_cues(const std::string& text, uint8_t options, bool webvtt) {
    parse_file([&](Report& report) {
        const std::vector<Cue> cues =
            webvtt ? parse_webvtt(text, kName, report) : parse_srt(text, kName, report);
        for (const Cue& cue : cues) {
            GSVE_FUZZ_REQUIRE(cue.begin_ms >= 0 && cue.begin_ms < cue.end_ms && !cue.lines.empty());
            GSVE_FUZZ_REQUIRE(!cue.first_row || (*cue.first_row >= 1 && *cue.first_row <= kRows));
            GSVE_FUZZ_REQUIRE(cue.source_line >= 1);
        }
        const PopOnOptions pop_on{kRates[options & 7], 1 + (options >> 3 & 15) % kRows, options >> 7,
                                  options & 8 ? LineRate::kFull : LineRate::kPairOfEachField};
        const Schedule schedule = encode_pop_on(cues, kName, pop_on, report);
        check_budget(schedule, pop_on.line_rate);
        for (const Cue& cue : cues)
            for (const auto& caption : lay_out_cue(cue, pop_on.rows, kName, report))
                GSVE_FUZZ_REQUIRE(!caption.empty() && caption.size() <= static_cast<size_t>(pop_on.rows));
        use(schedule, pop_on.rate);
    });
}

// ---- Data -----------------------------------------------------------------------------------------------

/// What is composed of a picture's captions is read back as they were, but for parity.
void check_composed(const PictureCaptions& captions, int spare) {
    std::vector<FieldPair> pairs;
    PictureCaptions expected{{}, captions.cea708};
    for (uint8_t field = 0; field < 2; field++)
        for (const Word word : captions.fields[field]) {
            pairs.push_back({field, word});
            expected.fields[field].push_back(with_parity(word));
        }
    const size_t used = pairs.size() + captions.cea708.size();
    if (used > size_t{kMaximumCcCount}) return;
    const int count = std::min(static_cast<int>(used) + spare, kMaximumCcCount);
    const std::vector<uint8_t> triples = compose_cc_data(pairs, captions.cea708, count);
    GSVE_FUZZ_REQUIRE(triples.size() == 3 * static_cast<size_t>(count));
    GSVE_FUZZ_REQUIRE(parse_cc_data(triples).captions == expected);
    GSVE_FUZZ_REQUIRE(compose_atsc1_data(triples).size() == 8 + triples.size());
}

/// A cc_data block, or the part of one that lies in a caption distribution packet, of each of a few pictures.
void read_cc_data(Input& input, uint8_t options) {
    Schedule schedule{kRates[options & 7], {}, {}};
    std::int64_t frame = 0;
    while (!input.empty()) {
        frame += input.u8() % 8;
        const Bytes triples = input.bytes(input.u8() % 100);
        const CcData cc = parse_cc_data(triples);
        GSVE_FUZZ_REQUIRE(cc.truncated == (triples.size() % 3 != 0));
        check_composed(cc.captions, options >> 6);
        append(schedule, frame, cc.captions);
    }
    use(schedule, kRates[options >> 3 & 7]);
}

void read_cdp(Input& input, uint8_t options) {
    Bytes packet = input.rest();
    if (options & 1 && packet.size() > 3) {  // past the sums, which no mutation gets right
        packet[2] = static_cast<uint8_t>(packet.size());
        packet.back() = zero_sum_checksum(std::span(packet).first(packet.size() - 1));
    }
    try {
        const Cdp cdp = parse_cdp(packet);
        GSVE_FUZZ_REQUIRE(cdp.cc_data.size() % 3 == 0 && cdp.cc_data.size() < packet.size());
        GSVE_FUZZ_REQUIRE(cdp.damage.empty() || !cdp.cc_data.empty());
        for (const CdpDamage& damage : cdp.damage) GSVE_FUZZ_REQUIRE(!damage.text.empty());
        Schedule schedule{cdp.rate.value_or(kRate25), {}, {}};
        append(schedule, 0, parse_cc_data(cdp.cc_data).captions);
        use(schedule, kRates[options >> 3 & 7]);
    } catch (const std::invalid_argument& error) {
        GSVE_FUZZ_REQUIRE(*error.what() != '\0');
    }
}

void read_scte20(Input& input) {
    const Bytes body = input.rest();
    const auto constructs = parse_scte20(body);
    if (!constructs) return;
    const std::vector<uint8_t> composed = compose_scte20(*constructs);
    if (constructs->empty()) return;
    // The same bits, but for the reserved ones behind the last construct.
    const auto bit = [](const auto& bytes, size_t at) { return bytes[at / 8] >> (7 - at % 8) & 1; };
    GSVE_FUZZ_REQUIRE(composed.size() <= body.size());
    for (size_t at = 0; at < 13 + 26 * constructs->size(); at++)
        GSVE_FUZZ_REQUIRE(bit(composed, at) == bit(body, at));
    const auto read_back = parse_scte20(composed);
    GSVE_FUZZ_REQUIRE(read_back && *read_back == *constructs);
}

void read_byte_pairs(Input& input, uint8_t options) {
    Eia608Decoder decoder(kRates[options & 7]);
    ParityRepair parity(kRates[options & 7]), again(kRates[options & 7]);
    std::int64_t frame = 0;
    while (!input.empty()) {
        const uint8_t gap = input.u8();
        frame += gap & 3;
        // Most pairs with parity, or nothing would come of them.
        const Word any = input.u16(), word = gap & 0xF0 ? with_parity(any) : any;
        const int field = gap >> 2 & 1;
        decoder.feed(frame, field, word);
        const Word taken = parity.repair(field, word);
        GSVE_FUZZ_REQUIRE(has_parity(taken) && (!has_parity(word) || taken == word));
        GSVE_FUZZ_REQUIRE(again.repair(field, taken) == taken);
    }
    GSVE_FUZZ_REQUIRE(!again.damage().any());
    for (const TimedText& caption : decoder.finish(frame)) {
        GSVE_FUZZ_REQUIRE(caption.begin <= caption.end && !caption.rows.empty() && !caption.text().empty());
        for (const std::string& row : caption.rows)
            GSVE_FUZZ_REQUIRE(characters(row) <= static_cast<size_t>(kColumns));
    }
}

void read_texts(Input& input, uint8_t options) {
    const std::string text = input.text_until('\0');
    const FrameRate rate = kRates[options & 7];
    try {
        const Timecode timecode = parse_timecode(text, rate);
        const std::int64_t frame = timecode_to_frame(timecode, rate);
        GSVE_FUZZ_REQUIRE(frame_to_timecode(frame, rate, timecode.drop_frame) == timecode);
        GSVE_FUZZ_REQUIRE(parse_timecode(format_timecode(timecode), rate) == timecode);
    } catch (const std::invalid_argument&) {
    }
    try {
        const std::u32string characters = decode_utf8(text, kName, 1);
        GSVE_FUZZ_REQUIRE(encode_utf8(characters) == text);
        if (const auto reference = reference_at(characters)) {
            GSVE_FUZZ_REQUIRE(reference->length >= 3 && reference->length <= characters.size());
            const std::u32string read(1, reference->character);
            GSVE_FUZZ_REQUIRE(decode_utf8(encode_utf8(read), kName, 1) == read);
        }
    } catch (const FileError&) {
    }
    try {
        expand_mcc_bytes(text);
    } catch (const std::invalid_argument&) {
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const uint8_t format = input.u8(), options = input.u8();
    const auto text = [&] {
        const Bytes bytes = input.rest();
        return std::string(bytes.begin(), bytes.end());
    };
    switch (format % 9) {
        case 0: read_scc_text(text(), options); break;
        case 1: read_mcc_text(text(), options); break;
        case 2: read_cues(text(), options, false); break;
        case 3: read_cues(text(), options, true); break;
        case 4: read_cc_data(input, options); break;
        case 5: read_cdp(input, options); break;
        case 6: read_scte20(input); break;
        case 7: read_byte_pairs(input, options); break;
        default: read_texts(input, options); break;
    }
    return 0;
}
