#include "captions/repacer.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "captions/eia608_decoder.h"
#include "streams.h"

namespace gsve::captions {
namespace {

// The encoder's intake queues and the share that a picture takes, with their bounds.
struct EncoderQueues {
    std::deque<Word> fields[2];
    std::deque<Cea708Construct> cea708;
    std::size_t deepest_field = 0;
    std::size_t deepest_cea708 = 0;

    void write(const PictureWrites& writes) {
        for (int field = 0; field < 2; ++field)
            if (writes.words[field] != 0) fields[field].push_back(writes.words[field]);
        cea708.insert(cea708.end(), writes.cea708.begin(), writes.cea708.end());
        deepest_field = std::max({deepest_field, fields[0].size(), fields[1].size()});
        deepest_cea708 = std::max(deepest_cea708, cea708.size());
    }

    PictureWrites take(std::int64_t picture, FrameRate rate) {
        const PictureBudget budget = picture_budget(rate);
        PictureWrites taken;
        for (int field = 0; field < 2; ++field) {
            if (fields[field].empty() || (budget.alternating_fields && picture % 2 != field)) continue;
            taken.words[field] = fields[field].front();
            fields[field].pop_front();
        }
        while (!cea708.empty() && taken.cea708.size() < static_cast<std::size_t>(budget.cea708_constructs)) {
            taken.cea708.push_back(cea708.front());
            cea708.pop_front();
        }
        return taken;
    }
};

struct Result {
    Carried carried;
    std::size_t deepest_field = 0;
    std::size_t deepest_cea708 = 0;
    std::size_t left_in_encoder = 0;
    std::size_t most_waiting = 0;
    std::int64_t largest_delay = 0;
    std::size_t left_out[2] = {0, 0};
    Source output;
};

// Pushes each source picture before the first output picture that begins no earlier, as a transcoder does,
// or so many seconds before, and pulls until nothing waits.
Result transcode(const Source& source, FrameRate from, FrameRate to, double foresight = 0) {
    Result result;
    const auto ahead = static_cast<std::int64_t>(std::ceil(foresight * from.per_second()));
    Repacer repacer(from, to);
    EncoderQueues encoder;
    std::size_t pushed = 0;
    for (std::int64_t picture = 0; picture < 1000000; ++picture) {
        for (; pushed < source.size() &&
               begins_by(static_cast<std::int64_t>(pushed) - ahead, from, picture, to);
             ++pushed)
            repacer.push(static_cast<std::int64_t>(pushed), source[pushed]);
        if (pushed == source.size()) repacer.finish();
        encoder.write(repacer.pull(picture));
        const PictureWrites taken = encoder.take(picture, to);
        for (int field = 0; field < 2; ++field) {
            if (FieldSlots(to, field).on_picture(picture))
                result.carried.receivers[field].slot(taken.words[field]);
            if (taken.words[field] != 0) result.carried.pairs[field].push_back(taken.words[field]);
        }
        result.carried.cea708.insert(result.carried.cea708.end(), taken.cea708.begin(), taken.cea708.end());
        PictureCaptions& output = result.output.emplace_back();
        for (int field = 0; field < 2; ++field)
            if (taken.words[field] != 0) output.fields[field].push_back(taken.words[field]);
        output.cea708 = taken.cea708;
        result.most_waiting = std::max(result.most_waiting, repacer.pending());
        result.left_in_encoder += encoder.fields[0].size() + encoder.fields[1].size() + encoder.cea708.size();
        if (pushed == source.size() && repacer.pending() == 0) break;
    }
    result.deepest_field = encoder.deepest_field;
    result.deepest_cea708 = encoder.deepest_cea708;
    result.largest_delay = repacer.largest_delay();
    for (int field = 0; field < 2; ++field) result.left_out[field] = repacer.repetitions_left_out(field);
    return result;
}

double pair_rate(FrameRate rate) { return rate.per_second() / FieldSlots(rate, 0).step(); }

TEST(Repacer, CarriesEverythingOnceAndInOrderBetweenAllRates) {
    std::mt19937 random(608);
    for (const FrameRate from : kRates)
        for (const FrameRate to : kRates) {
            SCOPED_TRACE(std::to_string(from.per_second()) + " to " + std::to_string(to.per_second()));
            for (const double slack : {0.0, 0.2, 0.7}) {
                const Source source = random_source(from, 900, slack, random);
                const Carried expected = carried_by(source);
                const double foresight = slack == 0.2 ? useful_foresight(from, to) : 0;
                const Result result = transcode(source, from, to, foresight);
                for (int field = 0; field < 2; ++field) {
                    ASSERT_FALSE(expected.pairs[field].empty());
                    ASSERT_EQ(result.carried.receivers[field].acted, expected.receivers[field].acted);
                    ASSERT_EQ(result.carried.pairs[field].size() + result.left_out[field],
                              expected.pairs[field].size());
                    if (pair_rate(to) < pair_rate(from)) continue;
                    ASSERT_EQ(result.carried.pairs[field], expected.pairs[field]);
                }
                ASSERT_EQ(result.carried.cea708, expected.cea708);
                EXPECT_EQ(result.left_in_encoder, 0U);
                EXPECT_EQ(result.deepest_field, 1U);
                EXPECT_LE(result.deepest_cea708,
                          static_cast<std::size_t>(picture_budget(to).cea708_constructs));
            }
        }
}

TEST(Repacer, KeepsUpWhereTheOutputHasRoom) {
    std::mt19937 random(708);
    for (const FrameRate from : kRates)
        for (const FrameRate to : kRates) {
            if (pair_rate(to) < pair_rate(from)) continue;
            SCOPED_TRACE(std::to_string(from.per_second()) + " to " + std::to_string(to.per_second()));
            Source source = random_source(from, 900, 0.1, random);
            for (PictureCaptions& captions : source)
                captions.cea708.resize(std::min<std::size_t>(captions.cea708.size(), 6));
            const Result result = transcode(source, from, to);
            EXPECT_LE(result.most_waiting, 12U);
            EXPECT_LE(result.largest_delay, 2 * FieldSlots(to, 0).step());
        }
}

TEST(Repacer, PassesEqualRatesThroughUndelayed) {
    std::mt19937 random(1);
    for (const FrameRate rate : kRates) {
        const Source source = random_source(rate, 300, 0.3, random);
        Repacer repacer(rate, rate);
        for (std::size_t picture = 0; picture < source.size(); ++picture) {
            repacer.push(static_cast<std::int64_t>(picture), source[picture]);
            const PictureWrites writes = repacer.pull(static_cast<std::int64_t>(picture));
            for (int field = 0; field < 2; ++field) {
                const std::vector<Word>& pairs = source[picture].fields[field];
                const Word expected = pairs.empty() || is_null(pairs[0]) ? Word{0} : pairs[0];
                ASSERT_EQ(writes.words[field], expected) << rate.per_second() << " picture " << picture;
            }
            ASSERT_EQ(writes.cea708, source[picture].cea708);
        }
        EXPECT_EQ(repacer.largest_delay(), 0);
    }
}

TEST(Repacer, BringsBothFieldsBackToTheirPicturesWhenTheRateIsDoubledAndHalved) {
    std::mt19937 random(2);
    for (const auto& [slow, fast] :
         {std::pair{kRate29_97, kRate59_94}, std::pair{kRate30, kRate60}, std::pair{kRate25, kRate50}}) {
        const Source source = random_source(slow, 300, 0.3, random);
        Source passed = source;
        for (int pass = 0; pass < 3; ++pass) {
            passed = transcode(passed, slow, fast, useful_foresight(slow, fast)).output;
            const Result halved = transcode(passed, fast, slow, useful_foresight(fast, slow));
            EXPECT_EQ(halved.largest_delay, 0) << slow.per_second();
            passed = halved.output;
        }
        passed.resize(source.size());
        for (std::size_t picture = 0; picture < source.size(); ++picture) {
            PictureCaptions expected = source[picture];
            for (std::vector<Word>& field : expected.fields) std::erase(field, kNullPair);
            ASSERT_EQ(passed[picture], expected) << slow.per_second() << " picture " << picture;
        }
    }
}

// Pop-on captions in field 1, loaded without a pause and one second apart.
Source pop_on_programme(FrameRate rate, int captions, int text_pairs) {
    const int step = FieldSlots(rate, 0).step();
    Source source;
    const auto put = [&](Word word) {
        source.emplace_back().fields[0].push_back(word);
        source.resize(source.size() + static_cast<std::size_t>(step - 1));
    };
    source.resize(static_cast<std::size_t>(3 * 60));
    for (int n = 0; n < captions; ++n) {
        for (const Command command : {kResumeCaptionLoading, kEraseNonDisplayedMemory})
            for (int times = 0; times < 2; ++times) put(control(command));
        for (int times = 0; times < 2; ++times) put(with_parity(indent_pac(15, 0)));
        for (int i = 0; i < text_pairs; ++i) put(text(static_cast<char>('A' + n % 26), 'x'));
        for (int times = 0; times < 2; ++times) put(control(kEndOfCaption));
        source.resize(source.size() + static_cast<std::size_t>(30 * step));  // slack
    }
    return source;
}

TEST(Repacer, ShowsPopOnCaptionsOnTheirPicturesAtALowerRateWithForesight) {
    constexpr std::pair<FrameRate, FrameRate> kLower[] = {{kRate30, kRate24},
                                                          {kRate29_97, kRate23_976},
                                                          {kRate29_97, kRate25},
                                                          {kRate59_94, kRate23_976},
                                                          {kRate60, kRate50}};
    for (const auto& [from, to] : kLower) {
        SCOPED_TRACE(std::to_string(from.per_second()) + " to " + std::to_string(to.per_second()));
        const Source source = pop_on_programme(from, 8, 16);
        const auto expected = seen(source, from);
        ASSERT_EQ(expected.size(), 8U);
        const Result result = transcode(source, from, to, useful_foresight(from, to));
        const auto found = seen(result.output, to);
        ASSERT_EQ(found.size(), expected.size());
        for (std::size_t n = 0; n < found.size(); ++n) {
            EXPECT_EQ(found[n].text(), expected[n].text());
            const FieldSlots slots(to, 0);
            EXPECT_EQ(found[n].begin, slots.picture_of(slots.first_slot_not_before(
                                          first_frame_not_before(expected[n].begin, from, to))));
        }
        EXPECT_EQ(result.largest_delay, 0);
        EXPECT_EQ(result.left_out[0], 0U);
        EXPECT_GT(transcode(source, from, to).largest_delay, 2) << "foresight makes no difference";
    }
}

TEST(Repacer, MakesUpForADelayByLeavingRepetitionsOut) {
    // Roll-up text is seen as it arrives, so that it cannot be sent early: rows of eight text pairs without
    // a pause.
    Source source;
    const auto put = [&](Word word) { source.emplace_back().fields[0].push_back(word); };
    for (int times = 0; times < 2; ++times) put(control(kRollUp2));
    for (int row = 0; row < 30; ++row) {
        for (int times = 0; times < 2; ++times) put(control(kCarriageReturn));
        for (int times = 0; times < 2; ++times) put(with_parity(indent_pac(15, 0)));
        for (int i = 0; i < 8; ++i) put(text('a', 'b'));
    }
    const Result result = transcode(source, kRate29_97, kRate25);
    EXPECT_EQ(result.carried.receivers[0].acted, carried_by(source).receivers[0].acted);
    EXPECT_GT(result.left_out[0], 40U);
    // 362 pairs take 12.1 s at 29.97 and 14.5 s at 25; of the 61 control pairs one transmission suffices.
    EXPECT_LE(result.largest_delay, 5);
}

TEST(Repacer, KeepsRepetitionsWhileNothingIsLate) {
    const Source source = pop_on_programme(kRate24, 5, 20);
    const Result result = transcode(source, kRate24, kRate23_976, useful_foresight(kRate24, kRate23_976));
    EXPECT_EQ(result.left_out[0], 0U);
    EXPECT_EQ(result.carried.pairs[0], carried_by(source).pairs[0]);
}

TEST(Repacer, AlternatesFieldsAbove39PicturesPerSecond) {
    Repacer repacer(kRate29_97, kRate59_94);
    repacer.push(0, PictureCaptions{{{text('A', 'B')}, {text('c', 'd')}}, {}});
    repacer.push(1, PictureCaptions{{{text('E', 'F')}, {text('g', 'h')}}, {}});
    repacer.finish();
    const Word expected[][2] = {
        {text('A', 'B'), 0}, {0, text('c', 'd')}, {text('E', 'F'), 0}, {0, text('g', 'h')}};
    for (int picture = 0; picture < 4; ++picture) {
        const PictureWrites writes = repacer.pull(picture);
        EXPECT_EQ(writes.words[0], expected[picture][0]) << picture;
        EXPECT_EQ(writes.words[1], expected[picture][1]) << picture;
    }
    EXPECT_TRUE(repacer.pull(4).empty());
}

TEST(Repacer, KeepsARepetitionNextToItsCommandWhenSlotsAreFiner) {
    // At 24 the pair and its repetition are 1/24 s apart; at 30 an idle slot would fall between some.
    for (int shift = 0; shift < 8; ++shift) {
        Repacer repacer(kRate24, kRate30);
        Schedule schedule{
            kRate24, {{shift, 0, control(kEndOfCaption)}, {shift + 1, 0, control(kEndOfCaption)}}, {}};
        repacer.push(schedule);
        std::vector<std::int64_t> pictures;
        for (std::int64_t picture = 0; picture < 20; ++picture)
            if (repacer.pull(picture).words[0] != 0) pictures.push_back(picture);
        ASSERT_EQ(pictures.size(), 2U);
        EXPECT_EQ(pictures[1], pictures[0] + 1) << shift;
    }
}

TEST(Repacer, KeepsTwoCommandsApartThatHadSlackBetween) {
    Repacer repacer(kRate59_94, kRate23_976);
    const Word bs = control(kBackspace);
    repacer.push(Schedule{kRate59_94, {{0, 0, bs}, {4, 0, bs}}, {}});
    std::vector<Word> slots;
    for (std::int64_t picture = 0; picture < 6; ++picture) slots.push_back(repacer.pull(picture).words[0]);
    EXPECT_EQ(slots, (std::vector<Word>{bs, 0, bs, 0, 0, 0}));
}

TEST(Repacer, TakesNullPairsOnTheOtherFieldsPicturesForNoSlack) {
    Repacer repacer(kRate59_94, kRate29_97);
    const Word eoc = control(kEndOfCaption);
    std::int64_t frame = 0;
    for (const Word word : {eoc, kNullPair, eoc, kNullPair})
        repacer.push(frame++, PictureCaptions{{{word}, {}}, {}});
    EXPECT_EQ(repacer.pull(0).words[0], eoc);
    EXPECT_EQ(repacer.pull(1).words[0], eoc);
}

TEST(Repacer, HoldsNoTextBack) {
    Repacer repacer(kRate24, kRate30);
    for (std::int64_t frame = 0; frame < 8; ++frame) {
        repacer.push(frame, PictureCaptions{{{text('a', 'a')}, {}}, {}});
        EXPECT_EQ(repacer.pull(first_frame_not_before(frame, kRate24, kRate30)).words[0], text('a', 'a'));
    }
}

TEST(Repacer, LeavesOtherConstructsThanDtvccOut) {
    Repacer repacer(kRate25, kRate25);
    repacer.push(0, PictureCaptions{{}, {{0xFA, 0, 0}, {0xFF, 1, 2}, {0xFC, 0x94, 0x20}, {0xFE, 3, 4}}});
    EXPECT_EQ(repacer.pull(0).cea708, (std::vector<Cea708Construct>{{0xFF, 1, 2}, {0xFE, 3, 4}}));
    EXPECT_EQ(repacer.pending(), 0U);
}

TEST(Repacer, SpreadsThePairsOfAPictureThatIsShownForLongOverItsFrames) {
    Repacer repacer(kRate29_97, kRate29_97);
    const Word eoc = control(kEndOfCaption);
    repacer.push(0, PictureCaptions{{{text('a', 'b')}, {}}, {}});
    repacer.push(1, PictureCaptions{{{text('c', 'd'), eoc}, {}}, {}});
    repacer.push(3, PictureCaptions{{{eoc}, {}}, {}});
    repacer.finish();
    std::vector<Word> slots;
    for (std::int64_t picture = 0; picture < 5; ++picture) slots.push_back(repacer.pull(picture).words[0]);
    EXPECT_EQ(slots, (std::vector<Word>{text('a', 'b'), text('c', 'd'), eoc, eoc, 0}));
    EXPECT_EQ(repacer.largest_delay(), 0);
}

// A source at 30 pairs a second as film has it: five pairs of a field in four pictures.
Source as_film(const Source& video) {
    Source film;
    for (std::size_t frame = 0; frame < video.size(); ++frame) {
        film.resize(frame * 4 / 5 + 1);
        for (int field = 0; field < 2; ++field) {
            const std::vector<Word>& pairs = video[frame].fields[field];
            film.back().fields[field].push_back(pairs.empty() ? kNullPair : pairs[0]);
        }
    }
    return film;
}

TEST(Repacer, BringsFilmWithThePairsOfVideoBackToVideoWithAllRepetitions) {
    std::mt19937 random(2324);
    for (int phase = 0; phase < 5; ++phase) {
        SCOPED_TRACE(phase);
        for (const bool pop_on : {false, true}) {
            Source video(static_cast<std::size_t>(phase));
            const Source programme =
                pop_on ? pop_on_programme(kRate29_97, 8, 16) : random_source(kRate29_97, 900, 0.1, random);
            video.insert(video.end(), programme.begin(), programme.end());
            const Carried expected = carried_by(video);
            const Result result = transcode(as_film(video), kRate23_976, kRate29_97);
            for (int field = 0; field < 2; ++field) {
                EXPECT_EQ(result.carried.pairs[field], expected.pairs[field]);
                EXPECT_EQ(result.carried.receivers[field].acted, expected.receivers[field].acted);
            }
            EXPECT_LE(result.largest_delay, 2);
        }
    }
}

TEST(Repacer, CarriesEveryCommandOfFilmWithThePairsOfVideoOnce) {
    std::mt19937 random(24);
    for (const FrameRate to : kRates) {
        SCOPED_TRACE(to.per_second());
        const Source film = as_film(random_source(kRate29_97, 900, 0.2, random));
        const Carried expected = carried_by(film);
        const Result result = transcode(film, kRate23_976, to, useful_foresight(kRate29_97, to));
        for (int field = 0; field < 2; ++field)
            EXPECT_EQ(result.carried.receivers[field].acted, expected.receivers[field].acted);
    }
}

TEST(Repacer, CountsWhatWaits) {
    Repacer repacer(kRate25, kRate25);
    repacer.push(2, PictureCaptions{});
    for (const Word word : {text('a', 'b'), text('c', 'd'), text('e', 'f')})
        repacer.push(0, PictureCaptions{{{word}, {}}, {}});
    repacer.finish();
    repacer.pull(1);
    EXPECT_EQ(repacer.pending(), 3U);
    repacer.pull(2);
    EXPECT_EQ(repacer.pending(), 2U);
    repacer.pull(3);
    repacer.pull(4);
    EXPECT_EQ(repacer.pending(), 0U);
    EXPECT_EQ(repacer.largest_delay(), 2);
}

TEST(Repacer, LeavesOutARepetitionThatComesAfterItsPicture) {
    Repacer repacer(kRate25, kRate25);
    repacer.push(0, {{{control(kEraseDisplayedMemory)}, {}}, {}});
    EXPECT_EQ(repacer.pull(0).words[0], control(kEraseDisplayedMemory));
    EXPECT_EQ(repacer.pull(1).words[0], 0);
    repacer.push(1, {{{control(kEraseDisplayedMemory)}, {}}, {}});
    EXPECT_EQ(repacer.pending(), 0U);
    EXPECT_EQ(repacer.repetitions_left_out(0), 1U);
    EXPECT_EQ(repacer.pull(2).words[0], 0);
}

TEST(Repacer, RefusesAScheduleOfAnotherRate) {
    Repacer repacer(kRate25, kRate50);
    EXPECT_THROW(repacer.push(Schedule{kRate50, {}, {}}), std::invalid_argument);
}

// A pop-on load of `length` text pairs that ends with End Of Caption on `shown`.
Schedule pop_on_load(FrameRate rate, int length, std::int64_t shown) {
    std::vector<Word> words{control(kResumeCaptionLoading), control(kResumeCaptionLoading)};
    for (int i = 0; i < length; ++i)
        words.push_back(text(static_cast<char>('A' + i % 26), static_cast<char>('a' + i % 26)));
    words.insert(words.end(), 2, control(kEndOfCaption));
    const std::int64_t first = shown - static_cast<std::int64_t>(words.size()) + 2;
    Schedule schedule{rate, {}, {}};
    for (std::size_t i = 0; i < words.size(); ++i)
        schedule.eia608.push_back({first + static_cast<std::int64_t>(i), 0, words[i]});
    return schedule;
}

std::vector<Word> words_of(const Schedule& schedule) {
    std::vector<Word> words;
    for (const Eia608Event& event : schedule.eia608) words.push_back(event.word);
    return words;
}

TEST(Retime, ShowsAPopOnCaptionOnItsPictureAtEveryRate) {
    const Schedule source = pop_on_load(kRate29_97, 30, 90);
    for (const FrameRate rate : kRates) {
        SCOPED_TRACE(rate.per_second());
        Report report;
        const Schedule timed = retime(source, rate, report);
        EXPECT_EQ(words_of(timed), words_of(source));
        const FieldSlots slots(rate, 0);
        const std::int64_t due =
            slots.picture_of(slots.first_slot_not_before(first_frame_not_before(90, kRate29_97, rate)));
        ASSERT_GE(timed.eia608.size(), 2U);
        EXPECT_EQ(timed.eia608[timed.eia608.size() - 2].frame, due);
        EXPECT_EQ(timed.eia608.back().frame, due + slots.step());
        EXPECT_TRUE(report.empty()) << report.lines().front();
    }
}

TEST(Retime, ReportsWhatComesLate) {
    // Roll-up text is displayed as it arrives, so that it cannot be sent early.
    Schedule source{kRate29_97, {{0, 0, control(kRollUp2)}, {1, 0, control(kRollUp2)}}, {}};
    for (int i = 0; i < 60; ++i) source.eia608.push_back({2 + i, 0, text('x', 'y')});
    Report report;
    const Schedule timed = retime(source, kRate25, report);
    EXPECT_EQ(words_of(timed), words_of(source));
    EXPECT_EQ(timed.eia608.back().frame, 61);
    EXPECT_EQ(timed.eia608.back().late, 10);
    ASSERT_EQ(report.count(WarningKind::kDelayedPairs), 1U);
    // The pair of frame f is due on picture ceil(f * 25 / 29.97) and goes on picture f: late from f = 7 on,
    // and by ten pictures for f = 61.
    EXPECT_EQ(report.lines()[0],
              "55 caption byte pairs of field 1 are sent late, by up to 0.40 s: 25 pictures per "
              "second carry fewer pairs than the source");
}

TEST(Retime, ReportsOnePairThatComesLateInItsField) {
    for (const std::uint8_t field : {0, 1}) {
        Report report;
        const Schedule source{kRate25, {{4, field, text('a', 'b')}, {4, field, text('c', 'd')}}, {}};
        const Schedule timed = retime(source, kRate25, report);
        EXPECT_EQ(timed.eia608,
                  (std::vector<Eia608Event>{{4, field, text('a', 'b')}, {5, field, text('c', 'd'), 1}}));
        ASSERT_EQ(report.warnings().size(), 1U);
        EXPECT_EQ(report.warnings()[0].kind, WarningKind::kDelayedPairs);
        EXPECT_EQ(report.warnings()[0].line, 0);
        EXPECT_NE(report.lines()[0].find("of field " + std::to_string(field + 1) +
                                         " are sent late, by up to 0.04 s: 25 pictures"),
                  std::string::npos);
    }
}

TEST(Retime, PassesDelaysOnToTheRepacer) {
    Schedule source{kRate29_97, {}, {}};
    for (int i = 0; i < 60; ++i) source.eia608.push_back({i, 0, text('x', 'y')});
    Report report;
    Repacer repacer(kRate25, kRate25);
    repacer.push(retime(source, kRate25, report));
    std::int64_t latest = 0;
    for (std::int64_t picture = 0; repacer.pending() > 0; ++picture)
        latest = std::max(latest, picture - repacer.pull(picture).due[0]);
    EXPECT_EQ(latest, 9);  // the pair of frame 59 is due on picture 50
    EXPECT_EQ(repacer.largest_delay(), 9);
}

TEST(Retime, BringsField2BackToItsFrameWhenTheRateIsHalved) {
    Report report;
    const Schedule source{kRate29_97, {{3, 0, text('a', 'b')}, {3, 1, text('c', 'd')}}, {}};
    EXPECT_EQ(retime(retime(source, kRate59_94, report), kRate29_97, report).eia608, source.eia608);
}

TEST(Retime, LeavesAScheduleThatFitsUnchanged) {
    std::mt19937 random(5);
    for (const FrameRate rate : kRates) {
        const Source source = random_source(rate, 600, 0.3, random);
        Schedule schedule{rate, {}, {}};
        for (std::size_t picture = 0; picture < source.size(); ++picture)
            append(schedule, static_cast<std::int64_t>(picture), source[picture]);
        std::erase_if(schedule.cea708, [](const Cea708Event& event) { return event.constructs.empty(); });
        Report report;
        const Schedule timed = retime(schedule, rate, report);
        EXPECT_EQ(timed.eia608, schedule.eia608) << rate.per_second();
        EXPECT_EQ(timed.cea708, schedule.cea708);
        EXPECT_TRUE(report.empty());
    }
}

// Frame 4 of 30 begins with picture 3.2 of 24, and the load would be complete at frame 5, which is picture 4.
TEST(Retime, EndsALoadThatIsNeverShownInTimeForTheFrameBehindIt) {
    Report report;
    const Schedule schedule{kRate30, {{0, 0, 0x9420}, {4, 0, 0xC1C2}}, {}};
    const Schedule timed = retime(schedule, kRate24, report);
    EXPECT_EQ(timed.eia608, (std::vector<Eia608Event>{{0, 0, 0x9420}, {3, 0, 0xC1C2, -1}}));
}

TEST(Retime, CarriesEverythingWithinTheBudgetBetweenAllRates) {
    std::mt19937 random(11);
    for (const FrameRate from : kRates)
        for (const FrameRate to : kRates) {
            SCOPED_TRACE(std::to_string(from.per_second()) + " to " + std::to_string(to.per_second()));
            const Source source = random_source(from, 400, 0.2, random);
            const Carried expected = carried_by(source);
            Schedule schedule{from, {}, {}};
            for (std::size_t picture = 0; picture < source.size(); ++picture)
                append(schedule, static_cast<std::int64_t>(picture), source[picture]);
            Report report;
            const Schedule timed = retime(schedule, to, report);

            Carried carried;
            std::int64_t newest[2] = {-2, -2};
            for (const Eia608Event& event : timed.eia608) {
                const FieldSlots slots(to, event.field);
                ASSERT_TRUE(slots.on_picture(event.frame));
                ASSERT_GT(event.frame, newest[event.field]);
                if (event.frame - newest[event.field] > slots.step())
                    carried.receivers[event.field].slot(kNullPair);
                carried.receivers[event.field].slot(event.word);
                newest[event.field] = event.frame;
                carried.pairs[event.field].push_back(event.word);
            }
            for (const Cea708Event& event : timed.cea708) {
                ASSERT_LE(event.constructs.size(),
                          static_cast<std::size_t>(picture_budget(to).cea708_constructs));
                carried.cea708.insert(carried.cea708.end(), event.constructs.begin(), event.constructs.end());
            }
            for (int field = 0; field < 2; ++field) {
                EXPECT_EQ(carried.receivers[field].acted, expected.receivers[field].acted);
                if (pair_rate(to) < pair_rate(from)) continue;
                EXPECT_EQ(carried.pairs[field], expected.pairs[field]);
            }
            EXPECT_EQ(carried.cea708, expected.cea708);
        }
}

TEST(PictureWrites, AreIdleWhereNothingIsGiven) {
    const PictureWrites writes;
    EXPECT_TRUE(writes.empty());
    EXPECT_EQ(writes.pairs(), (std::vector<FieldPair>{{0, kNullPair}, {1, kNullPair}}));
    EXPECT_EQ(writes.due[0] + writes.due[1] + writes.cea708_due + writes.third_due, 0);
    for (int which = 0; which < 4; ++which) {
        PictureWrites one;
        if (which < 2) one.words[which] = 0xC1C2;
        if (which == 2) one.third = 0xC1C2;
        if (which == 3) one.cea708.push_back({0xFE, 1, 2});
        EXPECT_FALSE(one.empty()) << which;
    }
}

// The picture of 24 on which a load begins that a source of 30 brings at its frame 100.
std::int64_t picture_of_load(const std::vector<Word>& pairs, bool finished) {
    Repacer repacer(kRate30, kRate24);
    std::int64_t frame = 100;
    for (const Word word : pairs) repacer.push(frame++, {{{word}, {}}, {}});
    repacer.push(frame, {});  // no repetition
    if (finished) repacer.finish();
    for (std::int64_t picture = 0; picture < 200; ++picture)
        if (repacer.pull(picture).words[0] != 0) return picture;
    return -1;
}

TEST(Repacer, BeginsALoadAsEarlyAsTheLongestOneWouldHaveTo) {
    // 88 pairs would end with frame 188, before picture 150.4: in slot 151 less 88.
    EXPECT_EQ(picture_of_load({0x9420}, false), 63);
    EXPECT_EQ(picture_of_load({0x9420, 0xC1C2, 0xC1C2}, false), 63);
    // Frames 100, 101 and 102 are pictures 80, 80.8 and 81.6.
    EXPECT_EQ(picture_of_load({0x9420}, true), 80);
    EXPECT_EQ(picture_of_load({0x9420, 0xC1C2}, true), 80);
    EXPECT_EQ(picture_of_load({0x9420, 0x942F}, false), 80);
    // Frame 106, picture 84.8, shows it: in slot 85, with six pairs before.
    EXPECT_EQ(picture_of_load({0x9420, 0xC1C2, 0xC1C2, 0xC1C2, 0xC1C2, 0xC1C2, 0x942F}, false), 79);
}

struct LoadingCase {
    const char* name;
    std::vector<Word> before;
    Word word;
    bool at_once;
};

class Loading : public testing::TestWithParam<LoadingCase> {};

TEST_P(Loading, KnowsWhatIsSeenWhenItArrives) {
    LoadingState state;
    for (const Word word : GetParam().before) state.displays_at_once(word);
    EXPECT_EQ(state.displays_at_once(GetParam().word), GetParam().at_once);
}

constexpr Word kText = 0xC1C2, kLoad = 0x9420, kLoadSecond = 0x1C20;

INSTANTIATE_TEST_SUITE_P(
    Repacer, Loading,
    testing::Values(LoadingCase{"TextWithoutAMode", {}, kText, true},
                    LoadingCase{"TheLoadItself", {}, kLoad, false},
                    LoadingCase{"LoadedText", {kLoad}, kText, false},
                    LoadingCase{"LoadedAddress", {kLoad}, 0x9470, false},
                    LoadingCase{"ErasureOfTheHiddenMemory", {kLoad}, 0x94AE, false},
                    LoadingCase{"ErasureOfTheDisplayedMemory", {kLoad}, 0x942C, true},
                    LoadingCase{"TextAfterAnErasure", {kLoad, 0x942C}, kText, false},
                    LoadingCase{"EndOfCaption", {kLoad}, 0x942F, true},
                    LoadingCase{"TextAfterEndOfCaption", {0x942F}, kText, false},
                    LoadingCase{"RollUp2", {kLoad}, 0x9425, true},
                    LoadingCase{"TextAfterRollUp2", {kLoad, 0x9425}, kText, true},
                    LoadingCase{"TextAfterRollUp3", {kLoad, 0x9426}, kText, true},
                    LoadingCase{"TextAfterRollUp4", {kLoad, 0x94A7}, kText, true},
                    LoadingCase{"TextAfterDirectCaptioning", {kLoad, 0x9429}, kText, true},
                    LoadingCase{"TextAfterTextRestart", {kLoad, 0x942A}, kText, true},
                    LoadingCase{"TextAfterResumeText", {kLoad, 0x94AB}, kText, true},
                    LoadingCase{"CarriageReturnOfRollUp", {0x9425}, 0x94AD, true},
                    LoadingCase{"OtherChannel", {kLoad, 0x1C29}, kText, true},
                    LoadingCase{"OtherChannelsLoad", {0x9429, kLoadSecond}, kText, false},
                    LoadingCase{"BackInTheFirstChannel", {0x9429, kLoadSecond, 0x9470}, kText, true},
                    LoadingCase{"AddressOfTheOtherChannel", {kLoad, 0x1C70}, kText, true}),
    [](const auto& info) { return info.param.name; });

// A pop-on caption of full size takes 88 pairs: four rows of 16, with an address and an offset twice each,
// and four commands twice.
TEST(Foresight, IsTheTimeThatALoadTakesLongerThanInTheSource) {
    EXPECT_NEAR(useful_foresight(kRate30, kRate24), 88 / 24.0 - 88 / 30.0, 1e-9);
    EXPECT_NEAR(useful_foresight(kRate60, kRate25), 88 / 25.0 - 88 / 30.0, 1e-9);
    EXPECT_NEAR(useful_foresight(kRate30, kRate24, LineRate::kFull), 4 / 30.0, 1e-9);
    // Film may bring all pairs, and send them all or not.
    EXPECT_NEAR(useful_foresight(kRate24, kRate24), 88 / 24.0 - 88 / 30.0, 1e-9);
    EXPECT_NEAR(useful_foresight(kRate24, kRate24, LineRate::kFull), 4 / 24.0, 1e-9);
    // Four pictures, where the output has as many slots or more.
    EXPECT_NEAR(useful_foresight(kRate50, kRate25), 4 / 50.0, 1e-9);
    EXPECT_NEAR(useful_foresight(kRate25, kRate50), 4 / 25.0, 1e-9);
    EXPECT_EQ(useful_foresight(kRate25, kRate25), 0);
    EXPECT_EQ(useful_foresight(kRate59_94, kRate59_94), 0);
}

}  // namespace
}  // namespace gsve::captions
