// Quantisation both ways of a million elements, beside a loop that reads the input and writes the output.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/kernel/functional/quantisation.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace {

using namespace talvo;
using runtime::TensorShape;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

constexpr unsigned int kCount = 1u << 20;
constexpr short kStep = 10;
std::shared_ptr<runtime::Context> NewContext() {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  return context;
}

auto const bench_context = NewContext();

template <typename T>
TensorPtr Ramp(unsigned int type) {
  auto tensor = bench_context->device_cpu->CreateTensor(
      TensorShape({kCount}, type, TensorShape::C, TensorShape::MainMemory, TensorShape::Extra()), nullptr);
  for (unsigned int i = 0; i < kCount; ++i) tensor->template Data<T>()[i] = static_cast<T>(i % 100);
  tensor->shape.extra.step_size = kStep;
  return tensor;
}

// The yardstick makes its output tensor too, as the functions do.
template <typename From, typename To>
void ReadAndWrite(benchmark::State& state, unsigned int from_type, unsigned int to_type) {
  auto const input = Ramp<From>(from_type);
  TensorShape shape = input->shape;
  shape.data_type = to_type;
  for (auto _ : state) {
    auto const output = bench_context->device_cpu->CreateTensor(shape, nullptr);
    auto const* const x = input->template Data<From>();
    auto* const y = output->template Data<To>();
    for (unsigned int i = 0; i < kCount; ++i) y[i] = static_cast<To>(x[i]);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(kCount * state.iterations());
}

template <typename From>
void Quantise(benchmark::State& state, TensorPtr (*quantise)(TensorPtr, short, std::shared_ptr<runtime::DeviceCPU>)) {
  auto const input = Ramp<From>(TensorShape::FLOAT32);
  for (auto _ : state) {
    auto const output = quantise(input, kStep, bench_context->device_cpu);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(kCount * state.iterations());
}

template <typename From>
void Dequantise(benchmark::State& state, unsigned int type,
                TensorPtr (*dequantise)(TensorPtr, std::shared_ptr<runtime::DeviceCPU>)) {
  auto const input = Ramp<From>(type);
  for (auto _ : state) {
    auto const output = dequantise(input, bench_context->device_cpu);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(kCount * state.iterations());
}

}  // namespace

int main(int argc, char** argv) {
  using benchmark::RegisterBenchmark;
  using namespace kernel::functional;
  constexpr auto kFloat = TensorShape::FLOAT32;
  RegisterBenchmark("ReadAndWrite/float_to_int16", ReadAndWrite<float, std::int16_t>, kFloat, TensorShape::INT16);
  RegisterBenchmark("Quantise/float_to_int16", Quantise<float>, Quantitation_MainMemory_Float_to_Int16_Fallback_M1);
  RegisterBenchmark("ReadAndWrite/float_to_int8", ReadAndWrite<float, std::int8_t>, kFloat, TensorShape::INT8);
  RegisterBenchmark("Quantise/float_to_int8", Quantise<float>, Quantitation_MainMemory_Float_to_Int8_Fallback_M1);
  RegisterBenchmark("ReadAndWrite/int16_to_float", ReadAndWrite<std::int16_t, float>, TensorShape::INT16, kFloat);
  RegisterBenchmark("Dequantise/int16_to_float", Dequantise<std::int16_t>, TensorShape::INT16,
                    Dequantitation_MainMemory_Int16_to_Float_Fallback_M1);
  RegisterBenchmark("ReadAndWrite/int8_to_float", ReadAndWrite<std::int8_t, float>, TensorShape::INT8, kFloat);
  RegisterBenchmark("Dequantise/int8_to_float", Dequantise<std::int8_t>, TensorShape::INT8,
                    Dequantitation_MainMemory_Int8_to_Float_Fallback_M1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
