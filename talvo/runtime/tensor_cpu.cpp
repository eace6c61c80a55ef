#include "talvo/runtime/tensor_cpu.h"

#include <cstddef>
#include <utility>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/utility/exact_cast_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

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

DeviceCPU& DeviceOf(TensorCPU const& tensor) {
  auto* const device = utility::CastTo<DeviceCPU>(tensor.device);
  if (device == nullptr) {
    utility::Refuse("tensor of dims %s: its device is no CPU device", DimsText(tensor.shape.dims).c_str());
  }
  return *device;
}

TensorCPU::TensorCPU(TensorShape&& tensor_shape, void* first_element, Device* maker)
    : Tensor(std::move(tensor_shape), first_element, maker), strides(shape.dims) {
  TurnIntoStrides(strides);
}

TensorCPU::TensorCPU(TensorShape const& tensor_shape, void* first_element, Device* maker)
    : TensorCPU(TensorShape(tensor_shape), first_element, maker) {}

std::function<void(void*)> TensorCPU::GetDeleter() const { return Deleter(this, &DeviceCPU::memory_pool); }

std::function<void(void*)> TensorCPU::GetDynamicDeleter() const { return Deleter(this, &DeviceCPU::dynamic_pool); }

void ReturnMemory(TensorCPU const& tensor, PoolField pool) { (DeviceOf(tensor).*pool)->Free(tensor.data); }

}  // namespace talvo::runtime
