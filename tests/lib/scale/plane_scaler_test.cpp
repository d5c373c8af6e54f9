// The plane operations as a caller sees them, with values worked out by hand, under every mask.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "plane_support.h"

namespace {

using namespace plane_test;

constexpr int kKeepFields = -1, kEvenField = 0, kOddField = 1, kFrame = 2, kFirstField = 3;
constexpr char kFunction[] = "void scale(int)";

/// A source without spare bytes and what scaling made of it.
struct Scaled {
    std::vector<uint8_t> source;
    unsigned src_width, src_height;

    explicit Scaled(const Rows& rows)
        : source(packed(rows)),
          src_width(static_cast<unsigned>(rows[0].size())),
          src_height(static_cast<unsigned>(rows.size())) {}

    PlaneScaling plane(std::vector<uint8_t>& out, size_t stride, unsigned to_width, unsigned to_height,
                       unsigned x_step, unsigned y_step) const {
        out.assign(stride * to_height, kGuardByte);
        return {out.data(), stride, source.data(), src_width, to_width,
                to_height,  x_step, y_step,        src_width, src_height};
    }

    Rows scale(unsigned to_width, unsigned to_height, unsigned x_step, unsigned y_step, int mode,
               int field) const {
        std::vector<uint8_t> out;
        scale_plane(plane(out, to_width, to_width, to_height, x_step, y_step), mode, field, kFunction);
        return unpacked(out, to_width);
    }

    Rows basic(unsigned to_width, unsigned to_height, unsigned x_step, unsigned y_step) const {
        std::vector<uint8_t> out;
        deinterlace_plane_basic(plane(out, to_width, to_width, to_height, x_step, y_step));
        return unpacked(out, to_width);
    }

    Rows adaptive(unsigned to_width, unsigned to_height, unsigned x_step, unsigned y_step,
                  const MotionMap& map) const {
        std::vector<uint8_t> out;
        const size_t stride = whole_groups(to_width);
        deinterlace_plane_adaptive(plane(out, stride, to_width, to_height, x_step, y_step), map);
        return unpacked(out, stride);
    }
};

/// `height` rows of `width` samples, each row of one value.
Rows lines(unsigned width, const std::vector<int>& values) {
    Rows rows;
    for (const int value : values) rows.push_back(std::vector<int>(width, value));
    return rows;
}

std::vector<int> first_column(const Rows& rows) {
    std::vector<int> column;
    for (const auto& row : rows) column.push_back(row[0]);
    return column;
}

using Scale = EveryForm;
using Deinterlace = EveryForm;
using MotionMapOf = EveryForm;

// ---- The plain scaler ---------------------------------------------------------------------------------

TEST_P(Scale, RoundsTheMiddleDownBetweenTwoSamples) {
    const Rows expected = {{0, 127, 255}, {0, 127, 255}, {0, 127, 255}};
    EXPECT_EQ(Scaled({{0, 255}, {0, 255}}).scale(3, 3, 32768, 32768, kFrame, -1), expected);
    const Rows falling = {{255, 127, 0}, {255, 127, 0}, {255, 127, 0}};
    EXPECT_EQ(Scaled({{255, 0}, {255, 0}}).scale(3, 3, 32768, 32768, kFrame, -1), falling);
}

TEST_P(Scale, RoundsTheMiddleDownBetweenTwoLines) {
    EXPECT_EQ(first_column(Scaled(lines(20, {0, 255})).scale(20, 3, 65536, 32768, kFrame, -1)),
              (std::vector<int>{0, 127, 255}));
}

TEST_P(Scale, WeighsLinesBy8BitsAndSamplesBy16) {
    // A position of 0.998: 255/256 between lines, 65405/65536 between samples, of a difference of 255.
    EXPECT_EQ(first_column(Scaled(lines(20, {0, 255, 0})).scale(1, 2, 65536, 65405, kFrame, -1)),
              (std::vector<int>{0, 255 * 255 / 256}));
    EXPECT_EQ(Scaled({{0, 255, 0}}).scale(2, 1, 65405, 65536, kFrame, -1), (Rows{{0, 255 * 65405 / 65536}}));
}

TEST_P(Scale, CopiesAtEqualSize) {
    std::mt19937 random(1);
    Rows rows(37, std::vector<int>(173));
    for (auto& row : rows) {
        for (int& sample : row) sample = static_cast<int>(random() % 256);
    }
    EXPECT_EQ(Scaled(rows).scale(173, 37, 65536, 65536, kFrame, -1), rows);
    EXPECT_EQ(Scaled(rows).scale(173, 37, 65536, 65536, kKeepFields, -1), rows);
}

TEST_P(Scale, KeepsTheFieldsApartByDefault) {
    const Scaled picture(lines(20, {0, 100, 10, 110, 20, 120, 30, 130}));
    const std::vector<int> unchanged = {0, 100, 10, 110, 20, 120, 30, 130};
    EXPECT_EQ(first_column(picture.scale(20, 8, 65536, 65536, kKeepFields, 0)), unchanged);
    EXPECT_EQ(first_column(picture.scale(20, 8, 65536, 65536, kKeepFields, 1)), unchanged);
}

TEST_P(Scale, BuildsEachRowOfTheDefaultSchemeFromItsOwnField) {
    // Positions 0, 1.5, 3, 4.5, 6. Rows 0, 2, 4 are of the even field: line 0; line 3 is odd, so line 4; line
    // 6, the field's last. Rows 1 and 3 are of the odd field: half way from line 1 to line 3; line 4 is even,
    // so 5.
    const Scaled picture(lines(20, {0, 100, 10, 111, 20, 120, 30, 130}));
    EXPECT_EQ(first_column(picture.scale(20, 5, 65536, 98304, kKeepFields, 0)),
              (std::vector<int>{0, 105, 20, 120, 30}));
}

TEST_P(Scale, TakesTheEvenLineBelowAnOddPosition) {
    const Scaled picture(lines(20, {0, 100, 10, 110, 20, 120, 30, 130}));
    EXPECT_EQ(first_column(picture.scale(20, 8, 65536, 65536, kEvenField, -1)),
              (std::vector<int>{0, 10, 10, 20, 20, 30, 30, 30}));
    EXPECT_EQ(first_column(picture.scale(20, 8, 65536, 65536, kOddField, 0)),
              (std::vector<int>{100, 100, 110, 110, 120, 120, 130, 130}));
}

TEST_P(Scale, BuildsBothFieldsFromTheFirstOneAboveTheFrameMode) {
    const Scaled picture(lines(20, {0, 100, 10, 110, 20, 120, 30, 130}));
    for (const int mode : {kFirstField, 4, 77}) {
        EXPECT_EQ(picture.scale(20, 8, 65536, 65536, mode, 0),
                  picture.scale(20, 8, 65536, 65536, kEvenField, 0));
        EXPECT_EQ(picture.scale(20, 8, 65536, 65536, mode, 1),
                  picture.scale(20, 8, 65536, 65536, kOddField, 0));
        EXPECT_EQ(picture.scale(20, 8, 65536, 65536, mode, 3),
                  picture.scale(20, 8, 65536, 65536, kOddField, 0));
        EXPECT_EQ(picture.scale(20, 8, 65536, 65536, mode, -1),
                  picture.scale(20, 8, 65536, 65536, kFrame, 0));
    }
}

TEST_P(Scale, HoldsTheLastSampleOfARow) {
    // Half steps over two samples, six outputs: three of them lie behind the row.
    EXPECT_EQ(Scaled({{10, 20}}).scale(6, 1, 32768, 65536, kFrame, -1), (Rows{{10, 15, 20, 20, 20, 20}}));
    EXPECT_EQ(Scaled({{10, 20}}).scale(5, 1, 65536, 65536, kFrame, -1), (Rows{{10, 20, 20, 20, 20}}));
    EXPECT_EQ(Scaled({{10, 20}}).scale(3, 1, 0xffffffff, 65536, kFrame, -1), (Rows{{10, 20, 20}}));
}

TEST_P(Scale, FindsALineInFieldsOfOneAndTwoLines) {
    for (const int mode : {kKeepFields, kEvenField, kOddField, kFirstField}) {
        for (const int field : {0, 1}) {
            EXPECT_EQ(first_column(Scaled(lines(20, {9})).scale(20, 3, 65536, 32768, mode, field)),
                      (std::vector<int>{9, 9, 9}));
        }
    }
    EXPECT_EQ(first_column(Scaled(lines(20, {9, 200})).scale(20, 4, 65536, 30000, kKeepFields, 0)),
              (std::vector<int>{9, 200, 9, 200}));
}

TEST_P(Scale, RefusesRowsOf4096SamplesAndTakes4095) {
    const Scaled widest(lines(4095, {7, 7})), too_wide(lines(4096, {7, 7}));
    EXPECT_EQ(widest.scale(2, 2, 65536, 65536, kFrame, -1), (Rows{{7, 7}, {7, 7}}));
    EXPECT_EQ(too_wide.scale(2, 2, 65536, 65536, kFrame, -1), (Rows{{0xa5, 0xa5}, {0xa5, 0xa5}}));
}

TEST_P(Scale, LeavesPlanesWithoutSamplesAlone) {
    uint8_t out[4] = {1, 2, 3, 4};
    const uint8_t source[4] = {9, 9, 9, 9};
    for (int without = 0; without < 4; ++without) {
        PlaneScaling plane{out, 2, source, 2, 2, 2, 65536, 65536, 2, 2};
        unsigned* const sizes[] = {&plane.to_width, &plane.to_height, &plane.src_width, &plane.src_height};
        *sizes[without] = 0;
        scale_plane(plane, kFrame, -1, kFunction);
        deinterlace_plane_basic(plane);
        deinterlace_plane_adaptive(plane, {source, 1, 0, 0});
        EXPECT_EQ(std::memcmp(out, "\1\2\3\4", 4), 0);
    }
    build_motion_map(out, source, 2, 0, 2);
    build_motion_map(out, source, 2, 2, 0);
    EXPECT_EQ(std::memcmp(out, "\1\2\3\4", 4), 0) << "motion map";
}

using ScaleDeathTest = EveryForm;

TEST_P(ScaleDeathTest, AbortsWhereTheSecondLineLeavesTheSource) {
    std::vector<uint8_t> out(40), source(60);
    const PlaneScaling plane{out.data(), 20, source.data(), 19, 20, 2, 65536, 32768, 20, 2};
    EXPECT_DEATH(
        scale_plane(plane, kFrame, -1, kFunction),
        "lib/gsve:.*void scale\\(int\\).*\\(sl1\\+src_width\\) <= \\(sY\\+\\(src_height\\*sY_stride\\)\\)");
}

/// Rows that are copied, gathered and halved, out of lines that overlap by one sample.
struct OverlappingLines {
    explicit OverlappingLines(unsigned height) : src_height(height), source((height - 1) * 127 + 128, 7) {}

    PlaneScaling plane(unsigned x_step, unsigned y_step) {
        return {out.data(), 64, source.data(), 127, 64, 2, x_step, y_step, 128, src_height};
    }

    unsigned src_height;
    std::vector<uint8_t> source;
    std::vector<uint8_t> out = std::vector<uint8_t>(128);
};

constexpr unsigned kWidthSteps[] = {65536, 98304, 131072};

TEST_P(Scale, AsksForASecondLineOnlyWhereItIsRead) {
    for (const unsigned x_step : kWidthSteps) {
        OverlappingLines lines(3);  // of the last two, the first is copied
        scale_plane(lines.plane(x_step, 65536), kFrame, -1, kFunction);
        EXPECT_EQ(lines.out, std::vector<uint8_t>(128, 7)) << x_step;
    }
}

TEST_P(ScaleDeathTest, AbortsWhereASecondLineOfTheLeastWeightLeavesTheSource) {
    for (const unsigned x_step : kWidthSteps) {
        OverlappingLines lines(2);
        EXPECT_DEATH(scale_plane(lines.plane(x_step, 257), kFrame, -1, kFunction), "sl1\\+src_width")
            << x_step;
    }
}

TEST_P(ScaleDeathTest, AbortsWhereARowLeavesTheDestination) {
    std::vector<uint8_t> out(60), source(40);
    const PlaneScaling plane{out.data(), 19, source.data(), 20, 20, 2, 65536, 65536, 20, 2};
    EXPECT_DEATH(
        scale_plane(plane, kFrame, -1, kFunction),
        "lib/gsve:.*void scale\\(int\\).*\\(dl\\+to_width\\) <= \\(dY\\+\\(to_height\\*dY_stride\\)\\)");
}

// ---- The deinterlacers --------------------------------------------------------------------------------

TEST_P(Deinterlace, BlendsThreeLinesWithHalfTheWeightInTheMiddle) {
    const Scaled picture(lines(20, {0, 100, 40, 200, 80, 240, 90, 250}));
    // At equal size C has no weight: the floor of the average of two lines; the last one stands alone.
    EXPECT_EQ(first_column(picture.basic(20, 8, 65536, 65536)),
              (std::vector<int>{50, 70, 120, 140, 160, 165, 170, 250}));
    // Half way, from 1.5 on: lines 1, 2, 3 by 128, 256, 128 of 512.
    EXPECT_EQ(first_column(picture.basic(20, 3, 65536, 98304)),
              (std::vector<int>{50, (100 * 128 + 40 * 256 + 200 * 128) / 512, 140}));
}

TEST_P(Deinterlace, RoundsDownOnce) {
    // floor((3 * 128 + 4 * 128 + 4 * 256) / 512) = floor(1920 / 512) = 3.
    EXPECT_EQ(first_column(Scaled(lines(20, {3, 4, 4, 0, 0, 0})).basic(20, 1, 65536, 0))[0], 3);
    EXPECT_EQ(first_column(Scaled(lines(20, {0, 3, 4, 4, 0, 0, 0})).basic(20, 2, 65536, 98304))[1], 3);
}

TEST_P(Deinterlace, HasNoWidthLimit) {
    EXPECT_EQ(first_column(Scaled(lines(5000, {10, 20})).basic(3, 2, 65536, 65536)),
              (std::vector<int>{15, 20}));
}

TEST_P(Deinterlace, CopiesTheLastLinesAcross) {
    const Scaled picture({{0, 100}, {50, 150}});
    EXPECT_EQ(picture.basic(4, 3, 32768, 65536),
              (Rows{{25, 75, 125, 125}, {50, 100, 150, 150}, {50, 100, 150, 150}}));
}

TEST_P(Deinterlace, InterpolatesStillBlocksBetweenTwoLines) {
    const Scaled picture(lines(16, {0, 100, 40, 200, 80, 240}));
    const uint8_t still[1] = {0};
    EXPECT_EQ(first_column(picture.adaptive(16, 6, 65536, 65536, {still, 1, 0, 0})),
              (std::vector<int>{0, 100, 40, 200, 80, 240}));
    EXPECT_EQ(first_column(picture.adaptive(16, 4, 65536, 98304, {still, 1, 0, 0})),
              (std::vector<int>{0, 70, 200, 80}));  // the bottom is not interpolated
}

TEST_P(Deinterlace, BlendsCombedBlocksAsTheBasicOneDoes) {
    const Scaled picture(lines(16, {0, 100, 40, 200, 80, 240}));
    const uint8_t combed[1] = {1};
    EXPECT_EQ(picture.adaptive(16, 4, 65536, 98304, {combed, 1, 0, 0}), picture.basic(16, 4, 65536, 98304));
}

TEST_P(Deinterlace, TakesTheFlagOfEachGroupsFirstSample) {
    // Columns step by 1.5: groups of 8 start at source samples 0, 12 and 24, in macroblocks 0, 0 and 1.
    const Scaled picture(lines(48, {0, 100, 0, 100, 0, 100}));
    const uint8_t flags[3] = {0, 1, 0};
    const Rows out = picture.adaptive(32, 1, 98304, 65536, {flags, 3, 0, 0});
    for (unsigned x = 0; x < 32; ++x) EXPECT_EQ(out[0][x], x / 8 == 2 ? 50 : 0) << x;
}

TEST_P(Deinterlace, BringsChromaLinesAndColumnsToTheMapByItsShifts) {
    const Scaled picture(Rows(24, std::vector<int>(24, 0)));
    Rows comb(24, std::vector<int>(24, 0));
    for (size_t y = 1; y < comb.size(); y += 2) comb[y].assign(24, 100);
    const uint8_t flags[9] = {0, 0, 0, 0, 1, 0, 0, 0, 0};
    const Rows out = Scaled(comb).adaptive(24, 24, 65536, 65536, {flags, 3, 1, 1});
    for (unsigned y = 0; y < 23; ++y) {
        for (unsigned x = 0; x < 24; ++x) {
            const bool flagged = x / 8 == 1 && y / 8 == 1;
            ASSERT_EQ(out[y][x], flagged ? 50 : (y % 2) * 100) << x << ' ' << y;
        }
    }
}

/// 32 by 32 samples, every second line white.
Rows comb_of_32() {
    Rows comb(32, std::vector<int>(32, 0));
    for (size_t y = 1; y < comb.size(); y += 2) comb[y].assign(32, 100);
    return comb;
}

/// The groups of 8 by 8 samples of the picture above that `map` has blended, row by row.
std::string blended_groups(const MotionMap& map) {
    const Rows out = Scaled(comb_of_32()).adaptive(32, 32, 65536, 65536, map);
    std::string groups;
    for (unsigned y = 0; y < 32; y += 8) {
        for (unsigned x = 0; x < 32; x += 8) {
            const bool blended = out[y][x] == 50;
            // The last line has none below it to blend with.
            for (unsigned line = y; line < std::min(y + 8, 31u); ++line) {
                for (unsigned column = x; column < x + 8; ++column)
                    EXPECT_EQ(out[line][column], blended ? 50 : line % 2 * 100) << column << ' ' << line;
            }
            groups += blended ? '1' : '0';
        }
        groups += ' ';
    }
    return groups;
}

TEST_P(Deinterlace, ReadsOnPastTheEndOfAMapsRowAndBehindItsLast) {
    // With shifts of 1 the plane has four groups in a row and four rows of them, the map two columns.
    GuardedBytes flags(10, Edge::kBehind);
    std::memcpy(flags.data(), "\1\0\0\1\1\0\0\0\0\1", 10);
    EXPECT_EQ(blended_groups({flags.data(), 2, 1, 1}), "1001 0110 1000 0001 ");
}

TEST_P(Deinterlace, TakesAHostsMapByItsOwnRows) {
    // Five columns where the plane reads four, and more rows than the picture has.
    const uint8_t flags[] = "\0\0\0\1\1\1\0\0\0\1\0\1\0\0\1\0\0\1\0\1\1\1\1\1\1";
    EXPECT_EQ(blended_groups({flags, 5, 1, 1}), "0001 1000 0100 0010 ");
    EXPECT_EQ(blended_groups({flags, 0, 1, 1}), "0001 0001 0001 0001 ");
}

TEST_P(Deinterlace, WritesWholeGroupsOf8) {
    const Scaled picture({{10, 20, 30, 40, 50, 60, 70, 80, 90}});
    EXPECT_EQ(picture.adaptive(9, 1, 65536, 65536, {nullptr, 0, 0, 0}),
              (Rows{{10, 20, 30, 40, 50, 60, 70, 80, 90, 90, 90, 90, 90, 90, 90, 90}}));
}

TEST_P(Deinterlace, TakesAMissingMapForAStillPicture) {
    const Scaled picture(lines(16, {0, 100, 0, 100}));
    const uint8_t flags[1] = {1};
    EXPECT_EQ(first_column(picture.adaptive(16, 4, 65536, 65536, {nullptr, 1, 0, 0})),
              (std::vector<int>{0, 100, 0, 100}));
    EXPECT_EQ(first_column(picture.adaptive(16, 4, 65536, 65536, {flags, 1, 0, 0})),
              (std::vector<int>{50, 50, 50, 100}));
}

// ---- The motion map -----------------------------------------------------------------------------------

std::vector<int> map_of(const Rows& rows) {
    const std::vector<uint8_t> luma = packed(rows);
    const auto width = static_cast<unsigned>(rows[0].size()), height = static_cast<unsigned>(rows.size());
    std::vector<uint8_t> map(motion_map_size(width, height), kGuardByte);
    build_motion_map(map.data(), luma.data(), width, width, height);
    return {map.begin(), map.end()};
}

Rows combed(unsigned width, unsigned height, int odd) {
    Rows rows(height, std::vector<int>(width, 0));
    for (unsigned y = 1; y < height; y += 2) rows[y].assign(width, odd);
    return rows;
}

TEST_P(MotionMapOf, AFlatPictureFlagsOnlyTheLastColumnAndRow) {
    EXPECT_EQ(map_of(Rows(48, std::vector<int>(64, 77))),
              (std::vector<int>{0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1, 1}));
    EXPECT_EQ(map_of(Rows(33, std::vector<int>(33, 77))), (std::vector<int>{0, 0, 1, 0, 0, 1, 1, 1, 1}));
    EXPECT_EQ(map_of(Rows(1, std::vector<int>(1, 77))), (std::vector<int>{1}));
}

TEST_P(MotionMapOf, ACombedPictureIsFlaggedEverywhere) {
    EXPECT_EQ(map_of(combed(48, 48, 255)), std::vector<int>(9, 1));
}

TEST_P(MotionMapOf, ARangeOf17IsStillAndOf18Combed) {
    EXPECT_EQ(map_of(combed(32, 32, 17)), (std::vector<int>{0, 1, 1, 1}));
    EXPECT_EQ(map_of(combed(32, 32, 18)), (std::vector<int>{1, 1, 1, 1}));
}

/// The flag of a macroblock of `row`, out of a picture one macroblock wide. It is judged among copies of
/// itself: the vector forms judge some blocks together and some alone.
int flag_of(const Rows& rows, unsigned row) {
    constexpr unsigned kCopies = 7;
    Rows wide;
    for (const auto& line : rows) {
        wide.emplace_back();
        for (unsigned copy = 0; copy <= kCopies; ++copy) {
            wide.back().insert(wide.back().end(), line.begin(), line.end());
        }
    }
    const std::vector<int> map = map_of(wide);
    const int flag = map[row * (kCopies + 1)];
    for (unsigned copy = 1; copy < kCopies; ++copy) EXPECT_EQ(map[row * (kCopies + 1) + copy], flag) << copy;
    return flag;
}

TEST_P(MotionMapOf, ACombHasToOutweighTenTimesTheRange) {
    Rows rows(32, std::vector<int>(16, 0));
    for (unsigned y = 1; y < 18; y += 2) rows[y][3] = 100;  // one column: D1 = 1600, D2 = D3 = 0, t = 1000
    EXPECT_EQ(flag_of(rows, 0), 1);
    for (unsigned y = 1; y < 18; y += 2) rows[y][3] = 0;
    for (unsigned y = 1; y < 10; y += 2) rows[y][3] = 100;  // five lines: D1 = 1000 is not above t = 1000
    EXPECT_EQ(flag_of(rows, 0), 0);
    rows[11][3] = 1;  // D1 = 1002
    EXPECT_EQ(flag_of(rows, 0), 1);
}

TEST_P(MotionMapOf, ReadsTheTwoLinesBelowTheBlock) {
    // Still apart from line 16: only the pair 15 and 16 sees it, and the even field's 14 and 16.
    Rows rows(32, std::vector<int>(16, 0));
    rows[0][0] = 18;  // the range comes from the block's own lines
    rows[16].assign(16, 255);
    EXPECT_EQ(flag_of(rows, 0), 1);  // D1 = 18 + 4080, D3 = 0, t = 180
    rows[17].assign(16, 255);
    EXPECT_EQ(flag_of(rows, 0), 0);  // D3 = 4080 too
}

TEST_P(MotionMapOf, TakesTheLastLineForOneBelowThePicture) {
    // 33 lines: the block row above the last has line 32, its line 16, but no line 33.
    Rows rows(33, std::vector<int>(16, 0));
    rows[16][0] = 18;
    rows[32].assign(16, 255);
    EXPECT_EQ(flag_of(rows, 1), 0);  // lines 15 and 17 differ as 14 and 16 do
}

// ---- The mask -----------------------------------------------------------------------------------------

TEST(CpuMask, ReadsNumbersAndTakesEverythingElseForAll) {
    EXPECT_EQ(cpu_mask_from_text(nullptr), kAllCpuFeatures);
    EXPECT_EQ(cpu_mask_from_text(""), kAllCpuFeatures);
    EXPECT_EQ(cpu_mask_from_text("none"), kAllCpuFeatures);
    EXPECT_EQ(cpu_mask_from_text("3 "), kAllCpuFeatures);
    EXPECT_EQ(cpu_mask_from_text("18446744073709551616"), kAllCpuFeatures);
    EXPECT_EQ(cpu_mask_from_text("0"), 0u);
    EXPECT_EQ(cpu_mask_from_text("3"), unsigned{kCpuSse41 | kCpuAvx2});
    EXPECT_EQ(cpu_mask_from_text("0x7"), unsigned{kCpuSse41 | kCpuAvx2 | kCpuAvx512});
}

/// The processor's features as the kernel names them.
std::set<std::string> kernel_flags() {
    std::ifstream file("/proc/cpuinfo");
    std::set<std::string> flags;
    for (std::string line; flags.empty() && std::getline(file, line);) {
        if (!line.starts_with("flags")) continue;
        std::istringstream words(line.substr(line.find(':') + 1));
        flags.insert(std::istream_iterator<std::string>(words), {});
    }
    return flags;
}

TEST(CpuFeatures, AreThoseThatTheKernelNames) {
    const std::set<std::string> flags = kernel_flags();
    if (flags.empty()) GTEST_SKIP() << "no list of features";
    const auto has = [&](std::initializer_list<const char*> names) {
        return std::all_of(names.begin(), names.end(),
                           [&](const char* name) { return flags.contains(name); });
    };
    const unsigned expected = (has({"ssse3", "sse4_1"}) ? kCpuSse41 : 0u) | (has({"avx2"}) ? kCpuAvx2 : 0u) |
                              (has({"avx512f", "avx512bw", "avx512dq", "avx512vl"}) ? kCpuAvx512 : 0u) |
                              (has({"avx512vbmi"}) ? kCpuAvx512Vbmi : 0u);
    EXPECT_EQ(detected_cpu_features(), usable_cpu_features(expected));
}

TEST(CpuMask, EndsAtItsFirstGap) {
    EXPECT_EQ(usable_cpu_features(kCpuAvx2 | kCpuAvx512), 0u);
    EXPECT_EQ(usable_cpu_features(kCpuSse41 | kCpuAvx512), unsigned{kCpuSse41});
    EXPECT_EQ(usable_cpu_features(kAllCpuFeatures), kAllCpuFeatures);
}

TEST(CpuMask, ChoosesTheFastestFormThatItAllows) {
    for (const Form& form : kForms) {
        const bool available = (form.mask & ~detected_cpu_features()) == 0;
        if (available) {
            EXPECT_STREQ(dispatch::choose(form.mask).name, form.name);
        }
    }
    EXPECT_EQ(&dispatch::choose(kAllCpuFeatures), &dispatch::fastest(detected_cpu_features()));
}

// Run by the next test in a process of its own.
TEST(CpuMask, DISABLED_LoadedWithThePlainForm) { EXPECT_STREQ(plane_operations().name, "plain"); }

int run_loaded_with(const char* mask) {
    const pid_t child = fork();
    if (child == 0) {
        setenv("GSVE_CPU_MASK", mask, 1);
        if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(2);
        execl("/proc/self/exe", "plane", "--gtest_also_run_disabled_tests",
              "--gtest_filter=CpuMask.DISABLED_LoadedWithThePlainForm", static_cast<char*>(nullptr));
        _exit(2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(CpuMask, IsReadFromTheEnvironmentAtLoad) {
    EXPECT_EQ(run_loaded_with("0"), 0);
    EXPECT_EQ(run_loaded_with("1"), detected_cpu_features() == 0 ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(Plane, Scale, testing::ValuesIn(kForms), form_name);
INSTANTIATE_TEST_SUITE_P(Plane, ScaleDeathTest, testing::ValuesIn(kForms), form_name);
INSTANTIATE_TEST_SUITE_P(Plane, Deinterlace, testing::ValuesIn(kForms), form_name);
INSTANTIATE_TEST_SUITE_P(Plane, MotionMapOf, testing::ValuesIn(kForms), form_name);

}  // namespace
