// Slicing for callers that name themselves in refusals: `who` stands first in their texts. Internal.
#pragma once

#include <memory>
#include <vector>

#include "talvo/runtime/tensor.h"

namespace talvo::kernel::functional {

/// Extent of each of the axes C, H, W after slicing: (end - begin) / step, truncated; a negative one wraps to 32 bits.
/// Assert: fewer than the nine values begin, end, step of the three axes; a step below 1.
std::vector<unsigned int> SliceExtents(char const* who, std::vector<short> const& slice_dims);

/// Function_TensorSlice_Fallback_CHW_Float_M1.
void Slice(char const* who, std::shared_ptr<runtime::Tensor> const& input, std::vector<short> const& slice_dims,
           std::shared_ptr<runtime::Tensor> const& output);

}  // namespace talvo::kernel::functional
