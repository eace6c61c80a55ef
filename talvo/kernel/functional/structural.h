// What moves data between tensors without arithmetic, as free functions: joining, slicing, spreading.
#pragma once

#include <memory>
#include <vector>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

/// A new FLEXIABLE tensor of `device` that joins the inputs along `axis`.
/// Assert, without a text: fewer than two inputs; a first one outside main memory; a further one of another rank,
/// location, data type or extent but for the axis; no tensor made. Assert, with numbers: a null input or one without
/// memory; an axis at or above the rank; an extent over 32 bits; no device.
TALVO_API std::shared_ptr<runtime::TensorCPU> Concatenate_MainMemory_Fallback(
    std::vector<std::shared_ptr<runtime::Tensor>> const& inputs, unsigned int const& axis,
    std::shared_ptr<runtime::DeviceCPU> device);

/// Copies what slice_dims = {begin, end, step} of C, H and W selects from a [C, H, W] tensor of floats into `output`,
/// whose extents are (end - begin) / step, truncated. Where the output is as wide as the input the triple of W is not
/// looked at, where it is as high too that of H neither. The two do not overlap. Assert: fewer than nine values; a step
/// below 1; a tensor that is null, has no memory, another rank or elements of fewer than 4 bytes; where the output has
/// elements, one picked outside the input, and a selection that is not as large as the output, as with a step that does
/// not divide its range.
TALVO_API void Function_TensorSlice_Fallback_CHW_Float_M1(std::shared_ptr<runtime::Tensor> const& input,
                                                          std::vector<short> const& slice_dims,
                                                          std::shared_ptr<runtime::Tensor> const& output);

/// Writes the one element of each channel of a [C, 1, 1] tensor to all elements of that channel of a [C, H, W] tensor
/// of the same data type. `output` stays as it is for every other input.
/// Assert, without a text: none of the input's extents is 1. Assert: a tensor that is null, has no memory or a rank
/// other than 3; two element sizes.
TALVO_API void Function_TensorExpand_Fallback_CHW_Float_M1(std::shared_ptr<runtime::Tensor> const& input,
                                                           std::shared_ptr<runtime::Tensor> const& output);

}  // namespace talvo::kernel::functional
