#include "talvo/kernel/functional/quantisation.h"

#include <cstdint>
#include <limits>

#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/rows/conversion_rows.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::functional {
namespace {

using runtime::TensorShape;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

// 1 << step, where bit 31 is the sign.
float PowerOf(short step) {
  return static_cast<float>(static_cast<std::int32_t>(std::uint32_t{1} << (static_cast<unsigned int>(step) & 31u)));
}

// A new tensor for the converted elements of `input`, which are read as `element_bytes` each.
TensorPtr NewConverted(char const* name, TensorPtr const& input, unsigned int element_bytes, unsigned int data_type,
                       short step, DevicePtr const& device) {
  support::CheckTensor(name, "the input", input.get(), {element_bytes});
  TensorShape const& from = input->shape;
  TensorShape shape(from.dims, data_type, from.layout, from.location, TensorShape::Extra());
  shape.extra.step_size = step;
  TensorPtr output = device == nullptr ? nullptr : device->CreateTensor(shape, nullptr);
  if (output == nullptr) utility::Refuse("Can't create output cpu tensor");
  return output;
}

// Each has a row primitive for its type of integers.
template <typename Q, class Row>
TensorPtr Quantise(char const* name, TensorPtr const& input, short step, unsigned int data_type, Row const& row,
                   DevicePtr const& device) {
  TensorPtr output = NewConverted(name, input, sizeof(float), data_type, step, device);
  // Q has 8 or 16 bits: a float holds its bounds exactly.
  constexpr float kLow = std::numeric_limits<Q>::min(), kHigh = std::numeric_limits<Q>::max();
  row(input->Data<float>(), PowerOf(step), kLow, kHigh, runtime::ElementCount(output->shape.dims),
      output->template Data<Q>());
  return output;
}

template <typename Q, class Row>
TensorPtr Dequantise(char const* name, TensorPtr const& input, Row const& row, DevicePtr const& device) {
  TensorPtr output = NewConverted(name, input, sizeof(Q), TensorShape::FLOAT32, 0, device);
  row(input->template Data<Q>(), 1.0f / PowerOf(input->shape.extra.step_size),
      runtime::ElementCount(output->shape.dims), output->template Data<float>());
  return output;
}

}  // namespace

TensorPtr Quantitation_MainMemory_Float_to_Int16_Fallback_M1(TensorPtr input, short step, DevicePtr device) {
  return Quantise<std::int16_t>(__func__, input, step, TensorShape::INT16, rows::QuantiseInt16Row, device);
}

TensorPtr Quantitation_MainMemory_Float_to_Int8_Fallback_M1(TensorPtr input, short step, DevicePtr device) {
  return Quantise<std::int8_t>(__func__, input, step, TensorShape::INT8, rows::QuantiseInt8Row, device);
}

TensorPtr Dequantitation_MainMemory_Int16_to_Float_Fallback_M1(TensorPtr input, DevicePtr device) {
  return Dequantise<std::int16_t>(__func__, input, rows::DequantiseInt16Row, device);
}

TensorPtr Dequantitation_MainMemory_Int8_to_Float_Fallback_M1(TensorPtr input, DevicePtr device) {
  return Dequantise<std::int8_t>(__func__, input, rows::DequantiseInt8Row, device);
}

}  // namespace talvo::kernel::functional
