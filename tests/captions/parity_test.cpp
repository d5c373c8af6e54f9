#include "captions/parity.h"

#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "captions/eia608_decoder.h"

namespace gsve::captions {
namespace {

constexpr Word kErase = 0x942C;  // erase displayed memory, with parity

struct Transmission {
    const char* name;
    std::vector<Word> sent;
    std::vector<Word> taken;
    ParityDamage damage{};
};

class Received : public testing::TestWithParam<Transmission> {};

TEST_P(Received, IsWhatAReceiverMakesOfIt) {
    ParityRepair parity(kRate29_97);
    std::vector<Word> taken;
    for (const Word word : GetParam().sent) taken.push_back(parity.repair(0, word));
    EXPECT_EQ(taken, GetParam().taken);
    EXPECT_EQ(parity.damage(), GetParam().damage);
    EXPECT_EQ(parity.damage().any(), GetParam().damage != ParityDamage{});
}

INSTANTIATE_TEST_SUITE_P(
    Parity, Received,
    testing::Values(
        Transmission{"WithoutErrors", {kErase, kErase, 0xC1C2, 0x4380}, {kErase, kErase, 0xC1C2, 0x4380}},
        Transmission{"FirstByteOfAControlPair", {0x142C, kErase}, {kNullPair, kErase}, {1, 0}},
        Transmission{"SecondByteOfAControlPair", {0x94AC, kErase}, {kNullPair, kErase}, {1, 0}},
        Transmission{"BothBytesOfAControlPair", {0x14AC, kErase}, {kNullPair, kErase}, {1, 0}},
        Transmission{"RepetitionOfAControlPair", {kErase, 0x142C}, {kErase, kNullPair}, {1, 0}},
        Transmission{"BothTransmissions", {0x142C, 0x94AC}, {kNullPair, kNullPair}, {2, 0}},
        Transmission{"ControlPairOfTheSecondChannel", {0x9CAD}, {kNullPair}, {1, 0}},
        Transmission{"LowestControlPair", {0x90C1}, {kNullPair}, {1, 0}},
        Transmission{"HighestControlPair", {0x9F2F}, {kNullPair}, {1, 0}},
        Transmission{"FirstCharacter", {0x41C2}, {0x7FC2}, {0, 1}},
        Transmission{"SecondCharacter", {0xC142}, {0xC17F}, {0, 1}},
        Transmission{"BothCharacters", {0x4142}, {0x7F7F}, {0, 2}},
        Transmission{"LoneCharacter", {0x4180}, {0x7F80}, {0, 1}},
        Transmission{"NullPairsWithoutParity", {0x0000, 0x0080, 0x8000}, {kNullPair, kNullPair, kNullPair}},
        Transmission{"NullByteWithoutParityBesideACharacter", {0xC100, 0x00C1}, {0xC180, 0x80C1}},
        Transmission{"NullByteWithoutParityBesideADamagedOne", {0x4100}, {0x7F80}, {0, 1}},
        Transmission{"SecondByteOfAnExtendedDataCode", {0x0183}, {0x0183}},
        Transmission{"DamagedSecondByteOfAnExtendedDataCode", {0x0103}, {0x017F}, {0, 1}},
        Transmission{"DamagedFirstByteOfAnExtendedDataCode", {0x8183}, {0x7F83}, {0, 1}}),
    [](const auto& info) { return info.param.name; });

// 0x14 0x2C whose first byte has become 0x34, a digit, and 0x10 0x52 whose first has become null.
INSTANTIATE_TEST_SUITE_P(
    DamagedRepetition, Received,
    testing::Values(
        Transmission{"IsDroppedWhereItsSecondByteIsThatOfTheControlPair",
                     {kErase, 0xB42C, 0xC1C2},
                     {kErase, kNullPair, 0xC1C2},
                     {1, 0}},
        Transmission{
            "IsDroppedWhereItsFirstByteHasBecomeNull", {0x1052, 0x0052}, {0x1052, kNullPair}, {1, 0}},
        Transmission{"IsExpectedOnce", {kErase, kErase, 0xB42C}, {kErase, kErase, 0x7F2C}, {0, 1}},
        Transmission{
            "IsExpectedInTheNextPlace", {kErase, kNullPair, 0xB42C}, {kErase, kNullPair, 0x7F2C}, {0, 1}},
        Transmission{
            "IsExpectedBeforeCharacters", {kErase, 0xC1C2, 0xB42C}, {kErase, 0xC1C2, 0x7F2C}, {0, 1}},
        Transmission{"HasTheSecondByteWhole", {kErase, 0xB4AC}, {kErase, 0x7F7F}, {0, 2}},
        Transmission{"HasTheSecondByteOfTheControlPair", {kErase, 0xB4AE}, {kErase, 0x7FAE}, {0, 1}},
        Transmission{"HasAnErrorInItsFirstByte", {kErase, 0x342C}, {kErase, 0x342C}}),
    [](const auto& info) { return info.param.name; });

TEST(ParityRepair, FollowsTheFieldsApart) {
    ParityRepair parity(kRate29_97);
    EXPECT_EQ(parity.repair({{{kErase, 0xB42C}, {0xB42C}}, {{0xFE, 1, 2}}}),
              (PictureCaptions{{{kErase, kNullPair}, {0x7F2C}}, {{0xFE, 1, 2}}}));
    EXPECT_EQ(parity.damage(), (ParityDamage{1, 1}));
}

TEST(ParityRepair, FollowsAControlPairOverPictures) {
    ParityRepair parity(kRate29_97);
    parity.repair({{{kErase}, {}}, {}});
    EXPECT_EQ(parity.repair({{{0xB42C}, {}}, {}}), (PictureCaptions{{{kNullPair}, {}}, {}}));
}

TEST(ParityRepair, TakesNullPairsOnTheOtherFieldsPicturesForNoSlack) {
    ParityRepair parity(kRate59_94);
    for (const auto& [sent, taken] :
         {std::pair<Word, Word>{kErase, kErase}, {kNullPair, kNullPair}, {0xB42C, kNullPair}})
        EXPECT_EQ(parity.repair(0, sent), taken);
}

// Every error of one bit in a caption that is repeated as it should be: what is seen is the caption, with at
// most one block in it, and on its own picture or, where a first transmission is hit, on the next.
TEST(ParityRepair, ShowsACaptionThroughAnyErrorOfOneBit) {
    const std::vector<Word> caption{0x9420, 0x9420, 0x94AE, 0x94AE, 0x9470,
                                    0x9470, 0xC8E9, 0xA180, 0x942F, 0x942F};
    const std::int64_t shown_on = 8;
    for (std::size_t hit = 0; hit < caption.size(); ++hit)
        for (int bit = 0; bit < 16; ++bit) {
            ParityRepair parity(kRate29_97);
            Eia608Decoder repaired(kRate29_97), unrepaired(kRate29_97);
            for (std::size_t n = 0; n < caption.size(); ++n) {
                const auto word = static_cast<Word>(caption[n] ^ (n == hit ? 1U << bit : 0U));
                const Word taken = parity.repair(0, word);
                ASSERT_TRUE(has_parity(taken));
                repaired.feed(static_cast<std::int64_t>(n), 0, taken);
                unrepaired.feed(static_cast<std::int64_t>(n), 0, word);
            }
            const std::vector<TimedText> texts = repaired.finish(20);
            EXPECT_EQ(texts, unrepaired.finish(20)) << hit << " bit " << bit;
            ASSERT_EQ(texts.size(), 1U) << hit << " bit " << bit;
            EXPECT_EQ(texts[0].begin, shown_on + (hit == 8 ? 1 : 0)) << hit << " bit " << bit;
            EXPECT_LE(parity.damage().control_pairs + parity.damage().characters, 1U);
        }
}

TEST(ParityRepair, LeavesNothingThatNeedsRepair) {
    std::mt19937 random(608);
    ParityRepair parity(kRate29_97), again(kRate29_97);
    for (int n = 0; n < 100000; ++n) {
        const auto word = static_cast<Word>(random());
        const Word taken = parity.repair(n % 2, word);
        ASSERT_TRUE(has_parity(taken));
        ASSERT_EQ(again.repair(n % 2, taken), taken);
        if (has_parity(word)) {
            ASSERT_EQ(taken, word);
        }
    }
    EXPECT_TRUE(parity.damage().any());
    EXPECT_FALSE(again.damage().any());
}

}  // namespace
}  // namespace gsve::captions
