// Upsampling, pixel shuffle and grid sampling through their kernels, beside memcpy of the output's bytes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/resampling.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_plane.h"

namespace {

using namespace talvo;
using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

std::shared_ptr<runtime::Context> NewContext() {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  return context;
}

auto const bench_context = NewContext();

std::shared_ptr<runtime::TensorCPU> Random(Dims const& dims, unsigned int type) {
  auto tensor = bench_context->device_cpu->CreateTensor(
      TensorShape(dims, type, TensorShape::CHW, TensorShape::MainMemory, TensorShape::Extra()), nullptr);
  std::mt19937 random(1);
  std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
  for (unsigned int i = 0; i < runtime::ElementCount(dims); ++i) {
    if (type == TensorShape::FLOAT32) {
      tensor->Data<float>()[i] = uniform(random);
    } else {
      tensor->Data<std::int16_t>()[i] = static_cast<std::int16_t>(random());
    }
  }
  return tensor;
}

void Copy(benchmark::State& state, std::size_t bytes) {
  std::vector<unsigned char> const source(bytes, 1);
  std::vector<unsigned char> destination(bytes);
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
}

void Run(benchmark::State& state, runtime::IKernel& kernel, Tensors const& inputs) {
  std::size_t values = 0, bytes = 0;
  for (auto _ : state) {
    Tensors outputs;
    kernel.Forward(inputs, outputs, bench_context);
    benchmark::ClobberMemory();
    values = runtime::ElementCount(outputs[0]->shape.dims);
    bytes = runtime::ByteCount(outputs[0]->shape);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
  using benchmark::Counter;
  state.counters["per_value"] =
      Counter(static_cast<double>(values), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

template <class Kernel>
void Upsample(benchmark::State& state, unsigned short type, bool align_corner, unsigned int data_type,
              std::shared_ptr<runtime::InferenceParam> const& param) {
  auto const layer = std::make_shared<runtime::Upsample2dInfo>();
  layer->scale_factor_x = layer->scale_factor_y = 2;
  layer->unsample_type = type;
  layer->align_corner = align_corner;
  Kernel kernel;
  kernel.Config(layer, param, bench_context);
  Run(state, kernel, {Random({64, 28, 28}, data_type)});
}

void Shuffle(benchmark::State& state, float factor, Dims const& dims) {
  auto const layer = std::make_shared<runtime::PixelShuffleInfo>();
  layer->upscale_factor = factor;
  kernel::Pixelshuffle_Fallback_CHW_Float_M1 kernel;
  kernel.Config(layer, nullptr, bench_context);
  Run(state, kernel, {Random(dims, TensorShape::FLOAT32)});
}

void Sample(benchmark::State& state, unsigned short mode, unsigned short padding, bool align_corners) {
  auto const layer = std::make_shared<runtime::GridSampleInfo>();
  layer->mode = mode;
  layer->padding_mode = padding;
  layer->align_corners = align_corners;
  kernel::GridSample_Fallback_CHW_Float_M1 kernel;
  kernel.Config(layer, nullptr, bench_context);
  Run(state, kernel, {Random({32, 64, 64}, TensorShape::FLOAT32), Random({64, 64, 2}, TensorShape::FLOAT32)});
}

}  // namespace

int main(int argc, char** argv) {
  using benchmark::RegisterBenchmark;
  using OnFloats = kernel::Upsampling2D_Fallback_CHW_Float_M1;
  using OnShorts = kernel::Upsampling2D_Fallback_CHW_Int16_M1;
  auto const quant = std::make_shared<runtime::InferenceParamUpsampling2DQuant>();
  RegisterBenchmark("Memcpy/64x56x56", Copy, std::size_t{64} * 56 * 56 * 4);
  RegisterBenchmark("Nearest/64x28x28_by_2", Upsample<OnFloats>, 0, false, TensorShape::FLOAT32, nullptr);
  RegisterBenchmark("Bilinear/64x28x28_by_2", Upsample<OnFloats>, 1, false, TensorShape::FLOAT32, nullptr);
  RegisterBenchmark("Bilinear/64x28x28_by_2_corners", Upsample<OnFloats>, 1, true, TensorShape::FLOAT32, nullptr);
  RegisterBenchmark("Nearest/64x28x28_by_2_int16", Upsample<OnShorts>, 0, false, TensorShape::INT16, quant);
  RegisterBenchmark("Bilinear/64x28x28_by_2_int16", Upsample<OnShorts>, 1, false, TensorShape::INT16, quant);
  RegisterBenchmark("PixelShuffle/256x28x28_by_2", Shuffle, 2.0f, Dims{256, 28, 28});
  RegisterBenchmark("PixelShuffle/64x56x56_by_half", Shuffle, 0.5f, Dims{64, 56, 56});
  RegisterBenchmark("Memcpy/256x28x28", Copy, std::size_t{256} * 28 * 28 * 4);
  RegisterBenchmark("GridSample/32x64x64_bilinear_zeros", Sample, 1, 0, false);
  RegisterBenchmark("GridSample/32x64x64_bilinear_border", Sample, 1, 1, true);
  RegisterBenchmark("GridSample/32x64x64_nearest_zeros", Sample, 0, 0, false);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
