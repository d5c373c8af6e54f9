// Plane operations of any geometry: every form that the processor can carry out gives the bytes of the plain
// one, in planes without a byte to spare.

#include <cstring>
#include <memory>

#include "detail/scale/plane_scaler.h"
#include "input.h"

namespace {

using namespace gsve::detail;
using gsve::fuzz::Input;
using gsve::fuzz::Noise;

/// A heap block of exactly this size: a sanitizer sees the first byte beside it.
class Block {
public:
    explicit Block(size_t size, uint8_t fill = 0xA5) : size_(size), bytes_(new uint8_t[size]) {
        std::memset(bytes_.get(), fill, size);
    }
    uint8_t* data() const { return bytes_.get(); }
    size_t size() const { return size_; }

    friend bool operator==(const Block& a, const Block& b) {
        return a.size_ == b.size_ && std::memcmp(a.data(), b.data(), a.size_) == 0;
    }

private:
    size_t size_;
    std::unique_ptr<uint8_t[]> bytes_;
};

/// The bytes of `rows` rows of `width` samples: nothing follows the last one's.
size_t plane_size(size_t rows, size_t stride, size_t width) { return (rows - 1) * stride + width; }

/// Small, or wide and low: the kernels work in vectors, groups and strips of columns.
struct Size {
    unsigned width, height;
};

Size take_size(Input& input) {
    switch (input.u8() % 8) {
        case 0: return {input.between(1, 9000), input.between(1, 4)};
        case 1: return {input.between(4080, 4112), input.between(1, 6)};
        case 2: return {input.between(1, 4), input.between(1, 600)};
        default: return {input.between(1, 256), input.between(1, 64)};
    }
}

/// A step from `from` to `to` samples as a geometry gives it, or any other.
unsigned take_step(Input& input, unsigned from, unsigned to) {
    switch (input.u8() % 8) {
        case 0: return 65536;
        case 1: return input.u32();
        case 2: return input.between(0, 6 * 65536);
        case 3: return 65536 + static_cast<unsigned>(static_cast<int8_t>(input.u8()));
        case 4:
        case 5: return to > 1 ? ((from - 1) << 16) / (to - 1) : 65536;
        default: return (from << 16) / to;
    }
}

/// Samples of noise, of extremes, or of noise on interlaced bars.
void fill(const Block& block, size_t stride, Input& input) {
    const uint8_t kind = input.u8();
    Noise noise(input.u16());
    for (size_t i = 0; i < block.size(); i++) {
        const auto sample = static_cast<uint8_t>(noise() >> 9);
        switch (kind % 4) {
            case 0: block.data()[i] = sample; break;
            case 1: block.data()[i] = sample & 1 ? 255 : 0; break;
            case 2: block.data()[i] = kind; break;
            default: block.data()[i] = static_cast<uint8_t>((i / stride & 1) * (kind >> 2) * 3 + sample % 24);
        }
    }
}

template <typename Body>
void for_each_vector_form(Body body) {
    const unsigned features = detected_cpu_features();
    for (const dispatch::Form& form : dispatch::kForms) {
        if (form.operations != &dispatch::kPlain && (form.needs & ~features) == 0) body(*form.operations);
    }
}

[[noreturn]] void fail(const PlaneOperations& form, const char* operation, const PlaneScaling& plane) {
    gsve::fuzz::fail("%s %s differs from the plain one: %ux%u, stride %zu, to %ux%u, stride %zu, steps %u %u",
                     form.name, operation, plane.src_width, plane.src_height, plane.src_stride,
                     plane.to_width, plane.to_height, plane.dst_stride, plane.x_step, plane.y_step);
}

/// One scaling by every form. `written` is how far each row is written.
template <typename Operation>
void compare(const char* name, PlaneScaling plane, size_t written, const Operation& operation) {
    const size_t size = plane_size(plane.to_height, plane.dst_stride, written);
    const Block expected(size);
    plane.dst = expected.data();
    operation(dispatch::kPlain, plane);
    for_each_vector_form([&](const PlaneOperations& form) {
        const Block actual(size);
        plane.dst = actual.data();
        operation(form, plane);
        if (!(actual == expected)) fail(form, name, plane);
    });
}

void scale_planes(Input& input) {
    const uint8_t operation = input.u8();
    const Size from = take_size(input), to = take_size(input);
    PlaneScaling plane{};
    plane.src_width = from.width;
    plane.src_height = from.height;
    plane.to_width = to.width;
    plane.to_height = to.height;
    plane.x_step = take_step(input, from.width, to.width);
    plane.y_step = take_step(input, from.height, to.height);
    plane.src_stride = from.width + input.u8() % 64;
    plane.dst_stride = to.width + input.u8() % 64;

    const Block source(plane_size(from.height, plane.src_stride, from.width));
    fill(source, plane.src_stride, input);
    plane.src = source.data();

    if (operation % 3 == 0) {
        if (plane.src_width >= kScalerRowSamples) return;
        const int mode = static_cast<int>(input.u8() % 6) - 1, field = static_cast<int>(input.u8() % 3) - 1;
        return compare("scale", plane, to.width, [&](const PlaneOperations& form, const PlaneScaling& p) {
            form.scale(p, mode, field, "scale");
        });
    }

    // The deinterlacers do not check strides: rows of the destination may overlap.
    if (input.u8() % 16 == 0) plane.dst_stride = input.u8();
    if (operation % 3 == 1)
        return compare(
            "basic deinterlacer", plane, to.width,
            [&](const PlaneOperations& form, const PlaneScaling& p) { form.deinterlace_basic(p); });

    MotionMap map{nullptr, input.between(0, 40), 0, 0};
    map.shift_x = static_cast<uint8_t>(input.u8() % 6);
    map.shift_y = static_cast<uint8_t>(input.u8() % 6);
    const Block flags(map_reach(map, {plane.to_width, plane.to_height, plane.x_step, plane.y_step,
                                      plane.src_width, plane.src_height}));
    Noise noise(input.u16());
    for (size_t i = 0; i < flags.size(); i++) flags.data()[i] = noise() % 3 == 0;
    if (input.u8() % 16 != 0) map.flags = flags.data();
    compare("adaptive deinterlacer", plane, whole_groups(to.width),
            [&](const PlaneOperations& form, const PlaneScaling& p) { form.deinterlace_adaptive(p, map); });
}

void map_motion(Input& input) {
    const Size size = take_size(input);
    const size_t stride = size.width + input.u8() % 64;
    const Block luma(plane_size(size.height, stride, size.width));
    fill(luma, stride, input);
    const Block expected(motion_map_size(size.width, size.height));
    dispatch::kPlain.motion_map(expected.data(), luma.data(), stride, size.width, size.height);
    for_each_vector_form([&](const PlaneOperations& form) {
        const Block actual(expected.size());
        form.motion_map(actual.data(), luma.data(), stride, size.width, size.height);
        if (!(actual == expected))
            gsve::fuzz::fail("%s motion map differs from the plain one: %ux%u, stride %zu", form.name,
                             size.width, size.height, stride);
    });
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    if (input.u8() % 8 == 0)
        map_motion(input);
    else
        scale_planes(input);
    return 0;
}
