// Joining and slicing beside memcpy of the same bytes, and softmax beside the loop that calls expf twice.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/structural.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_activation.h"
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

void PlainSoftmax(benchmark::State& state, std::size_t n, std::size_t inner) {
  std::vector<float> const x(n * inner, 0.5f);
  std::vector<float> y(n * inner);
  for (auto _ : state) {
    for (std::size_t i = 0; i < inner; ++i) {
      double sum = 0.0;
      for (std::size_t k = 0; k < n; ++k) sum += static_cast<double>(std::exp(x[k * inner + i]));
      for (std::size_t k = 0; k < n; ++k) {
        y[k * inner + i] = static_cast<float>(static_cast<double>(std::exp(x[k * inner + i])) / sum);
      }
    }
    benchmark::ClobberMemory();
  }
  SetBytes(state, n * inner);
}

// Bytes are those of the output.
void Forward(benchmark::State& state, std::shared_ptr<runtime::IKernel> const& kernel,
             std::shared_ptr<runtime::LayerInfo> const& layer, std::vector<Dims> const& input_dims) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  if (!kernel->Config(layer, nullptr, context)) state.SkipWithError("not configured");
  Tensors inputs, outputs;
  for (Dims const& dims : input_dims) {
    std::vector<float> const values(runtime::ElementCount(dims), 0.5f);
    inputs.push_back(context->device_cpu->CreateF32CHWMainMem(dims, values.data()));
  }
  for (auto _ : state) {
    outputs.clear();
    kernel->Forward(inputs, outputs, context);
    benchmark::ClobberMemory();
  }
  SetBytes(state, runtime::ElementCount(outputs[0]->shape.dims));
}

template <class Kernel, class Info, class Value>
void Register(char const* name, Value Info::*field, Value value, std::vector<Dims> const& dims) {
  auto const layer = std::make_shared<Info>();
  (*layer).*field = std::move(value);
  benchmark::RegisterBenchmark(name, Forward, std::make_shared<Kernel>(), layer, dims);
}

void RegisterSlice(char const* name, std::vector<short> slice_dims) {
  Register<kernel::Slice_Fallback_CHW_Float_M1>(name, &runtime::TensorSliceInfo::slice_dims, std::move(slice_dims),
                                                {{64, 128, 512}});
}

}  // namespace

int main(int argc, char** argv) {
  using runtime::ConcatenateInfo;
  benchmark::RegisterBenchmark("Memcpy/1M", Memcpy, std::size_t{1} << 20);
  Register<kernel::Concatenate_MainMemory_Fallback>("Concatenate/1M_in_chunks_of_1_KB", &ConcatenateInfo::dim,
                                                    std::uint16_t{1}, {{2048, 256}, {2048, 256}});
  Register<kernel::Concatenate_C_Fallback_CnHWn_M1>("Concatenate_C/1M", &ConcatenateInfo::dim, std::uint16_t{1},
                                                    {{32, 128, 128}, {32, 128, 128}});
  RegisterSlice("Slice/1M_in_whole_planes", {8, 24, 1, 0, 128, 1, 0, 512, 1});
  RegisterSlice("Slice/1M_in_planes_of_256_KB", {0, 32, 2, 0, 128, 1, 0, 512, 1});
  RegisterSlice("Slice/1M_in_rows_of_1_KB", {0, 32, 1, 0, 128, 1, 100, 356, 1});
  RegisterSlice("Slice/1M_in_single_elements", {0, 32, 1, 0, 128, 1, 0, 512, 2});
  benchmark::RegisterBenchmark("PlainSoftmax/1000", PlainSoftmax, std::size_t{1000}, std::size_t{1});
  Register<kernel::Softmax_Fallback_Float_M1>("Softmax/1000", &runtime::SoftmaxInfo::dim, std::uint16_t{1}, {{1000}});
  benchmark::RegisterBenchmark("PlainSoftmax/64x56x56", PlainSoftmax, std::size_t{64}, std::size_t{3136});
  Register<kernel::Softmax_Fallback_Float_M1>("Softmax/64x56x56", &runtime::SoftmaxInfo::dim, std::uint16_t{1},
                                              {{64, 56, 56}});
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
