// Activations of a row, combinations of two rows, copies and sums. Each result is that of the plain loop over ascending
// i, so that the ranges may overlap in any way. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// y[i] = f(x[i]) with the f of relu_f32 and so on in kernel/functional/activation.h.
extern Primitive<void(float const* x, std::size_t n, float* y)> const ReluRow;
extern Primitive<void(float const* x, std::size_t n, float* y)> const Relu6Row;
extern Primitive<void(float const* x, std::size_t n, float* y)> const HSigmoidRow;
extern Primitive<void(float const* x, std::size_t n, float* y)> const HSwishRow;
extern Primitive<void(float alpha, float const* x, std::size_t n, float* y)> const LeakyRow;
extern Primitive<void(float scale, float offset, float const* x, std::size_t n, float* y)> const LinearRow;
extern Primitive<void(float low, float high, float const* x, std::size_t n, float* y)> const ClipRow;
extern Primitive<void(float const* x, std::size_t n, float* y)> const SqrtRow;

/// a + b, a - b, a * b, a / b, a > b ? a : b and a < b ? a : b, numbered as in BroadcastOperatorInfo.
enum class Operation : unsigned char { kAdd, kSub, kMul, kDiv, kLarger, kSmaller };

/// An operand of a row: x[0], x[1], ..., or x[0] for every element, which is read once.
struct Operand {
  float const* x;
  bool repeats;
};

/// y[i] = a[i] op b[i]. At most one operand repeats.
extern Primitive<void(Operation operation, Operand a, Operand b, std::size_t n, float* y)> const CombineRow;

/// y [rows, n]: row r is x[r * stride] .. x[r * stride + n - 1]. The ranges do not overlap. For rows of up to some
/// kilobytes: it fetches ahead of the gaps between them, and makes no call for each.
extern Primitive<void(float const* x, std::size_t stride, std::size_t n, std::size_t rows, float* y)> const CopyRows;

/// y[r] = 0.0f + x[r * stride] + x[r * stride + 1] + ... + x[r * stride + n - 1], summed in this order, for r < rows.
extern Primitive<void(float const* x, std::size_t stride, std::size_t rows, std::size_t n, float* y)> const SumRows;

}  // namespace talvo::kernel::rows
