// The kernels that combine two FLOAT32 tensors element by element, and those that reduce one over some of its axes.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

struct ElementwiseOperation;
struct BroadcastOperation;
struct ReductionOperation;

extern template TALVO_API OperationPtr MakeOperation<ElementwiseOperation>();
extern template TALVO_API OperationPtr MakeOperation<BroadcastOperation>();
extern template TALVO_API OperationPtr MakeOperation<ReductionOperation>();

/// out[i] = a[i] op b[i] over the elements of a, whatever the shape of b. op is "Add", "Sub", "Mul" or "Div".
/// Assert in Config: another number, "Invalid element wise type". Assert in Forward: b has fewer elements than a.
using Elementwise_Fallback_Float_M1 = KernelOf<ElementwiseOperation>;

/// out = f(a, b) with the shapes aligned at their last axes: an extent of the output is the larger of the two, and an
/// operand whose extent differs from it is repeated along that axis. `op_type`: 0 a + b, 1 a - b, 2 a * b, 3 a / b,
/// 4 a > b ? a : b, 5 a < b ? a : b. Another number throws std::bad_function_call from Forward when there is an
/// element. IsValidParam stores the layer, null when it has another class, and Forward reads `op_type` from it. Assert
/// in Forward: no layer; an operand without elements where the output has some.
using BroadcastOperator_Fallback_Float_M1 = KernelOf<BroadcastOperation>;

/// The sum or the mean over the axes `dim` of the layer, where axis d above 0 is the tensor's d - 1, 0 stays 0 and -1
/// is the last. See functional::Function_TensorTensorArithmetic_Sum_Fallback_Float_M1. Axes that are left follow each
/// other; none left gives one element. An axis that is named twice leaves a shape with more elements than sums: the
/// rest are 0.
/// Assert in IsValidParam: `arith_type` above 1, "Invalid arithmetic type". Assert in GetOutputShapes: more axes than
/// the input has, without a text; an axis that it has not. Assert in Forward: an input that is not FLOAT32; a mean over
/// an extent of 0.
using TensorArithmetic_Fallback_M1 = KernelOf<ReductionOperation>;

}  // namespace talvo::kernel
