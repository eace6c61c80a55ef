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

TensorShape MainMemoryShape(std::vector<unsigned int> dims, unsigned int data_type, unsigned int layout) {
  return TensorShape(std::move(dims), data_type, layout, TensorShape::MainMemory, TensorShape::Extra());
}

using PoolField = std::shared_ptr<MemoryPool> DeviceCPU::*;

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
    if (tensor->data != nullptr) ReturnMemory(*tensor, pool);  // null: it did not get any
    tensor->~TensorCPU();
  }

  PoolField pool;
};

// A tensor on memory from a pool of `device`. The tensor stands before it takes memory, so that no failure leaves a
// block in use.
std::shared_ptr<TensorCPU> CreatePoolTensor(TensorShape&& shape, void const* data, DeviceCPU* device, PoolField pool) {
  unsigned int const bytes = CheckedByteCount(shape);
  std::unique_ptr<TensorRoom, FreeRoom> room(std::allocator<TensorRoom>().allocate(1));
  auto* const made = new (room->tensor) TensorCPU(std::move(shape), nullptr, device);
  std::shared_ptr<TensorCPU> const tensor(made, TensorEnd{pool}, CountAllocator<TensorCPU>(room.release()));
  tensor->data = ((*device).*pool)->Malloc(bytes);
  if (tensor->data == nullptr) {
    utility::Refuse("tensor of dims %s: the pool gave no memory for %u bytes", DimsText(tensor->shape.dims).c_str(),
                    bytes);
  }
  if (data != nullptr) std::memcpy(tensor->data, data, bytes);
  return tensor;
}

}  // namespace

DeviceCPU::DeviceCPU(CPUDeviceDesc const& device_desc, std::shared_ptr<MemoryPool> const& main_pool,
                     std::shared_ptr<ThreadPool> const& threads, std::shared_ptr<MemoryPool> const& forward_pool)
    : desc(device_desc), thread_pool(threads), memory_pool(main_pool), dynamic_pool(forward_pool) {}

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
  return std::make_shared<TensorCPU>(std::move(shape), data, this);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateZero(TensorShape shape) {
  auto tensor = CreateTensor(std::move(shape), nullptr);
  std::memset(tensor->data, 0, ByteCount(tensor->shape));
  return tensor;
}

std::shared_ptr<DeviceCPU> CreateDeviceCPU(CPUDeviceDesc const& desc, std::shared_ptr<MemoryPool> const& memory_pool,
                                           std::shared_ptr<ThreadPool> const& thread_pool,
                                           std::shared_ptr<MemoryPool> const& dynamic_pool) {
  return std::make_shared<DeviceCPU>(desc, memory_pool, thread_pool, dynamic_pool);
}

CPUDeviceDesc DetectCPUDevice() { return CPUDeviceDesc(); }

std::shared_ptr<TensorCPU> DeviceCPU::CreateZeroF16CMainMem(unsigned int const& c) {
  return CreateZero(MainMemoryShape({c}, TensorShape::FLOAT16, TensorShape::C));
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateZeroF32CMainMem(unsigned int const& c) {
  return CreateZero(MainMemoryShape({c}, TensorShape::FLOAT32, TensorShape::C));
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateZeroF32CHWMainMem(unsigned int const& c, unsigned int const& h,
                                                              unsigned int const& w) {
  return CreateZero(MainMemoryShape({c, h, w}, TensorShape::FLOAT32, TensorShape::CHW));
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateZeroF16FlexiableMainMem(std::vector<unsigned int> const& dims) {
  return CreateZero(MainMemoryShape(dims, TensorShape::FLOAT16, TensorShape::FLEXIABLE));
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateZeroF32FlexiableMainMem(std::vector<unsigned int> const& dims) {
  return CreateZero(MainMemoryShape(dims, TensorShape::FLOAT32, TensorShape::FLEXIABLE));
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF16CMainMemory(unsigned int const& c, void const* data) {
  return CreateTensor(MainMemoryShape({c}, TensorShape::FLOAT16, TensorShape::C), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF32CMainMemory(unsigned int const& c, void const* data) {
  return CreateTensor(MainMemoryShape({c}, TensorShape::FLOAT32, TensorShape::C), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF16FlexiableMainMemory(std::vector<unsigned int> const& dims,
                                                                   void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::FLOAT16, TensorShape::FLEXIABLE), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF32FlexiableMainMemory(std::vector<unsigned int> const& dims,
                                                                   void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::FLOAT32, TensorShape::FLEXIABLE), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF32CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::FLOAT32, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF16CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::FLOAT16, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF16C4HW4MainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::FLOAT16, TensorShape::C4HW4), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF16C8HW8MainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::FLOAT16, TensorShape::C8HW8), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateU8CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::UINT8, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateU8HWCMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::UINT8, TensorShape::HWC), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateS16CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return CreateTensor(MainMemoryShape(dims, TensorShape::INT16, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF16FlexiableMainMemExternal(std::vector<unsigned int> const& dims,
                                                                        void* data) {
  return CreateTensorExternal(MainMemoryShape(dims, TensorShape::FLOAT16, TensorShape::FLEXIABLE), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF32FlexiableMainMemExternal(std::vector<unsigned int> const& dims,
                                                                        void* data) {
  return CreateTensorExternal(MainMemoryShape(dims, TensorShape::FLOAT32, TensorShape::FLEXIABLE), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF32CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return CreateTensorExternal(MainMemoryShape(dims, TensorShape::FLOAT32, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateS16CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return CreateTensorExternal(MainMemoryShape(dims, TensorShape::INT16, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateU8CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return CreateTensorExternal(MainMemoryShape(dims, TensorShape::UINT8, TensorShape::CHW), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateU8HWCMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return CreateTensorExternal(MainMemoryShape(dims, TensorShape::UINT8, TensorShape::HWC), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateF32CMainMemExternal(unsigned int const& c, void* data) {
  return CreateTensorExternal(MainMemoryShape({c}, TensorShape::FLOAT32, TensorShape::C), data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateYPlane8BitTensor(unsigned int const& h, unsigned int const& w,
                                                             void const* data) {
  return CreateU8HWCMainMem({h, w, 1}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateUVPlane8BitTensor(unsigned int const& h, unsigned int const& w,
                                                              void const* data) {
  return CreateU8HWCMainMem({h, w, 2}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateGray8Tensor(unsigned int const& h, unsigned int const& w,
                                                        void const* data) {
  return CreateU8HWCMainMem({h, w, 1}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateBGR888Tensor(unsigned int const& h, unsigned int const& w,
                                                         void const* data) {
  return CreateU8HWCMainMem({h, w, 3}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateRGB888Tensor(unsigned int const& h, unsigned int const& w,
                                                         void const* data) {
  return CreateU8HWCMainMem({h, w, 3}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateBGRA8888Tensor(unsigned int const& h, unsigned int const& w,
                                                           void const* data) {
  return CreateU8HWCMainMem({h, w, 4}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateRGBA8888Tensor(unsigned int const& h, unsigned int const& w,
                                                           void const* data) {
  return CreateU8HWCMainMem({h, w, 4}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateBGRUInt8CHWTensor(unsigned int const& h, unsigned int const& w,
                                                              void const* data) {
  return CreateU8CHWMainMem({3, h, w}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateRGBUInt8CHWTensor(unsigned int const& h, unsigned int const& w,
                                                              void const* data) {
  return CreateU8CHWMainMem({3, h, w}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateYPlane8BitTensorExternal(unsigned int const& h, unsigned int const& w,
                                                                     void* data) {
  return CreateU8HWCMainMemExternal({h, w, 1}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateUVPlane8BitTensorExternal(unsigned int const& h, unsigned int const& w,
                                                                      void* data) {
  return CreateU8HWCMainMemExternal({h, w, 2}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateGray8TensorExternal(unsigned int const& h, unsigned int const& w,
                                                                void* data) {
  return CreateU8HWCMainMemExternal({h, w, 1}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateBGR888TensorExternal(unsigned int const& h, unsigned int const& w,
                                                                 void* data) {
  return CreateU8HWCMainMemExternal({h, w, 3}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateRGB888TensorExternal(unsigned int const& h, unsigned int const& w,
                                                                 void* data) {
  return CreateU8HWCMainMemExternal({h, w, 3}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateBGRA8888TensorExternal(unsigned int const& h, unsigned int const& w,
                                                                   void* data) {
  return CreateU8HWCMainMemExternal({h, w, 4}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateRGBA8888TensorExternal(unsigned int const& h, unsigned int const& w,
                                                                   void* data) {
  return CreateU8HWCMainMemExternal({h, w, 4}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateBGRUInt8CHWTensorExternal(unsigned int const& h, unsigned int const& w,
                                                                      void* data) {
  return CreateU8CHWMainMemExternal({3, h, w}, data);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateRGBUInt8CHWTensorExternal(unsigned int const& h, unsigned int const& w,
                                                                      void* data) {
  return CreateU8CHWMainMemExternal({3, h, w}, data);
}

}  // namespace talvo::runtime
