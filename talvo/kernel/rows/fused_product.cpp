#include "talvo/kernel/rows/fused_product.h"

#include <algorithm>
#include <cstdint>

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
  float* results[kColumns];
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
    for (std::size_t j = 0; j < kColumns; ++j) {
      std::size_t const position = std::min(first + j, run.positions - 1);
      columns[j] = run.columns[position];
      results[j] = run.results + position * run.result_step + lane;
    }
    TALVO_ROWS_UNROLL
    for (std::size_t j = 0; j < kColumns; ++j) {
      float const* const from = run.chain == Chain::kStarts ? run.starts + lane : results[j];
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

  // Each step fetches half a line of the weights that follow these, so that some tiles fetch as many as these are; by
  // number, for there may be none.
  TALVO_ROWS_INLINE void AddSteps(FusedTileRun const& run, std::size_t lane, std::size_t first) {
    constexpr std::size_t kHalfLine = 8;
    float const* const weights = run.weights + lane;
    std::size_t const all = run.step_count * run.lanes, share = run.step_count * kHalfLine;
    std::size_t const skipped = all + std::min(first / kColumns * share, all - share);
    [[maybe_unused]] auto ahead = reinterpret_cast<std::uintptr_t>(run.weights) + skipped * sizeof(float);
    Tap const* const end = run.steps + run.step_count;
    for (Tap const* step = run.steps; step != end; ++step) {
      if constexpr (kVectors == 4) {
        __builtin_prefetch(reinterpret_cast<void const*>(ahead));  // NOLINT(performance-no-int-to-ptr): never read
        ahead += kHalfLine * sizeof(float);
      }
      AddTap(weights + step->weight, step->input);
    }
  }

  // A position that stands there twice is read before it is written.
  TALVO_ROWS_INLINE void End(FusedTileRun const& run, std::size_t lane) {
    std::size_t const count = run.lanes - lane;
    if (run.chain == Chain::kIsAdded) {
      TALVO_ROWS_UNROLL
      for (int j = 0; j < kColumns; ++j) {
        TALVO_ROWS_UNROLL
        for (int v = 0; v < kVectors; ++v) {
          V before;
          LoadLanes(results[j] + v * kLanes, count, before);
          sums[j][v] = before + sums[j][v];
        }
      }
    }
    TALVO_ROWS_UNROLL
    for (int j = 0; j < kColumns; ++j) {
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) {
        if constexpr (kVectors > 1) {
          Store<kLanes>(sums[j][v], results[j] + v * kLanes);
        } else {
          StoreSome<kLanes>(sums[j][v], count, results[j]);
        }
      }
    }
  }

  static TALVO_ROWS_INLINE void Run(FusedTileRun const& run, std::size_t lane, std::size_t first) {
    Tile tile;
    tile.Begin(run, lane, first);
    tile.AddSteps(run, lane, first);
    tile.End(run, lane);
  }
};

// All positions, in tiles of kColumns and of kFewer where they come out even; what is left of the last one repeats the
// last position.
template <class Set, int kVectors, int kColumns, int kFewer>
TALVO_ROWS_INLINE void RunPositions(FusedTileRun const& run, std::size_t lane) {
  std::size_t const count = run.positions, tiles = (count + kColumns - 1) / kColumns;
  std::size_t const shorter = kFewer < kColumns ? std::min(tiles, tiles * kColumns - count) : 0;
  std::size_t first = 0;
  for (std::size_t t = shorter; t < tiles; ++t, first += kColumns) Tile<Set, kVectors, kColumns>::Run(run, lane, first);
  if constexpr (kFewer < kColumns) {
    for (; first < count; first += kFewer) Tile<Set, kVectors, kFewer>::Run(run, lane, first);
  }
}

// A step in software needs all registers for itself.
template <class Set>
TALVO_ROWS_INLINE void RunLanes(FusedTileRun const& run) {
  constexpr std::size_t kLanes = Set::kLanes;
  constexpr bool kMany = Set::kRegisters == 32;
  std::size_t lane = 0;
  if constexpr (Set::kFuses) {
    for (; lane + 4 * kLanes <= run.lanes; lane += 4 * kLanes) {
      RunPositions<Set, 4, kMany ? 6 : 3, kMany ? 5 : 3>(run, lane);
    }
    for (; lane + 2 * kLanes <= run.lanes; lane += 2 * kLanes) {
      RunPositions<Set, 2, kMany ? 8 : 6, kMany ? 7 : 6>(run, lane);
    }
  }
  constexpr int kColumns = Set::kFuses ? 8 : 1;
  for (; lane < run.lanes; lane += kLanes) RunPositions<Set, 1, kColumns, kColumns>(run, lane);
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
