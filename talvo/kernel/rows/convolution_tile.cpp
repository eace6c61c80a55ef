#include "talvo/kernel/rows/convolution_tile.h"

#include <algorithm>
#include <type_traits>

#include "talvo/kernel/rows/fused_step.h"

namespace talvo::kernel::rows {
namespace {

// kColumns positions by kVectors vectors: the results and the sums of the current channel stay in registers. With
// kOwnInput an input element is a vector.
template <int kLanes, int kVectors, int kColumns, bool kOwnInput>
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
      std::conditional_t<kOwnInput, V, float> x;
      if constexpr (kOwnInput) {
        Load<kLanes>(columns[j] + input, x);
      } else {
        x = columns[j][input];
      }
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
    if (run.input_step != 1) {
      RunPositions<kLanes, 1, 2 * kColumns, true, kAssociation>(run);
    } else if (run.lanes == kLanes) {
      RunPositions<kLanes, 1, 2 * kColumns, false, kAssociation>(run);
    } else {
      RunPositions<kLanes, 2, kColumns, false, kAssociation>(run);
    }
  }

  // A whole tile for one or two positions would mostly repeat them.
  template <int kLanes, int kVectors, int kColumns, bool kOwnInput, Association kAssociation>
  static TALVO_ROWS_INLINE void RunPositions(TileRun const& run) {
    if (run.positions <= 2) {
      Tile<kLanes, kVectors, 2, kOwnInput>::template RunAll<kAssociation>(run);
    } else {
      Tile<kLanes, kVectors, kColumns, kOwnInput>::template RunAll<kAssociation>(run);
    }
  }
};

// How a product reaches the sum of a plane: multiplied and then added, or by a fused step.
struct TwoRoundings {
  static constexpr bool kFused = false;
  static constexpr bool kIsInstructions = true;
  static constexpr std::size_t kRows = 4;  // of results at a time: they and their sums stay in registers

  static TALVO_ROWS_INLINE float Start(float start) { return start + 0.0f; }  // no -0.0f: a sum begins at a product
};
template <class Set>
struct OneRounding {
  static constexpr bool kFused = true;
  static constexpr bool kIsInstructions = Set::kFuses;
  static constexpr std::size_t kRows = Set::kFuses ? 7 : 1;  // chains that hide the latency of their steps

  static TALVO_ROWS_INLINE float Start(float start) { return start; }

  template <int kLanes>
  static TALVO_ROWS_INLINE void Add(Vector<kLanes> const& x, Vector<kLanes> const& weight, Vector<kLanes>& sum) {
    FusedStep<Set, kLanes>(x, weight, sum);
  }
};

// kLanes columns of some rows. Any kernel: rows behind the last one repeat it.
template <int kLanes, class Step>
struct AnyPlane {
  using V = Vector<kLanes>;
  static constexpr std::size_t kRows = Step::kRows;

  template <bool kFirst>
  static TALVO_ROWS_INLINE void AddTap(float weight, float const* const (&rows)[kRows], std::size_t input,
                                       V (&sums)[kRows]) {
    [[maybe_unused]] V spread;
    if constexpr (Step::kFused) Splat<kLanes>(weight, spread);
    TALVO_ROWS_UNROLL
    for (std::size_t r = 0; r < kRows; ++r) {
      V x;
      Load<kLanes>(rows[r] + input, x);
      if constexpr (Step::kFused) {
        Step::template Add<kLanes>(x, spread, sums[r]);
      } else {
        V const product = x * weight;
        sums[r] = kFirst ? product : sums[r] + product;
      }
    }
  }

  static TALVO_ROWS_INLINE void AddChannelSum(PlaneRun const& run, float const* weights,
                                              float const* const (&rows)[kRows], std::size_t input,
                                              V (&results)[kRows]) {
    V sums[kRows];
    if constexpr (Step::kFused) std::copy_n(results, kRows, sums);
    AddTap<true>(*weights++, rows, input + run.taps[0], sums);
    for (std::size_t ky = 0, kx = 1; ky < run.kernel_rows; ++ky, kx = 0, input += run.kernel_row) {
      for (; kx < run.kernel_columns; ++kx) AddTap<false>(*weights++, rows, input + run.taps[kx], sums);
    }
    TALVO_ROWS_UNROLL
    for (std::size_t r = 0; r < kRows; ++r) results[r] = Step::kFused ? sums[r] : results[r] + sums[r];
  }

  static TALVO_ROWS_INLINE void RunBlock(PlaneRun const& run, std::size_t y, std::size_t x) {
    float const* rows[kRows];
    V start, results[kRows];
    Splat<kLanes>(Step::Start(run.start), start);
    TALVO_ROWS_UNROLL
    for (std::size_t r = 0; r < kRows; ++r) {
      rows[r] = run.input + std::min(y + r, run.rows - 1) * run.input_row + x;
      results[r] = start;
    }
    std::size_t const taps = run.kernel_rows * run.kernel_columns;
    for (std::size_t c = 0; c < run.channels; ++c) {
      AddChannelSum(run, run.weights + c * taps, rows, c * run.input_plane, results);
    }
    TALVO_ROWS_UNROLL
    for (std::size_t r = 0; r < kRows; ++r) {
      Store<kLanes>(results[r], run.results + std::min(y + r, run.rows - 1) * run.columns + x);
    }
  }

  static TALVO_ROWS_INLINE void RunBlocks(PlaneRun const& run, std::size_t x) {
    for (std::size_t y = 0; y < run.rows; y += kRows) RunBlock(run, y, x);
  }
};

// The same for a 3x3 kernel without dilation whose output rows are kStride input rows apart. It walks down a column of
// vectors, so that each input row is loaded once for all output rows, and the weights stay in registers.
template <int kLanes, class Step, int kStride>
struct Plane3x3 {
  using V = Vector<kLanes>;
  // Fused, they are vectors from the start: g++ would spread them for each step.
  using Weight = std::conditional_t<Step::kFused, V, float>;
  struct Row {
    V x[3];
  };

  static TALVO_ROWS_INLINE void LoadRow(PlaneRun const& run, float const* input, Row& row) {
    Load<kLanes>(input, row.x[0]);
    Load<kLanes>(input + run.taps[1], row.x[1]);
    Load<kLanes>(input + run.taps[2], row.x[2]);
  }

  static TALVO_ROWS_INLINE void LoadWeights(float const* from, Weight (&weights)[9]) {
    if constexpr (Step::kFused) {
      TALVO_ROWS_UNROLL
      for (std::size_t k = 0; k < 9; ++k) Splat<kLanes>(from[k], weights[k]);
    } else {
      std::copy_n(from, 9, weights);
    }
  }

  // sum = before + the products of kernel row ky; for the first one without `before`, or from `start` on.
  static TALVO_ROWS_INLINE void Begin(V const& start, Row const& row, Weight const (&weights)[9], V& sum) {
    if constexpr (Step::kFused) {
      Continue(start, row, weights, 0, sum);
    } else {
      sum = row.x[0] * weights[0] + row.x[1] * weights[1] + row.x[2] * weights[2];
    }
  }
  static TALVO_ROWS_INLINE void Continue(V const& before, Row const& row, Weight const (&weights)[9], int ky, V& sum) {
    if constexpr (Step::kFused) {
      sum = before;
      TALVO_ROWS_UNROLL
      for (int kx = 0; kx < 3; ++kx) Step::template Add<kLanes>(row.x[kx], weights[3 * ky + kx], sum);
    } else {
      sum = before + row.x[0] * weights[3 * ky] + row.x[1] * weights[3 * ky + 1] + row.x[2] * weights[3 * ky + 2];
    }
  }

  static TALVO_ROWS_INLINE void RunChannel(PlaneRun const& run, std::size_t c, std::size_t x) {
    V start, one, two, sum;  // one, two: the sums of output rows that lack the last two, the last kernel row
    Weight weights[9];
    LoadWeights(run.weights + 9 * c, weights);
    Splat<kLanes>(Step::Start(run.start), start);
    float const* input = run.input + c * run.input_plane + x;
    float* to = run.results + x;
    Row row;
    LoadRow(run, input, row);
    Begin(start, row, weights, one);
    LoadRow(run, input += run.kernel_row, row);
    if (kStride == 1) {
      Continue(one, row, weights, 1, two);
      Begin(start, row, weights, one);
      LoadRow(run, input += run.kernel_row, row);
    }
    for (std::size_t y = 0; y < run.rows; ++y, to += run.columns) {
      if (kStride == 2) {
        Continue(one, row, weights, 1, two);
        LoadRow(run, input += run.kernel_row, row);
      }
      Continue(two, row, weights, 2, sum);
      if (kStride == 1) Continue(one, row, weights, 1, two);
      Begin(start, row, weights, one);
      V before = start;
      if (c > 0) Load<kLanes>(to, before);
      // The next row before the store: g++ would load it anew for each use if it came after.
      LoadRow(run, input += y + 1 < run.rows ? run.kernel_row : 0, row);
      Store<kLanes>(Step::kFused ? sum : before + sum, to);
    }
  }

  static TALVO_ROWS_INLINE void RunBlocks(PlaneRun const& run, std::size_t x) {
    for (std::size_t c = 0; c < run.channels; ++c) RunChannel(run, c, x);
  }
};

template <bool kFused>
struct RunPlaneBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(PlaneRun const& run) {
    RunWidest<Set::kLanes, std::conditional_t<kFused, OneRounding<Set>, TwoRoundings>>(run);
  }

  // The widest vectors of which a row of results holds one.
  template <int kLanes, class Step>
  static TALVO_ROWS_INLINE void RunWidest(PlaneRun const& run) {
    if constexpr (kLanes == Avx512::kLanes) {
      if (run.columns < kLanes) return (kFused ? RunFusedPlane : RunPlane).RunAsAvx2(run);
    } else if constexpr (kLanes > 1) {
      if (run.columns < kLanes) return RunWidest<(kLanes > 4 ? kLanes / 2 : 1), Step>(run);
    }
    if constexpr (kLanes > 1 && Step::kIsInstructions) {  // beside steps in software nothing else takes time
      bool const is_3x3 = run.kernel_rows == 3 && run.kernel_columns == 3;
      if (is_3x3 && run.input_row == run.kernel_row) return RunColumns<kLanes, Plane3x3<kLanes, Step, 1>>(run);
      if (is_3x3 && run.input_row == 2 * run.kernel_row) return RunColumns<kLanes, Plane3x3<kLanes, Step, 2>>(run);
    }
    RunColumns<kLanes, AnyPlane<kLanes, Step>>(run);
  }

  // The last columns overlap those before them.
  template <int kLanes, class Plane>
  static TALVO_ROWS_INLINE void RunColumns(PlaneRun const& run) {
    std::size_t const last = run.columns - kLanes;
    for (std::size_t x = 0;; x = std::min(x + kLanes, last)) {
      Plane::RunBlocks(run, x);
      if (x == last) break;
    }
  }
};

}  // namespace

Primitive<void(TileRun const&)> const RunTiles{RunTilesBody()};
Primitive<void(PlaneRun const&)> const RunPlane{RunPlaneBody<false>()};
Primitive<void(PlaneRun const&)> const RunFusedPlane{RunPlaneBody<true>()};

}  // namespace talvo::kernel::rows
