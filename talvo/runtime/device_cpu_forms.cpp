// The forms of DeviceCPU that build a shape and call one of its three root factories.
#include <cstring>
#include <vector>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::runtime {
namespace {

using S = TensorShape;
using Pointer = std::shared_ptr<TensorCPU>;

TensorShape MainMemoryShape(std::vector<unsigned int> const& dims, unsigned int data_type, unsigned int layout) {
  return TensorShape(dims, data_type, layout, S::MainMemory, S::Extra());
}

Pointer Copy(DeviceCPU& device, std::vector<unsigned int> const& dims, unsigned int data_type, unsigned int layout,
             void const* data) {
  return device.CreateTensor(MainMemoryShape(dims, data_type, layout), data);
}

Pointer Zero(DeviceCPU& device, std::vector<unsigned int> const& dims, unsigned int data_type, unsigned int layout) {
  auto tensor = Copy(device, dims, data_type, layout, nullptr);
  std::memset(tensor->data, 0, ByteCount(tensor->shape));
  return tensor;
}

Pointer Wrap(DeviceCPU& device, std::vector<unsigned int> const& dims, unsigned int data_type, unsigned int layout,
             void* data) {
  return device.CreateTensorExternal(MainMemoryShape(dims, data_type, layout), data);
}

// Pixels: the bytes of one stand side by side.
Pointer CopyPixels(DeviceCPU& device, unsigned int h, unsigned int w, unsigned int bytes, void const* data) {
  return device.CreateU8HWCMainMem({h, w, bytes}, data);
}

Pointer WrapPixels(DeviceCPU& device, unsigned int h, unsigned int w, unsigned int bytes, void* data) {
  return device.CreateU8HWCMainMemExternal({h, w, bytes}, data);
}

// Three planes, one for each colour.
Pointer CopyPlanes(DeviceCPU& device, unsigned int h, unsigned int w, void const* data) {
  return device.CreateU8CHWMainMem({3, h, w}, data);
}

Pointer WrapPlanes(DeviceCPU& device, unsigned int h, unsigned int w, void* data) {
  return device.CreateU8CHWMainMemExternal({3, h, w}, data);
}

}  // namespace

DeviceCPU::DeviceCPU(CPUDeviceDesc const& device_desc, std::shared_ptr<MemoryPool> const& main_pool,
                     std::shared_ptr<ThreadPool> const& threads, std::shared_ptr<MemoryPool> const& forward_pool)
    : desc(device_desc), thread_pool(threads), memory_pool(main_pool), dynamic_pool(forward_pool) {}

std::shared_ptr<DeviceCPU> CreateDeviceCPU(CPUDeviceDesc const& desc, std::shared_ptr<MemoryPool> const& memory_pool,
                                           std::shared_ptr<ThreadPool> const& thread_pool,
                                           std::shared_ptr<MemoryPool> const& dynamic_pool) {
  return std::make_shared<DeviceCPU>(desc, memory_pool, thread_pool, dynamic_pool);
}

CPUDeviceDesc DetectCPUDevice() { return CPUDeviceDesc(); }

Pointer DeviceCPU::CreateZeroF16CMainMem(unsigned int const& c) { return Zero(*this, {c}, S::FLOAT16, S::C); }

Pointer DeviceCPU::CreateZeroF32CMainMem(unsigned int const& c) { return Zero(*this, {c}, S::FLOAT32, S::C); }

Pointer DeviceCPU::CreateZeroF32CHWMainMem(unsigned int const& c, unsigned int const& h, unsigned int const& w) {
  return Zero(*this, {c, h, w}, S::FLOAT32, S::CHW);
}

Pointer DeviceCPU::CreateZeroF16FlexiableMainMem(std::vector<unsigned int> const& dims) {
  return Zero(*this, dims, S::FLOAT16, S::FLEXIABLE);
}

Pointer DeviceCPU::CreateZeroF32FlexiableMainMem(std::vector<unsigned int> const& dims) {
  return Zero(*this, dims, S::FLOAT32, S::FLEXIABLE);
}

Pointer DeviceCPU::CreateF16CMainMemory(unsigned int const& c, void const* data) {
  return Copy(*this, {c}, S::FLOAT16, S::C, data);
}

Pointer DeviceCPU::CreateF32CMainMemory(unsigned int const& c, void const* data) {
  return Copy(*this, {c}, S::FLOAT32, S::C, data);
}

Pointer DeviceCPU::CreateF16FlexiableMainMemory(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::FLOAT16, S::FLEXIABLE, data);
}

Pointer DeviceCPU::CreateF32FlexiableMainMemory(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::FLOAT32, S::FLEXIABLE, data);
}

Pointer DeviceCPU::CreateF32CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::FLOAT32, S::CHW, data);
}

Pointer DeviceCPU::CreateF16CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::FLOAT16, S::CHW, data);
}

Pointer DeviceCPU::CreateF16C4HW4MainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::FLOAT16, S::C4HW4, data);
}

Pointer DeviceCPU::CreateF16C8HW8MainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::FLOAT16, S::C8HW8, data);
}

Pointer DeviceCPU::CreateU8CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::UINT8, S::CHW, data);
}

Pointer DeviceCPU::CreateU8HWCMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::UINT8, S::HWC, data);
}

Pointer DeviceCPU::CreateS16CHWMainMem(std::vector<unsigned int> const& dims, void const* data) {
  return Copy(*this, dims, S::INT16, S::CHW, data);
}

Pointer DeviceCPU::CreateF16FlexiableMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return Wrap(*this, dims, S::FLOAT16, S::FLEXIABLE, data);
}

Pointer DeviceCPU::CreateF32FlexiableMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return Wrap(*this, dims, S::FLOAT32, S::FLEXIABLE, data);
}

Pointer DeviceCPU::CreateF32CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return Wrap(*this, dims, S::FLOAT32, S::CHW, data);
}

Pointer DeviceCPU::CreateS16CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return Wrap(*this, dims, S::INT16, S::CHW, data);
}

Pointer DeviceCPU::CreateU8CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return Wrap(*this, dims, S::UINT8, S::CHW, data);
}

Pointer DeviceCPU::CreateU8HWCMainMemExternal(std::vector<unsigned int> const& dims, void* data) {
  return Wrap(*this, dims, S::UINT8, S::HWC, data);
}

Pointer DeviceCPU::CreateF32CMainMemExternal(unsigned int const& c, void* data) {
  return Wrap(*this, {c}, S::FLOAT32, S::C, data);
}

Pointer DeviceCPU::CreateYPlane8BitTensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 1, data);
}

Pointer DeviceCPU::CreateUVPlane8BitTensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 2, data);
}

Pointer DeviceCPU::CreateGray8Tensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 1, data);
}

Pointer DeviceCPU::CreateBGR888Tensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 3, data);
}

Pointer DeviceCPU::CreateRGB888Tensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 3, data);
}

Pointer DeviceCPU::CreateBGRA8888Tensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 4, data);
}

Pointer DeviceCPU::CreateRGBA8888Tensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPixels(*this, h, w, 4, data);
}

Pointer DeviceCPU::CreateBGRUInt8CHWTensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPlanes(*this, h, w, data);
}

Pointer DeviceCPU::CreateRGBUInt8CHWTensor(unsigned int const& h, unsigned int const& w, void const* data) {
  return CopyPlanes(*this, h, w, data);
}

Pointer DeviceCPU::CreateYPlane8BitTensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 1, data);
}

Pointer DeviceCPU::CreateUVPlane8BitTensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 2, data);
}

Pointer DeviceCPU::CreateGray8TensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 1, data);
}

Pointer DeviceCPU::CreateBGR888TensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 3, data);
}

Pointer DeviceCPU::CreateRGB888TensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 3, data);
}

Pointer DeviceCPU::CreateBGRA8888TensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 4, data);
}

Pointer DeviceCPU::CreateRGBA8888TensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPixels(*this, h, w, 4, data);
}

Pointer DeviceCPU::CreateBGRUInt8CHWTensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPlanes(*this, h, w, data);
}

Pointer DeviceCPU::CreateRGBUInt8CHWTensorExternal(unsigned int const& h, unsigned int const& w, void* data) {
  return WrapPlanes(*this, h, w, data);
}

}  // namespace talvo::runtime
