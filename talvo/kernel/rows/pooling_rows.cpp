#include "talvo/kernel/rows/pooling_rows.h"

#include <limits>

#include "talvo/kernel/rows/vectors.h"

namespace talvo::kernel::rows {
namespace {

constexpr int kNarrowest = Baseline::kLanes;
static_assert(kNarrowest - 1 == kReadBehindTaps, "what a vector reads of a row of one output");

struct MaximumFold {
  static constexpr float kStart = std::numeric_limits<float>::lowest();
  template <class V>
  static TALVO_ROWS_INLINE void Add(V const& v, V& best) {
    best = v <= best ? best : v;
  }
};

struct SumFold {
  static constexpr float kStart = 0.0f;
  template <class V>
  static TALVO_ROWS_INLINE void Add(V const& v, V& sum) {
    sum += v;
  }
};

struct NoDivision {
  template <int kLanes>
  TALVO_ROWS_INLINE void Divide(std::size_t, Vector<kLanes>&) const {}
  TALVO_ROWS_INLINE void DivideOne(std::size_t, float&) const {}
};

struct Division {
  float const* divisors;
  template <int kLanes>
  TALVO_ROWS_INLINE void Divide(std::size_t at, Vector<kLanes>& v) const {
    Vector<kLanes> divisor;
    Load<kLanes>(divisors + at, divisor);
    v /= divisor;
  }
  TALVO_ROWS_INLINE void DivideOne(std::size_t at, float& v) const { v /= divisors[at]; }
};

// The three taps of one kernel row.
template <int kLanes>
TALVO_ROWS_INLINE void LoadTaps(float const* x, std::size_t const* tap_columns, Vector<kLanes> (&row)[3]) {
  for (int tap = 0; tap < 3; ++tap) Load<kLanes>(x + tap_columns[tap], row[tap]);
}

template <class Fold, class V>
TALVO_ROWS_INLINE void FoldTaps(V const (&row)[3], V const& before, V& fold) {
  V next = before;
  for (int tap = 0; tap < 3; ++tap) Fold::Add(row[tap], next);
  fold = next;
}

// kVectors vectors of outputs from `at`, whose folds run side by side. A vector that would end behind the row moves
// back and computes some outputs again. Outputs and divisors of the row stand from `first` on.
template <class Fold, int kLanes, int kVectors, class Divisor>
TALVO_ROWS_INLINE void FoldVectors(float const* x, TapGrid const& grid, Divisor const& divisor, std::size_t at,
                                   std::size_t first, float* y) {
  Vector<kLanes> folds[kVectors], start = {};
  Splat<kLanes>(Fold::kStart, start);
  std::size_t starts[kVectors];
  for (int k = 0; k < kVectors; ++k) {
    std::size_t const next = at + static_cast<std::size_t>(k * kLanes);
    starts[k] = next + kLanes <= grid.width ? next : grid.width - kLanes;
    folds[k] = start;
  }
  for (std::size_t ky = 0; ky < grid.tap_row_count; ++ky) {
    float const* const row = x + grid.tap_rows[ky];
    for (std::size_t kx = 0; kx < grid.tap_column_count; ++kx) {
      float const* const values = row + grid.tap_columns[kx];
      for (int k = 0; k < kVectors; ++k) {
        Vector<kLanes> v;
        Load<kLanes>(values + starts[k], v);
        Fold::Add(v, folds[k]);
      }
    }
  }
  for (int k = 0; k < kVectors; ++k) {
    divisor.template Divide<kLanes>(first + starts[k], folds[k]);
    Store<kLanes>(folds[k], y + first + starts[k]);
  }
}

template <class Fold, int kLanes, class Divisor>
TALVO_ROWS_INLINE void FoldRow(float const* x, TapGrid const& grid, Divisor const& divisor, std::size_t first,
                               float* y) {
  std::size_t at = 0;
  for (; at + 2 * kLanes < grid.width; at += 4 * kLanes) FoldVectors<Fold, kLanes, 4>(x, grid, divisor, at, first, y);
  if (at < grid.width) FoldVectors<Fold, kLanes, 2>(x, grid, divisor, at, first, y);
}

// Rows of fewer outputs than the narrowest vector has lanes: a vector each, of which the first lanes count.
template <class Fold, class Divisor>
TALVO_ROWS_INLINE void FoldNarrowRows(float const* x, TapGrid const& grid, Divisor const& divisor, float* y) {
  TapGrid vector = grid;
  vector.width = kNarrowest;
  for (std::size_t r = 0; r < grid.rows; ++r) {
    float folds[kNarrowest];
    FoldVectors<Fold, kNarrowest, 1>(x + r * grid.row_step, vector, NoDivision(), 0, 0, folds);
    for (std::size_t i = 0; i < grid.width; ++i) {
      divisor.DivideOne(r * grid.width + i, folds[i]);
      y[r * grid.width + i] = folds[i];
    }
  }
}

// Whether the taps are three rows of three, `pitch` apart.
TALVO_ROWS_INLINE bool Is3x3(TapGrid const& grid, std::size_t pitch) {
  return grid.tap_row_count == 3 && grid.tap_column_count == 3 && grid.tap_rows[0] == 0 && grid.tap_rows[1] == pitch &&
         grid.tap_rows[2] == 2 * pitch;
}

// A column of vectors of a 3x3 window whose output rows are kStride input rows apart. It walks down, so that each input
// row is loaded once for all output rows.
template <class Fold, int kLanes, int kStride, class Divisor>
TALVO_ROWS_INLINE void FoldDown3x3(float const* x, TapGrid const& grid, Divisor const& divisor, std::size_t at,
                                   float* y) {
  using V = Vector<kLanes>;
  V start = {}, row[3], one, two, fold;  // one, two: the folds of output rows that lack two rows, one row
  Splat<kLanes>(Fold::kStart, start);
  std::size_t const pitch = grid.row_step / kStride;
  auto const* input = x + at;
  LoadTaps<kLanes>(input, grid.tap_columns, row);
  FoldTaps<Fold>(row, start, one);
  if (kStride == 1) {
    LoadTaps<kLanes>(input += pitch, grid.tap_columns, row);
    FoldTaps<Fold>(row, one, two);
    FoldTaps<Fold>(row, start, one);
  }
  for (std::size_t r = 0; r < grid.rows; ++r, at += grid.width) {
    if (kStride == 2) {
      LoadTaps<kLanes>(input += pitch, grid.tap_columns, row);
      FoldTaps<Fold>(row, one, two);
    }
    LoadTaps<kLanes>(input += pitch, grid.tap_columns, row);
    FoldTaps<Fold>(row, two, fold);
    if (kStride == 1) FoldTaps<Fold>(row, one, two);
    FoldTaps<Fold>(row, start, one);
    divisor.template Divide<kLanes>(at, fold);
    Store<kLanes>(fold, y + at);
  }
}

template <class Fold, int kLanes, int kStride, class Divisor>
TALVO_ROWS_INLINE void Fold3x3(float const* x, TapGrid const& grid, Divisor const& divisor, float* y) {
  std::size_t const last = grid.width - kLanes;
  for (std::size_t at = 0;; at = at + kLanes < last ? at + kLanes : last) {
    FoldDown3x3<Fold, kLanes, kStride>(x, grid, divisor, at, y);
    if (at == last) break;
  }
}

// Vectors go down to those of which a row of outputs holds one.
template <class Fold, int kLanes, class Divisor>
TALVO_ROWS_INLINE void FoldGrid(float const* x, TapGrid const& grid, Divisor const& divisor, float* y) {
  if (grid.width < kLanes) {
    if constexpr (kLanes > kNarrowest) return FoldGrid<Fold, kLanes / 2>(x, grid, divisor, y);
    return FoldNarrowRows<Fold>(x, grid, divisor, y);
  }
  if (grid.rows > 0) {
    if (Is3x3(grid, grid.row_step)) return Fold3x3<Fold, kLanes, 1>(x, grid, divisor, y);
    if (grid.row_step % 2 == 0 && Is3x3(grid, grid.row_step / 2)) {
      return Fold3x3<Fold, kLanes, 2>(x, grid, divisor, y);
    }
  }
  for (std::size_t r = 0; r < grid.rows; ++r) {
    FoldRow<Fold, kLanes>(x + r * grid.row_step, grid, divisor, r * grid.width, y);
  }
}

struct MaximumBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* x, TapGrid const& grid, float* y) {
    FoldGrid<MaximumFold, Set::kLanes>(x, grid, NoDivision(), y);
  }
};

struct MeanBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* x, TapGrid const& grid, float const* divisors, float* y) {
    FoldGrid<SumFold, Set::kLanes>(x, grid, Division{divisors}, y);
  }
};

struct MeanOfRegionBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* mixed, MeanRegion const& region, std::size_t out_plane, float* y) {
    constexpr int kLanes = Set::kLanes, kVectors = static_cast<int>(kChannelsTogether) / kLanes;
    Vector<kLanes> sums[kVectors] = {}, rows, columns;
    for (std::size_t r = region.row_begin; r < region.row_end; ++r) {
      float const* row = mixed + r * region.width * kChannelsTogether;
      for (std::size_t q = region.column_begin; q < region.column_end; ++q) {
        for (int k = 0; k < kVectors; ++k) {
          Vector<kLanes> v;
          Load<kLanes>(row + q * kChannelsTogether + k * kLanes, v);
          sums[k] += v;
        }
      }
    }
    Splat<kLanes>(static_cast<float>(region.row_end - region.row_begin), rows);
    Splat<kLanes>(static_cast<float>(region.column_end - region.column_begin), columns);
    for (int k = 0; k < kVectors; ++k) {
      sums[k] = (sums[k] / rows) / columns;
      for (int lane = 0; lane < kLanes; ++lane)
        y[static_cast<std::size_t>(k * kLanes + lane) * out_plane] = sums[k][lane];
    }
  }
};

}  // namespace

// AVX-512 halves the time of a maximum, which it selects by masks; means gain here what they lose there.
Primitive<void(float const*, TapGrid const&, float*)> const MaximumOfTaps{MaximumBody()};
Primitive<void(float const*, TapGrid const&, float const*, float*)> const MeanOfTaps{MeanBody(), Avx2()};
Primitive<void(float const*, MeanRegion const&, std::size_t, float*)> const MeanOfRegion{MeanOfRegionBody(), Avx2()};

}  // namespace talvo::kernel::rows
