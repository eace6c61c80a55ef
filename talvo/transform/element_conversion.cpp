#include "talvo/transform/element_conversion.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "talvo/kernel/rows/conversion_rows.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {
namespace {

using half_float::half;
using runtime::TensorShape;
using utility::Refuse;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

static_assert(sizeof(half) == sizeof(std::uint16_t), "a row of halves is a row of their bits");

void ConvertRow(float const* x, std::size_t n, half* y) {
  rows::FloatToHalfRow(x, n, reinterpret_cast<std::uint16_t*>(y));
}

void ConvertRow(half const* x, std::size_t n, float* y) {
  rows::HalfToFloatRow(reinterpret_cast<std::uint16_t const*>(x), n, y);
}

template <typename To, typename From>
std::vector<To> ConvertArray(std::vector<From> const& values) {
  std::vector<To> converted(values.size());
  ConvertRow(values.data(), values.size(), converted.data());
  return converted;
}

template <typename Element>
std::vector<Element> FromBytes(std::string const& bytes) {
  std::vector<Element> values(bytes.size() / sizeof(Element));
  if (!values.empty()) std::memcpy(values.data(), bytes.data(), values.size() * sizeof(Element));
  return values;
}

template <typename To, typename From>
void ConvertMemory(char const* name, void const* source, unsigned int count, void* destination) {
  if (count == 0) return;
  if (source == nullptr || destination == nullptr) Refuse("%s: a null pointer for %u elements", name, count);
  ConvertRow(static_cast<From const*>(source), count, static_cast<To*>(destination));
}

// An empty tensor of `data_type` for the elements of `input`, which are read as `element_bytes` each.
TensorPtr NewConverted(char const* name, TensorPtr const& input, unsigned int data_type, unsigned int element_bytes,
                       DevicePtr const& device) {
  if (input == nullptr || device == nullptr) Refuse("%s: the input or the device is null", name);
  TensorShape const& shape = input->shape;
  if (runtime::ElementSize(shape.data_type) < element_bytes) {
    Refuse("%s: dims %s, data type %u; needs %u bytes an element", name, runtime::DimsText(shape.dims).c_str(),
           shape.data_type, element_bytes);
  }
  return device->CreateTensor(TensorShape(shape.dims, data_type, shape.layout, shape.location, TensorShape::Extra()),
                              nullptr);
}

}  // namespace

std::vector<float> HalfArray_To_FloatArray_Fallback(std::vector<half> values) { return ConvertArray<float>(values); }

std::vector<half> FloatArray_To_HalfArray_Fallback(std::vector<float> values) { return ConvertArray<half>(values); }

std::vector<float> ByteArray_To_FloatArray_Fallback(std::string bytes) { return FromBytes<float>(bytes); }

std::vector<half> ByteArray_To_HalfArray_Fallback(std::string bytes) { return FromBytes<half>(bytes); }

std::string FloatArrayToByteArrayFallback(std::vector<float> values) {
  std::string bytes(values.size() * sizeof(float), '\0');
  if (!values.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

namespace functional {

TensorPtr Transform_MainMemory_F32_To_F16_Fallback(TensorPtr input, DevicePtr device) {
  TensorPtr const output = NewConverted(__func__, input, TensorShape::FLOAT16, sizeof(float), device);
  native::Transform_MainMemory_F32_To_F16_Fallback(input->data, runtime::ElementCount(output->shape.dims),
                                                   output->data);
  return output;
}

TensorPtr Transform_MainMemory_F16_To_F32_Fallback(TensorPtr input, DevicePtr device) {
  TensorPtr const output = NewConverted(__func__, input, TensorShape::FLOAT32, sizeof(half), device);
  native::Transform_MainMemory_F16_To_F32_Fallback(input->data, runtime::ElementCount(output->shape.dims),
                                                   output->data);
  return output;
}

}  // namespace functional

namespace native {

void Transform_MainMemory_F32_To_F16_Fallback(void const* source, unsigned int count, void* destination) {
  ConvertMemory<half, float>(__func__, source, count, destination);
}

void Transform_MainMemory_F16_To_F32_Fallback(void const* source, unsigned int count, void* destination) {
  ConvertMemory<float, half>(__func__, source, count, destination);
}

}  // namespace native

}  // namespace talvo::kernel
