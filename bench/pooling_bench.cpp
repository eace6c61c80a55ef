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

}  // namespace

int main(int count, char** words) {
  auto max = Window3x3<runtime::MaxPool2dInfo>(2);
  max.dilation_x = max.dilation_y = 1;
  auto average = Window3x3<runtime::AvgPool2dInfo>(1);
  average.count_include_pad = true;
  runtime::AdaptiveAvgPool2dInfo adaptive;
  adaptive.output_size = {1, 1};
  benchmark::RegisterBenchmark("memcpy/64x112x112", Memcpy, std::vector<unsigned int>{64, 112, 112});
  benchmark::RegisterBenchmark("MaxPool/3x3s2/64x112x112",
                               Pool<kernel::Pooling2D_Max_Fallback_Float_M1, runtime::MaxPool2dInfo>,
                               std::vector<unsigned int>{64, 112, 112}, max);
  benchmark::RegisterBenchmark("memcpy/64x56x56", Memcpy, std::vector<unsigned int>{64, 56, 56});
  benchmark::RegisterBenchmark("AvgPool/3x3s1/64x56x56",
                               Pool<kernel::Pooling2D_Avg_Fallback_Float_M1, runtime::AvgPool2dInfo>,
                               std::vector<unsigned int>{64, 56, 56}, average);
  benchmark::RegisterBenchmark("memcpy/512x7x7", Memcpy, std::vector<unsigned int>{512, 7, 7});
  benchmark::RegisterBenchmark(
      "AdaptivePool/1x1/512x7x7",
      Pool<kernel::AdaptivePooling2D_Avg_Fallback_CHW_Float_M1, runtime::AdaptiveAvgPool2dInfo>,
      std::vector<unsigned int>{512, 7, 7}, adaptive);
  benchmark::Initialize(&count, words);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
