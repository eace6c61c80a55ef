// What the runtime costs by itself: pools, tensors, the walk of a net whose layers do nothing, and a net of layers that
// do next to nothing. Yardsticks: the allocation of the system, and the arithmetic of those layers alone.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/activation.h"
#include "talvo/kernel/functional/activation.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/net.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_activation.h"

namespace {

using namespace talvo::runtime;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

class HandOn : public IKernel {
 public:
  std::string GetName() const override { return "HandOn"; }
  int IsValidParam(std::shared_ptr<LayerInfo>, std::shared_ptr<InferenceParam>) const override { return 0; }
  bool Config(std::shared_ptr<LayerInfo>, std::shared_ptr<InferenceParam>, std::shared_ptr<Context>) override {
    return true;
  }
  bool IsConfigured() const override { return true; }
  std::vector<TensorShape> GetOutputShapes(std::vector<TensorShape> const& shapes) const override { return shapes; }
  int IsValidInput(Tensors const&) const override { return 0; }
  int Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<Context>) const override {
    outputs.push_back(inputs[0]);
    return 0;
  }
  int IsValidOutput(Tensors const&) const override { return 0; }
};

Net NetOf(std::uint32_t layer_count) {
  std::vector<std::shared_ptr<Layer>> layers;
  for (std::uint32_t index = 0; index < layer_count; ++index) {
    layers.push_back(std::make_shared<Layer>());
    layers.back()->type = index == 0 ? "Input" : "HandOn";
    if (index > 0) layers.back()->input_refs.emplace_back(index - 1, 0);
    if (index + 1 < layer_count) layers.back()->consumers.emplace_back(index + 1, 0);
    layers.back()->kernel = std::make_shared<HandOn>();
  }
  return Net(layers, {});
}

// Items are layers: the time of one is what a layer costs.
void Walk(benchmark::State& state) {
  auto const layer_count = static_cast<std::uint32_t>(state.range(0));
  bool const timed = state.range(1) != 0;
  std::shared_ptr<Context> context;
  talvo::utility::create_context(context, 64);
  Net const net = NetOf(layer_count);
  auto const input = context->device_cpu->CreateZeroF32CMainMem(16);
  std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const inputs = {{0, input}};
  std::vector<float> times;
  for (auto _ : state) {
    benchmark::DoNotOptimize(net.Forward(inputs, {layer_count - 1}, context, timed ? &times : nullptr, nullptr));
  }
  state.SetItemsProcessed(state.range(0) * state.iterations());
  state.counters["per_layer"] = benchmark::Counter(static_cast<double>(state.range(0) * state.iterations()),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(Walk)->ArgNames({"layers", "timed"})->Args({50, 0})->Args({50, 1})->Args({500, 0});

template <class Pool>
void MallocFree(benchmark::State& state) {
  Pool pool(64);
  for (auto _ : state) {
    void* const block = pool.Malloc(100000);
    benchmark::DoNotOptimize(block);
    pool.Free(block);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(MallocFree, AlignUpPool);
BENCHMARK_TEMPLATE(MallocFree, AlignedPool);

void SystemMallocFree(benchmark::State& state) {
  for (auto _ : state) {
    void* block = nullptr;
    benchmark::DoNotOptimize(posix_memalign(&block, 64, 100000));
    benchmark::DoNotOptimize(block);
    std::free(block);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SystemMallocFree);

void CreateTensor(benchmark::State& state) {
  std::shared_ptr<Context> context;
  talvo::utility::create_context(context, 64);
  TensorShape const shape({3, 224, 224}, TensorShape::FLOAT32, TensorShape::CHW, TensorShape::MainMemory, {});
  for (auto _ : state) benchmark::DoNotOptimize(context->device_cpu->CreateTensor(shape, nullptr));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(CreateTensor);

constexpr std::uint32_t kSmallLayers = 50, kSmallFloats = 16;

void SmallForward(benchmark::State& state) {
  std::shared_ptr<Context> context;
  talvo::utility::create_context(context, 64);
  Net net = NetOf(kSmallLayers + 1);
  for (std::uint32_t i = 1; i <= kSmallLayers; ++i) {
    net.layers[i]->kernel = std::make_shared<talvo::kernel::ReLU_Fallback_Float_M1>();
    net.layers[i]->kernel->Config(std::make_shared<ActivationInfo>(), nullptr, context);
  }
  auto const input = context->device_cpu->CreateZeroF32CMainMem(kSmallFloats);
  std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const inputs = {{0, input}};
  for (auto _ : state) benchmark::DoNotOptimize(net.Forward(inputs, {kSmallLayers}, context, nullptr, nullptr));
  state.SetItemsProcessed(kSmallLayers * state.iterations());
}
BENCHMARK(SmallForward)->Name("Forward/50LayersOf16");

void SmallArithmetic(benchmark::State& state) {
  std::vector<float> x(kSmallFloats, 1.0f), y(kSmallFloats);
  for (auto _ : state) {
    for (std::uint32_t i = 0; i < kSmallLayers; ++i) {
      talvo::kernel::functional::relu_f32(x.data(), kSmallFloats, y.data());
      benchmark::DoNotOptimize(y.data());
    }
  }
  state.SetItemsProcessed(kSmallLayers * state.iterations());
}
BENCHMARK(SmallArithmetic)->Name("Yardstick/arithmetic/50LayersOf16");

}  // namespace

BENCHMARK_MAIN();
