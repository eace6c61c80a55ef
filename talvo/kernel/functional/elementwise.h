// Arithmetic on rows of floats and reductions over the axes of an array, as free functions.
#pragma once

#include <vector>

#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

/// out[i] = a[i] + b[i], and likewise with - and *, for ascending i below `count`. The ranges may overlap in any way:
/// the results are those of single elements, one after the other.
TALVO_API void elementwise_add_f32_m1(float const* a, float const* b, unsigned int const& count, float* out);
TALVO_API void elementwise_sub_f32_m1(float const* a, float const* b, unsigned int const& count, float* out);
TALVO_API void elementwise_mul_f32_m1(float const* a, float const* b, unsigned int const& count, float* out);

/// The extents that a reduction over `axes` leaves of `dims`: the last entry names an axis, which goes, then the one
/// before it names one of those that are left, and so on. In ascending order without repetition the entries are axes of
/// the array. Assert: no axes; an entry that is none of those that are left.
TALVO_API std::vector<unsigned int> ReducedDims(std::vector<unsigned int> dims, std::vector<short> const& axes);

/// Sums a row-major array of extents `dims` over `axes`, one axis at a time in the order of ReducedDims, and empties
/// `axes`. Each pass adds the elements in the order of the array, from 0.0f, in float32; sums over an extent of 0 are
/// 0. `out` gets an element for each of the extents that are left and may be `in`. Assert: as ReducedDims.
TALVO_API void Function_TensorTensorArithmetic_Sum_Fallback_Float_M1(float const* in, float* out,
                                                                     std::vector<unsigned int> dims,
                                                                     std::vector<short>& axes);

/// The sums as above, the first total / n of them divided by (float)n: n is the product of the extents that `axes` name
/// in `dims`, total that of all extents. Assert: as ReducedDims; an extent of 0 among those.
TALVO_API void Function_TensorTensorArithmetic_Mean_Fallback_Float_M1(float const* in, float* out,
                                                                      std::vector<unsigned int> dims,
                                                                      std::vector<short>& axes);

}  // namespace talvo::kernel::functional
