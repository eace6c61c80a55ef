// Conversions of arrays and tensors between float, half and bytes. Float to half cuts the mantissa: 65536 and above
// become infinity, values below the smallest subnormal a signed zero, NaN a quiet NaN. Half to float is exact.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"
#include "talvo/utility/half.h"

namespace talvo::kernel {

TALVO_API std::vector<float> HalfArray_To_FloatArray_Fallback(std::vector<half_float::half> values);
TALVO_API std::vector<half_float::half> FloatArray_To_HalfArray_Fallback(std::vector<float> values);
/// The bytes as floats of this machine; bytes behind the last whole one are dropped.
TALVO_API std::vector<float> ByteArray_To_FloatArray_Fallback(std::string bytes);
/// The bytes as halves of this machine; a byte behind the last whole one is dropped.
TALVO_API std::vector<half_float::half> ByteArray_To_HalfArray_Fallback(std::string bytes);
TALVO_API std::string FloatArrayToByteArrayFallback(std::vector<float> values);

namespace functional {

/// A new FLOAT16 tensor with the input's dims, layout and location and a fresh Extra. The input's elements are read as
/// floats, whatever its data type says. Assert: a null input or device, elements of fewer than 4 bytes.
TALVO_API std::shared_ptr<runtime::TensorCPU> Transform_MainMemory_F32_To_F16_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);
/// The same towards FLOAT32. Assert: a null input or device, elements of fewer than 2 bytes.
TALVO_API std::shared_ptr<runtime::TensorCPU> Transform_MainMemory_F16_To_F32_Fallback(
    std::shared_ptr<runtime::TensorCPU> input, std::shared_ptr<runtime::DeviceCPU> device);

}  // namespace functional

namespace native {

/// `count` floats at `source` to halves at `destination`, which do not overlap; none for a count of 0. Assert: a null
/// pointer for more.
TALVO_API void Transform_MainMemory_F32_To_F16_Fallback(void const* source, unsigned int count, void* destination);
/// `count` halves at `source` to floats at `destination`, which do not overlap; none for a count of 0. Assert: a null
/// pointer for more.
TALVO_API void Transform_MainMemory_F16_To_F32_Fallback(void const* source, unsigned int count, void* destination);

}  // namespace native

}  // namespace talvo::kernel
