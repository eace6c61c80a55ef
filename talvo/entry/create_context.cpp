#include "talvo/entry/create_context.h"

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/memory_pool.h"

namespace talvo::utility {

void create_context(std::shared_ptr<runtime::Context>& context, unsigned int alignment) {
  auto const desc = runtime::DetectCPUDevice();
  auto const main_pool = std::make_shared<runtime::AlignUpPool>(alignment);
  auto const dynamic_pool = std::make_shared<runtime::AlignUpPool>(alignment);
  auto const device = runtime::CreateDeviceCPU(desc, main_pool, nullptr, dynamic_pool);
  context = runtime::CreateContext(device, nullptr, nullptr, nullptr, nullptr, nullptr);
}

}  // namespace talvo::utility
