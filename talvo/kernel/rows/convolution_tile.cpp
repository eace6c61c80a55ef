#include "talvo/kernel/rows/convolution_tile.h"

#include <algorithm>

#include "talvo/kernel/rows/vectors.h"

namespace talvo::kernel::rows {
namespace {

// kColumns positions by kVectors vectors: the results and the sums of the current channel stay in registers.
template <int kLanes, int kVectors, int kColumns>
struct Tile {
  using V = Vector<kLanes>;

  float const* columns[kColumns];
  V results[kColumns][kVectors];

  // sums (+)= the products of one tap at all positions.
  template <bool kFirst>
  TALVO_ROWS_INLINE void AddTap(float const* weights, std::size_t input, V (&sums)[kColumns][kVectors]) const {
    V weight[kVectors];
    for (int v = 0; v < kVectors; ++v) Load<kLanes>(weights + v * kLanes, weight[v]);
    TALVO_ROWS_UNROLL
    for (int j = 0; j < kColumns; ++j) {
      float const x = columns[j][input];
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) {
        V const product = weight[v] * x;
        sums[j][v] = kFirst ? product : sums[j][v] + product;
      }
    }
  }

  TALVO_ROWS_INLINE void AddChannelSum(TileRun const& run, float const* weights, std::size_t input) {
    V sums[kColumns][kVectors];
    Tap const* tap = run.taps;
    Tap const* const end = run.taps + run.tap_count;
    AddTap<true>(weights + tap->weight, input + tap->input, sums);
    while (++tap != end) AddTap<false>(weights + tap->weight, input + tap->input, sums);
    TALVO_ROWS_UNROLL
    for (int j = 0; j < kColumns; ++j) {
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) results[j][v] += sums[j][v];
    }
  }

  TALVO_ROWS_INLINE void AddProducts(TileRun const& run, float const* weights, std::size_t input) {
    for (std::size_t t = 0; t < run.tap_count; ++t) {
      AddTap<false>(weights + run.taps[t].weight, input + run.taps[t].input, results);
    }
  }

  template <Association kAssociation>
  TALVO_ROWS_INLINE void AddChannels(TileRun const& run) {
    float const* weights = run.weights;
    std::size_t input = 0;
    for (std::size_t c = 0; c < run.channels; ++c, weights += run.weight_plane, input += run.input_plane) {
      if (kAssociation == Association::kSumOfChannel) {
        AddChannelSum(run, weights, input);
      } else {
        AddProducts(run, weights, input);
      }
    }
  }

  // Positions behind the last one repeat it: they compute and store what it does.
  template <Association kAssociation>
  static TALVO_ROWS_INLINE void RunAll(TileRun const& run) {
    for (std::size_t first = 0; first < run.positions; first += kColumns) {
      Tile tile;
      float* rows[kColumns];
      TALVO_ROWS_UNROLL
      for (int j = 0; j < kColumns; ++j) {
        std::size_t const position = std::min(first + static_cast<std::size_t>(j), run.positions - 1);
        tile.columns[j] = run.columns[position];
        rows[j] = run.results + position * run.result_step;
        for (int v = 0; v < kVectors; ++v) Load<kLanes>(rows[j] + v * kLanes, tile.results[j][v]);
      }
      tile.template AddChannels<kAssociation>(run);
      TALVO_ROWS_UNROLL
      for (int j = 0; j < kColumns; ++j) {
        for (int v = 0; v < kVectors; ++v) Store<kLanes>(tile.results[j][v], rows[j] + v * kLanes);
      }
    }
  }
};

struct RunTilesBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(TileRun const& run) {
    constexpr int kColumns = Set::kRegisters == 32 ? 7 : 4;  // sums, results, two weights and a product fit
    if (run.association == Association::kSumOfChannel) {
      RunWidth<Set::kLanes, kColumns, Association::kSumOfChannel>(run);
    } else {
      RunWidth<Set::kLanes, kColumns, Association::kEachProduct>(run);
    }
  }

  template <int kLanes, int kColumns, Association kAssociation>
  static TALVO_ROWS_INLINE void RunWidth(TileRun const& run) {
    if (run.lanes == kLanes) {
      Tile<kLanes, 1, 2 * kColumns>::template RunAll<kAssociation>(run);
    } else {
      Tile<kLanes, 2, kColumns>::template RunAll<kAssociation>(run);
    }
  }
};

// kLanes columns of kRows rows at a time; the last columns overlap those before them, rows behind the last repeat it.
template <int kLanes>
struct PlaneTile {
  static constexpr int kRows = 4;
  using V = Vector<kLanes>;

  template <bool kFirst>
  static TALVO_ROWS_INLINE void AddTap(float weight, float const* const (&rows)[kRows], std::size_t input,
                                       V (&sums)[kRows]) {
    TALVO_ROWS_UNROLL
    for (int r = 0; r < kRows; ++r) {
      V x;
      Load<kLanes>(rows[r] + input, x);
      V const product = x * weight;
      sums[r] = kFirst ? product : sums[r] + product;
    }
  }

  static TALVO_ROWS_INLINE void RunBlock(PlaneRun const& run, std::size_t y, std::size_t x) {
    float const* rows[kRows];
    V start, results[kRows], sums[kRows];
    Splat<kLanes>(run.start, start);
    TALVO_ROWS_UNROLL
    for (int r = 0; r < kRows; ++r) {
      rows[r] = run.input + std::min(y + static_cast<std::size_t>(r), run.rows - 1) * run.input_row + x;
      results[r] = start;
    }
    float const* weights = run.weights;
    std::size_t input = 0;
    for (std::size_t c = 0; c < run.channels; ++c, weights += run.tap_count, input += run.input_plane) {
      AddTap<true>(weights[0], rows, input + run.taps[0].input, sums);
      for (std::size_t t = 1; t < run.tap_count; ++t) AddTap<false>(weights[t], rows, input + run.taps[t].input, sums);
      TALVO_ROWS_UNROLL
      for (int r = 0; r < kRows; ++r) results[r] += sums[r];
    }
    for (int r = 0; r < kRows; ++r) {
      Store<kLanes>(results[r],
                    run.results + std::min(y + static_cast<std::size_t>(r), run.rows - 1) * run.columns + x);
    }
  }

  static TALVO_ROWS_INLINE void RunAll(PlaneRun const& run) {
    std::size_t const last = run.columns - kLanes;
    for (std::size_t y = 0; y < run.rows; y += kRows) {
      for (std::size_t x = 0;; x = std::min(x + kLanes, last)) {
        RunBlock(run, y, x);
        if (x == last) break;
      }
    }
  }
};

struct RunPlaneBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(PlaneRun const& run) {
    RunWidest<Set::kLanes>(run);
  }

  // The widest vectors of which a row of results holds one.
  template <int kLanes>
  static TALVO_ROWS_INLINE void RunWidest(PlaneRun const& run) {
    if constexpr (kLanes > 1) {
      if (run.columns < kLanes) return RunWidest<(kLanes > 4 ? kLanes / 2 : 1)>(run);
    }
    PlaneTile<kLanes>::RunAll(run);
  }
};

struct TransposeRowsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
                                    float* to, std::size_t to_stride) {
    Transpose<Set::kLanes>(from, from_stride, rows, columns, to, to_stride);
  }
};

struct SplitRowBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* from, std::size_t count, float* even, float* odd) {
    constexpr std::size_t kLanes = Set::kLanes;
    std::size_t i = 0;
    for (; i + 2 * kLanes <= count; i += 2 * kLanes) {
      Vector<kLanes> a, b, low, high;
      Load<kLanes>(from + i, a);
      Load<kLanes>(from + i + kLanes, b);
      Split<kLanes>(a, b, low, high, std::make_integer_sequence<int, kLanes>());
      Store<kLanes>(low, even + i / 2);
      Store<kLanes>(high, odd + i / 2);
    }
    for (; i < count; ++i) (i % 2 == 0 ? even : odd)[i / 2] = from[i];
  }
};

}  // namespace

Primitive<void(TileRun const&)> const RunTiles{RunTilesBody()};
Primitive<void(PlaneRun const&)> const RunPlane{RunPlaneBody()};
Primitive<void(float const*, std::size_t, std::size_t, std::size_t, float*, std::size_t)> const TransposeRows{
    TransposeRowsBody()};
Primitive<void(float const*, std::size_t, float*, float*)> const SplitRow{SplitRowBody()};

}  // namespace talvo::kernel::rows
