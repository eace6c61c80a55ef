// What the kernels of this folder share. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/kernel_support.h"

namespace talvo::kernel::support {

/// Output 0 that the caller gives. Assert: it is no CPU tensor or holds fewer than `bytes`.
TensorPtr GivenOutput(Who const& who, Tensors const& outputs, std::size_t bytes);

}  // namespace talvo::kernel::support
