// Functions that widen a tensor by a border, cut a border off, and fill or add a bias for each channel. Convolution and
// pooling are built on them, and applications may call them.
#pragma once

#include <memory>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

// Tensor-making functions. The border widths are elements (packed groups in C4HW4 and C8HW8) at the left, right, top
// and bottom. The result keeps data type, layout and location. An input of another layout, data type or location than
// the function is named for gives an empty pointer. Assert: a null tensor or device, a wrong rank, extents over 32
// bits, a cut wider than the tensor.

/// [C, H, W] to [C, H + t + b, W + l + r], always a copy; the border is `value`.
TALVO_API std::shared_ptr<runtime::TensorCPU> Padding_HW_MainMemory_CHW_Float_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    float value, std::shared_ptr<runtime::DeviceCPU> device);
/// The same with a border of 0.
TALVO_API std::shared_ptr<runtime::TensorCPU> Padding_HW_MainMemory_CHW_Zero_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);
/// [C, L] to [C, L + left + right], always a copy; the border is `value`.
TALVO_API std::shared_ptr<runtime::TensorCPU> Padding_L_MainMemory_CL_Float_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int left, unsigned int right, float value,
    std::shared_ptr<runtime::DeviceCPU> device);

/// [C, H, W] to [C, H + t + b, W + l + r] with a border of 0, for elements of any size: data type and layout are not
/// looked at. Without a border the result is the input itself.
TALVO_API std::shared_ptr<runtime::TensorCPU> ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);
/// The same for [C / 4, H, W, 4].
TALVO_API std::shared_ptr<runtime::TensorCPU> ZeroPadding_HW_MainMemory_C4HW4_Int16_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);
/// The same for [C / 8, H, W, 8].
TALVO_API std::shared_ptr<runtime::TensorCPU> ZeroPadding_HW_MainMemory_C8HW8_Int16_Fallback_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);

/// [C, H, W] to its part [C, H - t - b, W - l - r]; the step size of the result is 0.
TALVO_API std::shared_ptr<runtime::TensorCPU> Cutting_HW_MainMemory_Fallback_CHW_Float_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);
/// The same for [C / 4, H, W, 4].
TALVO_API std::shared_ptr<runtime::TensorCPU> Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);
/// The same for [C / 8, H, W, 8].
TALVO_API std::shared_ptr<runtime::TensorCPU> Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);
/// As Cutting_HW_MainMemory_Fallback_CHW_Float_M1, but the result keeps the input's step size.
TALVO_API std::shared_ptr<runtime::TensorCPU> Cut_HW_MainMemory_CHW_Float_M1(
    std::shared_ptr<runtime::TensorCPU> input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
    std::shared_ptr<runtime::DeviceCPU> device);

// In-place functions: 0 when done, -2 for a tensor of another layout, data type or location, which stays as it is.
// A bias [G, N] serves channel g * N + n with bias[g][n]; a product G * N other than the number of channels ends the
// process. Assert: a null tensor, a wrong rank.

/// Adds its bias to every element of a channel of inout [C, H, W].
TALVO_API int ADDBias_MainMemory_CHW_Float_Fallback_M1(std::shared_ptr<runtime::TensorCPU> inout,
                                                       std::shared_ptr<runtime::TensorCPU> bias);
/// Writes its bias to every element of a channel of inout [C, H, W].
TALVO_API int FillBias_MainMemory_CHW_Float_Fallback_M1(std::shared_ptr<runtime::TensorCPU> inout,
                                                        std::shared_ptr<runtime::TensorCPU> bias);
/// Writes its bias to every element of a channel of inout [C, L].
TALVO_API int FillBias_MainMemory_CL_Float_Fallback_M1(std::shared_ptr<runtime::TensorCPU> inout,
                                                       std::shared_ptr<runtime::TensorCPU> bias);
/// Copies the leading elements of bias, whatever its shape, over inout. Assert: bias has fewer bytes than inout.
TALVO_API int FillBias_MainMemory_Float_Fallback_M1(std::shared_ptr<runtime::TensorCPU> inout,
                                                    std::shared_ptr<runtime::TensorCPU> bias);
/// Sets all elements to 0; inout is FLOAT32.
TALVO_API int FillZero_MainMemory_Float_Fallback_M1(std::shared_ptr<runtime::TensorCPU> inout);
/// Sets all elements to 0; inout is INT16.
TALVO_API int FillZero_MainMemory_Int16_Fallback_M1(std::shared_ptr<runtime::TensorCPU> inout);

}  // namespace talvo::kernel
