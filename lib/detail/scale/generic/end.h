// Closes what begin.h opened.

}  // namespace gsve::detail::GSVE_SCALE_SET

#undef GSVE_KERNEL
#undef GSVE_INLINE
#undef GSVE_SCALE_SET
#undef GSVE_SCALE_TARGET
#undef GSVE_SCALE_INTRINSIC
