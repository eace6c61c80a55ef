#include "talvo/kernel/rows/matrix_product.h"

#include <algorithm>

#include "talvo/kernel/rows/fused_step.h"

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
  if constexpr (kLanes == Avx512::kLanes) {
    if (outputs < kLanes) return MatrixVector.RunAsAvx2(weight, x, bias, outputs, inputs, y);
  }
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

struct TwoRoundings {
  template <class Set>
  static constexpr bool kIsInstructions = true;
  template <class Set>
  static constexpr int kMostRows = Set::kRegisters / 8;  // products need registers too

  template <class Set, int kVectors>
  static TALVO_ROWS_INLINE void Add(Vector<Set::kLanes> const (&weight)[kVectors], float x,
                                    Vector<Set::kLanes> (&sums)[kVectors]) {
    TALVO_ROWS_UNROLL
    for (int v = 0; v < kVectors; ++v) sums[v] += weight[v] * x;
  }
};

struct OneRounding {
  template <class Set>
  static constexpr bool kIsInstructions = Set::kFuses;
  template <class Set>
  static constexpr int kMostRows = Set::kRegisters == 32 ? 6 : 3;

  template <class Set, int kVectors>
  static TALVO_ROWS_INLINE void Add(Vector<Set::kLanes> const (&weight)[kVectors], float x,
                                    Vector<Set::kLanes> (&sums)[kVectors]) {
    Vector<Set::kLanes> xs;
    Splat<Set::kLanes>(x, xs);
    TALVO_ROWS_UNROLL
    for (int v = 0; v < kVectors; ++v) FusedStep<Set, Set::kLanes>(weight[v], xs, sums[v]);
  }
};

// Lanes of one block, all rows.
struct Lanes {
  float const* weights;  // the first input's
  std::size_t width;     // from one input to the next
  float const* bias;
  float* y;

  TALVO_ROWS_INLINE Lanes From(std::size_t lane) const { return {weights + lane, width, bias + lane, y + lane}; }
};

// kRows rows of x, from `row` on, by kVectors vectors of outputs: all sums stay in registers.
template <class Step, class Set, int kVectors, int kRows>
TALVO_ROWS_INLINE void RunTile(PackedProductRun const& run, Lanes const& lanes, std::size_t row) {
  constexpr std::size_t kLanes = Set::kLanes;
  Vector<Set::kLanes> sums[kRows][kVectors];
  TALVO_ROWS_UNROLL
  for (std::size_t v = 0; v < kVectors; ++v) {
    TALVO_ROWS_UNROLL
    for (int r = 0; r < kRows; ++r) Load<kLanes>(lanes.bias + v * kLanes, sums[r][v]);
  }
  std::size_t const inputs = run.inputs, width = lanes.width;
  float const *const x = run.x + row * inputs, *weights = lanes.weights;
  for (std::size_t i = 0; i < inputs; ++i, weights += width) {
    Vector<Set::kLanes> weight[kVectors];
    TALVO_ROWS_UNROLL
    for (std::size_t v = 0; v < kVectors; ++v) Load<kLanes>(weights + v * kLanes, weight[v]);
    TALVO_ROWS_UNROLL
    for (std::size_t r = 0; r < kRows; ++r) Step::template Add<Set>(weight, x[r * inputs + i], sums[r]);
  }
  TALVO_ROWS_UNROLL
  for (std::size_t r = 0; r < kRows; ++r) {
    float* const y = lanes.y + (row + r) * run.y_stride;
    TALVO_ROWS_UNROLL
    for (std::size_t v = 0; v < kVectors; ++v) Store<kLanes>(sums[r][v], y + v * kLanes);
  }
}

// All rows, in tiles of kRows and of one fewer where they come out even, the rest one by one.
template <class Step, class Set, int kVectors, int kRows>
TALVO_ROWS_INLINE void RunRows(PackedProductRun const& run, Lanes const& lanes) {
  std::size_t const count = run.rows;
  std::size_t row = 0;
  if constexpr (kRows > 1) {
    std::size_t const tiles = (count + kRows - 1) / kRows, shorter = tiles * kRows - count;
    std::size_t const whole = shorter <= tiles ? tiles - shorter : count / kRows;
    for (std::size_t t = 0; t < whole; ++t, row += kRows) RunTile<Step, Set, kVectors, kRows>(run, lanes, row);
    for (; row + kRows - 1 <= count; row += kRows - 1) RunTile<Step, Set, kVectors, kRows - 1>(run, lanes, row);
  }
  for (; row < count; ++row) RunTile<Step, Set, kVectors, 1>(run, lanes, row);
}

// The last `count` lanes, fewer than a vector has.
template <class Step, class Set>
TALVO_ROWS_INLINE void RunSome(PackedProductRun const& run, Lanes const& lanes, std::size_t count) {
  float bias[Set::kLanes] = {}, sums[Set::kLanes];
  std::copy_n(lanes.bias, count, bias);
  PackedProductRun one = run;
  one.rows = 1;
  for (std::size_t r = 0; r < run.rows; ++r, one.x += run.inputs) {
    RunTile<Step, Set, 1, 1>(one, {lanes.weights, lanes.width, bias, sums}, 0);
    std::copy_n(sums, count, lanes.y + r * run.y_stride);
  }
}

template <class Step, class Set>
TALVO_ROWS_INLINE void RunBlock(PackedProductRun const& run, Lanes const& block) {
  constexpr std::size_t kLanes = Set::kLanes;
  std::size_t lane = 0;
  if constexpr (Step::template kIsInstructions<Set>) {  // a step in software needs all registers for itself
    constexpr int kRows = Step::template kMostRows<Set>;
    if constexpr (8 * kLanes <= kFusedBlock) {  // one row alone waits for its chains
      for (; run.rows == 1 && lane + 8 * kLanes <= block.width; lane += 8 * kLanes) {
        RunTile<Step, Set, 8, 1>(run, block.From(lane), 0);
      }
    }
    for (; lane + 4 * kLanes <= block.width; lane += 4 * kLanes) RunRows<Step, Set, 4, kRows>(run, block.From(lane));
    for (; lane + 2 * kLanes <= block.width; lane += 2 * kLanes) {
      RunRows<Step, Set, 2, kRows>(run, block.From(lane));
    }
  }
  for (; lane + kLanes <= block.width; lane += kLanes) RunRows<Step, Set, 1, 1>(run, block.From(lane));
  if (lane < block.width) RunSome<Step, Set>(run, block.From(lane), block.width - lane);
}

template <class Step>
struct PackedProductBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(PackedProductRun const& run) {
    float const zeros[kFusedBlock] = {};
    std::size_t const blocks = (run.outputs + kFusedBlock - 1) / kFusedBlock;
    for (std::size_t k = 0; k < blocks; ++k) {
      std::size_t const first = kFusedBlock * (run.backwards ? blocks - 1 - k : k);
      RunBlock<Step, Set>(run, {run.packed + first * run.inputs, std::min(kFusedBlock, run.outputs - first),
                                run.bias != nullptr ? run.bias + first : zeros, run.y + first});
    }
  }
};

}  // namespace

Primitive<void(float const*, float const*, float const*, std::size_t, std::size_t, float*)> const MatrixVector{
    MatrixVectorBody()};
Primitive<void(PackedProductRun const&)> const PackedProduct{PackedProductBody<TwoRoundings>()};
Primitive<void(PackedProductRun const&)> const FusedProduct{PackedProductBody<OneRounding>()};

}  // namespace talvo::kernel::rows
