// Layout conversions, permute kernel and half conversions beside memcpy and a loop over the same bytes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/runtime/context.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/transform/element_conversion.h"
#include "talvo/transform/permute.h"
#include "talvo/transform/transform_fallback.h"

namespace {

using talvo::runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using TensorPtr = std::shared_ptr<talvo::runtime::TensorCPU>;
using Convert = TensorPtr (*)(TensorPtr, std::shared_ptr<talvo::runtime::DeviceCPU>);

std::shared_ptr<talvo::runtime::Context> NewContext() {
  std::shared_ptr<talvo::runtime::Context> context;
  talvo::utility::create_context(context, 64);
  return context;
}

auto const bench_context = NewContext();

TensorPtr Ones(Dims const& dims, unsigned int layout, unsigned int type = TensorShape::FLOAT32) {
  auto tensor = bench_context->device_cpu->CreateTensor(
      TensorShape(dims, type, layout, TensorShape::MainMemory, TensorShape::Extra()), nullptr);
  std::memset(tensor->data, 1, talvo::runtime::ByteCount(tensor->shape));
  return tensor;
}

void SetBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes) * state.iterations());
}

void Copy(benchmark::State& state, std::size_t bytes) {
  std::vector<unsigned char> const source(bytes, 1);
  std::vector<unsigned char> destination(bytes);
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), bytes);
    benchmark::ClobberMemory();
  }
  SetBytes(state, bytes);
}

void ConvertLayout(benchmark::State& state, Convert convert, Dims const& dims, unsigned int layout) {
  auto const input = Ones(dims, layout);
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto const output = convert(input, bench_context->device_cpu);
    benchmark::ClobberMemory();
    bytes = talvo::runtime::ByteCount(output->shape);
  }
  SetBytes(state, bytes);
}

void PermuteKernel(benchmark::State& state, std::vector<unsigned short> const& axes) {
  auto const layer = std::make_shared<talvo::runtime::TensorTransposeInfo>();
  layer->axes = axes;
  talvo::kernel::Transform_MainMemory_Permute_Fallback kernel;
  kernel.Config(layer, nullptr, bench_context);
  auto const input = Ones({64, 56, 56}, TensorShape::CHW);
  for (auto _ : state) {
    std::vector<std::shared_ptr<talvo::runtime::Tensor>> outputs;
    kernel.Forward({input}, outputs, bench_context);
    benchmark::ClobberMemory();
  }
  SetBytes(state, std::size_t{64} * 56 * 56 * 4);
}

// What a conversion cannot do without: each element read, one of the other size written.
template <typename From, typename To>
void ReadAndWrite(benchmark::State& state) {
  std::vector<From> const from(1u << 20, From{1});
  std::vector<To> to(from.size());
  for (auto _ : state) {
    From const* const x = from.data();
    To* const y = to.data();
    for (std::size_t i = 0; i < from.size(); ++i) y[i] = static_cast<To>(x[i]);
    benchmark::ClobberMemory();
  }
  SetBytes(state, from.size() * (sizeof(From) + sizeof(To)));
}

using Native = void (*)(void const*, unsigned int, void*);

void ConvertElements(benchmark::State& state, Native convert, std::size_t from_bytes, std::size_t to_bytes) {
  constexpr unsigned int kCount = 1u << 20;
  std::vector<unsigned char> const from(kCount * from_bytes, 0x3C);
  std::vector<unsigned char> to(kCount * to_bytes);
  for (auto _ : state) {
    convert(from.data(), kCount, to.data());
    benchmark::ClobberMemory();
  }
  SetBytes(state, kCount * (from_bytes + to_bytes));
}

}  // namespace

int main(int argc, char** argv) {
  using namespace talvo::kernel;
  std::size_t const plane_bytes = std::size_t{64} * 56 * 56 * 4, weight_bytes = std::size_t{256} * 256 * 9 * 4;
  benchmark::RegisterBenchmark("Memcpy/64x56x56", Copy, plane_bytes);
  benchmark::RegisterBenchmark("CHW_To_C4HW4/64x56x56", ConvertLayout, Function_Tensor_CHW_To_C4HW4_Fallback,
                               Dims{64, 56, 56}, TensorShape::CHW);
  benchmark::RegisterBenchmark("C4HW4_To_CHW/64x56x56", ConvertLayout, Function_Tensor_C4HW4_To_CHW_Fallback,
                               Dims{16, 56, 56, 4}, TensorShape::C4HW4);
  benchmark::RegisterBenchmark("CHW_To_C8HW8/64x56x56", ConvertLayout, Function_Tensor_CHW_To_C8HW8_Fallback,
                               Dims{64, 56, 56}, TensorShape::CHW);
  benchmark::RegisterBenchmark("C8HW8_To_CHW/64x56x56", ConvertLayout, Function_Tensor_C8HW8_To_CHW_Fallback,
                               Dims{8, 56, 56, 8}, TensorShape::C8HW8);
  benchmark::RegisterBenchmark("Permute/64x56x56/W_C_H", PermuteKernel, std::vector<unsigned short>{0, 3, 1, 2});
  benchmark::RegisterBenchmark("Permute/64x56x56/H_W_C", PermuteKernel, std::vector<unsigned short>{0, 2, 3, 1});
  benchmark::RegisterBenchmark("Permute/64x56x56/H_C_W", PermuteKernel, std::vector<unsigned short>{0, 2, 1, 3});
  benchmark::RegisterBenchmark("Memcpy/256x256x3x3", Copy, weight_bytes);
  benchmark::RegisterBenchmark("GNCHW_To_GN4C4HW4c4n/256x256x3x3", ConvertLayout,
                               Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback, Dims{1, 256, 256, 3, 3},
                               TensorShape::GNCHW);
  benchmark::RegisterBenchmark("GNCHW_To_GN4C4HW4n4c/256x256x3x3", ConvertLayout,
                               Function_Tensor_GNCHW_To_GN4C4HW4n4c_Fallback, Dims{1, 256, 256, 3, 3},
                               TensorShape::GNCHW);
  benchmark::RegisterBenchmark("ReadAndWrite/float_to_16_bits", ReadAndWrite<float, std::int16_t>);
  benchmark::RegisterBenchmark("F32_To_F16/1M", ConvertElements, native::Transform_MainMemory_F32_To_F16_Fallback, 4u,
                               2u);
  benchmark::RegisterBenchmark("ReadAndWrite/16_bits_to_float", ReadAndWrite<std::int16_t, float>);
  benchmark::RegisterBenchmark("F16_To_F32/1M", ConvertElements, native::Transform_MainMemory_F16_To_F32_Fallback, 2u,
                               4u);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
