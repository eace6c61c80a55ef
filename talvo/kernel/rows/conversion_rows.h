// Rows of elements from one type to another: floats, halves and fixed point. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

// y[i] is made from x[i] for i < n; the rows do not overlap.

/// The bits of half_float::half(x[i]): the mantissa is cut.
extern Primitive<void(float const* x, std::size_t n, std::uint16_t* y)> const FloatToHalfRow;

/// The value of the half with the bits x[i], exactly.
extern Primitive<void(std::uint16_t const* x, std::size_t n, float* y)> const HalfToFloatRow;

/// x[i] * scale, rounded to the nearest integer, halves away from zero, held in low .. high, whole numbers in the range
/// of y; 0 for NaN. The bounds are arguments because g++ makes branches of bounds that it knows, at twice the time.
extern Primitive<void(float const* x, float scale, float low, float high, std::size_t n, std::int16_t* y)> const
    QuantiseInt16Row;
extern Primitive<void(float const* x, float scale, float low, float high, std::size_t n, std::int8_t* y)> const
    QuantiseInt8Row;

/// x[i] * scale.
extern Primitive<void(std::int16_t const* x, float scale, std::size_t n, float* y)> const DequantiseInt16Row;
extern Primitive<void(std::int8_t const* x, float scale, std::size_t n, float* y)> const DequantiseInt8Row;

}  // namespace talvo::kernel::rows
