// EIA-608 at its full rate in streams of 23.976 and 24 pictures per second: two and three pairs in turn.

#include <cmath>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "captions/caption_file.h"
#include "captions/cc_data.h"
#include "captions/pop_on.h"
#include "captions/repacer.h"
#include "streams.h"
#include "support/cues.h"

namespace gsve::captions {
namespace {

// The fields of 60 Hz that begin while each picture is shown.
const std::vector<std::vector<std::uint8_t>> kCycle{{0, 1, 0}, {1, 0}, {1, 0, 1}, {0, 1}};

constexpr int kPhases = 4;

const std::vector<std::uint8_t>& fields_on(std::int64_t picture, int phase) {
    return kCycle[static_cast<std::size_t>((picture + phase) % kPhases)];
}

Word pair_of(const Source& source, std::size_t picture, int field) {
    if (picture >= source.size() || source[picture].fields[field].empty()) return kNullPair;
    return source[picture].fields[field][0];
}

// Video of 60 fields as film: each field's pair with the picture that is shown then.
Source film_of(const Source& video, int phase) {
    Source film;
    std::size_t next[2] = {0, 0};
    while (next[0] < video.size() || next[1] < video.size()) {
        PictureCaptions& picture = film.emplace_back();
        for (const int field : fields_on(static_cast<std::int64_t>(film.size()) - 1, phase))
            picture.fields[field].push_back(pair_of(video, next[field]++, field));
    }
    return film;
}

// Two rows that roll up, without a pause: no slot of the field is idle.
Source saturated_roll_up(std::size_t frames, int field) {
    Source video(frames);
    for (std::size_t n = 0; n < frames; ++n) {
        const auto letter = static_cast<char>('a' + n % 26);
        const std::size_t in_row = n % 18;
        video[n].fields[field].push_back(in_row < 2   ? control(kRollUp2, field)
                                         : in_row < 4 ? control(kCarriageReturn, field)
                                                      : text(letter, letter));
    }
    return video;
}

struct Paced {
    Source output;  // with a null pair where a field is idle
    Carried carried;
    std::int64_t largest_delay = 0;
    std::size_t left_out = 0;
    int pictures_with_third = 0;
};

// As a transcoder does, at the full rate where the output has one.
Paced pace(const Source& source, FrameRate from, FrameRate to, double foresight) {
    Paced paced;
    Repacer repacer(from, to, LineRate::kFull);
    const auto ahead = static_cast<std::int64_t>(std::ceil(foresight * from.per_second()));
    std::size_t pushed = 0;
    bool had_third = false;
    for (std::int64_t picture = 0; picture < 100000; ++picture) {
        for (; pushed < source.size() &&
               begins_by(static_cast<std::int64_t>(pushed) - ahead, from, picture, to);
             ++pushed)
            repacer.push(static_cast<std::int64_t>(pushed), source[pushed]);
        if (pushed == source.size()) repacer.finish();
        const PictureWrites writes = repacer.pull(picture);
        PictureCaptions& output = paced.output.emplace_back();
        for (const FieldPair& pair : writes.pairs())
            if (FieldSlots(to, pair.field).on_picture(picture))
                output.fields[pair.field].push_back(pair.word);
        output.cea708 = writes.cea708;
        EXPECT_FALSE(had_third && writes.has_third) << picture;
        EXPECT_LE(static_cast<int>(output.cea708.size()),
                  picture_budget(to, LineRate::kFull).constructs_beside(writes.has_third ? 3 : 2));
        had_third = writes.has_third;
        paced.pictures_with_third += had_third;
        if (pushed == source.size() && repacer.pending() == 0) break;
    }
    paced.carried = carried_by(paced.output);
    paced.largest_delay = repacer.largest_delay();
    paced.left_out = repacer.repetitions_left_out(0) + repacer.repetitions_left_out(1);
    return paced;
}

Paced pace(const Source& source, FrameRate from, FrameRate to) {
    return pace(source, from, to, useful_foresight(from, to, LineRate::kFull));
}

void expect_same_pairs(const Carried& found, const Carried& expected) {
    for (int field = 0; field < 2; ++field) {
        EXPECT_EQ(found.pairs[field], expected.pairs[field]);
        EXPECT_EQ(found.receivers[field].acted, expected.receivers[field].acted);
    }
}

// The same pairs on the same pictures, in as many places; what follows the source is idle.
void expect_unchanged(const Source& output, const Source& source) {
    ASSERT_GE(output.size() + 8, source.size());  // idle ones at the end
    for (std::size_t picture = 0; picture < std::min(source.size(), output.size()); ++picture) {
        for (int field = 0; field < 2; ++field)
            ASSERT_EQ(output[picture].fields[field], source[picture].fields[field]) << picture;
        ASSERT_EQ(output[picture].cea708, source[picture].cea708);
    }
}

TEST(FullRate, IsThatOf24PicturesPerSecondAlone) {
    for (const FrameRate rate : {kRate23_976, kRate24, FrameRate{2997, 125}, FrameRate{48, 2}})
        EXPECT_TRUE(runs_at_full_rate(rate, LineRate::kFull)) << rate.per_second();
    for (const FrameRate rate : {kRate25, kRate29_97, kRate30, kRate50, kRate59_94, FrameRate{12, 1},
                                 FrameRate{239, 10}, FrameRate{241, 10}, FrameRate{24000, 1000 * 1000}})
        EXPECT_FALSE(runs_at_full_rate(rate, LineRate::kFull)) << rate.per_second();
    EXPECT_FALSE(runs_at_full_rate(kRate24, LineRate::kPairOfEachField));
    EXPECT_FALSE(runs_at_full_rate({2'000'000'000, 83'333'333}, LineRate::kFull));
}

TEST(FullRate, TakesAConstructLessBesideAThirdPair) {
    for (const FrameRate rate : kRates) {
        const PictureBudget own = picture_budget(rate), full = picture_budget(rate, LineRate::kFull);
        const bool film = rate.per_second() < 24.5;
        EXPECT_FALSE(own.full_rate);
        EXPECT_EQ(full.full_rate, film) << rate.per_second();
        EXPECT_EQ(full.cea708_constructs, own.cea708_constructs);
        EXPECT_EQ(full.alternating_fields, own.alternating_fields);
        EXPECT_EQ(full.constructs_beside(1), own.cea708_constructs);
        EXPECT_EQ(full.constructs_beside(2), own.cea708_constructs);
    }
    EXPECT_EQ(picture_budget(kRate24, LineRate::kFull).constructs_beside(3), 22);
}

TEST(FullRateSlots, FollowEachOtherWithoutABreakOverPicturesOfThreeAndTwo) {
    for (int phase = 0; phase < kPhases; ++phase) {
        const FieldSlots slots[] = {{kRate23_976, 0, LineRate::kFull, phase},
                                    {kRate23_976, 1, LineRate::kFull, phase}};
        std::int64_t next[] = {slots[0].first_slot_not_before(0), slots[1].first_slot_not_before(0)};
        int in_a_second = 0;
        for (std::int64_t picture = 0; picture < 24; ++picture) {
            for (const std::uint8_t field : fields_on(picture, phase)) {
                EXPECT_EQ(slots[field].picture_of(next[field]), picture) << phase;
                next[field]++;
                in_a_second++;
            }
            for (const int field : {0, 1}) {
                EXPECT_TRUE(slots[field].on_picture(picture));
                EXPECT_EQ(slots[field].first_slot_not_before(picture + 1), next[field]) << phase;
            }
        }
        EXPECT_EQ(in_a_second, 60);
        EXPECT_EQ(slots[0].step(), 1);
    }
}

TEST(FullRateSlots, BeginWithTheFieldsOfVideo) {
    for (const int field : {0, 1}) {
        const FieldSlots slots(kRate24, field, LineRate::kFull);
        EXPECT_EQ(slots.clock(), (FrameRate{120, 1}));
        EXPECT_EQ(slots.ticks_per_picture(), 5);
        EXPECT_EQ(slots.ticks_per_slot(), 4);
        for (std::int64_t frame = 0; frame < 40; ++frame) {
            EXPECT_EQ(slots.frame_of(frame), 4 * frame);
            EXPECT_EQ(slots.first_slot_from(4 * frame), frame);
            EXPECT_EQ(slots.first_slot_from(4 * frame + 2 * field + 1), frame + 1);
        }
        EXPECT_EQ(slots.first_slot_from(-10), 0);
    }
}

TEST(FullRateSlots, AreOneAPictureForThePairOfEachField) {
    const FieldSlots slots(kRate24, 1);
    EXPECT_EQ(slots.clock(), kRate24);
    for (std::int64_t picture = 0; picture < 10; ++picture) {
        EXPECT_EQ(slots.picture_of(picture), picture);
        EXPECT_EQ(slots.first_slot_not_before(picture), picture);
        EXPECT_EQ(slots.frame_of(picture), picture);
    }
}

TEST(PictureWrites, GivesItsPairsInTheOrderOfTheirFields) {
    PictureWrites writes;
    EXPECT_EQ(writes.pairs(), (std::vector<FieldPair>{{0, kNullPair}, {1, kNullPair}}));
    writes.words[0] = 0x9420;
    EXPECT_EQ(writes.pairs(), (std::vector<FieldPair>{{0, 0x9420}, {1, kNullPair}}));
    writes.first_field = 1;
    EXPECT_EQ(writes.pairs(), (std::vector<FieldPair>{{1, kNullPair}, {0, 0x9420}}));
    writes.has_third = true;
    EXPECT_EQ(writes.pairs(), (std::vector<FieldPair>{{1, kNullPair}, {0, 0x9420}, {1, kNullPair}}));
    writes.third = 0xC1C2;
    EXPECT_EQ(writes.pairs(), (std::vector<FieldPair>{{1, kNullPair}, {0, 0x9420}, {1, 0xC1C2}}));
}

TEST(PictureWrites, IsNotEmptyWithAThirdPairAlone) {
    PictureWrites writes;
    writes.has_third = true;
    EXPECT_TRUE(writes.empty());
    writes.third = 0xC1C2;
    EXPECT_FALSE(writes.empty());
}

TEST(FullRate, PassesFilmThroughUnchangedInEveryPhase) {
    std::mt19937 random(608);
    for (const FrameRate rate : {kRate23_976, kRate24})
        for (int phase = 0; phase < kPhases; ++phase)
            for (const double slack : {0.0, 0.3, 0.8}) {
                SCOPED_TRACE(std::to_string(phase) + " slack " + std::to_string(slack));
                Source film = film_of(random_source(kRate29_97, 600, slack, random), phase);
                for (std::size_t n = 0; n < film.size(); ++n)
                    film[n].cea708.assign(
                        random() % (fields_on(static_cast<std::int64_t>(n), phase).size() == 3 ? 23 : 24),
                        Cea708Construct{0xFE, 1, static_cast<std::uint8_t>(n)});
                const Paced paced = pace(film, rate, rate);
                expect_unchanged(paced.output, film);
                EXPECT_EQ(paced.largest_delay, 0);
                EXPECT_EQ(paced.left_out, 0U);
            }
}

TEST(FullRate, KeepsTheOrderOfTheFields) {
    for (int phase = 0; phase < kPhases; ++phase) {
        const Source film = film_of(saturated_roll_up(100, 0), phase);
        Repacer repacer(kRate24, kRate24, LineRate::kFull);
        for (std::size_t n = 0; n < film.size(); ++n) repacer.push(static_cast<std::int64_t>(n), film[n]);
        for (std::int64_t picture = 0; picture < 80; ++picture) {
            std::vector<std::uint8_t> fields;
            for (const FieldPair& pair : repacer.pull(picture).pairs()) fields.push_back(pair.field);
            ASSERT_EQ(fields, fields_on(picture, phase)) << picture;
        }
    }
}

TEST(FullRate, IsNeverBehindWithASaturatedRollUp) {
    for (const int field : {0, 1})
        for (int phase = 0; phase < kPhases; ++phase) {
            const Source video = saturated_roll_up(3600, field);
            const Source film = film_of(video, phase);
            for (const auto& [source, rate] :
                 {std::pair{&film, kRate23_976}, std::pair{&video, kRate29_97}}) {
                const Paced paced = pace(*source, rate, kRate23_976);
                EXPECT_EQ(paced.largest_delay, 0);
                EXPECT_EQ(paced.left_out, 0U);
                expect_same_pairs(paced.carried, carried_by(video));
            }
        }
}

TEST(FullRate, ShowsTheCaptionsOfFilmOnTheirPictures) {
    std::mt19937 random(83);
    for (int phase = 0; phase < kPhases; ++phase) {
        // Pop-on captions that are loaded at the full rate to the last slot before they appear.
        Source video(7);
        const auto put = [&](Word word) { video.emplace_back().fields[0].push_back(word); };
        for (int n = 0; n < 30; ++n) {
            for (const Command command : {kResumeCaptionLoading, kEraseNonDisplayedMemory})
                for (int times = 0; times < 2; ++times) put(control(command));
            for (int times = 0; times < 2; ++times) put(with_parity(indent_pac(15, 0)));
            for (unsigned i = 0; i < 8 + random() % 9; ++i) put(text(static_cast<char>('A' + n % 26), 'x'));
            for (int times = 0; times < 2; ++times) put(control(kEndOfCaption));
            video.resize(video.size() + random() % 3);
        }
        const Source film = film_of(video, phase);
        const std::vector<TimedText> expected = seen(film, kRate23_976);
        ASSERT_EQ(expected.size(), 30U);
        std::vector<TimedText> found = seen(pace(film, kRate23_976, kRate23_976).output, kRate23_976);
        ASSERT_EQ(found.size(), expected.size());
        found.back().end = expected.back().end;  // the output may end earlier
        EXPECT_EQ(found, expected);
    }
}

TEST(FullRate, BringsVideoToFilmAndBackToItsFrames) {
    std::mt19937 random(32);
    for (const auto& [slow, fast, film] :
         {std::tuple{kRate29_97, kRate59_94, kRate23_976}, std::tuple{kRate30, kRate60, kRate24}}) {
        Source video = random_source(slow, 600, 0.3, random);
        for (PictureCaptions& frame : video) frame.cea708.clear();
        const Paced as_film = pace(video, slow, film);
        EXPECT_EQ(as_film.largest_delay, 0);
        EXPECT_EQ(as_film.left_out, 0U);
        expect_same_pairs(as_film.carried, carried_by(video));
        EXPECT_EQ(as_film.pictures_with_third, (static_cast<int>(as_film.output.size()) + 1) / 2);
        const Source expected = film_of(video, 0);
        for (std::size_t picture = 0; picture < std::min(as_film.output.size(), expected.size()); ++picture)
            for (int field = 0; field < 2; ++field)
                ASSERT_EQ(as_film.output[picture].fields[field], expected[picture].fields[field]) << picture;

        const Paced back = pace(as_film.output, film, slow);
        EXPECT_EQ(back.largest_delay, 0);
        for (std::size_t frame = 0; frame < back.output.size(); ++frame)
            for (int field = 0; field < 2; ++field)
                ASSERT_EQ(back.output[frame].fields[field], (std::vector<Word>{pair_of(video, frame, field)}))
                    << frame;
        const Paced doubled = pace(as_film.output, film, fast);
        EXPECT_EQ(doubled.largest_delay, 0);
        expect_same_pairs(doubled.carried, carried_by(video));
    }
}

TEST(FullRate, BringsFilmOfAnyPhaseToVideoWithoutADelay) {
    std::mt19937 random(23);
    for (int phase = 0; phase < kPhases; ++phase)
        for (const FrameRate to : {kRate29_97, kRate59_94}) {
            const Source video = random_source(kRate29_97, 600, 0.2, random);
            const Paced paced = pace(film_of(video, phase), kRate23_976, to);
            expect_same_pairs(paced.carried, carried_by(video));
            EXPECT_EQ(paced.left_out, 0U);
            EXPECT_EQ(paced.largest_delay, 0) << phase << " to " << to.per_second();
        }
}

TEST(FullRate, CarriesEverythingOnceAndInOrderBetweenAllRates) {
    std::mt19937 random(24);
    for (const FrameRate from : kRates)
        for (const FrameRate to : kRates)
            for (const double foresight : {0.0, 1.5}) {
                SCOPED_TRACE(std::to_string(from.per_second()) + " to " + std::to_string(to.per_second()));
                const bool film = runs_at_full_rate(from, LineRate::kFull);
                const int phase = static_cast<int>(random() % kPhases);
                Source source = random_source(film ? kRate29_97 : from, 400, 0.2, random);
                if (film) source = film_of(source, phase);
                const Carried expected = carried_by(source);
                const Paced paced = pace(source, from, to, foresight);
                std::size_t pairs = 0, expected_pairs = 0;
                for (int field = 0; field < 2; ++field) {
                    EXPECT_EQ(paced.carried.receivers[field].acted, expected.receivers[field].acted);
                    pairs += paced.carried.pairs[field].size();
                    expected_pairs += expected.pairs[field].size();
                }
                EXPECT_EQ(pairs + paced.left_out, expected_pairs);
                EXPECT_EQ(paced.carried.cea708, expected.cea708);
            }
}

TEST(FullRate, CarriesEverythingOfFilmAtOnePairOfEachFieldAPicture) {
    std::mt19937 random(48);
    for (const double foresight : {0.0, 1.5}) {
        const Source film = film_of(random_source(kRate29_97, 600, 0.3, random), 1);
        const Carried expected = carried_by(film);
        Repacer repacer(kRate24, kRate24);
        const auto ahead = static_cast<std::size_t>(foresight * 24);
        Receiver receivers[2];
        std::size_t pushed = 0;
        for (std::size_t picture = 0; picture < 2 * film.size(); ++picture) {
            for (; pushed < film.size() && pushed <= picture + ahead; ++pushed)
                repacer.push(static_cast<std::int64_t>(pushed), film[pushed]);
            if (pushed == film.size()) repacer.finish();
            const PictureWrites writes = repacer.pull(static_cast<std::int64_t>(picture));
            EXPECT_FALSE(writes.has_third);
            EXPECT_EQ(writes.first_field, 0);
            for (int field = 0; field < 2; ++field) receivers[field].slot(writes.words[field]);
        }
        EXPECT_EQ(repacer.pending(), 0U);
        for (int field = 0; field < 2; ++field)
            EXPECT_EQ(receivers[field].acted, expected.receivers[field].acted);
    }
}

// What comes as the encoder's own pictures have it, which never has a second pair of a field.
TEST(FullRate, PassesOnePairOfEachFieldThroughOnItsPictures) {
    std::mt19937 random(2);
    Source source = random_source(kRate24, 600, 0.3, random);
    for (PictureCaptions& picture : source) picture.cea708.clear();
    const Paced paced = pace(source, kRate24, kRate24);
    EXPECT_EQ(paced.largest_delay, 0);
    EXPECT_EQ(paced.left_out, 0U);
    for (int field = 0; field < 2; ++field)
        EXPECT_EQ(paced.carried.receivers[field].acted, carried_by(source).receivers[field].acted);
    for (std::size_t picture = 0; picture < paced.output.size(); ++picture)
        for (int field = 0; field < 2; ++field) {
            std::vector<Word> sent = paced.output[picture].fields[field];
            std::erase(sent, kNullPair);
            const Word brought = pair_of(source, picture, field);
            // A repetition may go with the picture of its command, in the slot that is next.
            if (is_control(brought) && picture > 0 && pair_of(source, picture - 1, field) == brought)
                continue;
            if (is_null(brought)) {
                ASSERT_TRUE(sent.empty()) << picture;
            } else {
                ASSERT_FALSE(sent.empty()) << picture;
                ASSERT_EQ(sent[0], brought) << picture;
            }
        }
}

// Every fourth picture has the pairs of two whole frames of video.
TEST(FullRate, CarriesFilmWithThePairsOfWholeFramesAtMostOnePictureLater) {
    std::mt19937 random(4);
    for (int phase = 0; phase < kPhases; ++phase) {
        const Source video = random_source(kRate29_97, 600, 0.2, random);
        Source film;
        for (std::size_t frame = 0; frame < video.size(); ++frame) {
            film.resize((4 * frame + static_cast<std::size_t>(phase)) / 5 + 1);
            for (int field = 0; field < 2; ++field)
                film.back().fields[field].push_back(pair_of(video, frame, field));
        }
        const Paced paced = pace(film, kRate23_976, kRate23_976);
        expect_same_pairs(paced.carried, carried_by(video));
        EXPECT_LE(paced.largest_delay, 1);
        EXPECT_LE(paced.output.size(), film.size() + 1) << phase;
    }
}

TEST(FullRate, FollowsAnotherPhaseAfterASplice) {
    std::mt19937 random(9);
    for (int before = 0; before < kPhases; ++before)
        for (int after = 0; after < kPhases; ++after)
            for (const std::size_t at : {40U, 41U, 42U, 43U}) {
                SCOPED_TRACE(std::to_string(before) + " to " + std::to_string(after));
                Source film = film_of(random_source(kRate29_97, 100, 0.3, random), before);
                film.resize(at);
                const Source second = film_of(random_source(kRate29_97, 400, 0.3, random), after);
                film.insert(film.end(), second.begin(), second.end());
                const Carried expected = carried_by(film);
                const Paced paced = pace(film, kRate24, kRate24);
                for (int field = 0; field < 2; ++field)
                    EXPECT_EQ(paced.carried.receivers[field].acted, expected.receivers[field].acted);
                EXPECT_LE(paced.largest_delay, 2);
                // In step again once the splice is over.
                const std::size_t from = at + 100;
                expect_unchanged(
                    {paced.output.begin() + static_cast<std::ptrdiff_t>(from), paced.output.end()},
                    {film.begin() + static_cast<std::ptrdiff_t>(from), film.end()});
            }
}

TEST(FullRate, FindsThePhaseWithoutForesightAtTheLossOfAPicture) {
    std::mt19937 random(10);
    for (int phase = 0; phase < kPhases; ++phase) {
        const Source film = film_of(random_source(kRate29_97, 300, 0.5, random), phase);
        const Paced paced = pace(film, kRate24, kRate24, 0);
        for (int field = 0; field < 2; ++field)
            EXPECT_EQ(paced.carried.receivers[field].acted, carried_by(film).receivers[field].acted);
        EXPECT_LE(paced.largest_delay, 1);
        expect_unchanged({paced.output.begin() + 100, paced.output.end()}, {film.begin() + 100, film.end()});
    }
}

TEST(FullRate, NeedsForesightToSeeWhichPicturesHaveThreePairs) {
    EXPECT_DOUBLE_EQ(useful_foresight(kRate24, kRate24, LineRate::kFull), 4 / 24.0);
    // The repetition alone: film at the full rate loads as fast as video.
    EXPECT_DOUBLE_EQ(useful_foresight(kRate30, kRate24, LineRate::kFull), 4 / 30.0);
    EXPECT_DOUBLE_EQ(useful_foresight(kRate30, kRate30, LineRate::kFull), 0);
    EXPECT_DOUBLE_EQ(useful_foresight(kRate24, kRate24), 88 / 24.0 - 88 / 30.0);
    EXPECT_DOUBLE_EQ(useful_foresight(kRate30, kRate24), 88 / 24.0 - 88 / 30.0);
}

// ---- Schedules

TEST(FullRate, KeepsWhatIsNoRepetitionApartInASchedule) {
    const Word bs = control(kBackspace), ab = text('a', 'b');
    const auto pictures = [&](std::vector<std::vector<Word>> field_1) {
        Schedule schedule{kRate24, {}, {}};
        for (std::size_t n = 0; n < field_1.size(); ++n)
            append(schedule, static_cast<std::int64_t>(n), {{field_1[n], {}}, {}});
        return schedule;
    };
    const auto acted = [](const Schedule& schedule) {
        Report report;
        std::size_t acts = 0;
        const Schedule timed =
            retime(retime(schedule, kRate24, report, LineRate::kFull), kRate24, report, LineRate::kFull);
        Repacer repacer(kRate24, kRate24, LineRate::kFull);
        repacer.push(timed);
        Receiver receiver;
        for (std::int64_t picture = 0; picture < 20; ++picture)
            for (const FieldPair& pair : repacer.pull(picture).pairs())
                if (pair.field == 0) receiver.slot(pair.word);
        for (const Word word : receiver.acted) acts += word == control(kBackspace);
        return acts;
    };
    // The second of a pair on the next picture, and with a null pair between: before the end of the first
    // picture, or at the beginning of the second.
    EXPECT_EQ(acted(pictures({{bs, bs}, {ab}})), 1U);
    EXPECT_EQ(acted(pictures({{ab, bs}, {bs}})), 1U);
    EXPECT_EQ(acted(pictures({{bs}, {bs}})), 1U);
    EXPECT_EQ(acted(pictures({{bs, kNullPair}, {bs}})), 2U);
    EXPECT_EQ(acted(pictures({{bs}, {kNullPair, bs}})), 2U);
    EXPECT_EQ(acted(pictures({{bs}, {kNullPair}, {bs}})), 2U);
    EXPECT_EQ(acted(pictures({{bs, kNullPair}, {bs}, {bs, ab}})), 2U);
}

TEST(Schedule, NotesIdlePlacesWhereFramesHaveTwo) {
    const PictureCaptions first{{{0x942F, kNullPair}, {0xC1C2}}, {}},
        second{{{0xC1C2}, {kNullPair, 0x43C4}}, {}};
    Schedule schedule{kRate24, {}, {}}, video{kRate29_97, {}, {}};
    for (Schedule* each : {&schedule, &video}) {
        append(*each, 4, first);
        append(*each, 5, second);
        append(*each, 9, {{{kNullPair}, {kNullPair, kNullPair}}, {}});
        append(*each, 9, {{{0xC1C2, 0x43C4}, {}}, {}});
    }
    std::vector<Eia608Event> expected{{4, 0, 0x942F}, {4, 1, 0xC1C2}, {5, 0, 0xC1C2},
                                      {5, 1, 0x43C4}, {9, 0, 0xC1C2}, {9, 0, 0x43C4}};
    EXPECT_EQ(video.eia608, expected);
    expected[0].idle_after = true;
    expected[3].idle_before = true;
    EXPECT_EQ(schedule.eia608, expected);
}

TEST(Eia608Decoder, ActsTwiceWhereAScheduleHasAnIdlePlaceBetween) {
    const Word bs = control(kBackspace);
    for (const auto& [after, before] : {std::pair{false, false}, {true, false}, {false, true}}) {
        Schedule schedule{kRate24, {}, {}};
        std::int64_t frame = 0;
        for (const Word word : {control(kResumeDirectCaptioning), with_parity(indent_pac(15, 0)),
                                text('a', 'b'), text('c', 'd')})
            schedule.eia608.push_back({frame++, 0, word});
        schedule.eia608.push_back({frame, 0, bs, 0, false, after});
        schedule.eia608.push_back({frame + 1, 0, bs, 0, before, false});
        Eia608Decoder decoder(kRate24);
        decoder.feed(schedule);
        const std::vector<TimedText> texts = decoder.finish(20);
        ASSERT_EQ(texts.size(), 1U);
        EXPECT_EQ(texts[0].text(), after || before ? "ab" : "abc");
    }
}

TEST(FullRate, RetimesWithinTheBudgetAndPassesTheRepacerUnchanged) {
    std::mt19937 random(17);
    for (const FrameRate from : kRates) {
        SCOPED_TRACE(from.per_second());
        Source source = random_source(from, 400, 0.2, random);
        if (runs_at_full_rate(from, LineRate::kFull))
            source = film_of(random_source(kRate29_97, 400, 0.2, random), 3);
        Schedule schedule{from, {}, {}};
        for (std::size_t n = 0; n < source.size(); ++n)
            append(schedule, static_cast<std::int64_t>(n), source[n]);
        Report report;
        const Schedule timed = retime(schedule, kRate24, report, LineRate::kFull);
        const Schedule again = retime(timed, kRate24, report, LineRate::kFull);
        EXPECT_EQ(again.eia608, timed.eia608);
        EXPECT_EQ(again.cea708, timed.cea708);
        std::map<std::int64_t, int> on_picture;
        for (const Eia608Event& event : timed.eia608) on_picture[event.frame]++;
        for (const auto& [picture, pairs] : on_picture) {
            EXPECT_LE(pairs, 3);
            if (pairs == 3) {
                EXPECT_NE(on_picture[picture + 1], 3);
            }
        }
        for (const Cea708Event& event : timed.cea708) EXPECT_LE(event.constructs.size(), 23U);
    }
}

TEST(FullRate, BringsAScheduleOfVideoBackToItsFrames) {
    std::mt19937 random(18);
    const Source video = random_source(kRate29_97, 600, 0.3, random);
    Schedule schedule{kRate29_97, {}, {}};
    for (std::size_t n = 0; n < video.size(); ++n) {
        PictureCaptions captions = video[n];
        captions.cea708.clear();
        append(schedule, static_cast<std::int64_t>(n), captions);
    }
    Report report;
    const Schedule film = retime(schedule, kRate23_976, report, LineRate::kFull);
    const Schedule back = retime(film, kRate29_97, report);
    EXPECT_EQ(back.eia608, schedule.eia608);
    EXPECT_TRUE(report.empty());
}

TEST(PopOn, LoadsFasterAtTheFullRate) {
    // 60 characters and their commands take 42 pairs or more: 1.75 s at one pair a picture, 1.4 s at the full
    // rate.
    Cue cue = test::cue(1600, 4000, "An even thirty characters long");
    cue.lines.push_back(test::cue(0, 1, "and another thirty characters.").lines[0]);
    for (const LineRate line_rate : {LineRate::kPairOfEachField, LineRate::kFull})
        for (const int field : {0, 1}) {
            Report report;
            const PopOnOptions options{kRate24, 2, field, line_rate};
            const Schedule schedule = encode_pop_on({cue}, "a.srt", options, report);
            const bool full = line_rate == LineRate::kFull;
            EXPECT_EQ(report.count(WarningKind::kLateCue), full ? 0U : 1U);
            Eia608Decoder decoder(kRate24);
            decoder.feed(schedule);
            const std::vector<TimedText> texts = decoder.finish(200);
            ASSERT_EQ(texts.size(), 1U);
            if (full) {
                EXPECT_EQ(texts[0].begin, 38);
                EXPECT_EQ(texts[0].end, 96);
            }
            const Schedule passed = retime(schedule, kRate24, report, line_rate);
            EXPECT_EQ(passed.eia608, schedule.eia608);
        }
}

}  // namespace
}  // namespace gsve::captions
