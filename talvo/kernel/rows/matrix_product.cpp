#include "talvo/kernel/rows/matrix_product.h"

#include <algorithm>

#include "talvo/kernel/rows/vectors.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::rows {
namespace {

// acc += the products of kLanes columns with x, in the order of the columns. The products are turned, not the weights:
// x then enters as one vector.
template <int kLanes>
TALVO_ROWS_INLINE void AddSquare(float const* weight, std::size_t stride, float const* x, Vector<kLanes>& acc) {
  Vector<kLanes> products[kLanes], xs;
  Load<kLanes>(x, xs);
  TALVO_ROWS_UNROLL
  for (std::size_t r = 0; r < kLanes; ++r) {
    Load<kLanes>(weight + r * stride, products[r]);
    products[r] *= xs;
  }
  TransposeSquare<kLanes>(products);
  TALVO_ROWS_UNROLL
  for (std::size_t i = 0; i < kLanes; ++i) acc += products[i];
}

// Outputs 0 .. kLanes.
template <int kLanes>
TALVO_ROWS_INLINE void SumRows(float const* weight, float const* x, float const* bias, std::size_t inputs, float* y) {
  Vector<kLanes> acc = {};
  if (bias != nullptr) Load<kLanes>(bias, acc);
  std::size_t i = 0;
  for (; i + kLanes <= inputs; i += kLanes) AddSquare<kLanes>(weight + i, inputs, x + i, acc);
  for (; i < inputs; ++i) {
    Vector<kLanes> column;
    for (std::size_t r = 0; r < kLanes; ++r) column[r] = weight[r * inputs + i];
    acc += column * x[i];
  }
  Store<kLanes>(acc, y);
}

TALVO_ROWS_INLINE void SumRowsPlain(float const* weight, float const* x, float const* bias, std::size_t outputs,
                                    std::size_t inputs, float* y) {
  for (std::size_t o = 0; o < outputs; ++o) {
    float sum = bias != nullptr ? bias[o] : 0.0f;
    for (std::size_t i = 0; i < inputs; ++i) sum += weight[o * inputs + i] * x[i];
    y[o] = sum;
  }
}

// The last group of rows reaches back into the one before, so that it is whole.
template <int kLanes>
TALVO_ROWS_INLINE void SumAllRows(float const* weight, float const* x, float const* bias, std::size_t outputs,
                                  std::size_t inputs, float* y) {
  if (outputs >= kLanes) {
    for (std::size_t next = 0; next < outputs; next += kLanes) {
      std::size_t const o = std::min<std::size_t>(next, outputs - kLanes);
      SumRows<kLanes>(weight + o * inputs, x, bias != nullptr ? bias + o : nullptr, inputs, y + o);
    }
  } else if constexpr (kLanes > Baseline::kLanes) {
    SumAllRows<kLanes / 2>(weight, x, bias, outputs, inputs, y);
  } else {
    SumRowsPlain(weight, x, bias, outputs, inputs, y);
  }
}

struct MatrixVectorBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* weight, float const* x, float const* bias, std::size_t outputs,
                                    std::size_t inputs, float* y) {
    SumAllRows<Set::kLanes>(weight, x, bias, outputs, inputs, y);
  }
};

struct PackWeightsBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* weight, std::size_t outputs, std::size_t inputs, float* packed) {
    for (std::size_t o = 0; o < outputs; o += kPackedBlock) {
      std::size_t const rows = std::min(kPackedBlock, outputs - o), width = PackedOutputs(rows);
      if (width != rows) std::fill_n(packed, width * inputs, 0.0f);
      Transpose<Set::kLanes>(weight + o * inputs, inputs, rows, inputs, packed, width);
      packed += width * inputs;
    }
  }
};

// A tile: kRows rows of x by kVectors vectors of outputs, all sums in registers. `width` is the pitch of `weight`.
template <int kLanes, int kRows, int kVectors>
TALVO_ROWS_INLINE void Tile(float const* TALVO_RESTRICT weight, std::size_t width, float const* TALVO_RESTRICT x,
                            float const* TALVO_RESTRICT bias, std::size_t inputs, float* TALVO_RESTRICT y,
                            std::size_t y_stride) {
  Vector<kLanes> acc[kRows][kVectors];
  TALVO_ROWS_UNROLL
  for (int v = 0; v < kVectors; ++v) {
    TALVO_ROWS_UNROLL
    for (int r = 0; r < kRows; ++r) Load<kLanes>(bias + v * kLanes, acc[r][v]);
  }
  for (std::size_t i = 0; i < inputs; ++i, weight += width) {
    Vector<kLanes> w[kVectors];
    TALVO_ROWS_UNROLL
    for (int v = 0; v < kVectors; ++v) Load<kLanes>(weight + v * kLanes, w[v]);
    TALVO_ROWS_UNROLL
    for (std::size_t r = 0; r < kRows; ++r) {
      float const xs = x[r * inputs + i];
      TALVO_ROWS_UNROLL
      for (int v = 0; v < kVectors; ++v) acc[r][v] += w[v] * xs;
    }
  }
  TALVO_ROWS_UNROLL
  for (std::size_t r = 0; r < kRows; ++r) {
    TALVO_ROWS_UNROLL
    for (int v = 0; v < kVectors; ++v) Store<kLanes>(acc[r][v], y + r * y_stride + v * kLanes);
  }
}

// All rows by kVectors vectors of outputs.
template <class Set, int kVectors>
TALVO_ROWS_INLINE void Column(float const* weight, std::size_t width, float const* x, float const* bias,
                              std::size_t rows, std::size_t inputs, float* y, std::size_t y_stride) {
  constexpr std::size_t kRows = Set::kRegisters / 8;
  std::size_t r = 0;
  for (; r + kRows <= rows; r += kRows) {
    Tile<Set::kLanes, kRows, kVectors>(weight, width, x + r * inputs, bias, inputs, y + r * y_stride, y_stride);
  }
  for (; r < rows; ++r) {
    Tile<Set::kLanes, 1, kVectors>(weight, width, x + r * inputs, bias, inputs, y + r * y_stride, y_stride);
  }
}

// All rows by the last `count` outputs, fewer than fill a vector.
template <class Set>
TALVO_ROWS_INLINE void LastColumn(float const* weight, std::size_t width, float const* x, float const* bias,
                                  std::size_t count, std::size_t rows, std::size_t inputs, float* y,
                                  std::size_t y_stride) {
  float start[Set::kLanes] = {}, sums[Set::kLanes];
  std::copy_n(bias, count, start);
  for (std::size_t r = 0; r < rows; ++r) {
    Tile<Set::kLanes, 1, 1>(weight, width, x + r * inputs, start, inputs, sums, Set::kLanes);
    std::copy_n(sums, count, y + r * y_stride);
  }
}

struct PackedProductBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* packed, float const* x, float const* bias, std::size_t rows,
                                    std::size_t outputs, std::size_t inputs, float* y) {
    constexpr std::size_t kLanes = Set::kLanes, kWide = 4 * kLanes;
    float const zeros[kPackedBlock] = {};
    for (std::size_t o = 0; o < outputs; o += kPackedBlock) {
      std::size_t const count = std::min(kPackedBlock, outputs - o), width = PackedOutputs(count);
      float const* const start = bias != nullptr ? bias + o : zeros;
      std::size_t j = 0;
      for (; j + kWide <= count; j += kWide) {
        Column<Set, 4>(packed + j, width, x, start + j, rows, inputs, y + o + j, outputs);
      }
      for (; j + kLanes <= count; j += kLanes) {
        Column<Set, 1>(packed + j, width, x, start + j, rows, inputs, y + o + j, outputs);
      }
      if (j < count) LastColumn<Set>(packed + j, width, x, start + j, count - j, rows, inputs, y + o + j, outputs);
      packed += width * inputs;
    }
  }
};

}  // namespace

Primitive<void(float const*, float const*, float const*, std::size_t, std::size_t, float*)> const MatrixVector{
    MatrixVectorBody()};
Primitive<void(float const*, std::size_t, std::size_t, float*)> const PackWeights{PackWeightsBody()};
Primitive<void(float const*, float const*, float const*, std::size_t, std::size_t, std::size_t, float*)> const
    PackedProduct{PackedProductBody()};

}  // namespace talvo::kernel::rows
