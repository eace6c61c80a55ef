// Axis permutation beside memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "talvo/kernel/native/permute.h"

namespace {

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

void Permute(benchmark::State& state, std::vector<unsigned int> const& dims, unsigned int element_bytes,
             std::vector<unsigned int> const& axes) {
  std::size_t bytes = element_bytes;
  for (unsigned int extent : dims) bytes *= extent;
  std::vector<unsigned char> const source(bytes, 1);
  std::vector<unsigned char> destination(bytes);
  for (auto _ : state) {
    talvo::kernel::native::Transform_MainMemory_Permute_Fallback(source.data(), dims, element_bytes, axes,
                                                                 destination.data());
    benchmark::ClobberMemory();
  }
  SetBytes(state, bytes);
}

}  // namespace

int main(int argc, char** argv) {
  for (unsigned int element_bytes : {8u, 4u, 2u, 1u, 3u, 16u}) {
    auto const suffix = "/" + std::to_string(element_bytes) + "_bytes";
    benchmark::RegisterBenchmark(("Memcpy/64x3136" + suffix).c_str(), Copy, std::size_t{64} * 3136 * element_bytes);
    benchmark::RegisterBenchmark(("Permute/64x3136" + suffix).c_str(), Permute, std::vector<unsigned int>{64, 3136},
                                 element_bytes, std::vector<unsigned int>{1, 0});
    benchmark::RegisterBenchmark(("Permute/3136x64" + suffix).c_str(), Permute, std::vector<unsigned int>{3136, 64},
                                 element_bytes, std::vector<unsigned int>{1, 0});
  }
  benchmark::RegisterBenchmark("Memcpy/56x64x64/4_bytes", Copy, std::size_t{56} * 64 * 64 * 4);
  benchmark::RegisterBenchmark("Permute/56x64x64_rows_of_256_bytes", Permute, std::vector<unsigned int>{56, 64, 64}, 4u,
                               std::vector<unsigned int>{1, 0, 2});
  benchmark::RegisterBenchmark("Memcpy/224x224x3/1_bytes", Copy, std::size_t{224} * 224 * 3);
  benchmark::RegisterBenchmark("Permute/224x224x3_to_planes/1_bytes", Permute, std::vector<unsigned int>{224, 224, 3},
                               1u, std::vector<unsigned int>{2, 0, 1});
  benchmark::RegisterBenchmark("Permute/224x224x4_to_planes/1_bytes", Permute, std::vector<unsigned int>{224, 224, 4},
                               1u, std::vector<unsigned int>{2, 0, 1});
  benchmark::RegisterBenchmark("Memcpy/224x224x3/4_bytes", Copy, std::size_t{224} * 224 * 3 * 4);
  benchmark::RegisterBenchmark("Permute/224x224x3_to_planes/4_bytes", Permute, std::vector<unsigned int>{224, 224, 3},
                               4u, std::vector<unsigned int>{2, 0, 1});
  benchmark::RegisterBenchmark("Permute/3x224x224_to_pixels/4_bytes", Permute, std::vector<unsigned int>{3, 224, 224},
                               4u, std::vector<unsigned int>{1, 2, 0});
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
