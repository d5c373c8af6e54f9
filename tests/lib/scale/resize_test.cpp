// Whole pictures through the encoder's resizing operations: which planes they scale, with which sizes, steps
// and shifts, for every pair of chroma formats; and what deinterlacing does to a real film whose fields were
// woven.

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "support/film_clip.h"
#include "support/recording_host.h"

namespace {

bool g_array_allocations_fail = false;

}  // namespace

// The motion map is the one array that the resizers allocate.
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return g_array_allocations_fail ? nullptr : std::malloc(size);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

namespace gsve::test {
namespace {

using Plane = std::vector<uint8_t>;

/// The arguments of one call of a per-plane operation, memory aside.
struct PlaneCall {
    int slot;
    int plane;  ///< which working plane it writes
    unsigned to_width, to_height, x_step, y_step, src_width, src_height;
    int field;
    unsigned mb_cols = 0, shift_x = 0, shift_y = 0;

    bool operator==(const PlaneCall&) const = default;
};

std::ostream& operator<<(std::ostream& out, const PlaneCall& c) {
    return out << "slot " << c.slot << " plane " << c.plane << " to " << c.to_width << "x" << c.to_height
               << " step " << c.x_step << "," << c.y_step << " from " << c.src_width << "x" << c.src_height
               << " field " << c.field << " map " << c.mb_cols << " shifts " << c.shift_x << "," << c.shift_y;
}

/// A host that overrides the per-plane operations to write down their arguments.
class Resizer : public GeneralStreamingVideoEncoder {
public:
    void do_resize_yuv_plane(uint8_t* d, size_t ds, const uint8_t* s, size_t ss, unsigned tw, unsigned th,
                             unsigned xs, unsigned ys, unsigned sw, unsigned sh, int field) override {
        calls.push_back({13, plane_of(d), tw, th, xs, ys, sw, sh, field});
        GeneralStreamingVideoEncoder::do_resize_yuv_plane(d, ds, s, ss, tw, th, xs, ys, sw, sh, field);
    }
    void do_resize_yuv_plane_deinterlace_basic_mode3(uint8_t* d, size_t ds, const uint8_t* s, size_t ss,
                                                     unsigned tw, unsigned th, unsigned xs, unsigned ys,
                                                     unsigned sw, unsigned sh, int field) override {
        calls.push_back({15, plane_of(d), tw, th, xs, ys, sw, sh, field});
        GeneralStreamingVideoEncoder::do_resize_yuv_plane_deinterlace_basic_mode3(d, ds, s, ss, tw, th, xs,
                                                                                  ys, sw, sh, field);
    }
    void do_resize_yuv_plane_deinterlace_adaptive_mode4(uint8_t* d, size_t ds, const uint8_t* s, size_t ss,
                                                        unsigned tw, unsigned th, unsigned xs, unsigned ys,
                                                        unsigned sw, unsigned sh, int field, uint8_t* map,
                                                        unsigned mb_cols, uint8_t shift_x,
                                                        uint8_t shift_y) override {
        calls.push_back({17, plane_of(d), tw, th, xs, ys, sw, sh, field, mb_cols, shift_x, shift_y});
        if (plane_of(d) == 0) motion_map.assign(map, map + mb_cols * ((sh + 15) / 16));
        GeneralStreamingVideoEncoder::do_resize_yuv_plane_deinterlace_adaptive_mode4(
            d, ds, s, ss, tw, th, xs, ys, sw, sh, field, map, mb_cols, shift_x, shift_y);
    }

    /// Working planes as opening the codec makes them, for an output of this size and format.
    void make_working_planes(int width, int height, unsigned shift_x, unsigned shift_y) {
        output_width = width;
        output_height = height;
        output_chroma_shift_x = shift_x;
        output_chroma_shift_y = shift_y;
        for (int plane = 0; plane < 3; plane++) {
            const unsigned plane_width = static_cast<unsigned>(width) >> (plane ? shift_x : 0);
            resize_buffer_stride[plane] = (plane_width + 15) & ~15u;
            const size_t size = resize_buffer_stride[plane] * (static_cast<size_t>(height) + 16);
            std::free(resize_buffer[plane]);
            resize_buffer[plane] = static_cast<uint8_t*>(std::malloc(size));
            std::fill_n(resize_buffer[plane], size, 0xEE);
        }
    }

    /// The `width` by `height` samples of a working plane.
    Plane working_plane(int plane, unsigned width, unsigned height) const {
        Plane samples;
        for (unsigned row = 0; row < height; row++) {
            const uint8_t* line = resize_buffer[plane] + row * resize_buffer_stride[plane];
            samples.insert(samples.end(), line, line + width);
        }
        return samples;
    }

    std::vector<PlaneCall> calls;
    Plane motion_map;  ///< of the last picture that the adaptive mode took

private:
    int plane_of(const uint8_t* d) const {
        for (int plane = 0; plane < 3; plane++)
            if (d == resize_buffer[plane]) return plane;
        return -1;
    }
};

struct Picture {
    unsigned width, height, chroma_width, chroma_height;
    Plane planes[3];
};

Picture random_picture(unsigned width, unsigned height, unsigned shift_x, unsigned shift_y) {
    std::mt19937 random(width * 31 + height);
    Picture p = {width, height, width >> shift_x, height >> shift_y, {}};
    for (int i = 0; i < 3; i++) {
        p.planes[i].resize(i ? size_t{p.chroma_width} * p.chroma_height : size_t{width} * height);
        for (uint8_t& sample : p.planes[i]) sample = static_cast<uint8_t>(random());
    }
    return p;
}

using WholePicture = void (GeneralStreamingVideoEncoder::*)(const uint8_t*, size_t, const uint8_t*, size_t,
                                                            const uint8_t*, size_t, unsigned, unsigned, int);

void run(Resizer& resizer, WholePicture operation, const Picture& p, int field) {
    (resizer.*operation)(p.planes[0].data(), p.width, p.planes[1].data(), p.chroma_width, p.planes[2].data(),
                         p.chroma_width, p.width, p.height, field);
}

constexpr WholePicture kPlain = &GeneralStreamingVideoEncoder::resize_input_to_output;
constexpr WholePicture kBasic = &GeneralStreamingVideoEncoder::resize_input_to_output_deinterlace_basic_mode3;
constexpr WholePicture kAdaptive =
    &GeneralStreamingVideoEncoder::resize_input_to_output_deinterlace_adaptive_mode4;

struct Shifts {
    unsigned x, y;
};
constexpr Shifts kSourceShifts[] = {{0, 0}, {1, 0}, {1, 1}, {2, 0}, {2, 1}};
constexpr Shifts kOutputShifts[] = {{0, 0}, {1, 0}, {1, 1}};

/// The plain scaler's whole picture, progressive, worked out sample by sample.
Plane scaled(const Plane& source, unsigned sw, unsigned sh, unsigned tw, unsigned th, uint32_t xs,
             uint32_t ys) {
    Plane out;
    for (uint32_t row = 0; row < th; row++) {
        const uint32_t pos = row * ys;
        const uint32_t y = pos >> 16;
        const int w = static_cast<int>(pos >> 8 & 255);
        const uint8_t* a = &source[size_t{std::min(y, sh - 1)} * sw];
        const uint8_t* b = &source[size_t{std::min(y + 1, sh - 1)} * sw];
        const auto blended = [&](uint64_t x) {
            const uint64_t column = std::min<uint64_t>(x, sw - 1);
            return y >= sh - 1 ? a[column] : a[column] + (((b[column] - a[column]) * w) >> 8);
        };
        uint64_t position = 0;
        for (unsigned column = 0; column < tw; column++, position += xs) {
            const int left = blended(position >> 16);
            const int right = blended((position >> 16) + 1);
            out.push_back(
                static_cast<uint8_t>(left + (((right - left) * static_cast<int>(position & 65535)) >> 16)));
        }
    }
    return out;
}

/// The adaptive mode's plane, worked out sample by sample. Behind its end every byte of the map is 1.
Plane deinterlaced_by(const Plane& map, const Plane& source, const PlaneCall& c) {
    Plane out;
    const unsigned last = c.src_height - 1;
    for (uint32_t row = 0; row < c.to_height; row++) {
        const uint32_t pos = row * c.y_step;
        const uint32_t y = pos >> 16;
        const int w = y + 2 < last ? static_cast<int>(pos >> 8 & 255) : 0;
        const auto line = [&](uint32_t number, uint64_t position) {
            const uint8_t* samples = &source[size_t{std::min(number, last)} * c.src_width];
            const auto sample = [&](uint64_t x) -> uint64_t {
                return samples[std::min<uint64_t>(x, c.src_width - 1)];
            };
            const uint64_t fraction = position & 65535;
            return static_cast<int>(
                (sample(position >> 16) * (65536 - fraction) + sample((position >> 16) + 1) * fraction) >>
                16);
        };
        bool combed = false;
        for (uint64_t column = 0; column < c.to_width; column++) {
            const uint64_t position = column * c.x_step;
            if (column % 8 == 0) {
                const size_t index =
                    size_t{y >> (4 - c.shift_y)} * c.mb_cols + ((position >> 16) >> (4 - c.shift_x));
                combed = index >= map.size() || map[index] != 0;
            }
            const int above = line(y, position), here = line(y + 1, position), below = line(y + 2, position);
            out.push_back(static_cast<uint8_t>(combed ? (above * (256 - w) + below * w + here * 256) / 512
                                                      : (above * (256 - w) + here * w) / 256));
        }
    }
    return out;
}

class EveryChromaPair : public testing::TestWithParam<std::tuple<Shifts, Shifts>> {
protected:
    static constexpr unsigned kWidth = 72, kHeight = 46;
    static constexpr int kOutputWidth = 50, kOutputHeight = 62;
    const Shifts in = std::get<0>(GetParam());
    const Shifts out = std::get<1>(GetParam());
    const Picture source = random_picture(kWidth, kHeight, in.x, in.y);

    void prepare(Resizer& resizer) const {
        resizer.input_chroma_shift_x = in.x;
        resizer.input_chroma_shift_y = in.y;
        resizer.make_working_planes(kOutputWidth, kOutputHeight, out.x, out.y);
    }
};

TEST_P(EveryChromaPair, IsScaledWithEndPointsAligned) {
    Resizer resizer;
    prepare(resizer);
    resizer.resize_deinterlace = 2;
    run(resizer, kPlain, source, -1);

    const auto step = [](uint64_t from, uint64_t to, unsigned from_shift, unsigned to_shift) {
        return static_cast<uint32_t>(((from - 1) << (16 + to_shift)) / ((to - 1) << from_shift));
    };
    const PlaneCall luma = {
        13, 0, kOutputWidth, kOutputHeight, step(72, 50, 0, 0), step(46, 62, 0, 0), kWidth, kHeight, -1};
    PlaneCall chroma = {13,
                        1,
                        50u >> out.x,
                        62u >> out.y,
                        step(72, 50, in.x, out.x),
                        step(46, 62, in.y, out.y),
                        72u >> in.x,
                        46u >> in.y,
                        -1};
    ASSERT_EQ(resizer.calls.size(), 3u);
    EXPECT_EQ(resizer.calls[0], luma);
    EXPECT_EQ(resizer.calls[1], chroma);
    chroma.plane = 2;
    EXPECT_EQ(resizer.calls[2], chroma);
    for (const PlaneCall& c : resizer.calls)
        EXPECT_EQ(resizer.working_plane(c.plane, c.to_width, c.to_height),
                  scaled(source.planes[c.plane], c.src_width, c.src_height, c.to_width, c.to_height, c.x_step,
                         c.y_step))
            << "plane " << c.plane;
}

TEST_P(EveryChromaPair, IsDeinterlacedWithCellsAligned) {
    const auto step = [](uint64_t from, uint64_t to, unsigned from_shift, unsigned to_shift) {
        return static_cast<uint32_t>((from << (16 + to_shift)) / (to << from_shift));
    };
    for (const auto& [operation, slot] : {std::pair{kBasic, 15}, {kAdaptive, 17}}) {
        Resizer resizer;
        prepare(resizer);
        run(resizer, operation, source, 1);
        const bool adaptive = slot == 17;
        const unsigned mb_cols = adaptive ? (kWidth + 15) / 16 : 0;
        const PlaneCall luma = {
            slot,    0, kOutputWidth, kOutputHeight, step(72, 50, 0, 0), step(46, 62, 0, 0), kWidth,
            kHeight, 1, mb_cols};
        PlaneCall chroma = {slot,
                            1,
                            50u >> out.x,
                            62u >> out.y,
                            step(72, 50, in.x, out.x),
                            step(46, 62, in.y, out.y),
                            72u >> in.x,
                            46u >> in.y,
                            1,
                            mb_cols,
                            adaptive ? out.x : 0,
                            adaptive ? out.y : 0};
        ASSERT_EQ(resizer.calls.size(), 3u);
        EXPECT_EQ(resizer.calls[0], luma);
        EXPECT_EQ(resizer.calls[1], chroma);
        chroma.plane = 2;
        EXPECT_EQ(resizer.calls[2], chroma);
    }
}

TEST_P(EveryChromaPair, IsDeinterlacedByTheMapsBlocksAndAsCombedBehindThem) {
    // Of five by three blocks every second one stands still; the last column and row count as combed.
    Picture picture = source;
    for (unsigned y = 0; y < kHeight; y++)
        for (unsigned x = 0; x < kWidth; x++)
            picture.planes[0][y * kWidth + x] =
                static_cast<uint8_t>((x / 16 + y / 16) % 2 == 0 ? x : y % 2 * 100);
    for (const unsigned to_width : {50u, 72u, 120u}) {
        Resizer resizer;
        resizer.input_chroma_shift_x = in.x;
        resizer.input_chroma_shift_y = in.y;
        resizer.make_working_planes(static_cast<int>(to_width), kOutputHeight, out.x, out.y);
        run(resizer, kAdaptive, picture, 0);
        EXPECT_EQ(resizer.motion_map, (Plane{0, 1, 0, 1, 1, 1, 0, 1, 0, 1, 1, 1, 1, 1, 1}));
        ASSERT_EQ(resizer.calls.size(), 3u);
        for (const PlaneCall& c : resizer.calls)
            EXPECT_TRUE(resizer.working_plane(c.plane, c.to_width, c.to_height) ==
                        deinterlaced_by(resizer.motion_map, picture.planes[c.plane], c))
                << c;
    }
}

INSTANTIATE_TEST_SUITE_P(Resize, EveryChromaPair,
                         testing::Combine(testing::ValuesIn(kSourceShifts),
                                          testing::ValuesIn(kOutputShifts)));

TEST(Resize, IgnoresSizesBelowTwoAndDeinterlacersSizesOfZero) {
    struct Case {
        WholePicture operation;
        unsigned width, height;
        int output_width, output_height;
        size_t planes;
    };
    const Case cases[] = {
        {kPlain, 1, 16, 16, 16, 0},    {kPlain, 16, 1, 16, 16, 0},    {kPlain, 16, 16, 1, 16, 0},
        {kPlain, 16, 16, 16, 1, 0},    {kPlain, 2, 2, 2, 2, 3},       {kBasic, 0, 16, 16, 16, 0},
        {kBasic, 16, 16, 0, 16, 0},    {kBasic, 16, 16, 16, 0, 0},    {kBasic, 1, 1, 1, 1, 3},
        {kAdaptive, 16, 0, 16, 16, 0}, {kAdaptive, 16, 16, 0, 16, 0}, {kAdaptive, 1, 1, 1, 1, 3},
    };
    for (const Case& c : cases) {
        Resizer resizer;
        resizer.make_working_planes(16, 16, 1, 1);
        resizer.output_width = c.output_width;
        resizer.output_height = c.output_height;
        const Picture source = random_picture(16, 16, 1, 1);
        (resizer.*c.operation)(source.planes[0].data(), 16, source.planes[1].data(), 8,
                               source.planes[2].data(), 8, c.width, c.height, 0);
        EXPECT_EQ(resizer.calls.size(), c.planes)
            << c.width << "x" << c.height << " to " << c.output_width << "x" << c.output_height;
    }
}

TEST(Resize, DoesNothingWithoutWorkingPlanes) {
    const Picture source = random_picture(16, 16, 1, 1);
    for (const WholePicture operation : {kPlain, kBasic, kAdaptive}) {
        Resizer closed;
        closed.output_width = closed.output_height = 32;
        closed.output_chroma_shift_x = closed.output_chroma_shift_y = 1;
        run(closed, operation, source, 0);
        EXPECT_TRUE(closed.calls.empty());
    }
}

TEST(Resize, SkipsPlanesOf4096SamplesAndStillCallsTheHostsOverride) {
    Resizer resizer;
    resizer.make_working_planes(32, 16, 1, 1);
    const Picture source = random_picture(4096, 16, 1, 1);
    run(resizer, kPlain, source, -1);
    ASSERT_EQ(resizer.calls.size(), 3u);
    EXPECT_EQ(resizer.calls[0].src_width, 4096u);
    EXPECT_EQ(resizer.working_plane(0, 32, 16), Plane(32 * 16, 0xEE)) << "luma, 4096 samples wide";
    EXPECT_NE(resizer.working_plane(1, 16, 8), Plane(16 * 8, 0xEE)) << "chroma, 2048 samples wide";
}

TEST(Resize, ScalesTheWidthsOfBroadcastToEachOther) {
    constexpr unsigned kWidths[] = {352, 480, 528, 544, 640, 704, 720, 960, 1280, 1440, 1920, 3840};
    for (const unsigned from : kWidths) {
        const Picture source = random_picture(from, 8, 1, 1);
        for (const unsigned to : kWidths) {
            // Eight lines to five rows: the weights are a quarter, a half and three quarters.
            Resizer resizer;
            resizer.make_working_planes(static_cast<int>(to), 5, 1, 1);
            resizer.resize_deinterlace = 2;
            run(resizer, kPlain, source, -1);
            for (const PlaneCall& c : resizer.calls)
                EXPECT_TRUE(resizer.working_plane(c.plane, c.to_width, c.to_height) ==
                            scaled(source.planes[c.plane], c.src_width, c.src_height, c.to_width, c.to_height,
                                   c.x_step, c.y_step))
                    << from << " to " << to << ", plane " << c.plane;
        }
    }
}

TEST(Resize, TakesAHostsMotionMapAsItStands) {
    // Maps of other widths than the picture's, and with rows for lines that the plane does not have.
    const Picture source = random_picture(48, 32, 0, 0);
    std::mt19937 random(1);
    Plane map(40 * 40);
    for (uint8_t& flag : map) flag = random() % 3 == 0;
    for (const unsigned mb_cols : {0u, 1u, 2u, 3u, 4u, 7u, 40u}) {
        for (const Shifts& shifts : kSourceShifts) {
            for (const uint32_t input_shift : {0u, 1u}) {
                const PlaneCall call = {17, 0, 64, 40, 49152, 98304, 48, 32, 0, mb_cols, shifts.x, shifts.y};
                Resizer resizer;
                resizer.input_chroma_shift_y = input_shift;
                Plane out(64 * 40);
                resizer.GeneralStreamingVideoEncoder::do_resize_yuv_plane_deinterlace_adaptive_mode4(
                    out.data(), 64, source.planes[0].data(), 48, call.to_width, call.to_height, call.x_step,
                    call.y_step, call.src_width, call.src_height, 0, map.data(), mb_cols,
                    static_cast<uint8_t>(shifts.x), static_cast<uint8_t>(shifts.y));
                EXPECT_TRUE(out == deinterlaced_by(map, source.planes[0], call)) << call;
            }
        }
    }
}

TEST(Resize, InterpolatesAFlatPictureVerticallyAndBlendsItsEdgesAlone) {
    // Luma is flat: of four by four blocks, three by three stand still. Chroma rises by 4 a line, and twice
    // as many lines are made of it: between two lines it lies at 2 a line, the blend of three lines another 2
    // above.
    Resizer resizer;
    resizer.input_chroma_shift_x = resizer.input_chroma_shift_y = 1;
    resizer.make_working_planes(64, 128, 1, 1);
    Picture picture = random_picture(64, 64, 1, 1);
    std::fill(picture.planes[0].begin(), picture.planes[0].end(), 100);
    for (int plane = 1; plane < 3; plane++)
        for (unsigned y = 0; y < 32; y++)
            std::fill_n(picture.planes[plane].begin() + 32 * y, 32, static_cast<uint8_t>(4 * y));
    run(resizer, kAdaptive, picture, 0);
    EXPECT_EQ(resizer.motion_map, (Plane{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1, 1}));
    EXPECT_EQ(resizer.working_plane(0, 64, 128), Plane(64 * 128, 100));
    for (int plane = 1; plane < 3; plane++) {
        const Plane made = resizer.working_plane(plane, 32, 48);
        for (unsigned row = 0; row < 48; row++)
            for (unsigned column = 0; column < 32; column++)
                ASSERT_EQ(made[row * 32 + column], 2 * row + (column < 24 ? 0 : 2)) << column << "," << row;
    }
}

TEST(Resize, SameSizeGivesTheSourceBack) {
    Resizer resizer;
    resizer.make_working_planes(64, 48, 1, 1);
    resizer.resize_deinterlace = 2;
    const Picture source = random_picture(64, 48, 1, 1);
    run(resizer, kPlain, source, -1);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(resizer.working_plane(i, i ? 32 : 64, i ? 24 : 48), source.planes[i]) << "plane " << i;
}

TEST(Resize, KeepsThePictureBeforeWhereTheMotionMapCannotBeMade) {
    Resizer resizer;
    resizer.make_working_planes(64, 48, 1, 1);
    g_array_allocations_fail = true;
    EXPECT_NO_THROW(run(resizer, kAdaptive, random_picture(64, 48, 1, 1), 0));
    g_array_allocations_fail = false;
    EXPECT_TRUE(resizer.calls.empty());
    EXPECT_EQ(resizer.working_plane(0, 64, 48), Plane(64 * 48, 0xEE));
}

/// How far a plane's lines stand out from both of their neighbours in the same direction, on average: what a
/// viewer sees as combing.
double combing(const Plane& plane, unsigned width, unsigned height) {
    double sum = 0;
    for (unsigned row = 1; row + 1 < height; row++)
        for (unsigned column = 0; column < width; column++) {
            const int here = plane[size_t{row} * width + column];
            const int up = here - plane[size_t{row - 1} * width + column];
            const int down = here - plane[size_t{row + 1} * width + column];
            if ((up > 0) == (down > 0)) sum += std::min(std::abs(up), std::abs(down));
        }
    return sum / width / (height - 2);
}

/// Deinterlaces luma at equal size.
Plane deinterlaced(WholePicture operation, const Picture& p) {
    Resizer resizer;
    resizer.make_working_planes(static_cast<int>(p.width), static_cast<int>(p.height), 1, 1);
    run(resizer, operation, p, 0);
    return resizer.working_plane(0, p.width, p.height);
}

/// A picture of the film whose top field is picture `first` and whose bottom field is picture `second`.
Picture woven(const std::vector<FilmPicture>& film, size_t first, size_t second) {
    const auto width = static_cast<unsigned>(film[first].width) & ~1u;
    const auto height = static_cast<unsigned>(film[first].height) & ~1u;
    Picture p = {width, height, width / 2, height / 2, {}};
    for (int i = 0; i < 3; i++)
        for (unsigned row = 0; row < (i ? height / 2 : height); row++) {
            const FilmPicture& field = film[row % 2 ? second : first];
            const uint8_t* line = field.planes[i].data() + row * field.strides[i];
            p.planes[i].insert(p.planes[i].end(), line, line + (i ? width / 2 : width));
        }
    return p;
}

TEST(DeinterlaceFilm, BothModesTakeTheCombingOutOfARealFilm) {
    const std::vector<FilmPicture> film = read_film(12);
    ASSERT_EQ(film.size(), 12u) << "the film clip could not be decoded";
    double before = 0, basic = 0, adaptive = 0, progressive = 0;
    for (size_t n = 0; n + 1 < film.size(); n++) {
        const Picture interlaced = woven(film, n, n + 1);
        before += combing(interlaced.planes[0], interlaced.width, interlaced.height);
        basic += combing(deinterlaced(kBasic, interlaced), interlaced.width, interlaced.height);
        adaptive += combing(deinterlaced(kAdaptive, interlaced), interlaced.width, interlaced.height);
        progressive += combing(woven(film, n, n).planes[0], interlaced.width, interlaced.height);
    }
    RecordProperty("combing_woven", std::to_string(before));
    std::printf("combing: woven %.3f, mode 3 %.3f, mode 4 %.3f, progressive film %.3f\n", before / 11,
                basic / 11, adaptive / 11, progressive / 11);
    EXPECT_LT(basic, 0.5 * before);
    EXPECT_LT(adaptive, before);
    EXPECT_LE(basic, progressive) << "the blend must not comb more than the film without fields";
}

TEST(DeinterlaceFilm, TheAdaptiveModeKeepsStillPicturesSharp) {
    const std::vector<FilmPicture> film = read_film(1);
    ASSERT_EQ(film.size(), 1u);
    const Picture still = woven(film, 0, 0);
    const auto changed = [&](const Plane& out) {
        double sum = 0;
        for (size_t i = 0; i < out.size(); i++) sum += std::abs(out[i] - still.planes[0][i]);
        return sum / static_cast<double>(out.size());
    };
    const double basic = changed(deinterlaced(kBasic, still));
    const double adaptive = changed(deinterlaced(kAdaptive, still));
    std::printf("mean change of a still picture: mode 3 %.3f, mode 4 %.3f\n", basic, adaptive);
    EXPECT_LT(adaptive, 0.5 * basic);
}

}  // namespace
}  // namespace gsve::test
