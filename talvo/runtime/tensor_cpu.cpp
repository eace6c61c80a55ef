#include "talvo/runtime/tensor_cpu.h"

#include <cstring>
#include <utility>

#include "talvo/kernel/native/permute.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/utility/exact_cast_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

DeviceCPU& DeviceOf(TensorCPU const& tensor) {
  auto* const device = utility::CastTo<DeviceCPU>(tensor.device);
  if (device == nullptr) {
    utility::Refuse("tensor of dims %s: its device is no CPU device", DimsText(tensor.shape.dims).c_str());
  }
  return *device;
}

// From the extents of the axes to their strides, in elements.
void TurnIntoStrides(std::vector<unsigned int>& axes) {
  unsigned int stride = 1;
  for (std::size_t axis = axes.size(); axis-- > 0;) stride *= std::exchange(axes[axis], stride);
}

std::function<void(void*)> Deleter(TensorCPU const* tensor, PoolField pool) {
  return [tensor, pool](void*) {
    ReturnMemory(*tensor, pool);
    delete tensor;
  };
}

}  // namespace

TensorCPU::TensorCPU(TensorShape&& tensor_shape, void* first_element, Device* maker)
    : Tensor(std::move(tensor_shape), first_element, maker), strides(shape.dims) {
  TurnIntoStrides(strides);
}

TensorCPU::TensorCPU(TensorShape const& tensor_shape, void* first_element, Device* maker)
    : TensorCPU(TensorShape(tensor_shape), first_element, maker) {}

std::function<void(void*)> TensorCPU::GetDeleter() const { return Deleter(this, &DeviceCPU::memory_pool); }

std::function<void(void*)> TensorCPU::GetDynamicDeleter() const { return Deleter(this, &DeviceCPU::dynamic_pool); }

void ReturnMemory(TensorCPU const& tensor, PoolField pool) { (DeviceOf(tensor).*pool)->Free(tensor.data); }

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
