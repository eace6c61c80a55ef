// Reshape kernels, and the reshape on tensors. Every kernel makes a new tensor and copies. The layer's new_shape counts
// a batch axis in front, which tensors do not have; each kernel says how it gets rid of it. Sizes are compared before
// an output is made: a refusal leaves `outputs` as it was.
#pragma once

#include <memory>
#include <vector>

#include "talvo/kernel/kernel_of.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::kernel {

struct ReshapeToCOperation;
struct ReshapeToCHWOperation;
struct ReshapeToSCOperation;
struct ReshapeToFlexibleOperation;
struct UnblockToCOperation;
struct UnblockToCLOperation;
struct ReshapeCLToCHWOperation;

extern template TALVO_API OperationPtr MakeOperation<ReshapeToCOperation>();
extern template TALVO_API OperationPtr MakeOperation<ReshapeToCHWOperation>();
extern template TALVO_API OperationPtr MakeOperation<ReshapeToSCOperation>();
extern template TALVO_API OperationPtr MakeOperation<ReshapeToFlexibleOperation>();
extern template TALVO_API OperationPtr MakeOperation<UnblockToCOperation>();
extern template TALVO_API OperationPtr MakeOperation<UnblockToCLOperation>();
extern template TALVO_API OperationPtr MakeOperation<ReshapeCLToCHWOperation>();

/// These copy the elements in their order. An entry of new_shape below 1 stands for total / (product of the entries
/// other than -1). Forward copies the leading elements that a new output holds, and all of the input into an output
/// that the caller gives. Assert: an entry 0 in that product, an output longer than the input, a given one that is too
/// small.
using Reshape_Fallback_To_C_M1 = KernelOf<ReshapeToCOperation>;      // drops an entry 0 of 1 from two entries
using Reshape_Fallback_To_CHW_M1 = KernelOf<ReshapeToCHWOperation>;  // drops an entry 0 of 1 from four entries
using Reshape_Fallback_To_SC_M1 = KernelOf<ReshapeToSCOperation>;  // drops entry 0 or else 1, whichever is 1, of three
using Transform_MainMemory_Reshape_Fallback = KernelOf<ReshapeToFlexibleOperation>;  // drops entry 0, whatever it holds

/// These take blocked channels apart, C4HW4 or C8HW8 to plain order with the padded lanes, or copy plain ones. The
/// output keeps the input's Extra; one entry of -1 stands for what the others leave. Assert: an output that does not
/// hold the input's elements, a blocked input whose last extent is not its block.
using Reshape_Fallback_CnHWn_To_C_M1 = KernelOf<UnblockToCOperation>;
using Reshape_Fallback_CnHWn_To_CL_M1 = KernelOf<UnblockToCLOperation>;
using Reshape_Fallback_CL_To_CHW_M1 = KernelOf<ReshapeCLToCHWOperation>;

namespace functional {

/// A new FLEXIABLE tensor of `device` with these dims and the input's leading elements; step size 0. One entry below 1
/// stands for all that remains. Assert: a null input or device; without a text, two such entries and a product of the
/// others that is above the element count or does not divide it.
TALVO_API std::shared_ptr<runtime::TensorCPU> Transform_MainMemory_Reshape_Fallback(
    std::shared_ptr<runtime::TensorCPU> const& input, std::vector<int> const& new_shape,
    std::shared_ptr<runtime::DeviceCPU> const& device);

}  // namespace functional

}  // namespace talvo::kernel
