// The activation kernels on 1 M floats beside memcpy of the same bytes and the plain loop, bytes those of the input;
// and exp, sigmoid, tanh and log on 4096 floats in each instruction set beside the mathematics library, by elements.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/activation.h"
#include "talvo/kernel/rows/exponential.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/utility/base64.h"

namespace {

using namespace talvo;
namespace rows = kernel::rows;

constexpr unsigned int kCount = 1 << 20;

void SetBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(kCount * sizeof(float)) * state.iterations());
}

// 16 wide, from `lowest` on.
std::vector<float> Inputs(float lowest = -8.0f) {
  std::vector<float> values(kCount);
  for (unsigned int i = 0; i < kCount; ++i) values[i] = static_cast<float>(i * 2654435761u) * 0x1p-28f + lowest;
  return values;
}

void Memcpy(benchmark::State& state) {
  auto const x = Inputs();
  std::vector<float> y(kCount);
  for (auto _ : state) {
    std::memcpy(y.data(), x.data(), kCount * sizeof(float));
    benchmark::ClobberMemory();
  }
  SetBytes(state);
}

template <class Step>
void PlainLoop(benchmark::State& state, Step step) {
  auto const x = Inputs();
  std::vector<float> y(kCount);
  for (auto _ : state) {
    for (unsigned int i = 0; i < kCount; ++i) y[i] = step(x[i]);
    benchmark::ClobberMemory();
  }
  SetBytes(state);
}

// One row function or library loop on a row that stays in the nearest cache.
template <class Row>
void InCache(benchmark::State& state, rows::InstructionSet set, Row const& row, float lowest) {
  constexpr std::size_t kInCache = 4096;
  rows::ScopedInstructionSet const use(set);
  auto const x = Inputs(lowest);
  std::vector<float> y(kInCache);
  for (auto _ : state) {
    row(x.data(), kInCache, y.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(kInCache) * state.iterations());
}

template <class Row, class Step>
void RegisterInCache(std::string const& name, Row const& row, Step step, float lowest = -8.0f) {
  auto const loop = [step](float const* x, std::size_t n, float* y) {
    for (std::size_t i = 0; i < n; ++i) y[i] = step(x[i]);
  };
  benchmark::RegisterBenchmark((name + "/4096/library").c_str(), InCache<decltype(loop)>,
                               rows::InstructionSet::kBaseline, loop, lowest);
  for (auto const set : rows::RunnableSets()) {
    benchmark::RegisterBenchmark((name + "/4096/" + rows::NameOf(set)).c_str(), InCache<Row>, set, row, lowest);
  }
}

void Forward(benchmark::State& state, std::shared_ptr<runtime::IKernel> const& kernel) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  auto const layer = std::make_shared<runtime::ActivationInfo>();
  layer->weight = runtime::Base64Encode(reinterpret_cast<unsigned char const*>("\0\0\0\x3f"), 4);  // 0.5
  if (!kernel->Config(layer, nullptr, context)) state.SkipWithError("not configured");
  auto const x = context->device_cpu->CreateF32CMainMemory(kCount, Inputs().data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) {
    outputs.clear();
    kernel->Forward({x}, outputs, context);
    benchmark::ClobberMemory();
  }
  SetBytes(state);
}

template <class Kernel>
void Register(char const* name) {
  benchmark::RegisterBenchmark((std::string(name) + "/1M").c_str(), Forward, std::make_shared<Kernel>());
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::RegisterBenchmark("Memcpy/1M", Memcpy);
  auto const relu = [](float x) { return 0.0f > x ? 0.0f : x; };
  auto const sigmoid = [](float x) { return 1.0f / (std::exp(0.0f - x) + 1.0f); };
  benchmark::RegisterBenchmark("PlainLoop/ReLU/1M", PlainLoop<decltype(relu)>, relu);
  benchmark::RegisterBenchmark("PlainLoop/Sigmoid/1M", PlainLoop<decltype(sigmoid)>, sigmoid);
  Register<kernel::ReLU_Fallback_Float_M1>("ReLU");
  Register<kernel::ReLU6_Fallback_Float_M1>("ReLU6");
  Register<kernel::HSigmoid_Fallback_Float_M1>("HSigmoid");
  Register<kernel::HSwish_Fallback_Float_M1>("HSwish");
  Register<kernel::Leaky_Fallback_Float_M1>("Leaky");
  Register<kernel::Linear_Fallback_Float_M1>("Linear");
  Register<kernel::PReLU_Fallback_Float_M1>("PReLU_in_place");
  Register<kernel::Sigmoid_Fallback_Float_M1>("Sigmoid");
  Register<kernel::TanH_Fallback_Float_M1>("TanH");
  Register<kernel::Sqrt_Fallback_Float_M1>("Sqrt");
  Register<kernel::Log_Fallback_Float_M1>("Log");
  Register<kernel::Erf_Fallback_Float_M1>("Erf");
  RegisterInCache("exp", rows::ExpRow, [](float x) { return std::exp(x); });
  RegisterInCache("sigmoid", rows::SigmoidRow, sigmoid);
  RegisterInCache("tanh", rows::TanhRow, [](float x) { return std::tanh(x); });
  RegisterInCache(
      "log", rows::LogRow, [](float x) { return std::log(x); }, 0x1p-10f);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
