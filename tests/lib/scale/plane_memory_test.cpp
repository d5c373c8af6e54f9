// The scalers on planes of which only the picture's own samples are initialised, each plane an allocation of
// its own: run by a memory checker, every read outside of a plane and every sample that hangs on an
// uninitialised one shows. `./dev valgrind` does so for each instruction set.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <gsve.h>

#include "detail/scale/plane_scaler.h"

namespace gsve::test {
namespace {

constexpr uint8_t kDarkest = 16, kBrightest = 235;

struct Free {
    void operator()(uint8_t* memory) const { std::free(memory); }
};

/// Bytes that nobody has written yet.
std::unique_ptr<uint8_t, Free> fresh(size_t size) {
    return std::unique_ptr<uint8_t, Free>(static_cast<uint8_t*>(std::malloc(size)));
}

/// A source plane: no byte behind its last sample, nothing but samples initialised.
class SourcePlane {
public:
    SourcePlane(unsigned width, unsigned height, size_t padding, std::mt19937& random)
        : stride(width + padding), bytes_(fresh((height - 1) * stride + width)) {
        for (unsigned y = 0; y < height; y++)
            for (unsigned x = 0; x < width; x++)
                bytes_.get()[y * stride + x] =
                    static_cast<uint8_t>(kDarkest + (random() + (y & 1) * 128) % (kBrightest - kDarkest + 1));
    }
    const uint8_t* data() const { return bytes_.get(); }
    const size_t stride;

private:
    std::unique_ptr<uint8_t, Free> bytes_;
};

/// How many samples of a scaled plane lie outside the range of the source's. Each is looked at, which is
/// where a memory checker notices one that was never computed.
size_t out_of_range(const uint8_t* plane, size_t stride, unsigned width, unsigned height) {
    size_t count = 0;
    for (unsigned y = 0; y < height; y++)
        for (unsigned x = 0; x < width; x++) {
            const uint8_t sample = plane[y * stride + x];
            if (sample < kDarkest || sample > kBrightest) count++;
        }
    return count;
}

struct Scaling {
    unsigned src_width, src_height, to_width, to_height;
};

/// Sizes around those of vectors and of whole rounds, up and down, and single lines and columns.
constexpr Scaling kScalings[] = {
    {176, 144, 128, 96}, {128, 96, 176, 144}, {100, 30, 100, 30}, {33, 17, 65, 34}, {65, 34, 33, 17},
    {15, 9, 16, 8},      {16, 8, 15, 9},      {17, 5, 47, 11},    {64, 4, 32, 4},   {31, 4, 63, 7},
    {720, 6, 352, 4},    {352, 4, 720, 6},    {1, 1, 40, 3},      {40, 3, 1, 1},    {2, 2, 3, 3},
};

/// The working planes as opening the encoder makes them, but uninitialised; the encoder frees them.
void make_working_planes(GeneralStreamingVideoEncoder& encoder, unsigned width, unsigned height) {
    encoder.free_encoder();
    encoder.output_width = static_cast<int32_t>(width);
    encoder.output_height = static_cast<int32_t>(height);
    encoder.output_chroma_shift_x = encoder.output_chroma_shift_y = 1;
    for (int plane = 0; plane < 3; plane++) {
        const uint32_t stride = ((plane == 0 ? width : width / 2) + 15) & ~15u;
        encoder.resize_buffer_stride[plane] = stride;
        encoder.resize_buffer[plane] = fresh(size_t{stride} * (height + 16)).release();
    }
}

size_t out_of_range(const GeneralStreamingVideoEncoder& encoder) {
    const auto width = static_cast<unsigned>(encoder.output_width),
               height = static_cast<unsigned>(encoder.output_height);
    return out_of_range(encoder.resize_buffer[0], encoder.resize_buffer_stride[0], width, height) +
           out_of_range(encoder.resize_buffer[1], encoder.resize_buffer_stride[1], width / 2, height / 2) +
           out_of_range(encoder.resize_buffer[2], encoder.resize_buffer_stride[2], width / 2, height / 2);
}

unsigned step(unsigned from, unsigned to) { return to > 1 ? ((from - 1) << 16) / (to - 1) : 65536; }

std::string name(const Scaling& s) {
    return std::to_string(s.src_width) + "x" + std::to_string(s.src_height) + " to " +
           std::to_string(s.to_width) + "x" + std::to_string(s.to_height);
}

TEST(PlaneMemory, ScalingAPlaneUsesItsSamplesAlone) {
    std::printf("kernels: %s\n", detail::plane_operations().name);
    std::mt19937 random(1);
    GeneralStreamingVideoEncoder encoder;
    for (const Scaling& s : kScalings)
        for (const size_t padding : {0, 13})
            for (int mode = -1; mode <= 2; mode++)
                for (int field = -1; field <= 1; field++) {
                    SCOPED_TRACE(name(s) + ", mode " + std::to_string(mode));
                    encoder.resize_deinterlace = mode;
                    const SourcePlane source(s.src_width, s.src_height, padding, random);
                    const auto scaled = fresh(s.to_width * s.to_height);
                    encoder.do_resize_yuv_plane(scaled.get(), s.to_width, source.data(), source.stride,
                                                s.to_width, s.to_height, step(s.src_width, s.to_width),
                                                step(s.src_height, s.to_height), s.src_width, s.src_height,
                                                field);
                    EXPECT_EQ(out_of_range(scaled.get(), s.to_width, s.to_width, s.to_height), 0u);
                }
}

TEST(PlaneMemory, DeinterlacingAPlaneUsesItsSamplesAlone) {
    std::mt19937 random(2);
    GeneralStreamingVideoEncoder encoder;
    for (const Scaling& s : kScalings)
        for (const size_t padding : {0, 13}) {
            SCOPED_TRACE(name(s));
            const SourcePlane source(s.src_width, s.src_height, padding, random);
            const auto scaled = fresh(s.to_width * s.to_height);
            encoder.do_resize_yuv_plane_deinterlace_basic_mode3(
                scaled.get(), s.to_width, source.data(), source.stride, s.to_width, s.to_height,
                step(s.src_width, s.to_width), step(s.src_height, s.to_height), s.src_width, s.src_height, 0);
            EXPECT_EQ(out_of_range(scaled.get(), s.to_width, s.to_width, s.to_height), 0u);
        }
}

/// Every way from the host's planes to the working planes, the adaptive one with its motion map.
TEST(PlaneMemory, ResizingAPictureUsesItsSamplesAlone) {
    constexpr decltype(&GeneralStreamingVideoEncoder::resize_input_to_output) kResizers[] = {
        &GeneralStreamingVideoEncoder::resize_input_to_output,
        &GeneralStreamingVideoEncoder::resize_input_to_output_deinterlace_basic_mode3,
        &GeneralStreamingVideoEncoder::resize_input_to_output_deinterlace_adaptive_mode4};
    std::mt19937 random(3);
    GeneralStreamingVideoEncoder encoder;
    for (const Scaling& s : {Scaling{176, 144, 128, 96},
                             {128, 96, 176, 144},
                             {100, 66, 100, 66},
                             {34, 18, 66, 34},
                             {322, 50, 64, 24},
                             {64, 34, 130, 66},
                             {720, 32, 352, 24}})
        for (const size_t padding : {0, 13})
            for (const auto resizer : kResizers) {
                SCOPED_TRACE(name(s));
                make_working_planes(encoder, s.to_width, s.to_height);
                const SourcePlane y(s.src_width, s.src_height, padding, random);
                const SourcePlane u(s.src_width / 2, s.src_height / 2, padding, random);
                const SourcePlane v(s.src_width / 2, s.src_height / 2, padding, random);
                (encoder.*resizer)(y.data(), y.stride, u.data(), u.stride, v.data(), v.stride, s.src_width,
                                   s.src_height, 0);
                EXPECT_EQ(out_of_range(encoder), 0u);
            }
}

}  // namespace
}  // namespace gsve::test
