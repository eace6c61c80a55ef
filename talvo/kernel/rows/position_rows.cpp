#include "talvo/kernel/rows/position_rows.h"

#include <algorithm>

#include "talvo/kernel/rows/fused_step.h"

namespace talvo::kernel::rows {
namespace {

// kOutputs outputs by kVectors vectors of positions, whose sums stay in registers.
template <class Set, bool kFused, int kLanes, int kOutputs, int kVectors>
struct PositionTile {
  using V = Vector<kLanes>;

  V sums[kOutputs][kVectors];

  TALVO_ROWS_INLINE void Start(float const* starts) {
    TALVO_ROWS_UNROLL
    for (int m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) Splat<kLanes>(starts[m], sums[m][v]);
    }
  }

  TALVO_ROWS_INLINE void Clear() {
    TALVO_ROWS_UNROLL
    for (int m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) sums[m][v] = V{};
    }
  }

  TALVO_ROWS_INLINE void AddTap(float const* weights, std::size_t output_step, float const* input) {
    V x[kVectors];
    TALVO_ROWS_UNROLL
    for (int v = 0; v < kVectors; ++v) Load<kLanes>(input + v * kLanes, x[v]);
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      V weight;
      Splat<kLanes>(weights[m * output_step], weight);
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) {
        if constexpr (kFused) {
          FusedStep<Set, kLanes>(x[v], weight, sums[m][v]);
        } else {
          sums[m][v] += x[v] * weight;
        }
      }
    }
  }

  template <bool kAdds>
  TALVO_ROWS_INLINE void Finish(float* results, std::size_t result_plane) {
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (std::size_t v = 0; v < kVectors; ++v) {
        float* const result = results + m * result_plane + v * kLanes;
        V before = {};
        if constexpr (kAdds) {
          Load<kLanes>(result, before);
          sums[m][v] = before + sums[m][v];
        }
        Store<kLanes>(sums[m][v], result);
      }
    }
  }

  static TALVO_ROWS_INLINE void Run(PositionRun const& run, std::size_t chain, std::size_t output, std::size_t at) {
    PositionTile tile;
    Tap const *const taps = run.taps, *const end = taps + run.tap_count;
    std::size_t const step = run.output_step, weight_plane = run.weight_plane, input_plane = run.input_plane;
    float const *weights = run.weights + output * step, *input = run.input + at;
    float* const results = run.results + output * run.result_plane + at;
    tile.Start(run.starts + output);
    for (std::size_t left = run.channels, next; left > 0; left = next) {
      next = left - std::min(left, chain);
      for (std::size_t c = left; c > next; --c, weights += weight_plane, input += input_plane) {
        for (Tap const* tap = taps; tap != end; ++tap) tile.AddTap(weights + tap->weight, step, input + tap->input);
      }
      if (left == run.channels) {
        tile.template Finish<false>(results, run.result_plane);
      } else {
        tile.template Finish<true>(results, run.result_plane);
      }
      if (next > 0) tile.Clear();
    }
  }
};

// Outputs [first, end), a multiple of kOutputs, at the positions from `at` on, of which there is a vector or more
// in all: as many vectors at a time as go, and the last one moves back.
template <class Set, int kOutputs, int kVectors>
TALVO_ROWS_INLINE void RunSpan(PositionRun const& run, std::size_t chain, std::size_t first, std::size_t end,
                               std::size_t at) {
  constexpr std::size_t kWide = kVectors * Set::kLanes;
  for (; at < run.positions && (kVectors == 1 || run.positions - at >= kWide); at += kWide) {
    std::size_t const from = std::min(at, run.positions - kWide);
    for (std::size_t o = first; o < end; o += kOutputs) {
      PositionTile<Set, true, Set::kLanes, kOutputs, kVectors>::Run(run, chain, o, from);
    }
  }
  if constexpr (kVectors > 1) RunSpan<Set, kOutputs, kVectors / 2>(run, chain, first, end, at);
}

// Takes kOutputs at a time from those that are left, and the rest at once where it is fewer.
template <class Set, int kOutputs, int kVectors>
TALVO_ROWS_INLINE void RunOutputs(PositionRun const& run, std::size_t chain, std::size_t& first) {
  std::size_t const end = run.outputs - (run.outputs - first) % kOutputs;
  if (end > first) RunSpan<Set, kOutputs, kVectors>(run, chain, first, end, 0);
  first = end;
}

struct RunFusedPositionsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(PositionRun const& run, std::size_t chain) {
    std::size_t first = 0;
    if constexpr (!Set::kFuses) {  // a step in software needs all registers for itself
      RunOutputs<Set, 1, 1>(run, chain, first);
    } else if constexpr (Set::kRegisters == 32) {  // 24 sums; the inputs of a tap and a weight
      RunOutputs<Set, 8, 3>(run, chain, first);
      RunOutputs<Set, 4, 6>(run, chain, first);
      RunOutputs<Set, 3, 8>(run, chain, first);
      RunOutputs<Set, 2, 8>(run, chain, first);
      RunOutputs<Set, 1, 8>(run, chain, first);
    } else {  // 12 sums at most
      RunOutputs<Set, 4, 3>(run, chain, first);
      RunOutputs<Set, 2, 4>(run, chain, first);
      RunOutputs<Set, 1, 8>(run, chain, first);
    }
  }
};

struct RunPositionsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(PositionRun const& run) {
    RunWidest<Set, Set::kLanes, 4>(run);
  }

  // One output at a time in the most vectors of which the positions fill one tile, and the last tile moves back: one of
  // four vectors takes hardly longer than one of a vector, which would wait for its own sums.
  template <class Set, int kLanes, int kVectors>
  static TALVO_ROWS_INLINE void RunWidest(PositionRun const& run) {
    constexpr std::size_t kWide = kVectors * kLanes;
    if constexpr (kWide > 1) {
      constexpr int kNarrower = kVectors > 1 ? kLanes : kLanes > 4 ? kLanes / 2 : 1;
      if (run.positions < kWide) return RunWidest<Set, kNarrower, (kVectors + 1) / 2>(run);
    }
    for (std::size_t at = 0; at < run.positions; at += kWide) {
      std::size_t const from = std::min(at, run.positions - kWide);
      for (std::size_t o = 0; o < run.outputs; ++o) {
        PositionTile<Set, false, kLanes, 1, kVectors>::Run(run, run.channels, o, from);
      }
    }
  }
};

struct MergePhasesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* from, std::size_t phase_pitch, std::size_t phases, std::size_t count,
                                    float* to) {
    constexpr std::size_t kLanes = Set::kLanes;
    std::size_t i = 0;
    if (phases == 1) {
      std::copy_n(from, count, to);
      i = count;
    }
    for (; phases == 2 && i + 2 * kLanes <= count; i += 2 * kLanes) {
      Vector<kLanes> even, odd, low, high;
      Load<kLanes>(from + i / 2, even), Load<kLanes>(from + phase_pitch + i / 2, odd);
      Interleave<kLanes>(even, odd, low, high, std::make_integer_sequence<int, kLanes>());
      Store<kLanes>(low, to + i), Store<kLanes>(high, to + i + kLanes);
    }
    for (std::size_t phase = 0; i < count && phase < phases; ++phase) {
      float const* next = from + phase * phase_pitch + i / phases;  // i is a multiple of the phases
      for (std::size_t k = i + phase; k < count; k += phases) to[k] = *next++;
    }
  }
};

}  // namespace

Primitive<void(PositionRun const&)> const RunPositions{RunPositionsBody()};
Primitive<void(PositionRun const&, std::size_t)> const RunFusedPositions{RunFusedPositionsBody()};
Primitive<void(float const*, std::size_t, std::size_t, std::size_t, float*)> const MergePhases{MergePhasesBody()};

}  // namespace talvo::kernel::rows
