// Conversions between float tensors and fixed-point ones, whose integer q stands for q / 2^step.
#pragma once

#include <memory>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

// A new tensor of `device` with the input's dims, layout and location. Elements in float32, in storage order; the
// shift takes the low five bits of the step. Assert: a null input or device, input elements of too few bytes.

/// y = x (1 << step), rounded to the nearest integer, halves away from zero, and held in -32768 .. 32767; NaN gives 0.
/// The step size of the result is `step`.
TALVO_API std::shared_ptr<runtime::TensorCPU> Quantitation_MainMemory_Float_to_Int16_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, short step, std::shared_ptr<runtime::DeviceCPU> device);
/// The same, held in -128 .. 127.
TALVO_API std::shared_ptr<runtime::TensorCPU> Quantitation_MainMemory_Float_to_Int8_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, short step, std::shared_ptr<runtime::DeviceCPU> device);

/// y = q (1 / (1 << step)), with the input's step size. The step size of the result is 0.
TALVO_API std::shared_ptr<runtime::TensorCPU> Dequantitation_MainMemory_Int16_to_Float_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
TALVO_API std::shared_ptr<runtime::TensorCPU> Dequantitation_MainMemory_Int8_to_Float_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);

}  // namespace talvo::kernel::functional
