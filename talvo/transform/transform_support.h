// What the kernels of this folder share. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/kernel_support.h"

namespace talvo::kernel::support {

/// The first of `outputs` as it stands, or a new tensor of the first shape of GetOutputShapes, which is appended.
/// Assert, with the kernel's name: a given output that is no CPU tensor or holds fewer than `bytes`.
TensorPtr GivenOrNewOutput(runtime::IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
                           ContextPtr const& context, std::size_t bytes);

}  // namespace talvo::kernel::support
