#include "talvo/kernel/rows/fused_product.h"

#include <algorithm>

#include "talvo/kernel/rows/fused_step.h"
#include "talvo/kernel/rows/transpose.h"

namespace talvo::kernel::rows {
namespace {

// The first `count` lanes alone, where there are fewer than a vector has.
template <int kLanes>
TALVO_ROWS_INLINE void LoadSome(float const* p, std::size_t count, Vector<kLanes>& v) {
  if (count >= kLanes) return Load<kLanes>(p, v);
  float lanes[kLanes] = {};
  std::copy_n(p, count, lanes);
  Load<kLanes>(lanes, v);
}

template <int kLanes>
TALVO_ROWS_INLINE void StoreSome(Vector<kLanes> const& v, std::size_t count, float* p) {
  if (count >= kLanes) return Store<kLanes>(v, p);
  float lanes[kLanes];
  Store<kLanes>(v, lanes);
  std::copy_n(lanes, count, p);
}

// kColumns positions by kVectors vectors of outputs, whose chains stay in registers.
template <class Set, int kVectors, int kColumns>
struct Tile {
  static constexpr int kLanes = Set::kLanes;
  using V = Vector<kLanes>;

  float const* columns[kColumns];
  V sums[kColumns][kVectors];

  // kVectors > 1 comes with whole vectors alone.
  TALVO_ROWS_INLINE static void LoadLanes(float const* p, std::size_t count, V& v) {
    if constexpr (kVectors > 1) {
      Load<kLanes>(p, v);
    } else {
      LoadSome<kLanes>(p, count, v);
    }
  }

  TALVO_ROWS_INLINE void Begin(FusedTileRun const& run, std::size_t lane, std::size_t first) {
    std::size_t const count = run.lanes - lane;
    TALVO_ROWS_UNROLL
    for (std::size_t j = 0; j < kColumns; ++j) {
      columns[j] = run.columns[first + j];
      float const* const from =
          run.chain == Chain::kStarts ? run.starts + lane : run.results + (first + j) * run.result_step + lane;
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) {
        sums[j][v] = V{};
        if (run.chain != Chain::kIsAdded) LoadLanes(from + v * kLanes, count, sums[j][v]);
      }
    }
  }

  TALVO_ROWS_INLINE void AddTap(float const* weights, std::size_t input) {
    V weight[kVectors];
    TALVO_ROWS_UNROLL
    for (int v = 0; v < kVectors; ++v) Load<kLanes>(weights + v * kLanes, weight[v]);
    TALVO_ROWS_UNROLL
    for (int j = 0; j < kColumns; ++j) {
      V x;
      Splat<kLanes>(columns[j][input], x);
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) FusedStep<Set, kLanes>(weight[v], x, sums[j][v]);
    }
  }

  // Two at a time: what counts them would take its share of the processor from one at a time.
  TALVO_ROWS_INLINE void AddSteps(FusedTileRun const& run, std::size_t lane) {
    float const* const weights = run.weights + lane;
    Tap const* step = run.steps;
    for (std::size_t pairs = run.step_count / 2; pairs > 0; --pairs, step += 2) {
      AddTap(weights + step[0].weight, step[0].input);
      AddTap(weights + step[1].weight, step[1].input);
    }
    if (run.step_count % 2 != 0) AddTap(weights + step->weight, step->input);
  }

  TALVO_ROWS_INLINE void End(FusedTileRun const& run, std::size_t lane, std::size_t first) {
    std::size_t const count = run.lanes - lane;
    TALVO_ROWS_UNROLL
    for (std::size_t j = 0; j < kColumns; ++j) {
      float* const to = run.results + (first + j) * run.result_step + lane;
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) {
        if (run.chain == Chain::kIsAdded) {
          V before;
          LoadLanes(to + v * kLanes, count, before);
          sums[j][v] = before + sums[j][v];
        }
        if constexpr (kVectors > 1) {
          Store<kLanes>(sums[j][v], to + v * kLanes);
        } else {
          StoreSome<kLanes>(sums[j][v], count, to);
        }
      }
    }
  }

  static TALVO_ROWS_INLINE void Run(FusedTileRun const& run, std::size_t lane, std::size_t first) {
    Tile tile;
    tile.Begin(run, lane, first);
    tile.AddSteps(run, lane);
    tile.End(run, lane, first);
  }
};

// All positions, in tiles of kColumns and of one fewer where they come out even, the rest one by one.
template <class Set, int kVectors, int kColumns>
TALVO_ROWS_INLINE void RunPositions(FusedTileRun const& run, std::size_t lane) {
  std::size_t const count = run.positions;
  std::size_t first = 0;
  if constexpr (kColumns > 1) {
    std::size_t const tiles = (count + kColumns - 1) / kColumns, shorter = tiles * kColumns - count;
    std::size_t const whole = shorter <= tiles ? tiles - shorter : count / kColumns;
    for (std::size_t t = 0; t < whole; ++t, first += kColumns) Tile<Set, kVectors, kColumns>::Run(run, lane, first);
    for (; first + kColumns - 1 <= count; first += kColumns - 1) {
      Tile<Set, kVectors, kColumns - 1>::Run(run, lane, first);
    }
  }
  for (; first < count; ++first) Tile<Set, kVectors, 1>::Run(run, lane, first);
}

// A step in software needs all registers for itself.
template <class Set>
TALVO_ROWS_INLINE void RunLanes(FusedTileRun const& run) {
  constexpr std::size_t kLanes = Set::kLanes;
  constexpr bool kMany = Set::kRegisters == 32;
  std::size_t lane = 0;
  if constexpr (Set::kFuses) {
    for (; lane + 4 * kLanes <= run.lanes; lane += 4 * kLanes) RunPositions<Set, 4, kMany ? 6 : 3>(run, lane);
    for (; lane + 2 * kLanes <= run.lanes; lane += 2 * kLanes) RunPositions<Set, 2, kMany ? 8 : 6>(run, lane);
  }
  for (; lane < run.lanes; lane += kLanes) RunPositions<Set, 1, Set::kFuses ? 8 : 1>(run, lane);
}

struct RunFusedTilesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(FusedTileRun const& run) {
    RunLanes<Set>(run);
  }
};

}  // namespace

Primitive<void(FusedTileRun const&)> const RunFusedTiles{RunFusedTilesBody()};

void PackFused(float const* weight, std::size_t outputs, std::size_t inputs, float* packed) {
  for (std::size_t o = 0; o < outputs; o += kFusedBlock) {
    std::size_t const width = std::min(kFusedBlock, outputs - o);
    TransposeRows(weight + o * inputs, inputs, width, inputs, packed + o * inputs, width);
  }
  std::fill_n(packed + outputs * inputs, kMaxLanes, 0.0f);
}

}  // namespace talvo::kernel::rows
