#include <array>
#include <random>

#include <gtest/gtest.h>

#include "captions/cc_data.h"
#include "captions/scte20.h"

namespace gsve::captions {
namespace {

TEST(CcData, SortsTriplesByTypeAndKeepsTheirOrder) {
    const std::array<std::uint8_t, 24> triples{0xFC, 0x94, 0x20, 0xFD, 0x80, 0x80, 0xFF, 0x03,
                                               0x24, 0xFE, 0x48, 0x49, 0xFA, 0x00, 0x00, 0xF8,
                                               0x94, 0x2C, 0xFC, 0x94, 0x2F, 0xF9, 0x80, 0x80};
    const CcData cc = parse_cc_data(triples);
    EXPECT_EQ(cc.captions.fields[0], (std::vector<Word>{0x9420, 0x942F}));
    EXPECT_EQ(cc.captions.fields[1], (std::vector<Word>{0x8080}));
    EXPECT_EQ(cc.captions.cea708, (std::vector<Cea708Construct>{{0xFF, 0x03, 0x24}, {0xFE, 0x48, 0x49}}));
    EXPECT_EQ(cc.parity_errors, 0);
    EXPECT_FALSE(cc.truncated);
}

TEST(CcData, CountsPairsWithWrongParityAndSeesACutTriple) {
    const std::array<std::uint8_t, 8> triples{0xFC, 0x14, 0x20, 0xFD, 0x80, 0x80, 0xFF, 0x03};
    const CcData cc = parse_cc_data(triples);
    EXPECT_EQ(cc.captions.fields[0], (std::vector<Word>{0x1420}));
    EXPECT_EQ(cc.parity_errors, 1);
    EXPECT_TRUE(cc.truncated);
    EXPECT_TRUE(cc.captions.cea708.empty());
}

TEST(CcData, SetsMarkerBitsThatASourceLeftOut) {
    const std::array<std::uint8_t, 3> triples{0x07, 0x03, 0x24};
    EXPECT_EQ(parse_cc_data(triples).captions.cea708, (std::vector<Cea708Construct>{{0xFF, 0x03, 0x24}}));
}

TEST(CcData, AcceptsNothing) { EXPECT_TRUE(parse_cc_data({}).captions.empty()); }

using Bytes = std::vector<std::uint8_t>;

// `padding` triples behind the others.
Bytes padded(Bytes triples, int padding) {
    for (int n = 0; n < padding; ++n) triples.insert(triples.end(), {0xFA, 0x00, 0x00});
    return triples;
}

TEST(ComposeCcData, PutsBytePairsBeforeConstructsAndPadsToTheCount) {
    const std::vector<FieldPair> pairs{{0, 0x9420}, {1, 0xC1C2}};
    const std::vector<Cea708Construct> cea708{{0xFF, 0x03, 0x24}, {0xFE, 0x48, 0x49}};
    EXPECT_EQ(compose_cc_data(pairs, cea708, 25),
              padded({0xFC, 0x94, 0x20, 0xFD, 0xC1, 0xC2, 0xFF, 0x03, 0x24, 0xFE, 0x48, 0x49}, 21));
    EXPECT_EQ(compose_cc_data(pairs, cea708, 4),
              padded({0xFC, 0x94, 0x20, 0xFD, 0xC1, 0xC2, 0xFF, 0x03, 0x24, 0xFE, 0x48, 0x49}, 0));
}

TEST(ComposeCcData, KeepsTheOrderOfThreeBytePairs) {
    const std::vector<FieldPair> pairs{{1, 0xC1C2}, {0, 0x9420}, {1, 0x4380}};
    EXPECT_EQ(compose_cc_data(pairs, {}, 10),
              padded({0xFD, 0xC1, 0xC2, 0xFC, 0x94, 0x20, 0xFD, 0x43, 0x80}, 7));
}

TEST(ComposeCcData, SetsParityAndSendsNullPairsForNone) {
    const std::vector<FieldPair> pairs{{0, 0x1420}, {1, 0}};
    EXPECT_EQ(compose_cc_data(pairs, {}, 2), (Bytes{0xFC, 0x94, 0x20, 0xFD, 0x80, 0x80}));
}

TEST(ComposeCcData, LeavesOutOtherConstructsThanDtvcc) {
    const std::vector<Cea708Construct> cea708{{0xFC, 0x94, 0x20}, {0xFD, 1, 2}, {0xFA, 3, 4}, {0xFE, 5, 6}};
    EXPECT_EQ(compose_cc_data({}, cea708, 2), padded({0xFE, 5, 6}, 1));
}

TEST(ComposeCcData, LeavesOutWhatIsMoreThanTheCount) {
    const std::vector<FieldPair> pairs{{0, 0x9420}, {1, 0xC1C2}};
    const std::vector<Cea708Construct> many(40, Cea708Construct{0xFE, 1, 2});
    EXPECT_EQ(compose_cc_data(pairs, {}, 1), (Bytes{0xFC, 0x94, 0x20}));
    EXPECT_EQ(compose_cc_data(pairs, many, 3), (Bytes{0xFC, 0x94, 0x20, 0xFD, 0xC1, 0xC2, 0xFE, 1, 2}));
    EXPECT_EQ(compose_cc_data(pairs, many, 40).size(), 3U * 31);
    EXPECT_TRUE(compose_cc_data(pairs, many, -1).empty());
}

TEST(ComposeCcData, IsReadBackAtEveryRate) {
    std::mt19937 random(53);
    for (const FrameRate rate : {kRate23_976, kRate24, kRate25, kRate29_97, kRate50, kRate59_94}) {
        std::vector<FieldPair> pairs{{0, with_parity(static_cast<Word>(random()))},
                                     {1, with_parity(static_cast<Word>(random()))}};
        std::vector<Cea708Construct> cea708;
        for (int n = 0; n < cc_count(rate) - 2; ++n)
            cea708.push_back({static_cast<std::uint8_t>(random() % 2 ? 0xFE : 0xFF),
                              static_cast<std::uint8_t>(random()), static_cast<std::uint8_t>(random())});
        const CcData read = parse_cc_data(compose_cc_data(pairs, cea708, cc_count(rate)));
        EXPECT_EQ(read.captions, (PictureCaptions{{{pairs[0].word}, {pairs[1].word}}, cea708}));
        EXPECT_FALSE(read.truncated);
    }
}

TEST(ComposeAtsc1Data, LaysOutTheUserDataOfTheStandard) {
    EXPECT_EQ(compose_atsc1_data(Bytes{0xFC, 0x94, 0x20, 0xFA, 0x00, 0x00}),
              (Bytes{'G', 'A', '9', '4', 0x03, 0xC2, 0xFF, 0xFC, 0x94, 0x20, 0xFA, 0x00, 0x00, 0xFF}));
    EXPECT_EQ(compose_atsc1_data({}), (Bytes{'G', 'A', '9', '4', 0x03, 0xC0, 0xFF, 0xFF}));
}

TEST(ComposeAtsc1Data, TakesAsManyWholeTriplesAsItCanCount) {
    const Bytes many(3 * 40 + 1, 0xFF);
    const Bytes body = compose_atsc1_data(many);
    EXPECT_EQ(body[5], 0xC0 | 31);
    EXPECT_EQ(body.size(), 8U + 3 * 31);
    EXPECT_EQ(compose_atsc1_data(Bytes{0xFE, 1, 2, 0xFE}),
              (Bytes{'G', 'A', '9', '4', 0x03, 0xC1, 0xFF, 0xFE, 1, 2, 0xFF}));
}

// What the encoder itself writes for a picture at 24 Hz with a pair of each field and two constructs. It
// leaves the reserved bits 0; all the rest has to be the same, so that pictures with two pairs and with three
// look alike to a receiver.
TEST(ComposeAtsc1Data, DiffersFromTheEncodersOwnAt24PicturesPerSecondInReservedBitsAlone) {
    Bytes encoders = padded({'G', 'A', '9', '4', 0x03, 0x59, 0x00, 0xFC, 0x94, 0x20, 0xFD, 0xC1, 0xC2, 0xFF,
                             0x03, 0x24, 0xFE, 0x48, 0x49},
                            21);
    encoders.push_back(0xFF);
    const std::vector<FieldPair> pairs{{0, 0x1420}, {1, 0x4142}};
    const std::vector<Cea708Construct> cea708{{0xFF, 0x03, 0x24}, {0xFE, 0x48, 0x49}};
    const Bytes composed = compose_atsc1_data(compose_cc_data(pairs, cea708, cc_count(kRate23_976)));
    EXPECT_EQ(composed[5], encoders[5] | 0x80);
    EXPECT_EQ(composed[6], 0xFF);
    encoders[5] = composed[5];
    encoders[6] = composed[6];
    EXPECT_EQ(composed, encoders);
}

TEST(Schedule, LeavesNullPairsOutAndPutsParityRight) {
    Schedule schedule;
    append(schedule, 7, PictureCaptions{{{0x8080, 0x1420}, {0x0000}}, {{0xFE, 1, 2}}});
    EXPECT_EQ(schedule.eia608, (std::vector<Eia608Event>{{7, 0, 0x9420}}));
    EXPECT_EQ(schedule.cea708, (std::vector<Cea708Event>{{7, {{0xFE, 1, 2}}}}));
}

TEST(Schedule, MergesByFrame) {
    const Schedule a{kRate25, {{1, 0, 0x9420}, {3, 0, 0x9420}}, {}};
    const Schedule b{kRate25, {{1, 1, 0x1520}, {2, 1, 0x1520}}, {}};
    const Schedule merged = merge(a, b);
    EXPECT_EQ(merged.eia608,
              (std::vector<Eia608Event>{{1, 0, 0x9420}, {1, 1, 0x1520}, {2, 1, 0x1520}, {3, 0, 0x9420}}));
    EXPECT_THROW(merge(a, Schedule{kRate30, {}, {}}), std::invalid_argument);
}

struct BudgetCase {
    FrameRate rate;
    bool alternating;
    int constructs;
    int cc_count;
};

class Budget : public testing::TestWithParam<BudgetCase> {};

TEST_P(Budget, FollowsTheRate) {
    const PictureBudget budget = picture_budget(GetParam().rate);
    EXPECT_EQ(budget.alternating_fields, GetParam().alternating);
    EXPECT_EQ(budget.cea708_constructs, GetParam().constructs);
    EXPECT_EQ(cc_count(GetParam().rate), GetParam().cc_count);
}

INSTANTIATE_TEST_SUITE_P(
    Schedule, Budget,
    testing::Values(BudgetCase{kRate23_976, false, 23, 25}, BudgetCase{kRate24, false, 23, 25},
                    BudgetCase{{249, 10}, false, 22, 24}, BudgetCase{kRate25, false, 22, 24},
                    BudgetCase{{29, 1}, false, 18, 20}, BudgetCase{kRate29_97, false, 18, 20},
                    BudgetCase{{399, 10}, false, 18, 20}, BudgetCase{{40, 1}, true, 18, 20},
                    BudgetCase{{49, 1}, true, 11, 12}, BudgetCase{kRate50, true, 11, 12},
                    BudgetCase{{59, 1}, true, 9, 10}, BudgetCase{kRate59_94, true, 9, 10},
                    BudgetCase{{120, 1}, true, 9, 10}, BudgetCase{{12, 1}, false, 23, 25}));

// 1000000 1 | 00010 | 00 01 01011 rrrrrrrr rrrrrrrr 1 | 00 10 01011 ... 1 | 0000 | zero bits, with the bytes
// of 94 20 (reversed 29 04) and 15 2c (reversed a8 34).
TEST(Scte20, LaysOutOneConstructPerField) {
    const auto constructs = scte20_constructs(0x9420, 0x152C, true);
    const std::vector<std::uint8_t> expected{
        0x81,
        0b00010'000,   // cc_count, cc_priority, first bit of field_number
        0b1'01011'00,  // field_number, line_offset, cc_data_1
        0b101001'00,
        0b000100'1'0,  // cc_data_2, marker, cc_priority
        0b0'10'01011, 0xA8, 0x34,
        0b1'0000'000,  // marker, non_real_time_video_count, alignment
    };
    EXPECT_EQ(compose_scte20(constructs), expected);
}

TEST(Scte20, NumbersFieldsInDisplayOrder) {
    const auto top = scte20_constructs(0x1420, 0x152C, true);
    ASSERT_EQ(top.size(), 2U);
    EXPECT_EQ(top[0], (Scte20Construct{0, 1, 11, 0x9420}));
    EXPECT_EQ(top[1], (Scte20Construct{0, 2, 11, 0x152C}));
    const auto bottom = scte20_constructs(0x1420, 0x152C, false);
    ASSERT_EQ(bottom.size(), 2U);
    EXPECT_EQ(bottom[0], (Scte20Construct{0, 1, 11, 0x152C}));
    EXPECT_EQ(bottom[1], (Scte20Construct{0, 2, 11, 0x9420}));
}

TEST(Scte20, IsEmptyWithoutPairs) {
    EXPECT_TRUE(compose_scte20(scte20_constructs(0, kNullPair, true)).empty());
}

TEST(Scte20, ReadsBackWhatWasComposed) {
    std::mt19937 random(1);
    for (std::size_t count = 1; count <= kScte20MaximumConstructs; ++count) {
        std::vector<Scte20Construct> constructs;
        for (std::size_t i = 0; i < count; ++i)
            constructs.push_back(
                {static_cast<std::uint8_t>(random() % 4), static_cast<std::uint8_t>(1 + random() % 3),
                 static_cast<std::uint8_t>(random() % 32), with_parity(static_cast<Word>(random()))});
        const auto body = compose_scte20(constructs);
        EXPECT_EQ(body.size(), (8 + 5 + 26 * count + 4 + 7) / 8);
        EXPECT_EQ(parse_scte20(body), constructs);
        EXPECT_FALSE(parse_scte20({body.data(), body.size() - 2}));
    }
}

TEST(Scte20, KeepsTheFirst31Constructs) {
    const std::vector<Scte20Construct> many(40, Scte20Construct{0, 1, 11, 0x9420});
    EXPECT_EQ(parse_scte20(compose_scte20(many))->size(), kScte20MaximumConstructs);
}

TEST(Scte20, RefusesWhatIsNoBody) {
    std::vector<std::uint8_t> body = compose_scte20(scte20_constructs(0x9420, 0, true));
    ASSERT_TRUE(parse_scte20(body));
    EXPECT_FALSE(parse_scte20({}));
    for (const auto& [byte, bit] : {std::pair{0, 0x01}, {0, 0x02}, {2, 0x80}, {4, 0x02}}) {
        std::vector<std::uint8_t> damaged = body;
        damaged[static_cast<std::size_t>(byte)] ^= static_cast<std::uint8_t>(bit);
        EXPECT_FALSE(parse_scte20(damaged)) << byte;
    }
}

TEST(Scte20, HasAnIdleConstructOfLine21) {
    EXPECT_EQ(Scte20Construct{}, (Scte20Construct{0, 1, 11, 0x8080}));
    EXPECT_EQ(kScte20UserDataTypeCode, 0x03);
}

TEST(Scte20, RefusesABodyThatEndsTooSoon) {
    // Two constructs are 13 + 2 * 26 bits and four zero bits: 69, in nine bytes.
    const std::vector<std::uint8_t> body = compose_scte20(scte20_constructs(0x9420, 0x152C, true));
    ASSERT_EQ(body.size(), 9U);
    EXPECT_TRUE(parse_scte20(body));
    for (std::size_t size = 0; size < body.size(); ++size)
        EXPECT_FALSE(parse_scte20({body.data(), size})) << size;
    // 13 bits and four are more than two bytes.
    const std::vector<std::uint8_t> nothing{0x81, 0x00, 0x00};
    EXPECT_EQ(parse_scte20(nothing)->size(), 0U);
    EXPECT_FALSE(parse_scte20(std::span(nothing).first(2)));
}

TEST(Schedule, IsEmptyWithoutPairsAndConstructs) {
    EXPECT_TRUE(Schedule{}.empty());
    EXPECT_EQ(Schedule{}.rate, kRate29_97);
    EXPECT_FALSE((Schedule{kRate25, {{0, 0, 0x9420}}, {}}.empty()));
    EXPECT_FALSE((Schedule{kRate25, {}, {{0, {{0xFE, 1, 2}}}}}.empty()));
    EXPECT_FALSE((PictureCaptions{{{0x8080}, {}}, {}}.empty()));
    EXPECT_FALSE((PictureCaptions{{{}, {0x8080}}, {}}.empty()));
    EXPECT_FALSE((PictureCaptions{{{}, {}}, {{0xFE, 1, 2}}}.empty()));
}

TEST(Schedule, MergesConstructsByFrameAndKeepsTheirOrder) {
    const Schedule a{kRate25, {}, {{1, {{0xFE, 1, 2}}}, {4, {{0xFE, 3, 4}}}}};
    const Schedule b{kRate25, {}, {{1, {{0xFE, 5, 6}}}, {2, {{0xFE, 7, 8}}}}};
    EXPECT_EQ(merge(a, b).cea708,
              (std::vector<Cea708Event>{
                  {1, {{0xFE, 1, 2}}}, {1, {{0xFE, 5, 6}}}, {2, {{0xFE, 7, 8}}}, {4, {{0xFE, 3, 4}}}}));
}

TEST(PictureBudget, GivesUpAConstructForEachPairBeyondTwo) {
    const PictureBudget budget = picture_budget(kRate24);
    EXPECT_EQ(budget.constructs_beside(0), 23);
    EXPECT_EQ(budget.constructs_beside(2), 23);
    EXPECT_EQ(budget.constructs_beside(3), 22);
    EXPECT_FALSE(budget.full_rate);
    EXPECT_TRUE(picture_budget(kRate24, LineRate::kFull).full_rate);
    EXPECT_FALSE(PictureBudget({false, 23}).full_rate);
}

}  // namespace
}  // namespace gsve::captions
