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
    for (int v = 0; v < kVectors; ++v) rows::Load<kLanes>(input + v * kLanes, x[v]);
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

  TALVO_ROWS_INLINE void Load(float const* results, std::size_t result_plane) {
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (std::size_t v = 0; v < kVectors; ++v) {
        rows::Load<kLanes>(results + m * result_plane + v * kLanes, sums[m][v]);
      }
    }
  }

  TALVO_ROWS_INLINE void Add(float const* results, std::size_t result_plane) {
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (std::size_t v = 0; v < kVectors; ++v) {
        V before;
        rows::Load<kLanes>(results + m * result_plane + v * kLanes, before);
        sums[m][v] = before + sums[m][v];
      }
    }
  }

  TALVO_ROWS_INLINE void Store(float* results, std::size_t result_plane) const {
    TALVO_ROWS_UNROLL
    for (std::size_t m = 0; m < kOutputs; ++m) {
      TALVO_ROWS_UNROLL
      for (std::size_t v = 0; v < kVectors; ++v) {
        rows::Store<kLanes>(sums[m][v], results + m * result_plane + v * kLanes);
      }
    }
  }

  TALVO_ROWS_INLINE void AddSteps(PositionRun const& run, std::size_t channels, float const* weights,
                                  float const* input) {
    std::size_t const output_step = run.output_step;
    Tap const* const end = run.steps + channels * run.tap_count;
    for (Tap const* step = run.steps; step != end; ++step) {
      AddTap(weights + step->weight, output_step, input + step->input);
    }
  }

  TALVO_ROWS_INLINE void AddChannels(PositionRun const& run, std::size_t channels, float const* weights,
                                     float const* input) {
    for (std::size_t link; channels > 0; channels -= link) {
      link = std::min(channels, run.link);
      AddSteps(run, link, weights, input);
      weights += link * run.weight_plane, input += link * run.input_plane;
    }
  }

  // The products of channels [first, first + count): they go on from the results that are there, or, with `sums`, are
  // summed by themselves and then added to them; the first channels begin at the starts.
  static TALVO_ROWS_INLINE void Run(PositionRun const& run, std::size_t first, std::size_t count, bool sums,
                                    std::size_t output, std::size_t at) {
    PositionTile tile;
    float* const results = run.results + output * run.result_plane + at;
    if (first == 0) {
      tile.Start(run.starts + output);
    } else {
      tile.Clear();
      if (!sums) tile.Load(results, run.result_plane);
    }
    tile.AddChannels(run, count, run.weights + output * run.output_step + first * run.weight_plane,
                     run.input + at + first * run.input_plane);
    if (sums && first > 0) tile.Add(results, run.result_plane);
    tile.Store(results, run.result_plane);
  }
};

// Outputs [first, end), a multiple of kOutputs, at the positions from `at` on, of which there is a vector or more in
// all: as many vectors at a time as go, and the last one moves back. What a link reads at some positions stays in the
// nearest cache for all outputs.
template <class Set, int kOutputs, int kVectors>
TALVO_ROWS_INLINE void RunSpan(PositionRun const& run, bool sums_links, std::size_t first, std::size_t end,
                               std::size_t at) {
  constexpr std::size_t kWide = kVectors * Set::kLanes;
  constexpr std::size_t kLeast = kVectors > 1 ? 2 * Set::kLanes + 1 : 1;  // two vectors take less one by one
  for (; at + kLeast <= run.positions && kWide <= run.positions; at += kWide) {
    std::size_t const from = std::min(at, run.positions - kWide);
    for (std::size_t c = 0; c < run.channels; c += run.link) {
      for (std::size_t o = first; o < end; o += kOutputs) {
        PositionTile<Set, true, Set::kLanes, kOutputs, kVectors>::Run(run, c, std::min(run.link, run.channels - c),
                                                                      sums_links, o, from);
      }
    }
  }
  if constexpr (kVectors > 1) RunSpan<Set, kOutputs, 1>(run, sums_links, first, end, at);
}

// Takes kOutputs at a time from those that are left, as often as goes.
template <class Set, int kOutputs, int kVectors>
TALVO_ROWS_INLINE void RunOutputs(PositionRun const& run, bool sums_links, std::size_t& first) {
  std::size_t const end = run.outputs - (run.outputs - first) % kOutputs;
  if (end > first) RunSpan<Set, kOutputs, kVectors>(run, sums_links, first, end, 0);
  first = end;
}

struct RunFusedPositionsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(PositionRun const& run, bool sums_links) {
    std::size_t first = 0;
    if constexpr (!Set::kFuses) {  // a step in software needs all registers for itself
      RunOutputs<Set, 1, 1>(run, sums_links, first);
    } else if constexpr (Set::kRegisters == 32) {  // 24 sums, the inputs of a tap and a weight
      RunOutputs<Set, 8, 3>(run, sums_links, first);
      RunOutputs<Set, 4, 6>(run, sums_links, first);
      RunOutputs<Set, 3, 8>(run, sums_links, first);
      RunOutputs<Set, 1, 8>(run, sums_links, first);
    } else {  // 12 sums
      RunOutputs<Set, 4, 3>(run, sums_links, first);
      RunOutputs<Set, 1, 8>(run, sums_links, first);
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
    if constexpr (kLanes == Avx512::kLanes && kVectors == 1) {
      if (run.positions < kWide) return RunPositions.RunAsAvx2(run);
    } else if constexpr (kWide > 1) {
      constexpr int kNarrower = kVectors > 1 ? kLanes : kLanes > 4 ? kLanes / 2 : 1;
      if (run.positions < kWide) return RunWidest<Set, kNarrower, (kVectors + 1) / 2>(run);
    }
    for (std::size_t at = 0; at < run.positions; at += kWide) {
      std::size_t const from = std::min(at, run.positions - kWide);
      for (std::size_t o = 0; o < run.outputs; ++o) {
        PositionTile<Set, false, kLanes, 1, kVectors>::Run(run, 0, run.channels, false, o, from);
      }
    }
  }
};

struct MergePhasesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* from, std::size_t phase_pitch, std::size_t phases, std::size_t count,
                                    float* to) {
    constexpr std::size_t kLanes = Set::kLanes, kPairs = 2 * kLanes;
    if (phases == 1) return static_cast<void>(std::copy_n(from, count, to));
    std::size_t const whole = phases == 2 && count >= kPairs ? count - count % 2 : 0;
    for (std::size_t next = 0; next < whole; next += kPairs) {
      std::size_t const i = std::min(next, whole - kPairs);  // the last ones overlap those before them
      Vector<kLanes> even, odd, low, high;
      Load<kLanes>(from + i / 2, even), Load<kLanes>(from + phase_pitch + i / 2, odd);
      Interleave<kLanes>(even, odd, low, high, std::make_integer_sequence<int, kLanes>());
      Store<kLanes>(low, to + i), Store<kLanes>(high, to + i + kLanes);
    }
    for (std::size_t phase = 0; whole < count && phase < phases; ++phase) {
      float const* next = from + phase * phase_pitch + whole / phases;  // a whole number of each phase
      for (std::size_t k = whole + phase; k < count; k += phases) to[k] = *next++;
    }
  }
};

}  // namespace

Primitive<void(PositionRun const&)> const RunPositions{RunPositionsBody()};
Primitive<void(PositionRun const&, bool)> const RunFusedPositions{RunFusedPositionsBody()};
Primitive<void(float const*, std::size_t, std::size_t, std::size_t, float*)> const MergePhases{MergePhasesBody()};

}  // namespace talvo::kernel::rows
