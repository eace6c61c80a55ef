// Converters between float tensors and fixed-point ones. They stand between layers, so they take no layer, and convert
// every input that they are given: Forward appends one output for each. Assert in Forward: what the free form refuses.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

struct QuantiseInt16Operation;
struct QuantiseInt8Operation;
struct DequantiseInt16Operation;
struct DequantiseInt8Operation;

extern template TALVO_API OperationPtr MakeOperation<QuantiseInt16Operation>();
extern template TALVO_API OperationPtr MakeOperation<QuantiseInt8Operation>();
extern template TALVO_API OperationPtr MakeOperation<DequantiseInt16Operation>();
extern template TALVO_API OperationPtr MakeOperation<DequantiseInt8Operation>();

/// Takes an InferenceParamActQuant with an output_step_size from 8 to 12, which becomes the outputs' step size.
using Quantitation_MainMemory_Float_to_Int16_Fallback_M1 = KernelOf<QuantiseInt16Operation>;
using Quantitation_MainMemory_Float_to_Int8_Fallback_M1 = KernelOf<QuantiseInt8Operation>;

/// Takes no parameter; the step size comes from each input tensor.
using Dequantitation_MainMemory_Int16_to_Float_Fallback_M1 = KernelOf<DequantiseInt16Operation>;
using Dequantitation_MainMemory_Int8_to_Float_Fallback_M1 = KernelOf<DequantiseInt8Operation>;

}  // namespace talvo::kernel
