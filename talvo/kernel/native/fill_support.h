// Arrays of one value. Internal.
#pragma once

#include <cstddef>

namespace talvo::kernel::native {

/// Writes n times `value`, and returns the end.
float* FillFloats(float value, std::size_t n, float* to);

/// Writes n times the element of 1, 2 or 4 bytes at `element`, which lies elsewhere.
void FillElements(void const* element, unsigned int element_bytes, std::size_t n, void* to);

}  // namespace talvo::kernel::native
