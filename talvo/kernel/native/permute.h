// Axis permutation on bare memory.
#pragma once

#include <vector>

#include "talvo/utility/export.h"

namespace talvo::kernel::native {

/// Reorders the axes of a row-major array: axis k of the result is axis axes[k] of the source.
/// `dims` are the source's extents, `element_bytes` is 1 or more, the ranges do not overlap and hold the product of the
/// extents. No dims move one element. Assert: a null pointer, 0 bytes an element, counts of dims and axes that differ,
/// an axis out of range or repeated, more than 32 bits of elements.
TALVO_API void Transform_MainMemory_Permute_Fallback(void const* source, std::vector<unsigned int> dims,
                                                     unsigned int element_bytes, std::vector<unsigned int> axes,
                                                     void* destination);

}  // namespace talvo::kernel::native
