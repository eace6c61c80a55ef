// Matrix-product kernels beside their yardsticks: full connections beside a sum over the same weights and the plain
// loops; pointwise convolution, rows through a dense layer and products of two tensors beside the bare product.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "bench/blas_in_use.h"
#include "talvo/entry/create_context.h"
#include "talvo/kernel/gemm.h"
#include "talvo/kernel/rows/vectors.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/base64.h"

namespace talvo::bench {
namespace {

using kernel::rows::Vector;

std::vector<float> Ramp(std::size_t count) {
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i * 7919 % 1001) / 1001.0f - 0.5f;
  return values;
}

std::string WeightText(std::vector<float> const& values) {
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), values.size() * sizeof(float));
}

constexpr unsigned int kIn = 1024, kOut = 1000;

void CountWeights(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kIn * kOut * sizeof(float)));
}

// Reads every value once, with eight vectors of sums.
struct SumBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* values, std::size_t count, float* sums) {
    constexpr std::size_t kSums = 8;
    Vector<Set::kLanes> sum[kSums] = {};
    for (std::size_t i = 0; i + kSums * Set::kLanes <= count; i += kSums * Set::kLanes) {
      TALVO_ROWS_UNROLL
      for (std::size_t s = 0; s < kSums; ++s) {
        Vector<Set::kLanes> next;
        kernel::rows::Load<Set::kLanes>(values + i + s * Set::kLanes, next);
        sum[s] += next;
      }
    }
    for (std::size_t s = 1; s < kSums; ++s) sum[0] += sum[s];
    kernel::rows::Store<Set::kLanes>(sum[0], sums);
  }
};
kernel::rows::Primitive<void(float const*, std::size_t, float*)> const SumOf{SumBody()};

void SumOfWeights(benchmark::State& state) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  auto const weight = context->device_cpu->CreateF32FlexiableMainMemory({kOut, kIn}, Ramp(kIn * kOut).data());
  for (auto _ : state) {
    float sums[kernel::rows::kMaxLanes];
    SumOf(weight->Data<float>(), kIn * kOut, sums);
    benchmark::DoNotOptimize(sums);
  }
  CountWeights(state);
}
BENCHMARK(SumOfWeights)->Name("FullConnection/1024x1000/sum_of_weights");

void PlainLoops(benchmark::State& state) {
  auto const weight = Ramp(kIn * kOut), x = Ramp(kIn), bias = Ramp(kOut);
  std::vector<float> y(kOut);
  for (auto _ : state) {
    for (std::size_t o = 0; o < kOut; ++o) {
      y[o] = bias[o];
      for (std::size_t i = 0; i < kIn; ++i) y[o] += weight[o * kIn + i] * x[i];
    }
    benchmark::ClobberMemory();
  }
  CountWeights(state);
}
BENCHMARK(PlainLoops)->Name("FullConnection/1024x1000/plain_loops");

template <class Kernel>
void Dense(benchmark::State& state) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  auto const layer = std::make_shared<runtime::FullConnectionInfo>();
  layer->in_features = kIn;
  layer->out_features = kOut;
  layer->if_bias = true;
  layer->weight = WeightText(Ramp(kIn * kOut));
  layer->bias = WeightText(Ramp(kOut));
  Kernel kernel;
  kernel.Config(layer, nullptr, context);
  auto const x = context->device_cpu->CreateF32CMainMemory(kIn, Ramp(kIn).data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) kernel.Forward({x}, outputs, context);
  CountWeights(state);
}
BENCHMARK_TEMPLATE(Dense, kernel::FullConnection_Fallback_C_Float_M1)->Name("FullConnection/1024x1000/Fallback");
BENCHMARK_TEMPLATE(Dense, kernel::FullConnection_Fused_C_Float_M1)->Name("FullConnection/1024x1000/Fused");
BENCHMARK_TEMPLATE(Dense, kernel::FullConnection_SGEMM_C_Float_M1)->Name("FullConnection/1024x1000/SGEMM");

struct Plane {
  unsigned short in, out;
  unsigned int side;
};

void CountProducts(benchmark::State& state, Plane const& shape) {
  state.SetItemsProcessed(state.iterations() * shape.in * shape.out * shape.side * shape.side);
}

void BareProduct(benchmark::State& state, Plane shape) {
  unsigned int const pixels = shape.side * shape.side;
  auto const weight = Ramp(std::size_t{shape.out} * shape.in), x = Ramp(std::size_t{shape.in} * pixels);
  std::vector<float> y(std::size_t{shape.out} * pixels);
  for (auto _ : state) {
    kernel::Sgemm(shape.out, shape.in, static_cast<int>(pixels), 1.0f, weight.data(), x.data(), 0.0f, y.data());
    benchmark::ClobberMemory();
  }
  CountProducts(state, shape);
}

void Pointwise(benchmark::State& state, Plane shape) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  auto const layer = std::make_shared<runtime::Conv2dInfo>();
  layer->in_channels = shape.in;
  layer->out_channels = shape.out;
  layer->kernel_x = layer->kernel_y = 1;
  layer->if_bias = true;
  layer->weight = WeightText(Ramp(std::size_t{shape.out} * shape.in));
  layer->bias = WeightText(Ramp(shape.out));
  kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 kernel;
  kernel.Config(layer, nullptr, context);
  auto const x = context->device_cpu->CreateF32CHWMainMem({shape.in, shape.side, shape.side},
                                                          Ramp(std::size_t{shape.in} * shape.side * shape.side).data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) kernel.Forward({x}, outputs, context);
  CountProducts(state, shape);
}

constexpr Plane kWide = {128, 256, 28}, kLarge = {64, 128, 56};
BENCHMARK_CAPTURE(BareProduct, kWide, kWide)->Name("Pointwise/128to256_28x28/bare_product");
BENCHMARK_CAPTURE(Pointwise, kWide, kWide)->Name("Pointwise/128to256_28x28/SGEMM");
BENCHMARK_CAPTURE(BareProduct, kLarge, kLarge)->Name("Pointwise/64to128_56x56/bare_product");
BENCHMARK_CAPTURE(Pointwise, kLarge, kLarge)->Name("Pointwise/64to128_56x56/SGEMM");

// `batch` products of [m, k] and [k, n].
struct Products {
  unsigned int batch, m, k, n;

  std::size_t Left() const { return std::size_t{batch} * m * k; }
  std::size_t Right() const { return std::size_t{batch} * k * n; }
  std::size_t Results() const { return std::size_t{batch} * m * n; }
  void Count(benchmark::State& state) const {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(Results() * k));
  }
};

void PlainProducts(benchmark::State& state, Products shape) {
  auto const a = Ramp(shape.Left()), b = Ramp(shape.Right());
  std::vector<float> y(shape.Results());
  for (auto _ : state) {
    std::fill(y.begin(), y.end(), 0.0f);
    for (std::size_t row = 0; row < std::size_t{shape.batch} * shape.m; ++row) {
      float const* const right = b.data() + row / shape.m * shape.k * shape.n;
      for (std::size_t p = 0; p < shape.k; ++p) {
        for (std::size_t j = 0; j < shape.n; ++j) y[row * shape.n + j] += a[row * shape.k + p] * right[p * shape.n + j];
      }
    }
    benchmark::ClobberMemory();
  }
  shape.Count(state);
}

void BareProducts(benchmark::State& state, Products shape) {
  auto const a = Ramp(shape.Left()), b = Ramp(shape.Right());
  std::vector<float> y(shape.Results());
  for (auto _ : state) {
    for (std::size_t i = 0; i < shape.batch; ++i) {
      kernel::Sgemm(static_cast<int>(shape.m), static_cast<int>(shape.k), static_cast<int>(shape.n), 1.0f,
                    a.data() + i * shape.m * shape.k, b.data() + i * shape.k * shape.n, 0.0f,
                    y.data() + i * shape.m * shape.n);
    }
    benchmark::ClobberMemory();
  }
  shape.Count(state);
}

void MatMul(benchmark::State& state, Products shape) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  kernel::MatMul_Fallback_Float_M1 kernel;
  kernel.Config(std::make_shared<runtime::BroadcastOperatorInfo>(), nullptr, context);
  auto& device = *context->device_cpu;
  auto const a = device.CreateF32FlexiableMainMemory({shape.batch, shape.m, shape.k}, Ramp(shape.Left()).data());
  auto const b = device.CreateF32FlexiableMainMemory({shape.batch, shape.k, shape.n}, Ramp(shape.Right()).data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) kernel.Forward({a, b}, outputs, context);
  shape.Count(state);
}

void DenseRows(benchmark::State& state, Products shape) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  auto const layer = std::make_shared<runtime::FullConnectionInfo>();
  layer->in_features = static_cast<unsigned short>(shape.k);
  layer->out_features = static_cast<unsigned short>(shape.n);
  layer->weight = WeightText(Ramp(shape.Right()));
  kernel::FullConnection_Fallback_SC_Float_M1 kernel;
  kernel.Config(layer, nullptr, context);
  runtime::TensorShape const rows({shape.m, shape.k}, runtime::TensorShape::FLOAT32, runtime::TensorShape::SC,
                                  runtime::TensorShape::MainMemory, {});
  auto const x = context->device_cpu->CreateTensor(rows, Ramp(shape.Left()).data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) kernel.Forward({x}, outputs, context);
  shape.Count(state);
}

constexpr Products kHeads = {8, 64, 64, 64}, kScores = {12, 197, 64, 197}, kRows = {1, 197, 256, 768};
BENCHMARK_CAPTURE(PlainProducts, kHeads, kHeads)->Name("MatMul/8x64x64x64/plain_loops");
BENCHMARK_CAPTURE(BareProducts, kHeads, kHeads)->Name("MatMul/8x64x64x64/bare_product");
BENCHMARK_CAPTURE(MatMul, kHeads, kHeads)->Name("MatMul/8x64x64x64/Fallback");
BENCHMARK_CAPTURE(PlainProducts, kScores, kScores)->Name("MatMul/12x197x64x197/plain_loops");
BENCHMARK_CAPTURE(BareProducts, kScores, kScores)->Name("MatMul/12x197x64x197/bare_product");
BENCHMARK_CAPTURE(MatMul, kScores, kScores)->Name("MatMul/12x197x64x197/Fallback");
BENCHMARK_CAPTURE(PlainProducts, kRows, kRows)->Name("FullConnection_rows/197x256to768/plain_loops");
BENCHMARK_CAPTURE(BareProducts, kRows, kRows)->Name("FullConnection_rows/197x256to768/bare_product");
BENCHMARK_CAPTURE(DenseRows, kRows, kRows)->Name("FullConnection_rows/197x256to768/Fallback");

}  // namespace
}  // namespace talvo::bench

int main(int argc, char** argv) { return talvo::bench::RunOnOneBlasThread(argc, argv); }
