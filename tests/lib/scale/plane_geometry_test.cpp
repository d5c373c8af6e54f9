// Steps, sizes, source lines: the arithmetic of the scaler without a sample.

#include "detail/scale/geometry.h"

#include <gtest/gtest.h>

namespace {

using namespace gsve::detail;

constexpr PictureFormat k420(int64_t width, int64_t height) { return {width, height, 1, 1}; }

TEST(EndPointAligned, LaysTheLastSampleOnTheLastSample) {
    const auto geometry = end_point_aligned(k420(1920, 1080), k420(1280, 720));
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->luma,
              (PlaneGeometry{1280, 720, (1919u << 16) / 1279, (1079u << 16) / 719, 1920, 1080}));
    EXPECT_EQ(geometry->chroma,
              (PlaneGeometry{640, 360, (1919u << 16) / 1279, (1079u << 16) / 719, 960, 540}));
}

TEST(EndPointAligned, GivesAHalfStepForTwoToThree) {
    const auto geometry = end_point_aligned(k420(2, 2), k420(3, 3));
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->luma.x_step, 32768u);
    EXPECT_EQ(geometry->luma.y_step, 32768u);
}

TEST(EndPointAligned, GivesAWholeStepForEqualSizes) {
    const auto geometry = end_point_aligned(k420(1920, 1080), k420(1920, 1080));
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->luma.x_step, 65536u);
    EXPECT_EQ(geometry->chroma.y_step, 65536u);
}

TEST(EndPointAligned, BringsEachSidesSubsamplingIntoTheChromaStep) {
    const PictureFormat from{720, 480, 1, 1}, to{720, 480, 1, 0};  // 4:2:0 to 4:2:2
    const auto geometry = end_point_aligned(from, to);
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->chroma, (PlaneGeometry{360, 480, 65536, 32768, 360, 240}));
    EXPECT_EQ(end_point_aligned(to, from)->chroma, (PlaneGeometry{360, 240, 65536, 131072, 360, 480}));
}

TEST(EndPointAligned, RefusesExtentsOfOneOrLess) {
    for (const int64_t bad : {-1, 0, 1}) {
        EXPECT_FALSE(end_point_aligned(k420(bad, 2), k420(2, 2)));
        EXPECT_FALSE(end_point_aligned(k420(2, bad), k420(2, 2)));
        EXPECT_FALSE(end_point_aligned(k420(2, 2), k420(bad, 2)));
        EXPECT_FALSE(end_point_aligned(k420(2, 2), k420(2, bad)));
    }
    EXPECT_TRUE(end_point_aligned(k420(2, 2), k420(2, 2)));
}

TEST(CellAligned, CoversTheSameArea) {
    const auto geometry = cell_aligned(k420(1920, 1080), k420(1280, 720));
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->luma, (PlaneGeometry{1280, 720, 98304, 98304, 1920, 1080}));
    EXPECT_EQ(geometry->chroma, (PlaneGeometry{640, 360, 98304, 98304, 960, 540}));
}

TEST(CellAligned, BringsEachSidesSubsamplingIntoTheChromaStep) {
    const auto geometry = cell_aligned({1920, 1080, 1, 0}, {720, 480, 0, 1});
    ASSERT_TRUE(geometry);
    EXPECT_EQ(geometry->chroma,
              (PlaneGeometry{720, 240, (1920u << 16) / (720 << 1), (1080u << 17) / 480, 960, 1080}));
}

TEST(CellAligned, RefusesOnlyExtentsOfNothing) {
    EXPECT_FALSE(cell_aligned(k420(0, 2), k420(2, 2)));
    EXPECT_FALSE(cell_aligned(k420(2, 0), k420(2, 2)));
    EXPECT_FALSE(cell_aligned(k420(2, 2), k420(0, 2)));
    EXPECT_FALSE(cell_aligned(k420(2, 2), k420(2, 0)));
    EXPECT_TRUE(cell_aligned(k420(1, 1), k420(1, 1)));
}

TEST(PlaneStep, KeepsTheLower32BitsOfA64BitQuotient) {
    EXPECT_EQ(plane_step(uint64_t{65537} * 3, 3, 0, 0), 65536u);  // 65537 << 16 is 2^32 + 65536
    EXPECT_EQ(plane_step(0xffffffff, 0xffffffff, 1, 1), 65536u);
}

TEST(RowParity, FollowsTheModeAndTheField) {
    for (const int field : {-1, 0, 1, 2, 3}) {
        for (const unsigned row : {0u, 1u, 2u, 3u}) {
            EXPECT_EQ(row_parity(0, field, row), 0);
            EXPECT_EQ(row_parity(1, field, row), 1);
            EXPECT_EQ(row_parity(2, field, row), kProgressive);
            EXPECT_EQ(row_parity(-1, field, row), field < 0 ? kProgressive : static_cast<int>(row & 1));
            EXPECT_EQ(row_parity(3, field, row), field < 0 ? kProgressive : field & 1);
            EXPECT_EQ(row_parity(9, field, row), field < 0 ? kProgressive : field & 1);
        }
    }
}

constexpr uint32_t at(unsigned line, unsigned weight = 0) { return (line << 16) | (weight << 8) | 0xff; }

TEST(ProgressiveRow, BlendsWithTheNextLineUpToTheLast) {
    EXPECT_EQ(progressive_row(at(0), 4), (BlendedRow{0, 0 + 1, 0}));
    EXPECT_EQ(progressive_row(at(2, 77), 4), (BlendedRow{2, 3, 77}));
    EXPECT_EQ(progressive_row(at(3, 77), 4), (BlendedRow{3, 3, 0}));
    EXPECT_EQ(progressive_row(at(900, 77), 4), (BlendedRow{3, 3, 0}));
    EXPECT_EQ(progressive_row(at(0, 77), 1), (BlendedRow{0, 0, 0}));
}

TEST(FieldRow, BlendsWithinTheFieldByTheFramesWeight) {
    EXPECT_EQ(field_row(at(2, 200), 10, 0), (BlendedRow{2, 4, 200}));
    EXPECT_EQ(field_row(at(3, 200), 10, 1), (BlendedRow{3, 5, 200}));
    EXPECT_EQ(field_row(at(2), 10, 0).weight, 0u);
}

TEST(FieldRow, TakesTheLineBelowUnblendedOnTheOtherFieldsLines) {
    EXPECT_EQ(field_row(at(3, 200), 10, 0), (BlendedRow{4, 4, 0}));
    EXPECT_EQ(field_row(at(2, 200), 10, 1), (BlendedRow{3, 3, 0}));
    EXPECT_EQ(field_row(at(0, 200), 10, 1), (BlendedRow{1, 1, 0}));
}

TEST(FieldRow, HoldsTheFieldsLastLine) {
    EXPECT_EQ(field_row(at(8, 200), 10, 0), (BlendedRow{8, 8, 0}));
    EXPECT_EQ(field_row(at(7, 200), 10, 0), (BlendedRow{8, 8, 0}));
    EXPECT_EQ(field_row(at(9, 200), 10, 1), (BlendedRow{9, 9, 0}));
    EXPECT_EQ(field_row(at(8, 200), 10, 1), (BlendedRow{9, 9, 0}));
    EXPECT_EQ(field_row(at(500, 200), 10, 1), (BlendedRow{9, 9, 0}));
}

TEST(FieldRow, LeavesTheOddLineAtTheBottomOut) {
    EXPECT_EQ(field_row(at(10, 200), 11, 0), (BlendedRow{8, 8, 0}));
    EXPECT_EQ(field_row(at(8, 200), 11, 0), (BlendedRow{8, 8, 0}));
    EXPECT_EQ(field_row(at(6, 200), 11, 0), (BlendedRow{6, 8, 200}));
    EXPECT_EQ(field_row(at(10, 200), 11, 1), (BlendedRow{9, 9, 0}));
}

TEST(FieldRow, FindsALineInPlanesOfOneAndTwoLines) {
    for (const unsigned line : {0u, 1u, 2u}) {
        EXPECT_EQ(field_row(at(line, 9), 1, 0), (BlendedRow{0, 0, 0}));
        EXPECT_EQ(field_row(at(line, 9), 1, 1), (BlendedRow{0, 0, 0}));
        EXPECT_EQ(field_row(at(line, 9), 2, 0), (BlendedRow{0, 0, 0}));
        EXPECT_EQ(field_row(at(line, 9), 2, 1), (BlendedRow{1, 1, 0}));
    }
}

TEST(FieldRow, NeverLeavesThePlane) {
    for (unsigned height = 1; height < 40; ++height) {
        for (unsigned line = 0; line < 50; ++line) {
            for (const unsigned parity : {0u, 1u}) {
                const BlendedRow row = field_row(at(line, 1), height, parity);
                EXPECT_LT(row.a, height);
                EXPECT_LT(row.b, height);
            }
        }
    }
}

TEST(LineTriple, WeighsTheOuterLinesOnlyAwayFromTheBottom) {
    EXPECT_EQ(line_triple(at(0, 50), 10), (LineTriple{0, 1, 2, 50}));
    EXPECT_EQ(line_triple(at(6, 50), 10), (LineTriple{6, 7, 8, 50}));
    EXPECT_EQ(line_triple(at(7, 50), 10), (LineTriple{7, 8, 9, 0}));
    EXPECT_EQ(line_triple(at(8, 50), 10), (LineTriple{8, 9, 9, 0}));
    EXPECT_EQ(line_triple(at(9, 50), 10), (LineTriple{9, 9, 9, 0}));
    EXPECT_EQ(line_triple(at(700, 50), 10), (LineTriple{9, 9, 9, 0}));
    EXPECT_EQ(line_triple(at(0, 50), 1), (LineTriple{0, 0, 0, 0}));
    EXPECT_EQ(line_triple(at(0, 50), 2), (LineTriple{0, 1, 1, 0}));
    EXPECT_EQ(line_triple(at(0, 50), 3), (LineTriple{0, 1, 2, 0}));
}

TEST(SampleWalk, CarriesTheFractionIntoTheSample) {
    SampleWalk walk;
    walk.advance(98304);
    EXPECT_EQ(walk.sample(), 1u);
    EXPECT_EQ(walk.fraction(), 32768u);
    walk.advance(98304);
    EXPECT_EQ(walk.sample(), 3u);
    EXPECT_EQ(walk.fraction(), 0u);
}

TEST(SampleWalk, WrapsItsSumAt32Bits) {
    SampleWalk walk{(7 << 16) | 1};
    walk.advance(0xffffffff);
    EXPECT_EQ(walk.sample(), 7u);
    EXPECT_EQ(walk.fraction(), 0u);
}

TEST(RowPosition, WrapsAt32Bits) { EXPECT_EQ(row_position(3, 0x80000000), 0x80000000u); }

TEST(MapRow, IsNotHeldBackByAnything) {
    const MotionMap luma{nullptr, 4, 0, 0}, chroma{nullptr, 4, 1, 1};
    EXPECT_EQ(map_row(luma, at(15)), 0u);
    EXPECT_EQ(map_row(luma, at(16)), 1u);
    EXPECT_EQ(map_row(luma, at(65535)), 4095u);
    EXPECT_EQ(map_row(chroma, at(0)), 0u);
    EXPECT_EQ(map_row(chroma, at(8)), 1u);
    EXPECT_EQ(map_row(chroma, at(23)), 2u);
    EXPECT_EQ(map_row(chroma, at(47)), 5u);
    EXPECT_EQ(map_row(MotionMap{nullptr, 4, 9, 9}, at(700)), 700u);
}

TEST(MapColumn, FollowsTheFirstSampleOfTheGroup) {
    const MotionMap luma{nullptr, 4, 0, 0}, chroma{nullptr, 4, 1, 1};
    EXPECT_EQ(map_column(luma, 1, 65536), 0u);
    EXPECT_EQ(map_column(luma, 2, 65536), 1u);
    EXPECT_EQ(map_column(luma, 1, 131072), 1u);
    EXPECT_EQ(map_column(luma, 100, 65536), 50u);  // past the row's end
    EXPECT_EQ(map_column(chroma, 1, 65536), 1u);
    EXPECT_EQ(map_column(MotionMap{nullptr, 400, 9, 9}, 2, 65536), 16u);
}

size_t chroma_reach(const PictureFormat& from, const PictureFormat& to) {
    const auto map_shift_x = static_cast<uint8_t>(to.chroma_shift_x);
    const auto map_shift_y = static_cast<uint8_t>(to.chroma_shift_y);
    return map_reach({nullptr, macroblocks(static_cast<uint64_t>(from.width)), map_shift_x, map_shift_y},
                     cell_aligned(from, to)->chroma);
}

TEST(MapReach, IsThePicturesMapWhereTheShiftsAreTheSources) {
    for (int64_t width = 2; width < 70; ++width) {
        for (int64_t height = 2; height < 70; ++height) {
            const size_t blocks =
                macroblocks(static_cast<uint64_t>(width)) * macroblocks(static_cast<uint64_t>(height));
            const PictureGeometry geometry = *cell_aligned(k420(width, height), k420(50, 34));
            const MotionMap map{nullptr, macroblocks(static_cast<uint64_t>(width)), 0, 0};
            EXPECT_LE(map_reach(map, geometry.luma), blocks) << width << 'x' << height;
            EXPECT_LE(chroma_reach(k420(width, height), k420(50, 34)), blocks) << width << 'x' << height;
        }
    }
}

TEST(MapReach, LeavesThePicturesMapWhereTheSourcesChromaIsFiner) {
    // 64x48: four columns and three rows of macroblocks. Chroma of 4:4:4 has 64 columns and 48 lines, of
    // which the last group begins in column 56.
    const PictureFormat k444{64, 48, 0, 0}, k422{64, 48, 1, 0};
    EXPECT_EQ(chroma_reach(k422, k420(64, 48)), 5u * 4 + 3 + 1);
    EXPECT_EQ(chroma_reach(k444, k420(64, 48)), 5u * 4 + 6 + 1);
    EXPECT_EQ(chroma_reach(k444, k422), 2u * 4 + 6 + 1);
    EXPECT_EQ(chroma_reach(k444, k444), 2u * 4 + 3 + 1);
}

TEST(MapReach, TakesAnyPositionForReachedWhereTheyComeRound) {
    const MotionMap map{nullptr, 10, 0, 0};
    EXPECT_EQ(map_reach(map, {8, 2, 0, 0xffffffff, 1, 1}), 4095u * 10 + 1);
    EXPECT_EQ(map_reach(map, {8, 3, 0, 0x80000000, 1, 1}), 4095u * 10 + 1);
    EXPECT_EQ(map_reach(map, {16, 1, 0x20000000, 0, 1, 1}), 4095u + 1);
    EXPECT_EQ(map_reach(map, {16, 1, 0x1fffffff, 0, 1, 1}), 4095u + 1);
    EXPECT_EQ(map_reach(map, {16, 1, 0x1fff0000, 0, 1, 1}), 4095u + 1);
    EXPECT_EQ(map_reach(map, {16, 1, 0x10000000, 0, 1, 1}), 2048u + 1);
    EXPECT_EQ(map_reach(map, {8, 1, 0xffffffff, 0xffffffff, 1, 1}), 1u);
    EXPECT_EQ(map_reach(map, {0, 0, 0xffffffff, 0xffffffff, 1, 1}), 1u);
}

}  // namespace
