#pragma once

// The plane scaler, the deinterlacing resizers and the motion map, in the form that the processor runs
// fastest. All forms give the same bytes. Whole-picture sizes and steps stand in geometry.h.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "../cpu_features.h"
#include "avx2.h"
#include "avx512.h"
#include "avx512vbmi.h"
#include "geometry.h"
#include "plain.h"
#include "rows.h"
#include "sse41.h"

namespace gsve::detail {

/// The plane operations in one form. Arguments are checked by the callers below.
struct PlaneOperations {
    const char* name;
    void (*scale)(const PlaneScaling& plane, int mode, int field, const char* function);
    void (*deinterlace_basic)(const PlaneScaling& plane);
    void (*deinterlace_adaptive)(const PlaneScaling& plane, const MotionMap& map);
    void (*motion_map)(uint8_t* map, const uint8_t* luma, size_t stride, unsigned width, unsigned height);
};

namespace dispatch {

inline constexpr PlaneOperations kPlain = {"plain", plain::scale, plain::deinterlace_basic,
                                           plain::deinterlace_adaptive, plain::motion_map};

/// The plane operations over one set of row kernels.
template <const RowKernels& kKernels>
inline constexpr PlaneOperations kOver = {
    kKernels.name,
    [](const PlaneScaling& plane, int mode, int field, const char* function) {
        rows::scale(kKernels, plane, mode, field, function);
    },
    [](const PlaneScaling& plane) { rows::deinterlace_basic(kKernels, plane); },
    [](const PlaneScaling& plane, const MotionMap& map) { rows::deinterlace_adaptive(kKernels, plane, map); },
    [](uint8_t* map, const uint8_t* luma, size_t stride, unsigned width, unsigned height) {
        rows::motion_map(kKernels, map, luma, stride, width, height);
    },
};

struct Form {
    unsigned needs;  ///< CpuFeature bits
    const PlaneOperations* operations;
};

/// From the plain form to the fastest.
inline constexpr Form kForms[] = {
    {0, &kPlain},
#if defined(__x86_64__)
    {kCpuSse41, &kOver<sse41::kRowKernels>},
    {kCpuAvx2, &kOver<avx2::kRowKernels>},
    {kCpuAvx512, &kOver<avx512::kRowKernels>},
    {kCpuAvx512Vbmi, &kOver<vbmi::kRowKernels>},
#endif
};

/// The fastest form that needs no more than `features`.
constexpr const PlaneOperations& fastest(unsigned features) {
    const PlaneOperations* found = &kPlain;
    for (const Form& form : kForms) {
        if ((form.needs & ~features) == 0) found = form.operations;
    }
    return *found;
}

inline const PlaneOperations& choose(unsigned mask) {
    return fastest(usable_cpu_features(detected_cpu_features() & mask));
}

/// Chosen at load, under the environment's mask.
inline std::atomic<const PlaneOperations*> chosen{&choose(cpu_mask_from_text(std::getenv("GSVE_CPU_MASK")))};

}  // namespace dispatch

/// The form of the plane operations in use.
inline const PlaneOperations& plane_operations() { return *dispatch::chosen.load(std::memory_order_relaxed); }

/// Keeps the plane operations to the instruction sets of `mask` (CpuFeature bits; a set counts only with all
/// the smaller ones), in place of the mask that the environment variable GSVE_CPU_MASK gave at load: 0 for
/// the plain form, 1 for up to SSE4.1, 3 for up to AVX2, 7 for up to AVX-512, 15 for all. Returns the form in
/// use from now on. Meant for tests and benchmarks.
inline const PlaneOperations& set_plane_cpu_mask(unsigned mask) {
    dispatch::chosen.store(&dispatch::choose(mask), std::memory_order_relaxed);
    return plane_operations();
}

/// Scales one plane bilinearly. `mode` is the "resize deinterlace" setting and `field` the parity of the
/// first field (its low bit) or negative for a progressive picture; row_parity() shows what they select. A
/// plane of kScalerRowSamples or more source samples in width, or without samples, is left alone. A line or
/// row outside its plane, which takes a stride below the width, aborts; `function` is then named.
inline void scale_plane(const PlaneScaling& plane, int mode, int field, const char* function) {
    if (plane.src_width >= kScalerRowSamples || !has_samples(plane)) return;
    plane_operations().scale(plane, mode, field, function);
}

/// Scales one plane, building every row from three lines, the middle one with half of the weight: the lines
/// of the two fields are blended everywhere. A plane without samples is left alone.
inline void deinterlace_plane_basic(const PlaneScaling& plane) {
    if (has_samples(plane)) plane_operations().deinterlace_basic(plane);
}

/// Scales one plane with the three-line blend in the macroblocks that `map` flags and between two lines
/// elsewhere. Rows are written in whole groups of 8 samples: up to 7 beyond `to_width`, for which the last
/// row needs room too. The map is read as far as map_reach() tells; without one (no flags) every macroblock
/// is static. A plane without samples is left alone.
inline void deinterlace_plane_adaptive(const PlaneScaling& plane, const MotionMap& map) {
    if (has_samples(plane)) plane_operations().deinterlace_adaptive(plane, map);
}

/// Bytes of the motion map of a picture.
constexpr size_t motion_map_size(unsigned width, unsigned height) {
    return size_t{macroblocks(width)} * macroblocks(height);
}

/// Writes a luma plane's motion map, macroblocks(width) by macroblocks(height) bytes: 1 where the macroblock
/// is combed and in the last column and row, 0 elsewhere. Writes nothing for a plane without samples.
inline void build_motion_map(uint8_t* map, const uint8_t* luma, size_t stride, unsigned width,
                             unsigned height) {
    if (width != 0 && height != 0) plane_operations().motion_map(map, luma, stride, width, height);
}

}  // namespace gsve::detail
