// What kernels and free forms of this family share. Internal.
#pragma once

#include <memory>
#include <vector>

#include "talvo/kernel/kernel_support.h"

namespace talvo::kernel::functional {

/// Whether two tensors can be joined along `axis`: the same rank, and the same extents but for that one.
bool EqualButAxis(std::vector<unsigned int> const& a, std::vector<unsigned int> const& b, std::size_t axis);

/// Extent of each of the axes C, H, W after slicing: (end - begin) / step, truncated; a negative one wraps to 32 bits.
/// Assert: fewer than the nine values begin, end, step of the three axes; a step below 1.
std::vector<unsigned int> SliceExtents(support::Who const& who, std::vector<short> const& slice_dims);

/// Function_TensorSlice_Fallback_CHW_Float_M1.
void Slice(support::Who const& who, std::shared_ptr<runtime::Tensor> const& input, std::vector<short> const& slice_dims,
           std::shared_ptr<runtime::Tensor> const& output);

}  // namespace talvo::kernel::functional
