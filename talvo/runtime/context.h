// The bundle of devices that every kernel receives. This library has the CPU device alone; the other slots stay empty.
#pragma once

#include <memory>

#include "talvo/utility/export.h"

namespace talvo::runtime {

class DeviceCPU;
class DeviceOpenGL;
class DeviceMetalCompute;
class DeviceCUDAStream;
class DeviceVulkan;
class Profiler;

struct Context {
  std::shared_ptr<DeviceCPU> device_cpu;
  std::shared_ptr<DeviceOpenGL> device_opengl;
  std::shared_ptr<DeviceMetalCompute> device_metal;
  std::shared_ptr<DeviceCUDAStream> device_cuda;
  std::shared_ptr<DeviceVulkan> device_vulkan;
  std::shared_ptr<Profiler> profiler;
};

/// Copies the pointers into a new record. Vulkan stands before CUDA here, and behind it in the record.
TALVO_API std::shared_ptr<Context> CreateContext(std::shared_ptr<DeviceCPU> device_cpu,
                                                 std::shared_ptr<DeviceOpenGL> device_opengl,
                                                 std::shared_ptr<DeviceMetalCompute> device_metal,
                                                 std::shared_ptr<DeviceVulkan> device_vulkan,
                                                 std::shared_ptr<DeviceCUDAStream> device_cuda,
                                                 std::shared_ptr<Profiler> profiler);

}  // namespace talvo::runtime
