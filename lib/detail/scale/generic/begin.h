// Opens the namespace of an instruction set, for its primitives and for the row drivers of this folder over
// them. Included once per set, so without a guard; end.h closes it. Set before:
//   GSVE_SCALE_SET           the namespace
//   GSVE_SCALE_TARGET        the instruction sets, as the target attribute takes them
//   GSVE_SCALE_INTRINSIC(n)  the name of intrinsic n for the set's vectors: _mm_n, _mm256_n or _mm512_n

#if !defined(GSVE_SCALE_SET) || !defined(GSVE_SCALE_TARGET) || !defined(GSVE_SCALE_INTRINSIC)
#error "set GSVE_SCALE_SET, GSVE_SCALE_TARGET and GSVE_SCALE_INTRINSIC"
#endif

// Function by function, the library stays one unit that runs on every x86-64 processor.
#define GSVE_KERNEL __attribute__((target(GSVE_SCALE_TARGET), nothrow))
#define GSVE_INLINE __attribute__((target(GSVE_SCALE_TARGET), nothrow, always_inline)) inline

namespace gsve::detail::GSVE_SCALE_SET {
