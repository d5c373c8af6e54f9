// Captions on their way into one encoder: paced, taken back from dropped pictures, and accounted for.

#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "captions/line21.h"
#include "captions/scte20.h"
#include "encoding/caption_track.h"

namespace {

using namespace gsve::captions;
using namespace gsve::encoding;
using testing::ElementsAre;

constexpr CaptionForms kA53 = {.cc_data = true};
constexpr CaptionForms kCcAlone = {.cc = true};

Word text(const char* two) {
    return with_parity(make_word(static_cast<unsigned>(two[0]), static_cast<unsigned>(two[1])));
}
Word command(Command command, int field = 0) { return with_parity(command_word(command, field)); }
Cea708Construct construct(int n) {
    return {kHeaderDtvccData, static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)};
}

PictureWrites due(Word field1, Word field2 = 0, int64_t picture = 0) {
    PictureWrites writes;
    writes.words[0] = field1, writes.words[1] = field2;
    writes.due[0] = picture, writes.due[1] = picture + 100;
    return writes;
}

// ---- PictureLine ----

TEST(PictureLine, GivesEachPictureWhatIsDue) {
    PictureLine line(kRate25);
    const PictureWrites writes = line.next(3, due(text("ab"), text("cd"), 3));
    EXPECT_EQ(writes.words[0], text("ab"));
    EXPECT_EQ(writes.words[1], text("cd"));
    EXPECT_EQ(writes.due[0], 3);
    EXPECT_EQ(writes.due[1], 103);
    EXPECT_TRUE(line.next(4, {}).empty());
    EXPECT_EQ(line.waiting_pairs(0), 0u);
}

TEST(PictureLine, SendsADroppedPicturesPairsWithTheNext) {
    PictureLine line(kRate25);
    line.next(0, due(text("ab"), text("AB"), 0));
    line.take_back();
    EXPECT_EQ(line.waiting_pairs(0), 1u);
    EXPECT_EQ(line.waiting_pairs(1), 1u);
    const PictureWrites again = line.next(0, due(text("cd"), 0, 1));
    EXPECT_EQ(again.words[0], text("ab"));
    EXPECT_EQ(again.words[1], text("AB"));
    EXPECT_EQ(again.due[0], 0);
    EXPECT_EQ(again.due[1], 100);
    EXPECT_EQ(line.waiting_pairs(0), 1u);
    EXPECT_EQ(line.waiting_pairs(1), 0u);
    const PictureWrites later = line.next(1, {});
    EXPECT_EQ(later.words[0], text("cd"));
    EXPECT_EQ(later.due[0], 1);
    EXPECT_EQ(later.words[1], 0);
}

TEST(PictureLine, KeepsTheIdlePictureAfterAControlPairOnly) {
    for (const bool control : {false, true}) {
        const Word first = control ? command(kEndOfCaption) : text("ab");
        // The idle picture itself is dropped ...
        PictureLine line(kRate25);
        line.next(0, due(first));
        line.next(1, {});
        line.take_back();
        EXPECT_EQ(line.waiting_pairs(0), 0u);
        EXPECT_EQ(line.next(1, due(first)).words[0], control ? 0 : first);
        EXPECT_EQ(line.next(2, {}).words[0], control ? first : 0);
        // ... or stands behind a pair that waits.
        PictureLine behind(kRate25);
        behind.next(0, due(first));
        behind.take_back();
        behind.next(0, due(text("xy")));
        EXPECT_EQ(behind.waiting_pairs(0), 1u);
        PictureLine waiting(kRate25);
        waiting.next(0, due(text("xy")));
        waiting.take_back();
        EXPECT_EQ(waiting.next(0, due(first)).words[0], text("xy"));
        waiting.take_back();  // again: both wait now
        EXPECT_EQ(waiting.next(0, {}).words[0], text("xy"));
        EXPECT_EQ(waiting.next(1, due(first)).words[0], first);
        EXPECT_EQ(waiting.next(2, {}).words[0], control ? 0 : first);
        EXPECT_EQ(waiting.next(3, {}).words[0], control ? first : 0);
    }
}

TEST(PictureLine, KeepsTheOrderWhateverIsDropped) {
    std::mt19937 random(11);
    for (int round = 0; round < 100; round++) {
        PictureLine line(kRate25);
        std::vector<Word> put, got;
        uint64_t picture = 0;
        for (int n = 0; n < 60; n++) {
            Word word = 0;
            if (random() % 3 != 0) {
                word = random() % 3 == 0 ? command(static_cast<Command>(0x20 + random() % 3))
                                         : with_parity(make_word(0x20 + random() % 90, 0x20 + random() % 90));
                put.push_back(word);
            }
            const Word sent = line.next(picture, due(word)).words[0];
            if (random() % 4 == 0) {
                line.take_back();
                continue;
            }
            if (sent) got.push_back(sent);
            picture++;
        }
        while (line.waiting_pairs(0) > 0)
            if (const Word sent = line.next(picture++, {}).words[0]) got.push_back(sent);
        EXPECT_EQ(got, put);
    }
}

TEST(PictureLine, AlternatesTheFieldsOfFastPictures) {
    PictureLine line(kRate50);
    EXPECT_EQ(line.next(0, due(text("ab"), text("cd"))).words[1], 0);
    line.take_back();
    EXPECT_EQ(line.waiting_pairs(0), 1u);
    EXPECT_EQ(line.waiting_pairs(1), 0u);
    EXPECT_EQ(line.next(1, due(0, text("ef"))).words[1], text("ef"));
    line.take_back();
    EXPECT_EQ(line.waiting_pairs(0), 1u);
    EXPECT_EQ(line.waiting_pairs(1), 1u);
    EXPECT_EQ(line.next(2, {}).words[0], text("ab"));
    EXPECT_EQ(line.next(3, {}).words[1], text("ef"));
}

TEST(PictureLine, HoldsConstructsToTheBudgetAndTakesThemBackInOrder) {
    for (const FrameRate rate : {kRate25, kRate29_97, kRate50, kRate59_94}) {
        const auto budget = static_cast<size_t>(picture_budget(rate).cea708_constructs);
        PictureLine line(rate);
        PictureWrites many;
        for (int n = 0; n < 40; n++) many.cea708.push_back(construct(n));
        many.cea708_due = 5;
        std::vector<Cea708Construct> got;
        for (uint64_t picture = 0; picture < 10; picture++) {
            const PictureWrites writes = line.next(picture, picture == 0 ? many : PictureWrites{});
            EXPECT_LE(writes.cea708.size(), budget);
            if (picture == 0 || picture == 2) {
                EXPECT_EQ(writes.cea708.size(), std::min<size_t>(budget, 40 - got.size()));
                line.take_back();
                EXPECT_EQ(line.waiting_constructs(), 40 - got.size());
                continue;
            }
            EXPECT_EQ(writes.cea708_due, writes.cea708.empty() ? 0 : 5);
            got.insert(got.end(), writes.cea708.begin(), writes.cea708.end());
            EXPECT_EQ(line.waiting_constructs(), 40 - got.size());
        }
        EXPECT_EQ(got, many.cea708);
    }
}

// ---- CaptionTrack ----

PictureCaptions carried(std::vector<Word> field1, std::vector<Word> field2 = {}, int constructs = 0) {
    PictureCaptions captions;
    captions.fields[0] = std::move(field1);
    captions.fields[1] = std::move(field2);
    for (int n = 0; n < constructs; n++) captions.cea708.push_back(construct(n));
    return captions;
}

EncodedUnit unit_of(int64_t picture, bool ancillary = true) {
    EncodedUnit unit;
    unit.pts = picture;
    unit.ancillary = ancillary;
    return unit;
}

std::pair<uint64_t, uint64_t> both(const CaptionCount& count) { return {count.pairs, count.constructs}; }
using Counts = std::pair<uint64_t, uint64_t>;

TEST(CaptionTrack, CarriesEachPicturesCaptions) {
    CaptionTrack track(kA53, kRate25, kRate25);
    EXPECT_EQ(both(track.push(0, carried({text("ab")}, {text("cd")}, 3))), Counts(2, 3));
    EXPECT_EQ(both(track.push(1, carried({kNullPair, 0}, {}, 0))), Counts(0, 0));
    track.finish();
    const PictureWrites writes = track.next(0, 0);
    EXPECT_EQ(writes.words[0], text("ab"));
    EXPECT_EQ(writes.words[1], text("cd"));
    EXPECT_EQ(writes.cea708.size(), 3u);
    track.after(PictureFate::kEncoded);
    EXPECT_EQ(both(track.account(1).expired), Counts(2, 3));  // as long as its unit has not left
    track.emitted(unit_of(0));
    const CaptionAccount account = track.account(1);
    EXPECT_EQ(both(account.carried), Counts(2, 3));
    EXPECT_EQ(both(account.expired), Counts(0, 0));
    EXPECT_EQ(both(account.left_over), Counts(0, 0));
    EXPECT_EQ(both(account.without_form), Counts(0, 0));
    EXPECT_EQ(account.delayed_pairs, 0u);
    EXPECT_EQ(account.largest_delay, 0);
    EXPECT_TRUE(account.lost.empty());
}

TEST(CaptionTrack, CountsWhatExpiredInTheCodec) {
    CaptionTrack track(kA53, kRate25, kRate25);
    for (int64_t n = 0; n < 3; n++) track.push(n, carried({text("ab")}, {}, 1));
    track.finish();
    for (uint64_t n = 0; n < 3; n++) {
        EXPECT_FALSE(track.next(10 * n, n).empty());
        track.after(PictureFate::kEncoded);
    }
    track.emitted(unit_of(0, true));
    track.emitted(unit_of(10, false));
    track.emitted(unit_of(11, true));  // of a picture without captions
    track.emitted(unit_of(0, true));   // counted once
    EXPECT_EQ(both(track.account(3).carried), Counts(1, 1));
    EXPECT_EQ(both(track.account(3).expired), Counts(2, 2));
}

TEST(CaptionTrack, SendsADroppedPicturesCaptionsAgain) {
    CaptionTrack track(kA53, kRate25, kRate25);
    track.push(0, carried({text("ab")}, {}, 1));
    track.finish();
    track.next(0, 0);
    track.after(PictureFate::kDropped);
    track.emitted(unit_of(0));  // there is none; it would not count
    EXPECT_EQ(both(track.account(0).left_over), Counts(1, 1));
    EXPECT_EQ(both(track.account(0).expired), Counts(0, 0));
    const PictureWrites again = track.next(1, 0);
    EXPECT_EQ(again.words[0], text("ab"));
    EXPECT_EQ(again.cea708.size(), 1u);
    track.after(PictureFate::kEncoded);
    track.emitted(unit_of(1));
    EXPECT_EQ(both(track.account(1).carried), Counts(1, 1));
    EXPECT_EQ(both(track.account(1).left_over), Counts(0, 0));
}

TEST(CaptionTrack, TellsWhatHasNoForm) {
    CaptionTrack none(CaptionForms{}, kRate25, kRate25);
    EXPECT_EQ(both(none.push(0, carried({text("ab")}, {}, 2))), Counts(1, 2));
    none.finish();
    EXPECT_TRUE(none.next(0, 0).empty());
    EXPECT_EQ(both(none.account(1).without_form), Counts(1, 2));
    EXPECT_EQ(both(none.account(1).left_over), Counts(0, 0));

    CaptionTrack pairs_alone(kCcAlone, kRate25, kRate25);
    EXPECT_EQ(both(pairs_alone.push(0, carried({text("ab")}, {}, 2))), Counts(1, 2));
    pairs_alone.finish();
    const PictureWrites writes = pairs_alone.next(0, 0);
    EXPECT_EQ(writes.words[0], text("ab"));
    EXPECT_TRUE(writes.cea708.empty());
    EXPECT_EQ(both(pairs_alone.account(1).without_form), Counts(0, 2));
}

TEST(CaptionTrack, MeasuresDelays) {
    // Three pairs of field 1 and one of field 2 on one picture: the second and third are a picture and two
    // late.
    CaptionTrack track(kA53, kRate25, kRate25);
    Schedule schedule{kRate25, {}, {}};
    for (const char* pair : {"ab", "cd", "ef"}) schedule.eia608.push_back({0, 0, text(pair)});
    schedule.eia608.push_back({0, 1, text("gh")});
    track.load(schedule);
    for (uint64_t n = 0; n < 3; n++) {
        track.next(n, n);
        track.after(PictureFate::kEncoded);
        track.emitted(unit_of(static_cast<int64_t>(n)));
    }
    EXPECT_EQ(both(track.account(3).carried), Counts(4, 0));
    EXPECT_EQ(track.account(3).delayed_pairs, 2u);
    EXPECT_DOUBLE_EQ(track.account(3).largest_delay, 2 / 25.0);
}

TEST(CaptionTrack, MeasuresTheDelayOfConstructs) {
    CaptionTrack track(kA53, kRate50, kRate50);
    track.push(0, carried({}, {}, 30));  // eleven to a picture
    track.finish();
    for (uint64_t n = 0; n < 3; n++) {
        track.next(n, n);
        track.emitted(unit_of(static_cast<int64_t>(n)));
    }
    EXPECT_EQ(both(track.account(3).carried), Counts(0, 30));
    EXPECT_EQ(track.account(3).delayed_pairs, 0u);
    EXPECT_DOUBLE_EQ(track.account(3).largest_delay, 2 / 50.0);
}

TEST(CaptionTrack, LeavesDelaysOfWhatExpiredOut) {
    CaptionTrack track(kA53, kRate25, kRate25);
    Schedule schedule{kRate25, {{0, 0, text("ab")}, {0, 0, text("cd")}}, {}};
    track.load(schedule);
    for (uint64_t n = 0; n < 2; n++) {
        track.next(n, n);
        track.emitted(unit_of(static_cast<int64_t>(n), n == 0));
    }
    EXPECT_EQ(track.account(2).delayed_pairs, 0u);
    EXPECT_EQ(track.account(2).largest_delay, 0);
}

TEST(CaptionTrack, CountsWhatIsLeftOver) {
    CaptionTrack track(kA53, kRate25, kRate25);
    Schedule schedule{kRate25, {}, {}};
    for (const int field : {0, 1})
        for (const char* pair : {"ab", "cd", "ef"})
            schedule.eia608.push_back({0, static_cast<uint8_t>(field), text(pair)});
    schedule.eia608.push_back({9, 0, text("gh")});
    schedule.cea708.push_back({0, std::vector<Cea708Construct>(30, construct(1))});
    track.load(schedule);
    track.next(0, 0);
    EXPECT_EQ(both(track.account(1).left_over), Counts(5, 30 - 22));
    track.after(PictureFate::kDropped);
    EXPECT_EQ(both(track.account(1).left_over), Counts(7, 30));
}

TEST(CaptionTrack, CountsRepetitionsThatMadeWay) {
    // Behind a backlog, a control pair's repetition is left out; of both fields.
    CaptionTrack track(kA53, kRate25, kRate25);
    Schedule schedule{kRate25, {}, {}};
    for (const int field : {0, 1}) {
        for (int n = 0; n < 4; n++) schedule.eia608.push_back({0, static_cast<uint8_t>(field), text("ab")});
        for (int n = 1; n < 3; n++)
            schedule.eia608.push_back({n, static_cast<uint8_t>(field), command(kCarriageReturn, field)});
        schedule.eia608.push_back({3, static_cast<uint8_t>(field), text("cd")});
    }
    track.load(schedule);
    for (uint64_t n = 0; n < 10; n++) track.next(n, n);
    EXPECT_EQ(track.account(10).repetitions_left_out, 2u);
}

TEST(CaptionTrack, WantsForesightWhereTheEncoderHasFewerSlots) {
    const double film = useful_foresight(kRate29_97, kRate24);
    ASSERT_GT(film, 0);
    EXPECT_EQ(CaptionTrack(CaptionForms{}, kRate50, kRate24).foresight(), 0);
    EXPECT_EQ(CaptionTrack(kA53, kRate25, kRate25).foresight(), 0);
    EXPECT_DOUBLE_EQ(CaptionTrack(kA53, kRate50, kRate24).foresight(), useful_foresight(kRate50, kRate24));
    // Film may have been coded with the pairs of 60 Hz video.
    EXPECT_DOUBLE_EQ(CaptionTrack(kA53, kRate24, kRate24).foresight(), film);
    EXPECT_DOUBLE_EQ(CaptionTrack(kA53, kRate23_976, kRate23_976).foresight(),
                     useful_foresight(kRate29_97, kRate23_976));
    EXPECT_DOUBLE_EQ(CaptionTrack(kCcAlone, kRate25, kRate24).foresight(),
                     useful_foresight(kRate25, kRate24));
}

/// A paint-on caption "ABCD" of a channel, of which each pair comes with a frame of its own; then an erase.
Schedule painted(int field, int64_t late = 0) {
    const auto f = static_cast<uint8_t>(field);
    return {kRate25,
            {{10, f, command(kResumeDirectCaptioning, field), late},
             {11, f, with_parity(indent_pac(15, 0)), late},
             {12, f, text("AB"), late},
             {13, f, text("CD"), late},
             {30, f, command(kEraseDisplayedMemory, field)}},
            {}};
}

CaptionAccount after_pictures(const Schedule& schedule, uint64_t pictures) {
    CaptionTrack track(kA53, kRate25, kRate25);
    track.load(schedule);
    for (uint64_t n = 0; n < pictures; n++) {
        track.next(n, n);
        track.emitted(unit_of(static_cast<int64_t>(n)));
    }
    return track.account(pictures);
}

TEST(CaptionTrack, NamesTheCaptionsThatTheEndCutOff) {
    using Reason = LostCaption::Reason;
    const struct {
        uint64_t pictures;
        std::optional<Reason> reason;
    } rows[] = {
        {31, std::nullopt},        {20, std::nullopt},         {14, std::nullopt},
        {13, Reason::kCutShort},   {12, Reason::kAfterTheEnd}, {5, Reason::kAfterTheEnd},
        {0, Reason::kAfterTheEnd},
    };
    for (int field = 0; field < 2; field++)
        for (const auto& row : rows) {
            const CaptionAccount account = after_pictures(painted(field), row.pictures);
            ASSERT_EQ(account.lost.size(), row.reason ? 1u : 0u) << row.pictures;
            if (!row.reason) continue;
            EXPECT_EQ(account.lost[0].reason, *row.reason) << row.pictures;
            EXPECT_EQ(account.lost[0].text, "ABCD");
            EXPECT_EQ(account.lost[0].channel, field == 0 ? 1 : 3);
            EXPECT_DOUBLE_EQ(account.lost[0].time, 12 / 25.0);
        }
}

TEST(CaptionTrack, SaysWhenALateCaptionWasAskedFor) {
    for (int field = 0; field < 2; field++) {
        const CaptionAccount account = after_pictures(painted(field, 5), 12);
        ASSERT_EQ(account.lost.size(), 1u);
        EXPECT_DOUBLE_EQ(account.lost[0].time, 7 / 25.0);
        EXPECT_EQ(account.lost[0].reason,
                  LostCaption::Reason::kDidNotFit);  // it was to be seen before the end
    }
}

TEST(CaptionTrack, NamesOfSeveralCaptionsTheLostOnes) {
    Schedule schedule = painted(0);
    for (Eia608Event event : painted(0).eia608) {
        event.frame += 40;
        if (event.word == text("AB")) event.word = text("EF");
        schedule.eia608.push_back(event);
    }
    const CaptionAccount account = after_pictures(schedule, 45);
    ASSERT_EQ(account.lost.size(), 1u);
    EXPECT_EQ(account.lost[0].text, "EFCD");
    EXPECT_DOUBLE_EQ(account.lost[0].time, 52 / 25.0);
}

TEST(CaptionTrack, NamesTheLastCaptionOfALongProgramme) {
    CaptionTrack track(kA53, kRate25, kRate25);
    constexpr int64_t kLong = 90'000;  // pictures, an hour of them
    for (int64_t n = 0; n < kLong; n++) {
        track.push(n, carried({text("ab")}, {text("cd")}));
        track.next(static_cast<uint64_t>(n), static_cast<uint64_t>(n));
        track.emitted(unit_of(n));
    }
    for (const Eia608Event& event : painted(0).eia608) track.push(kLong + event.frame, carried({event.word}));
    track.finish();
    const CaptionAccount account = track.account(kLong);
    EXPECT_EQ(both(account.carried), Counts(2 * kLong, 0));
    ASSERT_EQ(account.lost.size(), 1u);
    EXPECT_EQ(account.lost[0].text, "ABCD");
    EXPECT_DOUBLE_EQ(account.lost[0].time, (kLong + 12) / 25.0);
}

TEST(CaptionTrack, TellsWhatIsCertainlyLostAsItGoesOn) {
    CaptionTrack track(kCcAlone, kRate25, kRate25);
    track.push(0, carried({text("ab")}, {}, 2));
    EXPECT_EQ(both(track.lost()), Counts(0, 2)) << "without a form";
    track.next(0, 0);
    EXPECT_EQ(both(track.lost()), Counts(0, 2)) << "in the codec";
    track.emitted(unit_of(0, false));
    EXPECT_EQ(both(track.lost()), Counts(1, 2)) << "expired";
}

TEST(CaptionTrack, NamesCaptionsThatWerePushed) {
    CaptionTrack track(kA53, kRate25, kRate25);
    for (const Eia608Event& event : painted(0).eia608) track.push(event.frame, carried({event.word}, {}, 1));
    track.finish();
    for (uint64_t n = 0; n < 12; n++) track.next(n, n);
    const CaptionAccount account = track.account(12);
    ASSERT_EQ(account.lost.size(), 1u);
    EXPECT_EQ(account.lost[0].text, "ABCD");
    EXPECT_DOUBLE_EQ(account.lost[0].time, 12 / 25.0);
}

TEST(Scte20Body, HoldsThePairsInDisplayOrder) {
    PictureWrites writes;
    EXPECT_TRUE(scte20_body(writes, true).empty());
    writes.words[0] = text("ab"), writes.words[1] = text("cd");
    for (const bool top_first : {true, false}) {
        const auto read = parse_scte20(scte20_body(writes, top_first));
        ASSERT_TRUE(read);
        std::map<int, Word> by_field;
        for (const Scte20Construct& c : *read) by_field[c.field_number] = c.word;
        EXPECT_EQ(by_field[1], top_first ? text("ab") : text("cd"));
        EXPECT_EQ(by_field[2], top_first ? text("cd") : text("ab"));
    }
}

TEST(CaptionCount, AddsUp) {
    CaptionCount sum{1, 2};
    sum += CaptionCount{10, 20};
    EXPECT_EQ(both(sum), Counts(11, 22));
    EXPECT_EQ(sum.all(), 33u);
}

}  // namespace
