// Elementwise, broadcast and reducing kernels beside memcpy of the first operand and the plain loop. Bytes are those of
// the first operand.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/elementwise.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_tensor.h"

namespace {

using namespace talvo;

using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

void SetBytes(benchmark::State& state, std::size_t count) {
  state.SetBytesProcessed(static_cast<std::int64_t>(count * sizeof(float)) * state.iterations());
}

void Memcpy(benchmark::State& state, std::size_t count) {
  std::vector<float> const x(count, 1.0f);
  std::vector<float> y(count);
  for (auto _ : state) {
    std::memcpy(y.data(), x.data(), count * sizeof(float));
    benchmark::ClobberMemory();
  }
  SetBytes(state, count);
}

void PlainAdd(benchmark::State& state, std::size_t count) {
  std::vector<float> const a(count, 1.0f), b(count, 2.0f);
  std::vector<float> y(count);
  for (auto _ : state) {
    for (std::size_t i = 0; i < count; ++i) y[i] = a[i] + b[i];
    benchmark::ClobberMemory();
  }
  SetBytes(state, count);
}

// Each plane and one number: what a broadcast by channel cannot do without.
void PlainAddByChannel(benchmark::State& state, std::size_t channels, std::size_t plane) {
  std::vector<float> const a(channels * plane, 1.0f), b(channels, 2.0f);
  std::vector<float> y(channels * plane);
  for (auto _ : state) {
    for (std::size_t c = 0; c < channels; ++c) {
      float const one = b[c];
      for (std::size_t i = 0; i < plane; ++i) y[c * plane + i] = a[c * plane + i] + one;
    }
    benchmark::ClobberMemory();
  }
  SetBytes(state, channels * plane);
}

void PlainSumOfLastAxis(benchmark::State& state, std::size_t rows, std::size_t n) {
  std::vector<float> const x(rows * n, 1.0f);
  std::vector<float> y(rows);
  for (auto _ : state) {
    for (std::size_t r = 0; r < rows; ++r) {
      float sum = 0.0f;
      for (std::size_t k = 0; k < n; ++k) sum += x[r * n + k];
      y[r] = sum;
    }
    benchmark::ClobberMemory();
  }
  SetBytes(state, rows * n);
}

void Forward(benchmark::State& state, std::shared_ptr<runtime::IKernel> const& kernel,
             std::shared_ptr<runtime::LayerInfo> const& layer, std::vector<Dims> const& input_dims) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  if (!kernel->Config(layer, nullptr, context)) state.SkipWithError("not configured");
  Tensors inputs, outputs;
  for (Dims const& dims : input_dims) {
    std::vector<float> const values(runtime::ElementCount(dims), 0.5f);
    inputs.push_back(context->device_cpu->CreateF32FlexiableMainMemory(dims, values.data()));
  }
  for (auto _ : state) {
    outputs.clear();
    kernel->Forward(inputs, outputs, context);
    benchmark::ClobberMemory();
  }
  SetBytes(state, runtime::ElementCount(input_dims[0]));
}

void RegisterBroadcast(char const* name, unsigned short op_type, std::vector<Dims> const& dims) {
  auto const layer = std::make_shared<runtime::BroadcastOperatorInfo>();
  layer->op_type = op_type;
  benchmark::RegisterBenchmark(name, Forward, std::make_shared<kernel::BroadcastOperator_Fallback_Float_M1>(), layer,
                               dims);
}

void RegisterReduction(char const* name, std::vector<short> dim, Dims const& dims) {
  auto const layer = std::make_shared<runtime::TensorArithmeticInfo>();
  layer->dim = std::move(dim);
  layer->arith_type = 1;
  benchmark::RegisterBenchmark(name, Forward, std::make_shared<kernel::TensorArithmetic_Fallback_M1>(), layer,
                               std::vector<Dims>{dims});
}

}  // namespace

int main(int argc, char** argv) {
  constexpr std::size_t kMillion = 1 << 20, kPlanes = 64 * 56 * 56;
  benchmark::RegisterBenchmark("Memcpy/1M", Memcpy, kMillion);
  benchmark::RegisterBenchmark("PlainAdd/1M", PlainAdd, kMillion);
  for (unsigned short op_type = 0; op_type < 4; ++op_type) {
    constexpr char const* kNames[] = {"Elementwise_Add/1M", "Elementwise_Sub/1M", "Elementwise_Mul/1M",
                                      "Elementwise_Div/1M"};
    auto const layer = std::make_shared<runtime::ElementWiseOperatorInfo>();
    layer->op_type = op_type;
    benchmark::RegisterBenchmark(kNames[op_type], Forward, std::make_shared<kernel::Elementwise_Fallback_Float_M1>(),
                                 layer, std::vector<Dims>{{kMillion}, {kMillion}});
  }
  benchmark::RegisterBenchmark("Memcpy/64x56x56", Memcpy, kPlanes);
  benchmark::RegisterBenchmark("PlainAddByChannel/64x56x56", PlainAddByChannel, std::size_t{64}, std::size_t{3136});
  RegisterBroadcast("Broadcast_Add/64x56x56_by_64x1x1", 0, {{64, 56, 56}, {64, 1, 1}});
  RegisterBroadcast("Broadcast_Mul/64x56x56_by_64x1x1", 2, {{64, 56, 56}, {64, 1, 1}});
  RegisterBroadcast("Broadcast_Larger/64x56x56_by_56", 4, {{64, 56, 56}, {56}});
  RegisterBroadcast("Broadcast_Add/64x3136x1_by_64x3136x1", 0, {{64, 3136, 1}, {64, 3136, 1}});
  benchmark::RegisterBenchmark("Memcpy/64Kx4", Memcpy, std::size_t{4} << 16);
  RegisterBroadcast("Broadcast_Add/64Kx4_by_4", 0, {{1 << 16, 4}, {4}});
  RegisterBroadcast("Broadcast_Mul/64Kx4_by_64Kx1", 2, {{1 << 16, 4}, {1 << 16, 1}});
  RegisterBroadcast("Broadcast_Sub/4Kx7x9_by_7x1", 1, {{1 << 12, 7, 9}, {7, 1}});
  benchmark::RegisterBenchmark("PlainSumOfLastAxis/3584x56", PlainSumOfLastAxis, std::size_t{3584}, std::size_t{56});
  RegisterReduction("Mean_of_image_axes/64x56x56", {2, 3}, {64, 56, 56});
  RegisterReduction("Mean_of_channels/64x56x56", {1}, {64, 56, 56});
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
