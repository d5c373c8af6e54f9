#pragma once

// Which instruction sets the vector kernels may use.

#include <cerrno>
#include <cstdlib>

namespace gsve::detail {

/// Instruction sets that kernels are written for. Each includes the ones above it.
enum CpuFeature : unsigned {
    kCpuSse41 = 1u << 0,       ///< SSSE3 and SSE4.1
    kCpuAvx2 = 1u << 1,        ///< AVX2
    kCpuAvx512 = 1u << 2,      ///< AVX-512 F, BW, DQ and VL
    kCpuAvx512Vbmi = 1u << 3,  ///< AVX-512 VBMI
};

inline constexpr unsigned kAllCpuFeatures = kCpuSse41 | kCpuAvx2 | kCpuAvx512 | kCpuAvx512Vbmi;

/// The instruction sets of `features` whose predecessors are all there: a gap in a mask (AVX2 without SSE4.1)
/// ends it.
constexpr unsigned usable_cpu_features(unsigned features) {
    unsigned usable = 0;
    for (unsigned bit = kCpuSse41; bit <= kCpuAvx512Vbmi && (features & bit) != 0; bit <<= 1) usable |= bit;
    return usable;
}

/// What the processor and the operating system offer, as CpuFeature bits; 0 away from x86-64.
inline unsigned detected_cpu_features() {
#if defined(__x86_64__)
    __builtin_cpu_init();
    unsigned features = 0;
    if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1")) features |= kCpuSse41;
    if (__builtin_cpu_supports("avx2")) features |= kCpuAvx2;
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
        features |= kCpuAvx512;
    }
    if (__builtin_cpu_supports("avx512vbmi")) features |= kCpuAvx512Vbmi;
    return usable_cpu_features(features);
#else
    return 0;
#endif
}

/// The mask that a text gives: a number as strtoul reads it (decimal, 0x or 0), every bit a CpuFeature that
/// may be used. Absent or no number: all of them.
inline unsigned cpu_mask_from_text(const char* text) {
    if (text == nullptr) return kAllCpuFeatures;
    char* end = nullptr;
    errno = 0;
    const unsigned long mask = std::strtoul(text, &end, 0);
    if (end == text || *end != '\0' || errno != 0) return kAllCpuFeatures;
    return static_cast<unsigned>(mask) & kAllCpuFeatures;
}

}  // namespace gsve::detail
