// The permutation of a tensor's axes: kernel and form on tensors. The form on bare memory stands in kernel/native.
#pragma once

#include <memory>
#include <vector>

#include "talvo/kernel/kernel_of.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::kernel {

struct PermuteOperation;
extern template TALVO_API OperationPtr MakeOperation<PermuteOperation>();

/// For TensorTransposeInfo, whose axes count a batch axis in front: the first entry is dropped, the others shift down
/// by one. The output is FLEXIABLE; an output that the caller gives receives the elements as it stands. Assert: an
/// entry 0 behind the first, in Config; in Forward what the form on bare memory refuses, before an output is made.
using Transform_MainMemory_Permute_Fallback = KernelOf<PermuteOperation>;

namespace functional {

/// A new FLEXIABLE tensor of `device` whose axis i is axis axes[i] of the input; step size 0. Assert: a null input or
/// device; too few, out of range or repeated axes.
TALVO_API std::shared_ptr<runtime::TensorCPU> Transform_MainMemory_Permute_Fallback(
    std::shared_ptr<runtime::TensorCPU> const& input, std::vector<unsigned int> const& axes,
    std::shared_ptr<runtime::DeviceCPU> const& device);

}  // namespace functional

}  // namespace talvo::kernel
