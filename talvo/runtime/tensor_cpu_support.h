// The release of a tensor's memory, and the reshape and the permutation of tensors with a device of the caller's
// choice. Internal.
#pragma once

#include <memory>
#include <vector>

#include "talvo/runtime/tensor_cpu.h"

namespace talvo::runtime {

class MemoryPool;

/// The device that made the tensor. Assert: it is no CPU device.
DeviceCPU& DeviceOf(TensorCPU const& tensor);

/// Which pool of a device.
using PoolField = std::shared_ptr<MemoryPool> DeviceCPU::*;

/// Hands the memory back to a pool of the tensor's device. Assert: a device that is no CPU device.
void ReturnMemory(TensorCPU const& tensor, PoolField pool);

/// What TensorCPU::Reshape does, for a result of this layout, made by this device.
std::shared_ptr<TensorCPU> ReshapeTensor(TensorCPU const& tensor, std::vector<int> const& new_dims, unsigned int layout,
                                         DeviceCPU& device);

/// What TensorCPU::Permute does, for a result made by this device.
std::shared_ptr<TensorCPU> PermuteTensor(TensorCPU const& tensor, std::vector<unsigned int> const& axes,
                                         DeviceCPU& device);

}  // namespace talvo::runtime
