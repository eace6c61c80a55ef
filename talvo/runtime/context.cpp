#include "talvo/runtime/context.h"

namespace talvo::runtime {

std::shared_ptr<Context> CreateContext(std::shared_ptr<DeviceCPU> device_cpu,
                                       std::shared_ptr<DeviceOpenGL> device_opengl,
                                       std::shared_ptr<DeviceMetalCompute> device_metal,
                                       std::shared_ptr<DeviceVulkan> device_vulkan,
                                       std::shared_ptr<DeviceCUDAStream> device_cuda,
                                       std::shared_ptr<Profiler> profiler) {
  auto context = std::make_shared<Context>();
  context->device_cpu = device_cpu;
  context->device_opengl = device_opengl;
  context->device_metal = device_metal;
  context->device_cuda = device_cuda;
  context->device_vulkan = device_vulkan;
  context->profiler = profiler;
  return context;
}

}  // namespace talvo::runtime
