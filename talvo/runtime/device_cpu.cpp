#include "talvo/runtime/device_cpu.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
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

// A tensor and the count of its shared pointers lie in one allocation: a net makes a tensor for each layer.
struct TensorRoom {
  alignas(TensorCPU) unsigned char tensor[sizeof(TensorCPU)];
  alignas(std::max_align_t) unsigned char count[10 * sizeof(void*)];  // on some processors a mutex guards it
};
struct FreeRoom {
  void operator()(TensorRoom* room) const { std::allocator<TensorRoom>().deallocate(room, 1); }
};

// Puts the count, which is the last to go, into the room that its tensor lies in.
template <class T>
struct CountAllocator {
  using value_type = T;

  explicit CountAllocator(TensorRoom* tensor_room) : room(tensor_room) {}
  template <class Other>
  CountAllocator(CountAllocator<Other> const& other) : room(other.room) {}

  T* allocate(std::size_t) {
    static_assert(sizeof(T) <= sizeof(TensorRoom::count) && alignof(T) <= alignof(std::max_align_t));
    return reinterpret_cast<T*>(room->count);
  }
  void deallocate(T*, std::size_t) { FreeRoom()(room); }

  TensorRoom* room;
};

// Ends a tensor, whose room the count's allocator takes back.
struct TensorEnd {
  void operator()(TensorCPU* tensor) const {
    if (pool != nullptr && tensor->data != nullptr) ReturnMemory(*tensor, pool);  // null: it did not get any
    tensor->~TensorCPU();
  }

  PoolField pool;  // null: the memory is not the device's
};

std::shared_ptr<TensorCPU> MakeTensor(TensorShape&& shape, void* data, DeviceCPU* device, PoolField pool) {
  std::unique_ptr<TensorRoom, FreeRoom> room(std::allocator<TensorRoom>().allocate(1));
  auto* const made = new (room->tensor) TensorCPU(std::move(shape), data, device);
  return {made, TensorEnd{pool}, CountAllocator<TensorCPU>(room.release())};
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
