// Matrix products whose sums keep their order: outputs lie side by side in the lanes of a vector. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// y[o] = bias[o], then y[o] += weight[o, i] * x[i] for i = 0, 1, ... in this order; a null bias counts as 0.0f.
/// weight [outputs, inputs], row-major, turned in registers on the way. y overlaps none of the others.
extern Primitive<void(float const* weight, float const* x, float const* bias, std::size_t outputs, std::size_t inputs,
                      float* y)> const MatrixVector;

/// Outputs in a block of packed weights. The last block is cut to the outputs left, rounded up to kMaxLanes.
constexpr std::size_t kPackedBlock = 64;

/// The outputs for which PackWeights writes weights: `outputs` rounded up to kMaxLanes.
constexpr std::size_t PackedOutputs(std::size_t outputs) { return (outputs + kMaxLanes - 1) / kMaxLanes * kMaxLanes; }

/// Orders weight [outputs, inputs], of 1 input or more, by block, input, output within the block. packed
/// [PackedOutputs(outputs) * inputs]; what is beyond `outputs` is 0.
extern Primitive<void(float const* weight, std::size_t outputs, std::size_t inputs, float* packed)> const PackWeights;

/// MatrixVector for each row of x [rows, inputs], on packed weights; y [rows, outputs] has the same bits.
extern Primitive<void(float const* packed, float const* x, float const* bias, std::size_t rows, std::size_t outputs,
                      std::size_t inputs, float* y)> const PackedProduct;

}  // namespace talvo::kernel::rows
