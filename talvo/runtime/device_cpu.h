// The CPU device: the factory of all tensors, on a main pool for long-lived ones and a dynamic pool for those of a
// forward pass.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "talvo/runtime/device.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

class TensorCPU;
class ThreadPool;  // known by name only

/// Carried with a device; nothing fills or reads it.
struct CPUDeviceDesc {
  std::uint64_t family = 0;
  std::vector<bool> features;
  std::vector<std::uint32_t> cache_sizes;
  std::uint64_t type = 0;
  std::uint64_t subtype = 0;
};

/// Makes tensors. It shares the ownership of its pools, and lives longer than every tensor made from it, since tensors
/// hold a plain pointer to it. A device, its pools and its tensors belong to one thread at a time. Every factory
/// refuses through Assert a data type that does not exist, a byte count over 32 bits and a failed allocation, each with
/// the dims in the text; and a request to a pool that the device does not have.
class TALVO_API DeviceCPU : public Device {
 public:
  DeviceCPU(CPUDeviceDesc const& device_desc, std::shared_ptr<MemoryPool> const& main_pool,
            std::shared_ptr<ThreadPool> const& threads, std::shared_ptr<MemoryPool> const& forward_pool);

  /// A tensor from the main pool, or from the dynamic pool while `use_dynamic_pool` is set and the device has one.
  /// `data` holds at least the tensor's bytes, which are copied; null leaves the new bytes as they are.
  std::shared_ptr<TensorCPU> CreateTensor(TensorShape shape, void const* data);
  /// A tensor from the dynamic pool, whatever `use_dynamic_pool` says. Assert: the device has none.
  std::shared_ptr<TensorCPU> CreateTensorDynamic(TensorShape shape, void const* data);
  /// A tensor over memory that the caller keeps: as long as the dims say, and longer-lived than the tensor. May be
  /// null.
  std::shared_ptr<TensorCPU> CreateTensorExternal(TensorShape shape, void* data);

  // Zero forms: a new tensor with all bytes 0.
  std::shared_ptr<TensorCPU> CreateZeroF16CMainMem(unsigned int const& c);
  std::shared_ptr<TensorCPU> CreateZeroF32CMainMem(unsigned int const& c);
  std::shared_ptr<TensorCPU> CreateZeroF32CHWMainMem(unsigned int const& c, unsigned int const& h,
                                                     unsigned int const& w);
  std::shared_ptr<TensorCPU> CreateZeroF16FlexiableMainMem(std::vector<unsigned int> const& dims);
  std::shared_ptr<TensorCPU> CreateZeroF32FlexiableMainMem(std::vector<unsigned int> const& dims);

  // Copy forms: a new tensor with a copy of `data`, which holds at least the tensor's bytes; null leaves the bytes as
  // they are.
  std::shared_ptr<TensorCPU> CreateF16CMainMemory(unsigned int const& c, void const* data);
  std::shared_ptr<TensorCPU> CreateF32CMainMemory(unsigned int const& c, void const* data);
  std::shared_ptr<TensorCPU> CreateF16FlexiableMainMemory(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateF32FlexiableMainMemory(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateF32CHWMainMem(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateF16CHWMainMem(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateF16C4HW4MainMem(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateF16C8HW8MainMem(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateU8CHWMainMem(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateU8HWCMainMem(std::vector<unsigned int> const& dims, void const* data);
  std::shared_ptr<TensorCPU> CreateS16CHWMainMem(std::vector<unsigned int> const& dims, void const* data);

  // External forms: a tensor over the caller's memory.
  std::shared_ptr<TensorCPU> CreateF16FlexiableMainMemExternal(std::vector<unsigned int> const& dims, void* data);
  std::shared_ptr<TensorCPU> CreateF32FlexiableMainMemExternal(std::vector<unsigned int> const& dims, void* data);
  std::shared_ptr<TensorCPU> CreateF32CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data);
  std::shared_ptr<TensorCPU> CreateS16CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data);
  std::shared_ptr<TensorCPU> CreateU8CHWMainMemExternal(std::vector<unsigned int> const& dims, void* data);
  std::shared_ptr<TensorCPU> CreateU8HWCMainMemExternal(std::vector<unsigned int> const& dims, void* data);
  std::shared_ptr<TensorCPU> CreateF32CMainMemExternal(unsigned int const& c, void* data);

  // Image forms: UINT8, h rows of w pixels, HWC with 1 channel (Y, Gray), 2 (UV), 3 (BGR, RGB) or 4 (BGRA, RGBA), the
  // CHW ones [3, h, w]. Colour order is a matter of the name; `data` is copied, or kept, as above.
  std::shared_ptr<TensorCPU> CreateYPlane8BitTensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateUVPlane8BitTensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateGray8Tensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateBGR888Tensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateRGB888Tensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateBGRA8888Tensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateRGBA8888Tensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateBGRUInt8CHWTensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateRGBUInt8CHWTensor(unsigned int const& h, unsigned int const& w, void const* data);
  std::shared_ptr<TensorCPU> CreateYPlane8BitTensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateUVPlane8BitTensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateGray8TensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateBGR888TensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateRGB888TensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateBGRA8888TensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateRGBA8888TensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateBGRUInt8CHWTensorExternal(unsigned int const& h, unsigned int const& w, void* data);
  std::shared_ptr<TensorCPU> CreateRGBUInt8CHWTensorExternal(unsigned int const& h, unsigned int const& w, void* data);

  CPUDeviceDesc desc;
  std::shared_ptr<ThreadPool> thread_pool;  // stored, never read
  std::shared_ptr<MemoryPool> memory_pool;
  std::shared_ptr<MemoryPool> dynamic_pool;  // may be empty
  bool use_dynamic_pool = false;             // set by Net::Forward while it runs
};

TALVO_API std::shared_ptr<DeviceCPU> CreateDeviceCPU(CPUDeviceDesc const& desc,
                                                     std::shared_ptr<MemoryPool> const& memory_pool,
                                                     std::shared_ptr<ThreadPool> const& thread_pool,
                                                     std::shared_ptr<MemoryPool> const& dynamic_pool);

/// A description with every field zero or empty.
TALVO_API CPUDeviceDesc DetectCPUDevice();

}  // namespace talvo::runtime
