// Tensor memory comes from the system through posix_memalign alone; this program counts the calls.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "talvo/entry/create_context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/net.h"
#include "talvo/runtime/tensor_cpu.h"
#include "tests/runtime/scripted_kernel.h"

namespace {

int aligned_allocations = 0;

}  // namespace

extern "C" int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  using Function = int (*)(void**, std::size_t, std::size_t);
  static auto const system_function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "posix_memalign"));
  ++aligned_allocations;
  return system_function(block, alignment, size);
}

namespace talvo::runtime {
namespace {

using test::ScriptedKernel;
using test::Tensors;

// A net of `sizes`: each layer makes a tensor of its size, with a scratch tensor of 100 elements beside it.
Net NetOf(std::vector<unsigned int> const& sizes) {
  std::vector<std::shared_ptr<Layer>> layers;
  for (std::uint32_t index = 0; index < sizes.size(); ++index) {
    auto layer = std::make_shared<Layer>();
    layer->type = index == 0 ? "Input" : "Make";
    if (index > 0) layer->input_refs.emplace_back(index - 1, 0);
    if (index + 1 < sizes.size()) layer->consumers.emplace_back(index + 1, 0);
    unsigned int const size = sizes[index];
    layer->kernel = std::make_shared<ScriptedKernel>([size](Tensors const&, Tensors& outputs, Context const& context) {
      auto const scratch = context.device_cpu->CreateZeroF32CMainMem(100);
      outputs.push_back(context.device_cpu->CreateZeroF32CMainMem(size));
    });
    layers.push_back(layer);
  }
  return Net(layers, {});
}

// A request may be served from a block far above its size, so shapes that grow along the net take some passes.
TEST(Allocation, PassesOverFixedShapesSoonTakeNothingFromTheSystem) {
  struct Case {
    char const* why;
    std::vector<unsigned int> sizes;
    int first_passes;
  };
  for (Case const& c : {Case{"equal", {5000, 5000, 5000, 5000, 5000, 5000}, 1},
                        {"shrinking", {90000, 40000, 20000, 5000, 1000, 1000, 10}, 1},
                        {"growing", {100, 200, 400, 800, 1600, 3200, 6400}, 10}}) {
    SCOPED_TRACE(c.why);
    std::shared_ptr<Context> context;
    utility::create_context(context, 64);
    Net const net = NetOf(c.sizes);
    auto const input = context->device_cpu->CreateZeroF32CMainMem(300);
    auto const& device = *context->device_cpu;
    auto const pass = [&] {
      net.Forward({{0, input}}, {static_cast<unsigned int>(c.sizes.size()) - 1}, context, nullptr, nullptr);
    };

    int const before = aligned_allocations;
    for (int i = 0; i < c.first_passes; ++i) pass();
    int const after_first = aligned_allocations;
    unsigned long const main_bytes = device.memory_pool->HeapSize(), dynamic_bytes = device.dynamic_pool->HeapSize();
    EXPECT_GT(after_first, before) << "the first pass fills the pool, and the calls are counted";

    pass();
    EXPECT_EQ(aligned_allocations, after_first);
    EXPECT_EQ(device.memory_pool->HeapSize(), main_bytes);
    EXPECT_EQ(device.dynamic_pool->HeapSize(), dynamic_bytes);
  }
}

}  // namespace
}  // namespace talvo::runtime
