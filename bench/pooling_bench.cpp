// Pooling of one tensor, beside the memcpy of its input.
#include <benchmark/benchmark.h>

#include <cstring>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/pooling.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_plane.h"

namespace {

using namespace talvo;

struct Run {
  explicit Run(std::vector<unsigned int> const& dims) {
    utility::create_context(context, 64);
    std::vector<float> const values(runtime::ElementCount(dims), 0.5f);
    input = context->device_cpu->CreateF32CHWMainMem(dims, values.data());
  }
  std::shared_ptr<runtime::Context> context;
  std::shared_ptr<runtime::TensorCPU> input;
};

void Memcpy(benchmark::State& state, std::vector<unsigned int> const& dims) {
  Run const run(dims);
  std::vector<unsigned char> copy(runtime::ByteCount(run.input->shape));
  for (auto _ : state) {
    std::memcpy(copy.data(), run.input->data, copy.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(copy.size()));
}

template <class Kernel, class Info>
void Pool(benchmark::State& state, std::vector<unsigned int> const& dims, Info const& info) {
  Run const run(dims);
  Kernel kernel;
  kernel.Config(std::make_shared<Info>(info), nullptr, run.context);
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) {
    outputs.clear();
    kernel.Forward({run.input}, outputs, run.context);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(runtime::ByteCount(run.input->shape)));
}

template <class Info>
Info Window3x3(unsigned short stride) {
  Info info;
  info.kernel_x = info.kernel_y = 3;
  info.stride_x = info.stride_y = stride;
  info.padding_l = info.padding_t = info.padding_r = info.padding_b = 1;
  info.ceil_mode = false;
  return info;
}

runtime::MaxPool2dInfo Maximum3x3(unsigned short stride, bool ceil_mode = false) {
  auto info = Window3x3<runtime::MaxPool2dInfo>(stride);
  info.dilation_x = info.dilation_y = 1;
  info.ceil_mode = ceil_mode;
  if (ceil_mode) info.padding_l = info.padding_t = info.padding_r = info.padding_b = 0;
  return info;
}

runtime::AvgPool2dInfo Average3x3() {
  auto info = Window3x3<runtime::AvgPool2dInfo>(1);
  info.count_include_pad = true;
  return info;
}

runtime::MaxPool2dInfo MaximumOfThree(bool down) {
  auto info = Maximum3x3(1);
  (down ? info.kernel_x : info.kernel_y) = 1;
  (down ? info.padding_l : info.padding_t) = (down ? info.padding_r : info.padding_b) = 0;
  return info;
}

runtime::AdaptiveAvgPool2dInfo Global() {
  runtime::AdaptiveAvgPool2dInfo info;
  info.output_size = {1, 1};
  return info;
}

}  // namespace

int main(int count, char** words) {
  using Dims = std::vector<unsigned int>;
  auto const memcpy_of = [](char const* name, Dims const& dims) { benchmark::RegisterBenchmark(name, Memcpy, dims); };
  auto const maximum = [](char const* name, Dims const& dims, runtime::MaxPool2dInfo const& info) {
    benchmark::RegisterBenchmark(name, Pool<kernel::Pooling2D_Max_Fallback_Float_M1, runtime::MaxPool2dInfo>, dims,
                                 info);
  };
  auto const average = [](char const* name, Dims const& dims) {
    benchmark::RegisterBenchmark(name, Pool<kernel::Pooling2D_Avg_Fallback_Float_M1, runtime::AvgPool2dInfo>, dims,
                                 Average3x3());
  };
  auto const global = [](char const* name, Dims const& dims) {
    using Kernel = kernel::AdaptivePooling2D_Avg_Fallback_CHW_Float_M1;
    benchmark::RegisterBenchmark(name, Pool<Kernel, runtime::AdaptiveAvgPool2dInfo>, dims, Global());
  };
  memcpy_of("memcpy/64x112x112", {64, 112, 112});
  maximum("MaxPool/3x3s2/64x112x112", {64, 112, 112}, Maximum3x3(2));
  maximum("MaxPool/3x3s2_ceil/64x112x112", {64, 112, 112}, Maximum3x3(2, true));
  maximum("MaxPool/3x3s2_ceil/64x113x113", {64, 113, 113}, Maximum3x3(2, true));
  memcpy_of("memcpy/64x56x56", {64, 56, 56});
  average("AvgPool/3x3s1/64x56x56", {64, 56, 56});
  global("AdaptivePool/1x1/64x56x56", {64, 56, 56});
  memcpy_of("memcpy/512x14x14", {512, 14, 14});
  maximum("MaxPool/3x3s1/512x14x14", {512, 14, 14}, Maximum3x3(1));
  maximum("MaxPool/3x3s1/512x13x13", {512, 13, 13}, Maximum3x3(1));
  maximum("MaxPool/3x3s2_ceil/512x14x14", {512, 14, 14}, Maximum3x3(2, true));
  average("AvgPool/3x3s1/512x14x14", {512, 14, 14});
  memcpy_of("memcpy/512x7x7", {512, 7, 7});
  maximum("MaxPool/3x3s1/512x7x7", {512, 7, 7}, Maximum3x3(1));
  maximum("MaxPool/3x3s2_ceil/512x7x7", {512, 7, 7}, Maximum3x3(2, true));
  average("AvgPool/3x3s1/512x7x7", {512, 7, 7});
  global("AdaptivePool/1x1/512x7x7", {512, 7, 7});
  memcpy_of("memcpy/64x1x3136", {64, 1, 3136});
  maximum("MaxPool/1x3s1/64x1x3136", {64, 1, 3136}, MaximumOfThree(false));
  maximum("MaxPool/3x1s1/64x3136x1", {64, 3136, 1}, MaximumOfThree(true));
  benchmark::Initialize(&count, words);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
