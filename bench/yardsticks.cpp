#include "bench/yardsticks.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "talvo/kernel/rows/fused_step.h"

namespace talvo::bench {
namespace {

using namespace kernel::rows;

constexpr int kChains = 6;  // of each kind: enough to hide the latency, few enough for 16 registers

struct MultiplyAndAddBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(std::size_t steps, float factor, float term, float* results) {
    constexpr int kLanes = Set::kLanes;
    Vector<kLanes> products[kChains], sums[kChains];
    TALVO_ROWS_UNROLL
    for (int i = 0; i < kChains; ++i) {  // each from a place of its own: equal chains would become one
      Load<kLanes>(results + i * kLanes, products[i]);
      Load<kLanes>(results + (kChains + i) * kLanes, sums[i]);
    }
    for (std::size_t step = 0; step < steps; ++step) {
      TALVO_ROWS_UNROLL
      for (int i = 0; i < kChains; ++i) products[i] = products[i] * factor, sums[i] = sums[i] + term;
    }
    TALVO_ROWS_UNROLL
    for (int i = 0; i < kChains; ++i) {
      Store<kLanes>(products[i], results + i * kLanes);
      Store<kLanes>(sums[i], results + (kChains + i) * kLanes);
    }
  }
};
Primitive<void(std::size_t, float, float, float*)> const MultiplyAndAdd{MultiplyAndAddBody()};

struct FuseBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(std::size_t steps, float const* factors, float* results) {
    constexpr int kLanes = Set::kLanes;
    Vector<kLanes> a, b, sums[2 * kChains];
    Load<kLanes>(factors, a), Load<kLanes>(factors, b);
    TALVO_ROWS_UNROLL
    for (int i = 0; i < 2 * kChains; ++i) Load<kLanes>(results + i * kLanes, sums[i]);
    for (std::size_t step = 0; step < steps; ++step) {
      TALVO_ROWS_UNROLL
      for (int i = 0; i < 2 * kChains; ++i) FusedStep<Set, kLanes>(a, b, sums[i]);
    }
    TALVO_ROWS_UNROLL
    for (int i = 0; i < 2 * kChains; ++i) Store<kLanes>(sums[i], results + i * kLanes);
  }
};
Primitive<void(std::size_t, float const*, float*)> const Fuse{FuseBody()};

double SecondsOf(std::size_t times, void (*work)(std::size_t, void*), void* data) {
  auto const start = std::chrono::steady_clock::now();
  work(times, data);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double BestOf(int trials, std::size_t times, void (*work)(std::size_t, void*), void* data) {
  double best = SecondsOf(times, work, data);
  for (int trial = 1; trial < trials; ++trial) best = std::min(best, SecondsOf(times, work, data));
  return best / static_cast<double>(times);
}

}  // namespace

double UnfusedRate() {
  static double const rate = [] {
    std::vector<float> results(2 * kChains * kMaxLanes, 1.0f);
    auto const work = [](std::size_t steps, void* data) {
      MultiplyAndAdd(steps, 1.0f, 0.0f, static_cast<float*>(data));
      benchmark::ClobberMemory();
    };
    return 2.0 * kChains * ActiveLanes() / BestOf(10, 2000000, work, results.data());
  }();
  return rate;
}

double FusedRate() {
  static double const rate = [] {
    std::vector<float> results(3 * kChains * kMaxLanes, 0.0f);  // the factors stand at the end
    auto const work = [](std::size_t steps, void* data) {
      float* const sums = static_cast<float*>(data);
      Fuse(steps, sums + 2 * kChains * kMaxLanes, sums);
      benchmark::ClobberMemory();
    };
    return 4.0 * kChains * ActiveLanes() / BestOf(10, 1000000, work, results.data());
  }();
  return rate;
}

double CopySeconds(std::size_t bytes) {
  struct Block {
    std::vector<unsigned char> from, to;
  } block = {std::vector<unsigned char>(bytes, 1), std::vector<unsigned char>(bytes)};
  auto const work = [](std::size_t times, void* data) {
    auto& copied = *static_cast<Block*>(data);
    for (; times > 0; --times) {
      std::memcpy(copied.to.data(), copied.from.data(), copied.from.size());
      benchmark::ClobberMemory();
    }
  };
  return BestOf(10, 1 + (std::size_t{32} << 20) / std::max<std::size_t>(bytes, 64), work, &block);
}

void ReportOperations(benchmark::State& state, double operations_per_iteration) {
  auto const rate = benchmark::Counter::kIsIterationInvariantRate;
  state.counters["op/s"] = benchmark::Counter(operations_per_iteration, rate);
  state.counters["of_unfused"] = benchmark::Counter(operations_per_iteration / UnfusedRate(), rate);
}

void ReportFusedOperations(benchmark::State& state, double operations_per_iteration) {
  auto const rate = benchmark::Counter::kIsIterationInvariantRate;
  state.counters["op/s"] = benchmark::Counter(operations_per_iteration, rate);
  state.counters["of_fused"] = benchmark::Counter(operations_per_iteration / FusedRate(), rate);
}

void ReportCopies(benchmark::State& state, std::size_t bytes_per_iteration) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes_per_iteration));
  auto const inverse = benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert;
  state.counters["memcpys"] = benchmark::Counter(CopySeconds(bytes_per_iteration), inverse);
}

}  // namespace talvo::bench
