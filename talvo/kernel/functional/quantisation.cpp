#include "talvo/kernel/functional/quantisation.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "talvo/utility/log.h"
#include "talvo/utility/restrict.h"

namespace talvo::kernel::functional {
namespace {

using runtime::TensorShape;
using utility::Assert;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

// y[i] = round(x[i] scale), halves away from zero, held in the range of Q; 0 for NaN.  The rows do not overlap.
// Clamping comes first, which changes no result, since the bounds are whole. To add the largest float below a half and
// to cut is to round: a half itself would carry 0.49999997 up to 1.
template <typename Q>
void QuantiseRow(float const* TALVO_RESTRICT x, float scale, std::size_t n, Q* TALVO_RESTRICT y) {
  constexpr float kBelowHalf = 0x1.fffffep-2f;
  constexpr float kLow = std::numeric_limits<Q>::min(), kHigh = std::numeric_limits<Q>::max();
  for (std::size_t i = 0; i < n; ++i) {
    float v = x[i] * scale;
    v = v == v ? v : 0.0f;
    v = kHigh < v ? kHigh : v;
    v = kLow > v ? kLow : v;
    y[i] = static_cast<Q>(static_cast<std::int32_t>(v + std::copysign(kBelowHalf, v)));
  }
}

// y[i] = q[i] scale.  The rows do not overlap.
template <typename Q>
void DequantiseRow(Q const* TALVO_RESTRICT q, float scale, std::size_t n, float* TALVO_RESTRICT y) {
  for (std::size_t i = 0; i < n; ++i) y[i] = static_cast<float>(q[i]) * scale;
}

// 1 << step, where bit 31 is the sign.
float PowerOf(short step) {
  return static_cast<float>(static_cast<std::int32_t>(std::uint32_t{1} << (static_cast<unsigned int>(step) & 31u)));
}

// A new tensor for the converted elements of `input`, which are read as `element_bytes` each.
TensorPtr NewConverted(char const* name, TensorPtr const& input, unsigned int element_bytes, unsigned int data_type,
                       short step, DevicePtr const& device) {
  Assert(input != nullptr, "%s: the input is null", name);
  TensorShape const& from = input->shape;
  if (runtime::ElementSize(from.data_type) < element_bytes ||
      (input->data == nullptr && runtime::ElementCount(from.dims) != 0)) {
    Assert(false, "%s: dims %s, data type %u%s; needs %u bytes an element", name, runtime::DimsText(from.dims).c_str(),
           from.data_type, input->data == nullptr ? ", no memory" : "", element_bytes);
  }
  TensorShape shape(from.dims, data_type, from.layout, from.location, TensorShape::Extra());
  shape.extra.step_size = step;
  TensorPtr output = device == nullptr ? nullptr : device->CreateTensor(shape, nullptr);
  Assert(output != nullptr, "Can't create output cpu tensor");
  return output;
}

template <typename Q>
TensorPtr Quantise(char const* name, TensorPtr const& input, short step, unsigned int data_type,
                   DevicePtr const& device) {
  TensorPtr output = NewConverted(name, input, sizeof(float), data_type, step, device);
  QuantiseRow(input->Data<float>(), PowerOf(step), runtime::ElementCount(output->shape.dims),
              output->template Data<Q>());
  return output;
}

template <typename Q>
TensorPtr Dequantise(char const* name, TensorPtr const& input, DevicePtr const& device) {
  TensorPtr output = NewConverted(name, input, sizeof(Q), TensorShape::FLOAT32, 0, device);
  DequantiseRow(input->template Data<Q>(), 1.0f / PowerOf(input->shape.extra.step_size),
                runtime::ElementCount(output->shape.dims), output->template Data<float>());
  return output;
}

}  // namespace

TensorPtr Quantitation_MainMemory_Float_to_Int16_Fallback_M1(TensorPtr input, short step, DevicePtr device) {
  return Quantise<std::int16_t>(__func__, input, step, TensorShape::INT16, device);
}

TensorPtr Quantitation_MainMemory_Float_to_Int8_Fallback_M1(TensorPtr input, short step, DevicePtr device) {
  return Quantise<std::int8_t>(__func__, input, step, TensorShape::INT8, device);
}

TensorPtr Dequantitation_MainMemory_Int16_to_Float_Fallback_M1(TensorPtr input, DevicePtr device) {
  return Dequantise<std::int16_t>(__func__, input, device);
}

TensorPtr Dequantitation_MainMemory_Int8_to_Float_Fallback_M1(TensorPtr input, DevicePtr device) {
  return Dequantise<std::int8_t>(__func__, input, device);
}

}  // namespace talvo::kernel::functional
