#include "talvo/runtime/device_cpu.h"

#include <cstring>
#include <memory>
#include <utility>

#include "talvo/runtime/tensor_cpu.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

unsigned int CheckedByteCount(TensorShape const& shape) {
  if (shape.data_type > TensorShape::UINT8) {
    utility::Refuse("tensor of dims %s: data type %u does not exist", DimsText(shape.dims).c_str(), shape.data_type);
  }
  return ByteCount(shape);
}

// Allocates a tensor together with the count of its shared pointers, and hands its memory back before it ends.
template <class T>
struct TensorAllocator : std::allocator<T> {
  template <class Other>
  struct rebind {
    using other = TensorAllocator<Other>;
  };

  explicit TensorAllocator(PoolField memory_pool) : pool(memory_pool) {}
  template <class Other>
  TensorAllocator(TensorAllocator<Other> const& other) : pool(other.pool) {}

  void destroy(TensorCPU* tensor) {
    if (pool != nullptr && tensor->data != nullptr) ReturnMemory(*tensor, pool);  // null: it did not get any
    tensor->~TensorCPU();
  }

  PoolField pool;  // null: the memory is not the device's
};

std::shared_ptr<TensorCPU> MakeTensor(TensorShape&& shape, void* data, DeviceCPU* device, PoolField pool) {
  return std::allocate_shared<TensorCPU>(TensorAllocator<TensorCPU>(pool), std::move(shape), data, device);
}

// A tensor on memory from a pool of `device`. The tensor stands before it takes memory, so that no failure leaves a
// block in use.
std::shared_ptr<TensorCPU> CreatePoolTensor(TensorShape&& shape, void const* data, DeviceCPU* device, PoolField pool) {
  unsigned int const bytes = CheckedByteCount(shape);
  std::shared_ptr<TensorCPU> tensor = MakeTensor(std::move(shape), nullptr, device, pool);
  tensor->data = ((*device).*pool)->Malloc(bytes);
  if (tensor->data == nullptr) {
    utility::Refuse("tensor of dims %s: the pool gave no memory for %u bytes", DimsText(tensor->shape.dims).c_str(),
                    bytes);
  }
  if (data != nullptr) std::memcpy(tensor->data, data, bytes);
  return tensor;
}

}  // namespace

std::shared_ptr<TensorCPU> DeviceCPU::CreateTensor(TensorShape shape, void const* data) {
  if (use_dynamic_pool && dynamic_pool != nullptr)
    return CreatePoolTensor(std::move(shape), data, this, &DeviceCPU::dynamic_pool);
  if (memory_pool == nullptr) utility::Refuse("CreateTensor: the device has no memory pool");
  return CreatePoolTensor(std::move(shape), data, this, &DeviceCPU::memory_pool);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateTensorDynamic(TensorShape shape, void const* data) {
  if (dynamic_pool == nullptr) utility::Refuse("CreateTensorDynamic: the device has no dynamic pool");
  return CreatePoolTensor(std::move(shape), data, this, &DeviceCPU::dynamic_pool);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateTensorExternal(TensorShape shape, void* data) {
  CheckedByteCount(shape);
  return MakeTensor(std::move(shape), data, this, nullptr);
}

}  // namespace talvo::runtime
