// Tensors with the elements of another one: reshaped, or with their axes in another order.
#include <cstddef>
#include <cstring>
#include <utility>

#include "talvo/kernel/native/permute.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {

std::shared_ptr<TensorCPU> TensorCPU::Reshape(std::vector<int> const& new_dims) const {
  return ReshapeTensor(*this, new_dims, shape.layout, DeviceOf(*this));
}

std::shared_ptr<TensorCPU> TensorCPU::Permute(std::vector<unsigned int> const& axes) const {
  return PermuteTensor(*this, axes, DeviceOf(*this));
}

std::shared_ptr<TensorCPU> ReshapeTensor(TensorCPU const& tensor, std::vector<int> const& new_dims, unsigned int layout,
                                         DeviceCPU& device) {
  TensorShape const& shape = tensor.shape;
  std::vector<unsigned int> dims;
  unsigned int known = 1;
  std::size_t unknown_count = 0, unknown_axis = 0;
  for (int extent : new_dims) {
    if (extent < 1) {
      ++unknown_count;
      unknown_axis = dims.size();
    } else {
      known *= static_cast<unsigned int>(extent);  // wraps: what is too large and not 0 then, CreateTensor refuses
    }
    dims.push_back(static_cast<unsigned int>(extent < 1 ? 0 : extent));
  }
  if (unknown_count >= 2) utility::Refuse(nullptr);
  unsigned int const total = ElementCount(shape.dims);
  if (total < known) utility::Refuse(nullptr);
  if (known == 0 || tensor.data == nullptr) {
    utility::Refuse("reshape of dims %s: %s", DimsText(shape.dims).c_str(),
                    known == 0 ? "the product of the new extents does not fit 32 bits" : "the tensor has no memory");
  }
  if (total % known != 0) utility::Refuse(nullptr);
  if (unknown_count == 1) dims[unknown_axis] = total / known;
  auto reshaped = device.CreateTensor(
      TensorShape(std::move(dims), shape.data_type, layout, shape.location, TensorShape::Extra()), nullptr);
  std::memcpy(reshaped->data, tensor.data, ByteCount(reshaped->shape));
  return reshaped;
}

std::shared_ptr<TensorCPU> PermuteTensor(TensorCPU const& tensor, std::vector<unsigned int> const& axes,
                                         DeviceCPU& device) {
  TensorShape const& shape = tensor.shape;
  if (tensor.data == nullptr) utility::Refuse("Input shared pointer is null.");
  if (shape.dims.size() != axes.size()) utility::Refuse("dimensions of shape must be equal to tranpose axes's.");
  std::vector<unsigned int> dims;
  for (unsigned int axis : axes) {
    if (axis >= shape.dims.size()) {
      utility::Refuse("permute of dims %s: axis %u is out of range", DimsText(shape.dims).c_str(), axis);
    }
    dims.push_back(shape.dims[axis]);
  }
  auto permuted = device.CreateTensor(
      TensorShape(std::move(dims), shape.data_type, TensorShape::FLEXIABLE, shape.location, TensorShape::Extra()),
      nullptr);
  kernel::native::Transform_MainMemory_Permute_Fallback(tensor.data, shape.dims, ElementSize(shape.data_type), axes,
                                                        permuted->data);
  return permuted;
}

}  // namespace talvo::runtime
