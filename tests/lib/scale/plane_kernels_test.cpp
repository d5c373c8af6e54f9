// Every vector form of the plane operations gives the bytes of the plain one, and touches nothing else.

#include <cstdio>
#include <optional>
#include <set>

#include "plane_support.h"

namespace {

using namespace plane_test;

/// How often each row kernel of the form under test was entered.
struct Entries {
    unsigned long blend = 0, blend_three = 0, blend_adaptive = 0, interpolate = 0, interpolate_two = 0,
                  halve = 0, motion_row = 0;
};

Entries entries;

/// The row kernels of `kKernels`, counted: what the test compares has then run, and is not the plain form.
template <const RowKernels& kKernels>
inline constexpr RowKernels kCounted = {
    .name = kKernels.name,
    .dense = kKernels.dense,
    .sparse = kKernels.sparse,
    .blend =
        [](auto... a) {
            ++entries.blend;
            kKernels.blend(a...);
        },
    .blend_three =
        [](auto... a) {
            ++entries.blend_three;
            kKernels.blend_three(a...);
        },
    .blend_adaptive =
        [](auto... a) {
            ++entries.blend_adaptive;
            kKernels.blend_adaptive(a...);
        },
    .interpolate =
        [](uint8_t* out, const uint8_t* row, size_t n, const GatherPlan& plan, NextLines next) {
            ++entries.interpolate;
            kKernels.interpolate(out, row, n, plan, next);
        },
    .interpolate_two =
        [](const RowPair& rows, size_t n, const GatherPlan& plan) {
            ++entries.interpolate_two;
            kKernels.interpolate_two(rows, n, plan);
        },
    .halve =
        [](uint8_t* out, const uint8_t* a, const uint8_t* b, unsigned weight, size_t n,
           const HalvingPlan& plan, const NextLines& next) {
            ++entries.halve;
            kKernels.halve(out, a, b, weight, n, plan, next);
        },
    .halved = kKernels.halved,
    .motion_row =
        [](uint8_t* flags, const uint8_t* const (&lines)[plain::kMotionLines], size_t blocks) {
            ++entries.motion_row;
            kKernels.motion_row(flags, lines, blocks);
        },
};

const RowKernels& counted(const std::string& name) {
    static constexpr const RowKernels* kAll[] = {&kCounted<sse41::kRowKernels>, &kCounted<avx2::kRowKernels>,
                                                 &kCounted<avx512::kRowKernels>,
                                                 &kCounted<vbmi::kRowKernels>};
    for (const RowKernels* kernels : kAll) {
        if (name == kernels->name) return *kernels;
    }
    throw std::logic_error("no row kernels named " + name);
}

using Random = std::mt19937;

unsigned between(Random& random, unsigned low, unsigned high) {
    return std::uniform_int_distribution<unsigned>(low, high)(random);
}

/// A step from `from` to `to` samples as one of the geometries gives it, or any other.
unsigned random_step(Random& random, unsigned from, unsigned to) {
    switch (random() % 8) {
        case 0: return 65536;
        case 1: return between(random, 0, 6 * 65536);
        case 2: return static_cast<unsigned>(random());
        case 3:
        case 4: return to > 1 ? ((from - 1) << 16) / (to - 1) : 65536;
        case 5: return between(random, 1, 3) << (14 + random() % 4);
        case 6: return 2 * 65536 - 3 + random() % 7;
        default: return (from << 16) / to;
    }
}

struct Sizes {
    unsigned src_width, src_height, to_width, to_height;
};

/// Every third size halves the width, or nearly.
Sizes random_sizes(Random& random) {
    const unsigned to_width = between(random, 1, 300);
    const unsigned src_width = random() % 3 == 0 ? 2 * to_width + random() % 3 : between(random, 1, 300);
    return {src_width, between(random, 1, 300), to_width, between(random, 1, 300)};
}

/// Sizes around the kernels' own: vectors, windows, rounds, strips and the scaler's widest row.
constexpr Sizes kChosen[] = {
    {4095, 9, 4096, 12}, {4095, 9, 1365, 6}, {4095, 5, 2049, 4}, {2048, 9, 2048, 9}, {2049, 7, 4097, 9},
    {1920, 6, 1280, 4},  {1280, 4, 1920, 6}, {3840, 8, 1920, 4}, {1920, 8, 960, 4},  {3840, 20, 720, 9},
    {16, 16, 64, 31},    {17, 17, 33, 31},   {15, 3, 15, 3},     {31, 4, 31, 8},     {32, 4, 63, 8},
    {63, 4, 32, 8},      {64, 4, 65, 8},     {127, 2, 128, 3},   {128, 1, 127, 2},   {129, 2, 64, 1},
    {1, 1, 300, 300},    {300, 300, 1, 1},   {2, 2, 3, 3},       {8, 2, 4096, 2},    {4095, 2, 8, 2},
};

/// More than a straight strip, for the deinterlacers, which have no width limit.
constexpr Sizes kWide[] = {
    {3000, 4, 2052, 5}, {9001, 4, 9001, 4}, {9001, 4, 9003, 3}, {8192, 4, 8192, 4}, {70000, 2, 8200, 3}};

/// One scaling, carried out by `under_test` and by the plain form on planes of the same layout.
template <typename UnderTest, typename Plain>
void compare(Random& random, const Sizes& sizes, unsigned extra, UnderTest under_test, Plain plain_form) {
    const Edge edge = random() % 2 == 0 ? Edge::kBefore : Edge::kBehind;
    const size_t src_stride = sizes.src_width + (random() % 2 == 0 ? 0 : between(random, 1, 70));
    // Every fourth destination has no room of its own for what is written beyond its width.
    const size_t room = extra != 0 && random() % 4 == 0 ? 0 : extra;
    const size_t dst_stride = sizes.to_width + room + (random() % 2 == 0 ? 0 : between(random, 1, 70));
    Plane source(sizes.src_width, sizes.src_height, src_stride, edge);
    Plane actual(sizes.to_width, sizes.to_height, dst_stride, edge, extra);
    Plane expected(sizes.to_width, sizes.to_height, dst_stride, edge, extra);
    source.fill(random);
    const std::vector<uint8_t> before = source.bytes();

    PlaneScaling plane{actual.data(),
                       dst_stride,
                       source.data(),
                       src_stride,
                       sizes.to_width,
                       sizes.to_height,
                       random_step(random, sizes.src_width, sizes.to_width),
                       random_step(random, sizes.src_height, sizes.to_height),
                       sizes.src_width,
                       sizes.src_height};
    under_test(plane);
    plane.dst = expected.data();
    plain_form(plane);

    EXPECT_TRUE(actual.bytes() == expected.bytes())
        << sizes.src_width << 'x' << sizes.src_height << " to " << sizes.to_width << 'x' << sizes.to_height
        << ", steps " << plane.x_step << ' ' << plane.y_step;
    EXPECT_TRUE(actual.guard_bytes_survive());
    EXPECT_TRUE(source.bytes() == before);
}

/// The random and the chosen sizes.
template <typename Body>
void for_all_sizes(Random& random, int count, bool wide, Body body) {
    for (int i = 0; i < count && !testing::Test::HasFailure(); ++i) body(random_sizes(random));
    for (const Sizes& sizes : kWide) {
        for (int i = 0; wide && i < 4 && !testing::Test::HasFailure(); ++i) body(sizes);
    }
    for (int i = 0; i < 4; ++i) {
        for (const Sizes& sizes : kChosen) {
            if (!testing::Test::HasFailure()) body(sizes);
        }
    }
}

unsigned group_room(const Sizes& sizes) {
    return static_cast<unsigned>(whole_groups(sizes.to_width)) - sizes.to_width;
}

class VectorForm : public EveryForm {
protected:
    void SetUp() override {
        EveryForm::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        entries = {};
        kernels_ = &counted(GetParam().name);
    }

    const RowKernels* kernels_ = nullptr;
    Random random_{20240607};
};

TEST_P(VectorForm, ScalesAsThePlainOne) {
    for_all_sizes(random_, 250, false, [&](const Sizes& sizes) {
        const int mode = static_cast<int>(random_() % 6) - 1, field = static_cast<int>(random_() % 3) - 1;
        compare(
            random_, sizes, 0,
            [&](const PlaneScaling& plane) { rows::scale(*kernels_, plane, mode, field, "scale"); },
            [&](const PlaneScaling& plane) { plain::scale(plane, mode, field, "scale"); });
    });
    EXPECT_GT(entries.blend, 1000u);
    EXPECT_GT(entries.interpolate, 50u);  // last rows of odd heights
    EXPECT_GT(entries.interpolate_two, 1000u);
}

TEST_P(VectorForm, DeinterlacesAsThePlainOne) {
    for_all_sizes(random_, 200, true, [&](const Sizes& sizes) {
        compare(
            random_, sizes, 0, [&](const PlaneScaling& plane) { rows::deinterlace_basic(*kernels_, plane); },
            [&](const PlaneScaling& plane) { plain::deinterlace_basic(plane); });
    });
    EXPECT_GT(entries.blend_three, 1000u);
    EXPECT_GT(entries.interpolate, 1000u);
}

TEST_P(VectorForm, DeinterlacesByTheMapAsThePlainOne) {
    for_all_sizes(random_, 200, true, [&](const Sizes& sizes) {
        const auto shift_x = static_cast<uint8_t>(random_() % 3),
                   shift_y = static_cast<uint8_t>(random_() % 3);
        const unsigned cols =
            std::min(macroblocks(uint64_t{sizes.src_width} << (random_() % 3)), 80u) - random_() % 2;
        std::optional<GuardedBytes> flags;  // ends where the plane's reach does
        MotionMap map{nullptr, cols, shift_x, shift_y};
        compare(
            random_, sizes, group_room(sizes),
            [&](const PlaneScaling& plane) {
                flags.emplace(map_reach(map, {plane.to_width, plane.to_height, plane.x_step, plane.y_step,
                                              plane.src_width, plane.src_height}),
                              Edge::kBehind);
                for (size_t i = 0; i < flags->size(); ++i) flags->data()[i] = random_() % 3 == 0 ? 1 : 0;
                map.flags = flags->data();
                rows::deinterlace_adaptive(*kernels_, plane, map);
            },
            [&](const PlaneScaling& plane) { plain::deinterlace_adaptive(plane, map); });
    });
    EXPECT_GT(entries.blend_adaptive, 1000u);
    EXPECT_GT(entries.interpolate, 1000u);
}

/// A picture whose macroblocks lie on both sides of the motion threshold.
void draw_motion(Plane& plane, unsigned width, unsigned height, Random& random) {
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            const unsigned block = (x / 16) * 7 + (y / 16) * 13;
            const unsigned comb = block % 4 == 0 ? (y & 1) * (block % 61) : 0;
            plane.at(x, y) = static_cast<uint8_t>(40 + comb + random() % (1 + block % 23));
        }
    }
}

TEST_P(VectorForm, TakesEverySampleIntoTheRangeOfItsMacroblock) {
    // Lines that comb by 10, which is no range to speak of: what one sample adds to it makes motion of it.
    constexpr unsigned kWidth = 16 * 18, kHeight = 33;
    for (const uint8_t odd_one : {uint8_t{90}, uint8_t{120}, uint8_t{105}}) {
        for (unsigned place = 0; place < 16 * 16; ++place) {
            Plane luma(kWidth, kHeight, kWidth, Edge::kBehind);
            for (unsigned y = 0; y < kHeight; ++y)
                for (unsigned x = 0; x < kWidth; ++x) luma.at(x, y) = y % 2 ? 110 : 100;
            const unsigned block = place % 17;
            luma.at(block * 16 + place % 16, place / 16) = odd_one;
            GuardedBytes map(motion_map_size(kWidth, kHeight), Edge::kBehind);
            rows::motion_map(*kernels_, map.data(), luma.data(), luma.stride(), kWidth, kHeight);
            for (unsigned other = 0; other < 17; ++other)
                ASSERT_EQ(map.data()[other], other == block && odd_one != 105)
                    << "sample " << place << " of block " << other << ": " << int{odd_one};
        }
    }
}

TEST_P(VectorForm, MapsMotionAsThePlainOne) {
    size_t combed = 0, still = 0;
    for (int i = 0; i < 200; ++i) {
        const unsigned width = i < 4 ? 4000u + static_cast<unsigned>(i) : between(random_, 1, 400);
        const unsigned height = between(random_, 1, 120);
        Plane luma(width, height, width + (i % 2 == 0 ? 0 : between(random_, 1, 70)), Edge::kBehind);
        if (i % 3 == 0)
            luma.fill(random_);
        else
            draw_motion(luma, width, height, random_);
        const std::vector<uint8_t> before = luma.bytes();
        GuardedBytes actual(motion_map_size(width, height), Edge::kBehind);
        GuardedBytes expected(motion_map_size(width, height), Edge::kBehind);
        std::memset(actual.data(), kGuardByte, actual.size());
        rows::motion_map(*kernels_, actual.data(), luma.data(), luma.stride(), width, height);
        plain::motion_map(expected.data(), luma.data(), luma.stride(), width, height);
        ASSERT_EQ(std::memcmp(actual.data(), expected.data(), actual.size()), 0) << width << 'x' << height;
        EXPECT_TRUE(luma.bytes() == before);
        const auto flagged = static_cast<size_t>(std::count(actual.data(), actual.data() + actual.size(), 1));
        combed += flagged;
        still += actual.size() - flagged;
    }
    EXPECT_GT(entries.motion_row, 100u);
    EXPECT_GT(combed, 1000u);
    EXPECT_GT(still, 1000u);
}

TEST_P(VectorForm, BlendsEveryPairOfSamplesWithEveryWeight) {
    std::vector<uint8_t> a(65536), b(65536), c(65536), out(65536), flags(65536 / 8);
    for (unsigned i = 0; i < 65536; ++i) {
        a[i] = static_cast<uint8_t>(i);
        b[i] = static_cast<uint8_t>(i >> 8);
        c[i] = static_cast<uint8_t>((i * 40503) >> 8);
        flags[i / 8] = i / 8 % 3 == 0 ? 0xff : 0;
    }
    for (unsigned weight = 0; weight < 256; ++weight) {
        const int w = static_cast<int>(weight);
        size_t wrong = 0;
        if (weight != 0) {
            kernels_->blend(out.data(), a.data(), b.data(), out.size(), weight);
            for (size_t i = 0; i < out.size(); ++i) wrong += out[i] != plain::blend_lines(a[i], b[i], w);
        }
        kernels_->blend_three(out.data(), a.data(), b.data(), c.data(), out.size(), weight);
        for (size_t i = 0; i < out.size(); ++i)
            wrong += out[i] != plain::blend_three_lines(a[i], b[i], c[i], w);
        kernels_->blend_adaptive(out.data(), a.data(), b.data(), c.data(), out.size(), weight, flags.data());
        for (size_t i = 0; i < out.size(); ++i) {
            wrong += out[i] != (flags[i / 8] != 0 ? plain::blend_three_lines(a[i], b[i], c[i], w)
                                                  : plain::blend_lines(a[i], b[i], w));
        }
        ASSERT_EQ(wrong, 0u) << "weight " << weight;
    }
}

TEST_P(VectorForm, InterpolatesEveryFraction) {
    // A step of one sample and 1/65536: output i lies i/65536 behind sample i, so that 65536 outputs see each
    // fraction once. The samples alternate between two values, for each of the chosen differences.
    constexpr unsigned kColumns = 65536;
    std::vector<uint8_t> row(kColumns + 2), actual(kColumns), expected(kColumns);
    for (const int other : {0, 1, 2, 127, 128, 129, 200, 254, 255}) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = static_cast<uint8_t>(i % 2 == 0 ? 255 : other);
        PlaneScaling plane{actual.data(),
                           kColumns,
                           row.data(),
                           row.size(),
                           kColumns,
                           1,
                           65537,
                           65536,
                           static_cast<unsigned>(row.size()),
                           1};
        rows::deinterlace_basic(*kernels_, plane);
        plane.dst = expected.data();
        plain::deinterlace_basic(plane);
        ASSERT_TRUE(actual == expected) << other;
    }
}

TEST_P(VectorForm, HalvesTheWidthWithEveryWeightAndFraction) {
    Random random(3);
    entries = {};
    // Row r lies r/256 behind its line; a step 1/65536 off two samples lets fractions rise or fall by one.
    const unsigned src_width = 4094;
    std::vector<uint8_t> source(3 * src_width), actual(256 * (src_width / 2)), expected(actual.size());
    for (uint8_t& sample : source) sample = random() % 4 == 0 ? random() % 2 * 255 : random();
    PlaneScaling plane{actual.data(), src_width / 2, source.data(), src_width, src_width / 2,
                       256,           131072,        256,           src_width, 3};
    for (const unsigned x_step : {131072u, 131073u, ((src_width - 1) << 16) / (src_width / 2 - 1)}) {
        plane.x_step = x_step;
        plane.dst = actual.data();
        rows::scale(*kernels_, plane, 0, -1, "f");
        plane.dst = expected.data();
        plain::scale(plane, 0, -1, "f");
        ASSERT_TRUE(actual == expected) << x_step;
    }
    EXPECT_EQ(entries.halve, 3 * 256u);

    constexpr unsigned kColumns = 65536;
    std::vector<uint8_t> row(2 * kColumns + 2), out(kColumns), wanted(kColumns);
    for (const int other : {0, 1, 2, 127, 128, 129, 200, 254, 255}) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = static_cast<uint8_t>(i % 2 == 0 ? 255 : other);
        for (const unsigned x_step : {131071u, 131073u}) {
            const auto width = static_cast<unsigned>(row.size());
            PlaneScaling line{out.data(), kColumns, row.data(), width, kColumns, 1, x_step, 65536, width, 1};
            entries = {};
            rows::deinterlace_basic(*kernels_, line);
            EXPECT_GE(entries.halve, 31u);
            line.dst = wanted.data();
            plain::deinterlace_basic(line);
            ASSERT_TRUE(out == wanted) << x_step << ", other sample " << other;
        }
    }
}

TEST_P(VectorForm, WalksAsThePlainOneInStepsOfAnyLength) {
    // From 0xffff0000 on, a step and a fraction may not fit 32 bits: the walk then falls back.
    for (const unsigned x_step : {0u, 1u, 65535u, 65537u, 0x7fffffffu, 0xfffeffffu, 0xffff0000u, 0xffff0001u,
                                  0xffff8000u, 0xffffffffu}) {
        for (const unsigned src_width : {1u, 2u, 300u, 65536u, 70000u, 140000u}) {
            constexpr unsigned kColumns = 200;
            std::vector<uint8_t> row(src_width), actual(kColumns), expected(kColumns);
            for (uint8_t& sample : row) sample = static_cast<uint8_t>(random_());
            PlaneScaling line{actual.data(), kColumns, row.data(), src_width, kColumns, 1,
                              x_step,        65536,    src_width,  1};
            rows::deinterlace_basic(*kernels_, line);
            line.dst = expected.data();
            plain::deinterlace_basic(line);
            ASSERT_EQ(actual, expected) << "step " << x_step << ", " << src_width << " samples";
        }
    }
}

TEST_P(VectorForm, ReadsOverlappingSourceRowsNoFurtherThanThePlainOne) {
    // Rows of 128 samples, 100 bytes apart, of which 77 are taken; nothing may be read behind the plane.
    constexpr unsigned kColumns = 50, kRows = 4, kSrcWidth = 128, kSrcStride = 100;
    GuardedBytes source(size_t{kSrcStride} * kRows, Edge::kBehind);
    for (size_t i = 0; i < source.size(); ++i) source.data()[i] = static_cast<uint8_t>(random_());
    std::vector<uint8_t> actual(kColumns * kRows), expected(actual.size());
    PlaneScaling plane{actual.data(), kColumns, source.data(), kSrcStride, kColumns,
                       kRows,         100000,   65536,         kSrcWidth,  kRows};
    const MotionMap still{nullptr, 0, 0, 0};
    const auto compare_both = [&](auto under_test, auto plain_form) {
        plane.dst = actual.data();
        under_test();
        plane.dst = expected.data();
        plain_form();
        EXPECT_EQ(actual, expected);
    };
    compare_both([&] { rows::scale(*kernels_, plane, 2, -1, "f"); },
                 [&] { plain::scale(plane, 2, -1, "f"); });
    compare_both([&] { rows::deinterlace_basic(*kernels_, plane); },
                 [&] { plain::deinterlace_basic(plane); });
    plane.to_width = plane.dst_stride = 48;  // whole groups
    compare_both([&] { rows::deinterlace_adaptive(*kernels_, plane, still); },
                 [&] { plain::deinterlace_adaptive(plane, still); });
}

TEST_P(VectorForm, TellsPairsSideBySideFromPairsThatFitAWindow) {
    static HorizontalPlan plan;
    const auto lay_out = [&](unsigned count, unsigned x_step, unsigned src_width) -> const HorizontalPlan& {
        SampleWalk walk;
        rows::lay_out(plan, *kernels_, walk, count, x_step, src_width);
        return plan;
    };
    const auto halves = [&](unsigned count, unsigned x_step, unsigned src_width) {
        return std::holds_alternative<HalvingPlan>(lay_out(count, x_step, src_width));
    };
    const auto spread = [&](unsigned count, unsigned x_step, unsigned src_width) {
        return std::get<GatherPlan>(lay_out(count, x_step, src_width)).spread;
    };
    EXPECT_TRUE(halves(960, 131072, 1920));
    EXPECT_TRUE(halves(960, (1919 << 16) / 959, 1920));  // falls short of the last sample
    EXPECT_EQ(spread(960, 131072, 1919), Spread::kOne);  // the last pair has no right sample
    EXPECT_EQ(spread(960, 131071, 1920), Spread::kOne);  // all but the first lie one to the left
    EXPECT_FALSE(halves(960, 98304, 1920));
}

INSTANTIATE_TEST_SUITE_P(PlaneKernels, VectorForm, testing::ValuesIn(kForms + 1, std::end(kForms)),
                         form_name);

TEST(PlaneKernels, AreDistinctPerInstructionSet) {
    std::set<decltype(RowKernels::blend)> blends;
    std::set<decltype(RowKernels::blend_three)> triples;
    std::set<decltype(RowKernels::blend_adaptive)> adaptive;
    std::set<decltype(RowKernels::interpolate)> gathers;
    std::set<decltype(RowKernels::halve)> halvings;
    std::set<decltype(RowKernels::motion_row)> maps;
    for (const RowKernels* set :
         {&sse41::kRowKernels, &avx2::kRowKernels, &avx512::kRowKernels, &vbmi::kRowKernels}) {
        blends.insert(set->blend);
        triples.insert(set->blend_three);
        adaptive.insert(set->blend_adaptive);
        gathers.insert(set->interpolate);
        halvings.insert(set->halve);
        maps.insert(set->motion_row);
    }
    EXPECT_EQ(blends.size(), 4u);
    EXPECT_EQ(triples.size(), 4u);
    EXPECT_EQ(adaptive.size(), 4u);
    EXPECT_EQ(gathers.size(), 3u);  // AVX-512 gains nothing over AVX2's before VBMI
    EXPECT_EQ(halvings.size(), 3u);
    EXPECT_EQ(maps.size(), 3u);  // VBMI has nothing to add to AVX-512's
}

}  // namespace
