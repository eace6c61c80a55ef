#include "talvo/runtime/device_cpu.h"

#include <cstring>
#include <functional>
#include <utility>

#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

TensorShape MainMemoryShape(std::vector<unsigned int> dims, unsigned int data_type, unsigned int layout) {
  return TensorShape(std::move(dims), data_type, layout, TensorShape::MainMemory, TensorShape::Extra());
}

unsigned int CheckedByteCount(TensorShape const& shape) {
  if (shape.data_type > TensorShape::UINT8) {
    utility::Refuse("tensor of dims %s: data type %u does not exist", DimsText(shape.dims).c_str(), shape.data_type);
  }
  return ByteCount(shape);
}

// A tensor on memory from `pool`. Until the shared pointer stands nothing but the tensor object is owned, so that no
// failure leaves a block in use.
std::shared_ptr<TensorCPU> CreatePoolTensor(TensorShape shape, void const* data, MemoryPool& pool, Device* device,
                                            std::function<void(void*)> (TensorCPU::*deleter)() const) {
  unsigned int const bytes = CheckedByteCount(shape);
  auto tensor = std::make_unique<TensorCPU>(std::move(shape), nullptr, device);
  tensor->data = pool.Malloc(bytes);
  if (tensor->data == nullptr) {
    utility::Refuse("tensor of dims %s: the pool gave no memory for %u bytes", DimsText(tensor->shape.dims).c_str(),
                    bytes);
  }
  if (data != nullptr) std::memcpy(tensor->data, data, bytes);
  auto release = (tensor.get()->*deleter)();
  return std::shared_ptr<TensorCPU>(tensor.release(), std::move(release));
}

}  // namespace

DeviceCPU::DeviceCPU(CPUDeviceDesc const& device_desc, std::shared_ptr<MemoryPool> const& main_pool,
                     std::shared_ptr<ThreadPool> const& threads, std::shared_ptr<MemoryPool> const& forward_pool)
    : desc(device_desc), thread_pool(threads), memory_pool(main_pool), dynamic_pool(forward_pool) {}

std::shared_ptr<TensorCPU> DeviceCPU::CreateTensor(TensorShape shape, void const* data) {
  if (use_dynamic_pool && dynamic_pool != nullptr) return CreateTensorDynamic(std::move(shape), data);
  if (memory_pool == nullptr) utility::Refuse("CreateTensor: the device has no memory pool");
  return CreatePoolTensor(std::move(shape), data, *memory_pool, this, &TensorCPU::GetDeleter);
}

std::shared_ptr<TensorCPU> DeviceCPU::CreateTensorDynamic(TensorShape shape, void const* data) {
  if (dynamic_pool == nullptr) utility::Refuse("CreateTensorDynamic: the device has no dynamic pool");
  return CreatePoolTensor(std::move(shape), data, *dynamic_pool, this, &TensorCPU::GetDynamicDeleter);
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
