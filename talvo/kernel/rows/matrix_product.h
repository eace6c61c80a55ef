// Matrix products whose sums keep their order: outputs lie side by side in the lanes of a vector. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/fused_product.h"
#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// y[o] = bias[o], then y[o] += weight[o, i] * x[i] for i = 0, 1, ... in this order; a null bias counts as 0.0f.
/// weight [outputs, inputs], row-major, turned in registers on the way. y overlaps none of the others.
extern Primitive<void(float const* weight, float const* x, float const* bias, std::size_t outputs, std::size_t inputs,
                      float* y)> const MatrixVector;

/// y[r, o] = bias[o], then a step of weight (o, i), packed by PackFused, and x[r, i] for i = 0, 1, ...; a null bias
/// counts as 0.0f. x [rows, inputs]; y [rows, outputs], a row every `y_stride` floats, overlaps none of the others.
/// `backwards` takes the blocks of weights from the last to the first: a caller who does so in every other call finds
/// in the cache what it read last.
struct PackedProductRun {
  float const* packed;
  float const* x;
  float const* bias;
  std::size_t rows, outputs, inputs;
  float* y;
  std::size_t y_stride;
  bool backwards;
};

/// By steps y += weight * x, which round twice: the bits of MatrixVector.
extern Primitive<void(PackedProductRun const&)> const PackedProduct;

/// By fused steps (see fused_step.h).
extern Primitive<void(PackedProductRun const&)> const FusedProduct;

}  // namespace talvo::kernel::rows
