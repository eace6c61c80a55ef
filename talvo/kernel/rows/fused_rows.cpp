#include "talvo/kernel/rows/fused_rows.h"

#include <algorithm>

#include "talvo/kernel/rows/fused_step.h"

namespace talvo::kernel::rows {
namespace {

// kOutputs outputs by kVectors vectors of positions, whose chains stay in registers.
template <class Set, int kLanes, int kOutputs, int kVectors>
struct RowTile {
  using V = Vector<kLanes>;

  V sums[kOutputs][kVectors];

  TALVO_ROWS_INLINE void Begin(FusedRowRun const& run, std::size_t output, std::size_t at) {
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (std::size_t v = 0; v < kVectors; ++v) {
        float const* const result = run.results + (output + m) * run.result_plane + at + v * kLanes;
        sums[m][v] = V{};
        if (run.chain == Chain::kStarts) Splat<kLanes>(run.starts[output + m], sums[m][v]);
        if (run.chain == Chain::kGoesOn) Load<kLanes>(result, sums[m][v]);
      }
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
      for (int v = 0; v < kVectors; ++v) FusedStep<Set, kLanes>(x[v], weight, sums[m][v]);
    }
  }

  TALVO_ROWS_INLINE void End(FusedRowRun const& run, std::size_t output, std::size_t at) {
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (std::size_t v = 0; v < kVectors; ++v) {
        float* const result = run.results + (output + m) * run.result_plane + at + v * kLanes;
        if (run.chain == Chain::kIsAdded) {
          V before;
          Load<kLanes>(result, before);
          sums[m][v] = before + sums[m][v];
        }
        Store<kLanes>(sums[m][v], result);
      }
    }
  }

  static TALVO_ROWS_INLINE void Run(FusedRowRun const& run, std::size_t output, std::size_t at) {
    RowTile tile;
    tile.Begin(run, output, at);
    Tap const* const taps = run.taps;
    std::size_t const tap_count = run.tap_count, step = run.output_step;
    float const *weights = run.weights + output * step, *input = run.input + at;
    for (std::size_t c = run.channels; c > 0; --c, weights += run.weight_plane, input += run.input_plane) {
      for (std::size_t t = 0; t < tap_count; ++t) tile.AddTap(weights + taps[t].weight, step, input + taps[t].input);
    }
    tile.End(run, output, at);
  }
};

// Outputs [first, end), a multiple of kOutputs, at the positions from `at` on, of which there are kLanes or more in
// all: as many vectors at a time as go, and the last one moves back.
template <class Set, int kLanes, int kOutputs, int kVectors>
TALVO_ROWS_INLINE void RunSpan(FusedRowRun const& run, std::size_t first, std::size_t end, std::size_t at) {
  constexpr std::size_t kWide = kVectors * kLanes;
  for (; at < run.positions && (kVectors == 1 || run.positions - at >= kWide); at += kWide) {
    std::size_t const from = std::min(at, run.positions - kWide);
    for (std::size_t o = first; o < end; o += kOutputs) RowTile<Set, kLanes, kOutputs, kVectors>::Run(run, o, from);
  }
  if constexpr (kVectors > 1) RunSpan<Set, kLanes, kOutputs, kVectors / 2>(run, first, end, at);
}

template <class Set>
TALVO_ROWS_INLINE void RunWide(FusedRowRun const& run) {
  constexpr int kLanes = Set::kLanes;
  constexpr bool kMany = Set::kRegisters == 32;
  std::size_t o = 0;
  if constexpr (Set::kFuses) {
    constexpr std::size_t kMost = kMany ? 8 : 4;
    std::size_t const most = run.outputs - run.outputs % kMost, pairs = run.outputs - run.outputs % 2;
    if (most > 0) RunSpan<Set, kLanes, kMost, 3>(run, 0, most, 0);
    o = most;
    if (kMany && pairs - o >= 4) RunSpan<Set, kLanes, 4, kMany ? 6 : 3>(run, o, o + 4, 0), o += 4;
    if (pairs > o) RunSpan<Set, kLanes, 2, kMany ? 8 : 4>(run, o, pairs, 0), o = pairs;
  }
  if (run.outputs > o) RunSpan<Set, kLanes, 1, Set::kFuses ? 8 : 1>(run, o, run.outputs, 0);
}

struct RunFusedRowsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(FusedRowRun const& run) {
    RunWide<Set>(run);
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

Primitive<void(FusedRowRun const&)> const RunFusedRows{RunFusedRowsBody()};
Primitive<void(float const*, std::size_t, std::size_t, std::size_t, float*)> const MergePhases{MergePhasesBody()};

}  // namespace talvo::kernel::rows
