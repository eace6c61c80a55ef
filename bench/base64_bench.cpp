// The base64 codec beside a copy of the data into a new string; bytes are those of the data, not of the text.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "talvo/utility/base64.h"

namespace {

std::vector<unsigned char> Data(std::int64_t size) {
  std::vector<unsigned char> data(static_cast<std::size_t>(size));
  std::uint32_t state = 1;
  for (unsigned char& byte : data) byte = static_cast<unsigned char>((state = state * 1664525u + 1013904223u) >> 24);
  return data;
}

void Copy(benchmark::State& state) {
  auto const data = Data(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(std::string(data.begin(), data.end()));
  state.SetBytesProcessed(state.range(0) * state.iterations());
}

void Base64Encode(benchmark::State& state) {
  auto const data = Data(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(talvo::runtime::Base64Encode(data.data(), data.size()));
  state.SetBytesProcessed(state.range(0) * state.iterations());
}

void Base64Decode(benchmark::State& state) {
  auto const data = Data(state.range(0));
  std::string const text = talvo::runtime::Base64Encode(data.data(), data.size());
  for (auto _ : state) benchmark::DoNotOptimize(talvo::runtime::Base64Decode(text));
  state.SetBytesProcessed(state.range(0) * state.iterations());
}

BENCHMARK(Copy)->Arg(9408)->Arg(1 << 20)->Arg(32 << 20);
BENCHMARK(Base64Encode)->Arg(9408)->Arg(1 << 20)->Arg(32 << 20);
BENCHMARK(Base64Decode)->Arg(9408)->Arg(1 << 20)->Arg(32 << 20);

}  // namespace

BENCHMARK_MAIN();
