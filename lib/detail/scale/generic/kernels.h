// The set's kernels, as the planes' operations call them. The set gives kName, and by a using-declaration
// each kernel that it takes from another set.

inline constexpr RowKernels kRowKernels = {
    .name = kName,
    .dense = kDense,
    .sparse = kSparse,
    .blend = blend,
    .blend_three = blend_three,
    .blend_adaptive = blend_adaptive,
    .interpolate = interpolate,
    .interpolate_two = interpolate_two,
    .halve = halve,
    .halved = kHalved,
    .motion_row = motion_row,
};
